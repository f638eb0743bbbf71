#include "e2e/HeadlessProgram.h"

#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace ts::test {

HeadlessProgram::HeadlessProgram(const QJsonObject& settings, const QStringList& extraArguments)
    : home_(QString::fromStdString(makeTempDir("tessarine-e2e"))), arguments_(extraArguments) {
    QDir().mkpath(configDir());
    QFile file(configDir() + "/Tessarine.json");
    if (file.open(QIODevice::WriteOnly))
        file.write(QJsonDocument(settings).toJson());
}

HeadlessProgram::~HeadlessProgram() {
    if (isRunning()) {
        process_->kill();
        process_->waitForFinished(2000);
    }
}

bool HeadlessProgram::start() {
    process_ = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home_ + "/config");
    env.insert("XDG_STATE_HOME", home_ + "/state");
    env.remove("DISPLAY");
    env.remove("WAYLAND_DISPLAY");
    process_->setProcessEnvironment(env);
    process_->setProgram(TESSARINE_BINARY);
    process_->setArguments(QStringList{"--headless"} + arguments_);
    process_->start();
    return process_->waitForStarted(5000);
}

bool HeadlessProgram::isRunning() const {
    return process_ && process_->state() != QProcess::NotRunning;
}

QStringList HeadlessProgram::outputLines() {
    if (process_) {
        pending_ += QString::fromUtf8(process_->readAllStandardOutput());
        qsizetype newline;
        while ((newline = pending_.indexOf('\n')) >= 0) {
            lines_ << pending_.left(newline);
            pending_.remove(0, newline + 1);
        }
    }
    return lines_;
}

bool HeadlessProgram::waitForOutput(const QString& fragment, std::chrono::milliseconds timeout) {
    return spinUntil(
        [&] {
            for (const QString& line : outputLines())
                if (line.contains(fragment))
                    return true;
            return false;
        },
        timeout);
}

QString HeadlessProgram::logText() const {
    QFile file(home_ + "/state/Tessarine/Tessarine.log");
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool HeadlessProgram::waitForLog(const QString& fragment, std::chrono::milliseconds timeout) {
    return spinUntil([&] { return logText().contains(fragment); }, timeout);
}

int HeadlessProgram::terminate(std::chrono::milliseconds timeout) {
    if (!isRunning())
        return process_ ? process_->exitCode() : -1;
    process_->terminate();
    if (!spinUntil([&] { return !isRunning(); }, timeout))
        return -1;
    outputLines();
    return process_->exitStatus() == QProcess::NormalExit ? process_->exitCode() : -1;
}

QJsonObject HeadlessProgram::storedSettings() const {
    QFile file(configDir() + "/Tessarine.json");
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

QJsonObject HeadlessProgram::plug(const QJsonObject& in, const QJsonObject& out, bool enabled) {
    return QJsonObject{{"$class", "TSPlug"}, {"enabled", enabled}, {"signalIn", in}, {"signalOut", out}};
}

QJsonObject HeadlessProgram::signal(const char* className, const char* min, const char* max,
                                    const QJsonObject& members) {
    QJsonObject s = members;
    s.insert("$class", className);
    s.insert("minValue", min);
    s.insert("maxValue", max);
    return s;
}

QJsonObject HeadlessProgram::archive(const QList<QJsonObject>& plugs) {
    QJsonArray root;
    for (const QJsonObject& p : plugs)
        root.append(p);
    return QJsonObject{{"$archiver", "TessarineKeyedArchive"}, {"$version", 1}, {"root", root}};
}

} // namespace ts::test
