#pragma once
// What a settings window does when the user empties a bound numeric or
// boolean field: the property has no "empty" value, so it becomes 1111 (a
// cleared port field therefore reads port 1111, a cleared flag reads on).
// A property that is not numeric or boolean, read-only, or unknown is left
// as it is, and "Cannot set <key>" is logged.
//
// Goes through the object's property system, so the property's own setter
// runs (storing the setting and rebuilding what depends on it). Call it on
// the thread that owns the object.

#include <QString>

class QObject;

namespace ts {

inline constexpr int kClearedNumericSetting = 1111;

// True when the property was set to 1111.
bool setNilValueForKey(QObject& object, const QString& key);

} // namespace ts
