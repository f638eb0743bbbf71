#pragma once
// An OSC bundle: a time stamp and elements (messages and bundles) in wire
// order. The bundle owns its elements.
//
// Walking a received bundle:
//   for (const auto& element : bundle.attachedObjects())
//       if (const BBOSCMessage* m = element->asMessage()) ...
//       else if (const BBOSCBundle* b = element->asBundle()) ...

#include "osc/BBOSCPacket.h"

#include <memory>
#include <vector>

class BBOSCBundle final : public BBOSCPacket {
public:
    // Largest datagram packetizedDatas() produces, unless a single element is
    // larger by itself.
    static constexpr size_t kMaximumDatagramSize = 4096;

    explicit BBOSCBundle(BBOSCDate timeStamp) : timeStamp_(timeStamp) {}
    BBOSCBundle(const BBOSCBundle&) = delete;
    BBOSCBundle& operator=(const BBOSCBundle&) = delete;

    static std::unique_ptr<BBOSCBundle> bundleWithTimestamp(BBOSCDate timeStamp) {
        return std::make_unique<BBOSCBundle>(timeStamp);
    }

    BBOSCDate timeStamp() const { return timeStamp_; }
    void setTimeStamp(BBOSCDate timeStamp) { timeStamp_ = timeStamp; }

    // A null element is ignored.
    void attachObject(std::unique_ptr<BBOSCPacket> element);
    void attachObjects(std::vector<std::unique_ptr<BBOSCPacket>> elements);
    const std::vector<std::unique_ptr<BBOSCPacket>>& attachedObjects() const { return elements_; }

    // "#bundle", time tag, then size and bytes of each element. A bundle
    // without elements encodes to nothing.
    BBOSCBytes packetizedData() const override;
    // The same elements cut into datagrams of at most 4096 bytes, each with
    // the same 16-byte header. An element too large to share a datagram is
    // sent alone (and when it is the first, a header-only datagram goes
    // ahead of it). No elements: no datagrams.
    std::vector<BBOSCBytes> packetizedDatas() const override;
    // "BUNDLE:\ntime: <date>" then "\n---\n<element>" per element.
    std::string stringRepresentation() const override;
    size_t packetizedSize() const override;
    void appendPacketizedData(BBOSCBytes& out) const override;
    const BBOSCBundle* asBundle() const override { return this; }
    bool isEqualToPacket(const BBOSCPacket& other) const override;

private:
    friend class BBOSCDecoder;
    BBOSCDate timeStamp_;
    std::vector<std::unique_ptr<BBOSCPacket>> elements_;
};
