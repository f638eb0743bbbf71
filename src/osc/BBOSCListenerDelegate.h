#pragma once
// What a BBOSCListener hands every received datagram to. Called on the main
// thread, in arrival order, with the raw bytes (not yet decoded; a datagram
// that does not decode arrives all the same). The bytes are valid for the
// duration of the call only.

#include <cstdint>
#include <span>

class BBOSCListenerDelegate {
public:
    virtual ~BBOSCListenerDelegate() = default;
    virtual void dispatchRawPacket(std::span<const uint8_t> datagram) = 0;
};
