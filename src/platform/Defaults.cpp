#include "platform/Defaults.h"

#include "platform/Log.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>

namespace ts {
namespace {

bool readJson(QIODevice& device, QSettings::SettingsMap& map) {
    const QByteArray bytes = device.readAll();
    if (bytes.trimmed().isEmpty())
        return true;
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject())
        return false;
    const QJsonObject object = doc.object();
    for (auto it = object.begin(); it != object.end(); ++it)
        map.insert(it.key(), it.value().toVariant());
    return true;
}

bool writeJson(QIODevice& device, const QSettings::SettingsMap& map) {
    QJsonObject object;
    for (auto it = map.begin(); it != map.end(); ++it)
        object.insert(it.key(), QJsonValue::fromVariant(it.value()));
    return device.write(QJsonDocument(object).toJson(QJsonDocument::Indented)) >= 0;
}

QSettings::Format jsonFormat() {
    static const QSettings::Format format = QSettings::registerFormat("json", readJson, writeJson);
    return format;
}

// Renames an unreadable settings file aside, so the program can start with
// defaults without destroying what the user had.
void keepDamagedFileAside(const QString& path) {
    QFile file(path);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    file.close();
    if (bytes.trimmed().isEmpty())
        return;
    QJsonParseError error{};
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error == QJsonParseError::NoError && doc.isObject())
        return;
    const QString aside =
        path + ".bad-" + QDateTime::currentDateTime().toString("yyyyMMdd-HHmmss");
    const bool moved = QFile::rename(path, aside);
    const QString why = error.error != QJsonParseError::NoError
                            ? error.errorString() + " at offset " + QString::number(error.offset)
                            : QStringLiteral("not a JSON object");
    logf("settings file %s cannot be read (%s); %s; starting with default settings",
         qPrintable(path), qPrintable(why),
         moved ? qPrintable("kept as " + aside) : "it could not be renamed and is left as it is");
    if (!moved)
        QFile::remove(path);
}

std::mutex& standardMutex() {
    static std::mutex m;
    return m;
}
std::unique_ptr<Defaults>& standardStore() {
    static std::unique_ptr<Defaults> store;
    return store;
}
QString& standardPathOverride() {
    static QString path;
    return path;
}

} // namespace

QString Defaults::defaultPath() {
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty())
        base = QDir::homePath() + "/.config";
    return base + "/Tessarine/Tessarine.json";
}

Defaults& Defaults::standard() {
    std::lock_guard lock(standardMutex());
    auto& store = standardStore();
    if (!store) {
        const QString path = standardPathOverride().isEmpty() ? defaultPath() : standardPathOverride();
        store = std::make_unique<Defaults>(path);
    }
    return *store;
}

void Defaults::setStandardPath(const QString& path) {
    std::lock_guard lock(standardMutex());
    standardPathOverride() = path;
    standardStore().reset();
}

Defaults::Defaults(const QString& path) : path_(path) {
    QDir().mkpath(QFileInfo(path).absolutePath());
    keepDamagedFileAside(path);
    settings_ = std::make_unique<QSettings>(path, jsonFormat());
    if (settings_->status() != QSettings::NoError)
        logf("settings file %s could not be read; starting with default settings", qPrintable(path));
}

Defaults::~Defaults() {
    std::lock_guard lock(mutex_);
    settings_->sync();
}

QVariant Defaults::valueForKey(const QString& key) const {
    std::lock_guard lock(mutex_);
    return settings_->value(key);
}

void Defaults::setValueForKey(const QVariant& value, const QString& key) {
    std::lock_guard lock(mutex_);
    settings_->setValue(key, value);
    settings_->sync();
    if (settings_->status() == QSettings::AccessError)
        logf("settings file %s cannot be written", qPrintable(path_));
}

bool Defaults::hasKey(const QString& key) const {
    std::lock_guard lock(mutex_);
    return settings_->contains(key);
}

std::int64_t Defaults::integerForKey(const QString& key) const {
    const QVariant v = valueForKey(key);
    if (v.typeId() == QMetaType::Bool)
        return v.toBool() ? 1 : 0;
    bool ok = false;
    const double d = v.toDouble(&ok);
    return ok ? static_cast<std::int64_t>(d) : 0;
}

double Defaults::doubleForKey(const QString& key) const {
    bool ok = false;
    const double d = valueForKey(key).toDouble(&ok);
    return ok ? d : 0.0;
}

bool Defaults::boolForKey(const QString& key) const {
    const QVariant v = valueForKey(key);
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    bool ok = false;
    const double d = v.toDouble(&ok);
    return ok && d != 0.0;
}

QString Defaults::stringForKey(const QString& key) const {
    const QVariant v = valueForKey(key);
    return v.typeId() == QMetaType::QString ? v.toString() : QString();
}

QJsonValue Defaults::jsonForKey(const QString& key) const {
    const QVariant v = valueForKey(key);
    return v.isValid() ? QJsonValue::fromVariant(v) : QJsonValue();
}

void Defaults::setIntegerForKey(std::int64_t value, const QString& key) {
    setValueForKey(QVariant::fromValue<qlonglong>(value), key);
}
void Defaults::setDoubleForKey(double value, const QString& key) { setValueForKey(value, key); }
void Defaults::setBoolForKey(bool value, const QString& key) { setValueForKey(value, key); }
void Defaults::setStringForKey(const QString& value, const QString& key) {
    setValueForKey(value, key);
}
void Defaults::setJsonForKey(const QJsonValue& value, const QString& key) {
    setValueForKey(value.toVariant(), key);
}

void Defaults::removeObjectForKey(const QString& key) {
    std::lock_guard lock(mutex_);
    settings_->remove(key);
    settings_->sync();
}

} // namespace ts
