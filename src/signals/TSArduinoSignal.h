#pragma once
// A number exchanged with an Arduino over its serial line: input values are
// the integers of received lines (normalised by 1023); output values are
// written as decimal text lines, clamped to 0..1023.

#include "signals/TSSignal.h"

class TSArduinoSignal : public TSSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSArduinoSignal() { setRangeDefaults("0", "1023"); }
    explicit TSArduinoSignal(TSRestoreTag tag) : TSSignal(tag) {}

    int type() const override { return 8; }
    float normalizeValue(float value) override { return value / 1023.0f; }
    void sendWithValue(float value) override;
};
