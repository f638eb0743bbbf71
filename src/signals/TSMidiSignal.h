#pragma once
// A MIDI note or controller. As input it is matched on type, channel and note
// (or controller number) and normalises the second data byte by 127; as output
// it sends the scaled value as the second data byte, a note-on always followed
// at once by its note-off.

#include "signals/TSSignal.h"

class TSMidiSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSMidiSignal();
    explicit TSMidiSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 3; }
    QString title() const override;
    float normalizeValue(float value) override { return value / 127.0f; }
    void sendWithValue(float value) override;
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    void initWithCoder(ts::KeyedUnarchiver& coder) override;

    // Used by MIDI learn: the type byte (128, 144, 176), channel 0..15 and
    // note or controller number.
    void changeTypeAndChannelAndNote(unsigned type, unsigned channel, unsigned note);

    unsigned midiType() const { return type_.load(std::memory_order_relaxed); }
    unsigned midiChannel() const { return channel_.load(std::memory_order_relaxed); }
    unsigned midiNote() const { return note_.load(std::memory_order_relaxed); }

    // "C-2" for note 0, "C3" for 60, "C3#" for 61.
    static QString noteName(unsigned note);

private:
    std::atomic<unsigned> type_{0};
    std::atomic<unsigned> channel_{0};
    std::atomic<unsigned> note_{0};
};
