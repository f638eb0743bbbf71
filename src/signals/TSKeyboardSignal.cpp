#include "signals/TSKeyboardSignal.h"

#include <utility>

const TSSignalClass& TSKeyboardSignal::staticClass() {
    return tsSignalClassOf<TSKeyboardSignal>("TSKeyboardSignal", 1, &TSSignal::staticClass());
}

QString TSKeyboardSignal::keyNameForCode(unsigned keyCode) {
    static const std::pair<unsigned, const char*> names[] = {
        {10, "^"},    {48, "TAB"},   {49, "SPACE"}, {51, "BACKSPACE"}, {53, "ESC"},
        {57, "CAPSLOCK"}, {96, "F5"}, {97, "F6"},   {98, "F7"},        {99, "F3"},
        {100, "F8"},  {101, "F9"},   {103, "F11"},  {105, "F13"},      {107, "F14"},
        {109, "F10"}, {111, "F12"},  {113, "F15"},  {114, "Help"},     {115, "Home"},
        {116, "PgUp"}, {117, "DELETE"}, {118, "F4"}, {119, "End"},     {120, "F2"},
        {121, "PgDn"}, {122, "F1"},  {123, "LEFT"}, {124, "RIGHT"},    {125, "DOWN"},
        {126, "UP"}};
    for (const auto& [code, name] : names)
        if (code == keyCode)
            return QString::fromLatin1(name);
    return QString();
}

void TSKeyboardSignal::changeCharactersAndKeyCodeAndModifierFlags(const QString& characters,
                                                                  unsigned keyCode,
                                                                  unsigned modifierFlags) {
    const QString name = keyNameForCode(keyCode);
    changeIdentity([&] {
        characters_.set(name.isNull() ? characters : name);
        keyCode_.store(keyCode);
        modifierFlags_.store(modifierFlags);
    });
}

QString TSKeyboardSignal::title() const {
    const QString chars = characters();
    if (chars.isNull())
        return QStringLiteral("(press to set)");
    const unsigned flags = modifierFlags();
    QString prefix;
    if (flags & kCommandMask)
        prefix += "CMD+";
    if (flags & kOptionMask)
        prefix += "ALT+";
    if (flags & kControlMask)
        prefix += "CTRL+";
    if (flags & kShiftMask)
        prefix += "SHIFT+";
    if (flags & kFunctionMask)
        prefix += "FN+";
    return prefix.isEmpty() ? chars : prefix + chars.toUpper();
}

float TSKeyboardSignal::valueForKeyEvent(bool pressed) {
    if (!toggle())
        return pressed ? 1.0f : 0.0f;
    if (pressed)
        return toggleStateOn_.load() ? 1.0f : 0.0f;
    bool on = toggleStateOn_.load();
    while (!toggleStateOn_.compare_exchange_weak(on, !on)) {
    }
    return on ? 1.0f : 0.0f;
}

void TSKeyboardSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeTextForKey(characters(), "characters");
    coder.encodeInt32ForKey(static_cast<std::int32_t>(keyCode()), "keyCode");
    coder.encodeInt32ForKey(static_cast<std::int32_t>(modifierFlags()), "modifierFlags");
    coder.encodeInt32ForKey(toggle() ? 1 : 0, "toggle");
}

void TSKeyboardSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    characters_.set(coder.decodeTextForKey("characters"));
    keyCode_.store(static_cast<unsigned>(coder.decodeInt32ForKey("keyCode")));
    modifierFlags_.store(static_cast<unsigned>(coder.decodeInt32ForKey("modifierFlags")));
    toggle_.store(coder.decodeInt32ForKey("toggle") != 0);
}
