#pragma once
// The default listener delegate: decodes each datagram and logs
// "DISPATCH: <stringRepresentation>"; a datagram that does not decode is
// ignored.

#include "osc/BBOSCListenerDelegate.h"

class BBOSCDispatcher : public BBOSCListenerDelegate {
public:
    void dispatchRawPacket(std::span<const uint8_t> datagram) override;
};
