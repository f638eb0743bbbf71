#pragma once
// The user's settings store: one JSON object in
// $XDG_CONFIG_HOME/Tessarine/Tessarine.json (~/.config when unset), read and
// written through QSettings with a JSON format. One member per settings key:
// integers and floats are JSON numbers, booleans JSON booleans, texts and
// dates (ISO 8601) JSON strings, and "plugs" the archive object.
//
// A file that cannot be read as a JSON object is kept aside (renamed with a
// ".bad-<date and time>" suffix), one log line says so, and the store starts
// empty: a damaged file never stops the program from starting.
//
// Every setter writes the file at once. All members are safe to call from any
// thread.

#include <QJsonValue>
#include <QString>
#include <QVariant>
#include <cstdint>
#include <memory>
#include <mutex>

class QSettings;

namespace ts {

class Defaults {
public:
    // The store of this user (path from the environment, fixed at first use).
    static Defaults& standard();
    // Points the standard store at another file (tests, --config). The next
    // call of standard() reads that file.
    static void setStandardPath(const QString& path);
    static QString defaultPath();

    explicit Defaults(const QString& path);
    ~Defaults();
    Defaults(const Defaults&) = delete;
    Defaults& operator=(const Defaults&) = delete;

    QString filePath() const { return path_; }

    bool hasKey(const QString& key) const;
    // Missing keys, and values of another kind, read as 0, false, "" or null.
    std::int64_t integerForKey(const QString& key) const;
    double doubleForKey(const QString& key) const;
    bool boolForKey(const QString& key) const;
    QString stringForKey(const QString& key) const;
    QJsonValue jsonForKey(const QString& key) const;

    void setIntegerForKey(std::int64_t value, const QString& key);
    void setDoubleForKey(double value, const QString& key);
    void setBoolForKey(bool value, const QString& key);
    void setStringForKey(const QString& value, const QString& key);
    void setJsonForKey(const QJsonValue& value, const QString& key);
    void removeObjectForKey(const QString& key);

private:
    QVariant valueForKey(const QString& key) const;
    void setValueForKey(const QVariant& value, const QString& key);

    QString path_;
    mutable std::mutex mutex_; // guards settings_
    std::unique_ptr<QSettings> settings_;
};

} // namespace ts
