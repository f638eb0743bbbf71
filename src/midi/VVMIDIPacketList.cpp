#include "midi/VVMIDIPacketList.h"

#include <cstring>

void VVMIDIPacketList::init() {
    count_ = 0;
    used_ = kCountSize;
    std::memcpy(buffer_, &count_, sizeof count_);
}

bool VVMIDIPacketList::add(uint64_t timestamp, const uint8_t* bytes, size_t length) {
    if (!bytes || length == 0 || length > 0xFFFF)
        return false;
    if (used_ + kPacketHeaderSize + length > kCapacity)
        return false;
    uint8_t* p = buffer_ + used_;
    const uint16_t len16 = static_cast<uint16_t>(length);
    std::memcpy(p, &timestamp, sizeof timestamp);
    std::memcpy(p + 8, &len16, sizeof len16);
    std::memcpy(p + kPacketHeaderSize, bytes, length);
    used_ += kPacketHeaderSize + length;
    ++count_;
    std::memcpy(buffer_, &count_, sizeof count_);
    return true;
}

std::vector<VVMIDIPacketView> VVMIDIPacketList::packets() const {
    return readPackets(buffer_, used_);
}

std::vector<VVMIDIPacketView> VVMIDIPacketList::readPackets(const uint8_t* buffer, size_t size) {
    std::vector<VVMIDIPacketView> out;
    if (!buffer || size < kCountSize)
        return out;
    uint32_t count = 0;
    std::memcpy(&count, buffer, sizeof count);
    size_t offset = kCountSize;
    for (uint32_t i = 0; i < count; ++i) {
        if (size - offset < kPacketHeaderSize)
            break;
        VVMIDIPacketView view;
        uint16_t len16 = 0;
        std::memcpy(&view.timestamp, buffer + offset, sizeof view.timestamp);
        std::memcpy(&len16, buffer + offset + 8, sizeof len16);
        offset += kPacketHeaderSize;
        if (size - offset < len16)
            break;
        view.bytes = buffer + offset;
        view.length = len16;
        offset += len16;
        out.push_back(view);
    }
    return out;
}
