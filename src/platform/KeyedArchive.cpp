#include "platform/KeyedArchive.h"

#include "platform/Log.h"

#include <QJsonArray>
#include <cmath>
#include <limits>

namespace ts {
namespace {

constexpr const char* kClassKey = "$class";
constexpr const char* kArchiverName = "TessarineKeyedArchive";
constexpr int kVersion = 1;

const char* kindName(const QJsonValue& v) {
    switch (v.type()) {
    case QJsonValue::Null: return "none";
    case QJsonValue::Bool: return "a boolean";
    case QJsonValue::Double: return "a number";
    case QJsonValue::String: return "a text";
    case QJsonValue::Array: return "a list";
    case QJsonValue::Object: return "an object";
    case QJsonValue::Undefined: break;
    }
    return "nothing";
}

bool isIntegral(double d, double lo, double hi) {
    return std::isfinite(d) && d == std::floor(d) && d >= lo && d <= hi;
}

} // namespace

void KeyedArchiver::encodeBoolForKey(bool value, const char* key) { members_.insert(key, value); }

void KeyedArchiver::encodeInt32ForKey(std::int32_t value, const char* key) {
    members_.insert(key, value);
}

void KeyedArchiver::encodeInt64ForKey(std::int64_t value, const char* key) {
    members_.insert(key, static_cast<qint64>(value));
}

void KeyedArchiver::encodeFloatForKey(float value, const char* key) {
    members_.insert(key, static_cast<double>(value));
}

void KeyedArchiver::encodeTextForKey(const QString& value, const char* key) {
    members_.insert(key, value.isNull() ? QJsonValue(QJsonValue::Null) : QJsonValue(value));
}

void KeyedArchiver::encodeObjectForKey(const Archivable* object, const char* key) {
    members_.insert(key, object ? QJsonValue(archivedObject(*object)) : QJsonValue(QJsonValue::Null));
}

QJsonObject KeyedArchiver::archivedObject(const Archivable& object) {
    KeyedArchiver coder;
    coder.members_.insert(kClassKey, QString::fromLatin1(object.archiveClassName()));
    object.encodeWithCoder(coder);
    return coder.members_;
}

QJsonObject KeyedArchiver::archivedRootObjects(const std::vector<const Archivable*>& roots) {
    QJsonArray list;
    for (const Archivable* object : roots)
        list.append(object ? QJsonValue(archivedObject(*object)) : QJsonValue(QJsonValue::Null));
    QJsonObject archive;
    archive.insert("$archiver", kArchiverName);
    archive.insert("$version", kVersion);
    archive.insert("root", list);
    return archive;
}

KeyedUnarchiver::KeyedUnarchiver(const QJsonObject& members, const Restorer& restorer)
    : members_(members), restorer_(restorer) {}

QString KeyedUnarchiver::className() const { return members_.value(kClassKey).toString(); }

bool KeyedUnarchiver::containsValueForKey(const char* key) const { return members_.contains(key); }

const QJsonValue* KeyedUnarchiver::entry(const char* key) const {
    auto it = members_.constFind(key);
    if (it == members_.constEnd())
        return nullptr;
    scratch_ = it.value();
    return &scratch_;
}

void KeyedUnarchiver::reportWrongKind(const char* key, const QJsonValue& value,
                                      const char* expected) const {
    const QByteArray found = value.isDouble()
                                 ? QByteArray("the number ") + QByteArray::number(value.toDouble(), 'g', 17)
                                 : QByteArray(kindName(value));
    logf("archive: %s \"%s\" holds %s where %s was expected; the field starts empty",
         qPrintable(className()), key, found.constData(), expected);
}

void KeyedUnarchiver::reportWrongClass(const char* key, const char* found) const {
    logf("archive: %s \"%s\" holds a %s, which does not belong there; the field starts empty",
         qPrintable(className()), key, found);
}

bool KeyedUnarchiver::decodeBoolForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v)
        return false;
    if (v->isBool())
        return v->toBool();
    reportWrongKind(key, *v, "a boolean");
    return false;
}

std::int32_t KeyedUnarchiver::decodeInt32ForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v)
        return 0;
    // Unsigned 32-bit fields (key codes, modifier words) are stored as their
    // signed bit pattern but may have been written as unsigned numbers.
    if (v->isDouble() && isIntegral(v->toDouble(), std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::uint32_t>::max()))
        return static_cast<std::int32_t>(static_cast<std::int64_t>(v->toDouble()));
    reportWrongKind(key, *v, "a 32-bit integer");
    return 0;
}

std::int64_t KeyedUnarchiver::decodeInt64ForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v)
        return 0;
    if (v->isDouble() && isIntegral(v->toDouble(), -9.2e18, 9.2e18))
        return v->toInteger();
    reportWrongKind(key, *v, "a 64-bit integer");
    return 0;
}

float KeyedUnarchiver::decodeFloatForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v)
        return 0.0f;
    if (v->isDouble())
        return static_cast<float>(v->toDouble());
    reportWrongKind(key, *v, "a float");
    return 0.0f;
}

QString KeyedUnarchiver::decodeTextForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v || v->isNull())
        return QString();
    if (v->isString())
        return v->toString();
    reportWrongKind(key, *v, "a text");
    return QString();
}

std::shared_ptr<Archivable> KeyedUnarchiver::decodeObjectForKey(const char* key) const {
    const QJsonValue* v = entry(key);
    if (!v || v->isNull())
        return nullptr;
    if (!v->isObject()) {
        reportWrongKind(key, *v, "an object");
        return nullptr;
    }
    const QJsonObject object = v->toObject();
    return unarchiveObject(object, restorer_);
}

std::shared_ptr<Archivable> KeyedUnarchiver::unarchiveObject(const QJsonObject& object,
                                                             const Restorer& restorer) {
    const QJsonValue name = object.value(kClassKey);
    if (!name.isString()) {
        logLine("archive: an object without a class name was skipped");
        return nullptr;
    }
    KeyedUnarchiver coder(object, restorer);
    std::shared_ptr<Archivable> restored = restorer(name.toString(), coder);
    if (!restored)
        logf("archive: unknown class \"%s\" was skipped", qPrintable(name.toString()));
    return restored;
}

std::optional<std::vector<std::shared_ptr<Archivable>>>
KeyedUnarchiver::unarchiveRootObjects(const QJsonValue& archive, const Restorer& restorer) {
    if (!archive.isObject()) {
        if (!archive.isUndefined() && !archive.isNull())
            logf("archive: the stored value is %s, not an archive; nothing was restored",
                 kindName(archive));
        return std::nullopt;
    }
    const QJsonObject top = archive.toObject();
    if (top.value("$archiver").toString() != kArchiverName || !top.value("root").isArray()) {
        logLine("archive: the stored object is not a Tessarine archive; nothing was restored");
        return std::nullopt;
    }
    if (top.value("$version").toInt() > kVersion)
        logf("archive: version %d is newer than this program's %d; restoring what is known",
             top.value("$version").toInt(), kVersion);
    std::vector<std::shared_ptr<Archivable>> objects;
    const QJsonArray list = top.value("root").toArray();
    int index = 0;
    for (const QJsonValue& element : list) {
        if (!element.isObject()) {
            logf("archive: root element %d is %s, not an object; it was skipped", index,
                 kindName(element));
        } else if (auto object = unarchiveObject(element.toObject(), restorer)) {
            objects.push_back(std::move(object));
        }
        ++index;
    }
    return objects;
}

} // namespace ts
