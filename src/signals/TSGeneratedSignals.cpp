#include "signals/TSGeneratedSignals.h"

#include <QDateTime>
#include <cmath>
#include <random>

const TSSignalClass& TSAudioSignal::staticClass() {
    return tsSignalClassOf<TSAudioSignal>("TSAudioSignal", 2, &TSSignal::staticClass());
}

const TSSignalClass& TSAnimationSignal::staticClass() {
    return tsSignalClassOf<TSAnimationSignal>("TSAnimationSignal", 9, &TSSignal::staticClass());
}

void TSAudioSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    setRangeDefaults("0", "100");
}

void TSAudioSignal::setAudioLevel(float level) {
    level_.store(level);
    emit audioLevelChanged();
}

float TSAnimationSignal::waveformValue(int kind, std::int64_t duration, std::int64_t nowMs) {
    if (duration == 0)
        return 1.0f;
    const float t = static_cast<float>(nowMs % duration) / static_cast<float>(duration);
    switch (kind) {
    case Triangle: return t < 0.5f ? 2.0f * t : 1.0f - 2.0f * (t - 0.5f);
    case Sine: return static_cast<float>((std::sin((double(t) + double(t)) * M_PI) + 1.0) / 2.0);
    case Square: return t < 0.5f ? 0.0f : 1.0f;
    case Random: {
        thread_local std::mt19937 generator{std::random_device{}()};
        return static_cast<float>(generator() % 1000) / 1000.0f;
    }
    default: return t;
    }
}

float TSAnimationSignal::normalizeValue(float) {
    return waveformValue(kind(), duration(), QDateTime::currentMSecsSinceEpoch());
}

void TSAnimationSignal::setNilValueForKey(const QString& key) {
    if (key == QLatin1String("duration"))
        setDuration(0);
}

void TSAnimationSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeInt32ForKey(kind(), "kind");
    coder.encodeInt64ForKey(duration(), "duration");
    coder.encodeFloatForKey(phaseShift(), "phaseShift");
}

void TSAnimationSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    kind_.store(coder.decodeInt32ForKey("kind"));
    duration_.store(coder.decodeInt64ForKey("duration"));
    phaseShift_.store(coder.decodeFloatForKey("phaseShift"));
}
