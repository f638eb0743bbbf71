#pragma once
// An OSC message: an address, then arguments in wire order.
//
//   auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString("/go"));
//   m->attachArgument(BBOSCArgument::argumentWithFloat(0.5f));
//   sender->sendOSCPacket(*m);
//
// Arguments are held by value. Copyable (a copy is deep).

#include "osc/BBOSCAddress.h"
#include "osc/BBOSCArgument.h"
#include "osc/BBOSCPacket.h"

#include <memory>
#include <vector>

class BBOSCMessage final : public BBOSCPacket {
public:
    explicit BBOSCMessage(BBOSCAddress address) : address_(std::move(address)) {}
    BBOSCMessage(const BBOSCMessage&) = default;
    BBOSCMessage& operator=(const BBOSCMessage&) = default;

    static std::unique_ptr<BBOSCMessage> messageWithBBOSCAddress(BBOSCAddress address) {
        return std::make_unique<BBOSCMessage>(std::move(address));
    }

    const BBOSCAddress& address() const { return address_; }
    // Shorthand for address().address().
    const std::string& addressString() const { return address_.address(); }

    void attachArgument(BBOSCArgument argument) { arguments_.push_back(std::move(argument)); }
    void attachArguments(std::vector<BBOSCArgument> arguments);
    void attachObject(BBOSCArgument argument) { attachArgument(std::move(argument)); }
    void attachObjects(std::vector<BBOSCArgument> arguments) {
        attachArguments(std::move(arguments));
    }
    // Room for this many arguments without reallocation.
    void reserveArguments(size_t count) { arguments_.reserve(count); }

    const std::vector<BBOSCArgument>& attachedObjects() const { return arguments_; }
    size_t argumentCount() const { return arguments_.size(); }
    // Index must be below argumentCount().
    const BBOSCArgument& argumentAtIndex(size_t index) const { return arguments_[index]; }

    // "," followed by each argument's tag.
    std::string typeTagString() const;

    // Address, padded type-tag string, each argument's bytes.
    BBOSCBytes packetizedData() const override;
    // "MESSAGE:\naddress:<address>\n types:<tags>" then "\n<description>" per argument.
    std::string stringRepresentation() const override;
    size_t packetizedSize() const override;
    void appendPacketizedData(BBOSCBytes& out) const override;
    const BBOSCMessage* asMessage() const override { return this; }
    bool isEqualToPacket(const BBOSCPacket& other) const override;

private:
    BBOSCAddress address_;
    std::vector<BBOSCArgument> arguments_;
};
