#pragma once
// The two input kinds that need no message from outside: the audio input
// level and generated waveforms. Neither sends anything as an output.

#include "signals/TSSignal.h"

#include <cstdint>

// Follows the audio input level; the controller delivers level / 10 clamped
// to 0..1, passed on unchanged. A restored audio signal runs its normal
// initialisation again, so its range is always "0" / "100".
class TSAudioSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS
    Q_PROPERTY(float audioLevel READ audioLevel NOTIFY audioLevelChanged)

public:
    TSAudioSignal() = default;
    explicit TSAudioSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 2; }
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    float audioLevel() const { return level_.load(std::memory_order_relaxed); }
    void setAudioLevel(float level);

signals:
    void audioLevelChanged();

private:
    std::atomic<float> level_{0.0f};
};

// A periodic waveform phased by the wall clock, so every animation of the
// same duration is in step with the others whenever it was made.
class TSAnimationSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    enum Kind { Ramp = 0, Triangle = 1, Sine = 2, Square = 3, Random = 4 };

    TSAnimationSignal() : duration_(500) {}
    explicit TSAnimationSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 9; }
    // Ignores the controller's 1.0 and answers the waveform now.
    float normalizeValue(float value) override;
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    // The waveform at a wall-clock time in milliseconds since 1970. A negative
    // duration uses the remainder's sign as C++ gives it, so the phase runs
    // from 0 down toward -1 and the shapes follow that phase.
    static float waveformValue(int kind, std::int64_t duration, std::int64_t nowMs);

    int kind() const { return kind_.load(std::memory_order_relaxed); }
    void setKind(int kind) { kind_.store(kind); }
    std::int64_t duration() const { return duration_.load(); }
    void setDuration(std::int64_t ms) { duration_.store(ms); }
    // Emptying the duration field stops the animation (constant 1.0).
    void setNilValueForKey(const QString& key);
    float phaseShift() const { return phaseShift_.load(std::memory_order_relaxed); }
    void setPhaseShift(float shift) { phaseShift_.store(shift); }

private:
    std::atomic<int> kind_{0};
    std::atomic<std::int64_t> duration_{0};
    std::atomic<float> phaseShift_{0.0f};
};
