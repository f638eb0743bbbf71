#pragma once
// A keyed archive in JSON. Every archived object is a JSON object whose
// "$class" member is its class name and whose other members are its archive
// keys: text (string, or null for none), boolean, integer, float and nested
// objects (null for none). A list of root objects is stored as
//   {"$archiver": "TessarineKeyedArchive", "$version": 1, "root": [ ... ]}
//
// Restoring never fails as a whole: an unknown class, a missing key or an
// entry of the wrong kind leaves that field at zero, false or none and writes
// one log line naming what was skipped.

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace ts {

class KeyedArchiver;
class KeyedUnarchiver;

class Archivable {
public:
    virtual ~Archivable() = default;
    virtual const char* archiveClassName() const = 0;
    virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;
};

class KeyedArchiver {
public:
    void encodeBoolForKey(bool value, const char* key);
    void encodeInt32ForKey(std::int32_t value, const char* key);
    void encodeInt64ForKey(std::int64_t value, const char* key);
    void encodeFloatForKey(float value, const char* key);
    // A null QString is stored as none.
    void encodeTextForKey(const QString& value, const char* key);
    void encodeObjectForKey(const Archivable* object, const char* key);

    static QJsonObject archivedObject(const Archivable& object);
    static QJsonObject archivedRootObjects(const std::vector<const Archivable*>& roots);

private:
    QJsonObject members_;
};

class KeyedUnarchiver {
public:
    // Creates the restored object of a class name, running its restore
    // operation with the unarchiver; answers nullptr for an unknown name.
    using Restorer =
        std::function<std::shared_ptr<Archivable>(const QString& className, KeyedUnarchiver&)>;

    KeyedUnarchiver(const QJsonObject& members, const Restorer& restorer);

    QString className() const;
    bool containsValueForKey(const char* key) const;
    bool decodeBoolForKey(const char* key) const;
    std::int32_t decodeInt32ForKey(const char* key) const;
    std::int64_t decodeInt64ForKey(const char* key) const;
    float decodeFloatForKey(const char* key) const;
    QString decodeTextForKey(const char* key) const; // null QString for none
    std::shared_ptr<Archivable> decodeObjectForKey(const char* key) const;

    template <typename T> std::shared_ptr<T> decodeObjectOfClassForKey(const char* key) const {
        std::shared_ptr<Archivable> object = decodeObjectForKey(key);
        std::shared_ptr<T> typed = std::dynamic_pointer_cast<T>(object);
        if (object && !typed)
            reportWrongClass(key, object->archiveClassName());
        return typed;
    }

    static std::shared_ptr<Archivable> unarchiveObject(const QJsonObject& object,
                                                       const Restorer& restorer);
    // The root list of an archive; nullopt when the value is not an archive
    // at all. Elements that cannot be restored are left out (and logged).
    static std::optional<std::vector<std::shared_ptr<Archivable>>>
    unarchiveRootObjects(const QJsonValue& archive, const Restorer& restorer);

private:
    const QJsonValue* entry(const char* key) const;
    void reportWrongKind(const char* key, const QJsonValue& value, const char* expected) const;
    void reportWrongClass(const char* key, const char* className) const;

    QJsonObject members_;
    const Restorer& restorer_;
    mutable QJsonValue scratch_;
};

} // namespace ts
