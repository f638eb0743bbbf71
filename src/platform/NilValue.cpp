#include "platform/NilValue.h"

#include "platform/Log.h"

#include <QMetaProperty>
#include <QObject>

namespace ts {

namespace {

bool isNumericOrBoolean(QMetaType type) {
    switch (type.id()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

} // namespace

bool setNilValueForKey(QObject& object, const QString& key) {
    const QByteArray name = key.toUtf8();
    const QMetaObject* meta = object.metaObject();
    const int index = meta->indexOfProperty(name.constData());
    if (index >= 0) {
        const QMetaProperty property = meta->property(index);
        if (property.isWritable() && isNumericOrBoolean(property.metaType()) &&
            property.write(&object, QVariant(kClearedNumericSetting)))
            return true;
    }
    logf("Cannot set %s", name.constData());
    return false;
}

} // namespace ts
