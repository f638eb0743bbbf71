#pragma once
// One thing Korvalis reports (an event, as a plug's input) or is told to do
// (an action, as a plug's output). Both use OSC messages at
// "/korvalis/" + addressSuffix. Every action sent is also fed back into the
// controller's Korvalis input, so plugs listening to that event fire on this
// program's own actions too.

#include "signals/TSSignal.h"

#include <QStringList>
#include <optional>
#include <variant>

class TSKorvalisSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    // The single argument of an action message.
    using Argument = std::variant<float, std::int32_t, QString>;

    TSKorvalisSignal();
    explicit TSKorvalisSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 0; }
    QString title() const override;
    float normalizeValue(float value) override;
    void sendWithValue(float value) override;
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    QString address() const { return QStringLiteral("/korvalis/") + addressSuffix(); }
    QString addressSuffix() const { return suffix_.get(); }
    void setAddressSuffix(const QString& suffix);
    void changeAddressSuffix(const QString& suffix);
    QString paramValue() const { return param_.get(); }
    void setParamValue(const QString& value) { param_.set(value); }

    // Rising edge against the previous value: crossing 0.5 upward, leaving
    // exactly 0, or exactly 1.0 (which always re-triggers).
    bool hasValueSwitched(float value) const;
    float previousValue() const { return previous_.load(); }

    // Decides what sendWithValue sends for v, and records the new previous
    // value; nullopt when nothing is sent.
    std::optional<Argument> takeArgumentForValue(float value);

    // The range the editors give an address when the user picks it; false
    // for addresses that keep their range.
    static bool defaultRangeForSuffix(const QString& suffix, QString* min, QString* max);

private:
    TSAtomicText suffix_;
    TSAtomicText param_;
    std::atomic<float> previous_{0.0f};
    std::mutex edgeMutex_; // makes the edge decision and its update one step
};
