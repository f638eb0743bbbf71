#pragma once
// The tessarine program run headless in a folder of its own: settings
// prepared as JSON, standard output read line by line, stopped by SIGTERM.

#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <chrono>
#include <memory>

namespace ts::test {

class HeadlessProgram {
public:
    // settings: the members of Tessarine.json.
    explicit HeadlessProgram(const QJsonObject& settings, const QStringList& extraArguments = {});
    ~HeadlessProgram();

    bool start();
    bool isRunning() const;
    // Lines printed on standard output so far.
    QStringList outputLines();
    // Waits until a line containing the fragment was printed.
    bool waitForOutput(const QString& fragment, std::chrono::milliseconds timeout);
    // The log file's text (Tessarine.log in the program's state folder).
    QString logText() const;
    bool waitForLog(const QString& fragment, std::chrono::milliseconds timeout);
    // SIGTERM, then waits; answers the exit code (-1 when it did not exit).
    int terminate(std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
    QJsonObject storedSettings() const;
    QString configDir() const { return home_ + "/config/Tessarine"; }

    static QJsonObject plug(const QJsonObject& in, const QJsonObject& out, bool enabled = true);
    static QJsonObject signal(const char* className, const char* min, const char* max,
                              const QJsonObject& members = {});
    static QJsonObject archive(const QList<QJsonObject>& plugs);

private:
    QString home_;
    std::unique_ptr<QProcess> process_;
    QString pending_;
    QStringList lines_;
    QStringList arguments_;
};

} // namespace ts::test
