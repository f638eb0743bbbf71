#pragma once
// Base of everything that can be sent over OSC: a message or a bundle.
//
// Ownership: a packet owns what is attached to it. A message holds its
// arguments by value; a bundle holds its elements as
// std::unique_ptr<BBOSCPacket>. Decoding answers a std::unique_ptr that the
// caller owns. Packets carry no locks: one thread at a time builds, encodes
// or reads a packet.
//
// The attached list is typed differently by each kind (arguments for a
// message, packets for a bundle), so attachObject / attachedObjects live in
// BBOSCMessage and BBOSCBundle; asMessage() / asBundle() tell the kinds apart
// when walking a bundle.

#include "osc/BBOSCDataUtilities.h"

#include <string>
#include <vector>

class BBOSCMessage;
class BBOSCBundle;

class BBOSCPacket {
public:
    virtual ~BBOSCPacket() = default;

    // One datagram holding the whole packet; the base yields nothing.
    virtual BBOSCBytes packetizedData() const;
    // What a sender transmits, one UDP datagram per element. The base (and a
    // message, whatever its size) gives a one-element list holding
    // packetizedData(); a bundle splits itself into datagrams of at most 4096
    // bytes (and a bundle without elements gives an empty list).
    virtual std::vector<BBOSCBytes> packetizedDatas() const;
    // Text for logs and consoles.
    virtual std::string stringRepresentation() const;

    // Length of packetizedData(), computed without encoding.
    virtual size_t packetizedSize() const { return 0; }
    // Appends packetizedData() to out (no temporary buffer).
    virtual void appendPacketizedData(BBOSCBytes& out) const { (void)out; }

    virtual const BBOSCMessage* asMessage() const { return nullptr; }
    virtual const BBOSCBundle* asBundle() const { return nullptr; }

    // Same kind, same contents (deep).
    virtual bool isEqualToPacket(const BBOSCPacket& other) const;

protected:
    BBOSCPacket() = default;
    BBOSCPacket(const BBOSCPacket&) = default;
    BBOSCPacket& operator=(const BBOSCPacket&) = default;
};
