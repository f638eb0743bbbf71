#pragma once
// A channel (1..512) of the USB DMX interface. As input it normalises 0..255
// (127 gives exactly 0.5, so a centred fader reads as the middle); as output
// it sends the scaled value clamped to 0..255 and truncated.

#include "signals/TSSignal.h"

class TSDmxSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSDmxSignal();
    explicit TSDmxSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 5; }
    QString title() const override;
    float normalizeValue(float value) override;
    void sendWithValue(float value) override;
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    unsigned dmxChannel() const { return channel_.load(std::memory_order_relaxed); }
    void changeChannel(unsigned channel);

protected:
    // The channel value an output sends: the scaled value as a byte.
    unsigned outputByte(float value) const {
        return static_cast<unsigned>(scaledClampedInteger(value, 255));
    }

private:
    std::atomic<unsigned> channel_{0};
};

// An Art-Net channel: a DMX signal (so USB DMX input reaches it too) whose
// output goes to the Art-Net node, which counts channels from 0.
class TSArtnetSignal : public TSDmxSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSArtnetSignal() = default;
    explicit TSArtnetSignal(TSRestoreTag tag) : TSDmxSignal(tag) {}

    int type() const override { return 6; }
    void sendWithValue(float value) override;
};
