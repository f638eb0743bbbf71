#pragma once
// A computer key with an exact modifier state. Pressing sends 1 and releasing
// 0; in toggle mode press and release send the same value and the next press
// the other one. Key codes and modifier masks are Tessarine's own (see
// platform key translation), so archives travel between machines.

#include "signals/TSSignal.h"

class TSKeyboardSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    static constexpr unsigned kCommandMask = 0x100000;
    static constexpr unsigned kOptionMask = 0x80000;
    static constexpr unsigned kControlMask = 0x40000;
    static constexpr unsigned kShiftMask = 0x20000;
    static constexpr unsigned kFunctionMask = 0x800000;

    TSKeyboardSignal() : toggleStateOn_(true) {}
    explicit TSKeyboardSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 1; }
    QString title() const override;
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    // Stores the key-name table's name for the code when it has one, else the
    // given characters.
    void changeCharactersAndKeyCodeAndModifierFlags(const QString& characters, unsigned keyCode,
                                                    unsigned modifierFlags);
    static QString keyNameForCode(unsigned keyCode);

    QString characters() const { return characters_.get(); }
    unsigned keyCode() const { return keyCode_.load(std::memory_order_relaxed); }
    unsigned modifierFlags() const { return modifierFlags_.load(std::memory_order_relaxed); }
    bool toggle() const { return toggle_.load(std::memory_order_relaxed); }
    void setToggle(bool on) { toggle_.store(on); }
    bool toggleStateOn() const { return toggleStateOn_.load(); }
    void setToggleStateOn(bool on) { toggleStateOn_.store(on); }

    // The value a key event gives: 1/0 for press/release, or in toggle mode
    // the toggle state, inverted afterwards on a release.
    float valueForKeyEvent(bool pressed);

private:
    TSAtomicText characters_;
    std::atomic<unsigned> keyCode_{0};
    std::atomic<unsigned> modifierFlags_{0};
    std::atomic<bool> toggle_{false};
    std::atomic<bool> toggleStateOn_{false};
};
