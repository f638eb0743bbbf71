#pragma once
// A generic OSC address. As input it matches messages at exactly that address
// (the controller delivers the first argument, or 1.0 without arguments); as
// output it sends the scaled value, unclamped, as a float to the address.

#include "signals/TSTextSignal.h"

class TSOSCSignal : public TSTextSignal {
    Q_OBJECT
    TS_SIGNAL_CLASS

public:
    TSOSCSignal() : TSTextSignal("address", "/none") {}
    explicit TSOSCSignal(TSRestoreTag tag) : TSTextSignal(tag, "address") {}

    int type() const override { return 4; }
    void sendWithValue(float value) override;

    QString address() const { return identifyingText(); }
    void changeAddress(const QString& address) { changeIdentifyingText(address); }
};
