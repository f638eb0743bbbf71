#include "osc/BBOSCBundle.h"

#include <cstring>

namespace {

constexpr uint8_t kBundleTag[8] = {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0};
constexpr size_t kHeaderSize = 16;

void appendHeader(BBOSCBytes& out, BBOSCDate timeStamp) {
    out.insert(out.end(), kBundleTag, kBundleTag + 8);
    BBOSCDataUtilities::appendTimeTag(out, timeStamp);
}

} // namespace

void BBOSCBundle::attachObject(std::unique_ptr<BBOSCPacket> element) {
    if (element)
        elements_.push_back(std::move(element));
}

void BBOSCBundle::attachObjects(std::vector<std::unique_ptr<BBOSCPacket>> elements) {
    for (auto& e : elements)
        attachObject(std::move(e));
}

BBOSCBytes BBOSCBundle::packetizedData() const {
    BBOSCBytes out;
    if (elements_.empty())
        return out;
    out.reserve(packetizedSize());
    appendPacketizedData(out);
    return out;
}

size_t BBOSCBundle::packetizedSize() const {
    if (elements_.empty())
        return 0;
    size_t size = kHeaderSize;
    for (const auto& e : elements_)
        size += 4 + e->packetizedSize();
    return size;
}

void BBOSCBundle::appendPacketizedData(BBOSCBytes& out) const {
    if (elements_.empty())
        return;
    appendHeader(out, timeStamp_);
    for (const auto& e : elements_) {
        // Write a placeholder size, the element, then the size it really took.
        const size_t sizeAt = out.size();
        out.resize(sizeAt + 4);
        e->appendPacketizedData(out);
        const uint32_t n = static_cast<uint32_t>(out.size() - sizeAt - 4);
        const uint8_t bytes[4] = {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
        std::memcpy(out.data() + sizeAt, bytes, 4);
    }
}

std::vector<BBOSCBytes> BBOSCBundle::packetizedDatas() const {
    std::vector<BBOSCBytes> out;
    if (elements_.empty())
        return out;
    BBOSCBytes header;
    header.reserve(kHeaderSize);
    appendHeader(header, timeStamp_);
    BBOSCBytes current = header;
    for (const auto& e : elements_) {
        const size_t elementSize = e->packetizedSize();
        // Closing also a header-only datagram when the first element is too
        // large: peers have always received that empty bundle ahead of it.
        if (current.size() + 4 + elementSize >= kMaximumDatagramSize + 1) {
            out.push_back(std::move(current));
            current = header;
        }
        if (current.capacity() < current.size() + 4 + elementSize)
            current.reserve(std::max(kMaximumDatagramSize, current.size() + 4 + elementSize));
        BBOSCDataUtilities::appendUInt(current, static_cast<uint32_t>(elementSize));
        e->appendPacketizedData(current);
    }
    out.push_back(std::move(current));
    return out;
}

std::string BBOSCBundle::stringRepresentation() const {
    std::string text = "BUNDLE:\ntime: " + BBOSCDataUtilities::dateDescription(timeStamp_);
    for (const auto& e : elements_) {
        text += "\n---\n";
        text += e->stringRepresentation();
    }
    return text;
}

bool BBOSCBundle::isEqualToPacket(const BBOSCPacket& other) const {
    const BBOSCBundle* b = other.asBundle();
    if (!b || b->elements_.size() != elements_.size())
        return false;
    // Both NaN counts as equal: a time stamp is compared as a value read back.
    if (!(b->timeStamp_ == timeStamp_) &&
        !(timeStamp_ != timeStamp_ && b->timeStamp_ != b->timeStamp_))
        return false;
    for (size_t i = 0; i < elements_.size(); ++i)
        if (!elements_[i]->isEqualToPacket(*b->elements_[i]))
            return false;
    return true;
}
