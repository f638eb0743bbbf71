#pragma once
// An OSC message: an address, then arguments in wire order.
//
//   auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString("/go"));
//   m->attachArgument(BBOSCArgument::argumentWithFloat(0.5f));
//   sender->sendOSCPacket(*m);
//
// Arguments are held by value, the first four inside the message itself (so
// decoding a typical message allocates only the message). Copyable (a copy
// is deep).

#include "osc/BBOSCAddress.h"
#include "osc/BBOSCArgument.h"
#include "osc/BBOSCPacket.h"

#include <memory>
#include <new>
#include <span>
#include <vector>

class BBOSCMessage final : public BBOSCPacket {
public:
    explicit BBOSCMessage(BBOSCAddress address) : address_(std::move(address)) {}
    BBOSCMessage(const BBOSCMessage& other);
    BBOSCMessage& operator=(const BBOSCMessage& other);
    ~BBOSCMessage() override;

    // Message blocks are recycled per thread: a bundle of many messages
    // would otherwise outrun the allocator's small per-thread cache.
    static void* operator new(size_t size);
    static void operator delete(void* block, size_t size) noexcept;

    static std::unique_ptr<BBOSCMessage> messageWithBBOSCAddress(BBOSCAddress address) {
        return std::make_unique<BBOSCMessage>(std::move(address));
    }

    const BBOSCAddress& address() const { return address_; }
    // Shorthand for address().address(); addressView() reads the address
    // without making a std::string (the choice for hot paths).
    const std::string& addressString() const { return address_.address(); }
    std::string_view addressView() const { return address_.addressView(); }

    void attachArgument(BBOSCArgument argument) {
        if (count_ == capacity_)
            growArguments(size_t(capacity_) * 2);
        new (&arguments_[count_]) BBOSCArgument(std::move(argument));
        ++count_;
    }
    void attachArguments(std::vector<BBOSCArgument> arguments);
    void attachObject(BBOSCArgument argument) { attachArgument(std::move(argument)); }
    void attachObjects(std::vector<BBOSCArgument> arguments) {
        attachArguments(std::move(arguments));
    }
    // Room for this many arguments without reallocation.
    void reserveArguments(size_t count) {
        if (count > capacity_)
            growArguments(count);
    }

    std::span<const BBOSCArgument> attachedObjects() const { return {arguments_, count_}; }
    size_t argumentCount() const { return count_; }
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
    friend class BBOSCDecoder;
    static constexpr uint32_t kInlineArguments = 4;

    // The decoder's constructor: the address is made in place.
    struct InPlace {};
    BBOSCMessage(InPlace, std::string_view address) : address_(address) {}

    // Room for one more argument, default-constructed at the end.
    BBOSCArgument& appendArgument() {
        if (count_ == capacity_)
            growArguments(size_t(capacity_) * 2);
        return *new (&arguments_[count_++]) BBOSCArgument();
    }
    void growArguments(size_t capacity);
    bool hasASCIITags() const;
    void clearArguments();

    BBOSCAddress address_;
    // arguments_ points at inlineArguments_ until more than four are held,
    // then at a heap array of capacity_ arguments.
    BBOSCArgument* arguments_ = reinterpret_cast<BBOSCArgument*>(inlineArguments_);
    uint32_t count_ = 0;
    uint32_t capacity_ = kInlineArguments;
    alignas(BBOSCArgument) unsigned char inlineArguments_[kInlineArguments * sizeof(BBOSCArgument)];
};
