#pragma once
// A plain-text UDP command. As input it matches a received command exactly
// (value 1.0); as output it hands its text with the scaled value to the
// command manager, which transmits the text alone.

#include "signals/TSTextSignal.h"

class TSCommandSignal : public TSTextSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSCommandSignal() : TSTextSignal("string", "play") {}
    explicit TSCommandSignal(TSRestoreTag tag) : TSTextSignal(tag, "string") {}

    int type() const override { return 10; }
    void sendWithValue(float value) override;

    QString string() const { return identifyingText(); }
    void changeString(const QString& text) { changeIdentifyingText(text); }
};
