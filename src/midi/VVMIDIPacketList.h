#pragma once
// Packets of MIDI bytes with their host times.
//
// VVMIDIPacketView is what the input parser reads: one packet's time and
// bytes, borrowed from whoever received them (a backend's event buffer, a
// test's table).
//
// VVMIDIPacketList is the sender's outgoing list in a fixed 1024-byte buffer
// with the classic packet-list layout: a 32-bit packet count, then packets
// laid end to end, each a 64-bit host time, a 16-bit length and that many
// bytes (native byte order, no padding). A sender allocates one and reuses it
// for every send; the layout fixes how much one hand-over can carry (a single
// packet at most 1010 bytes, so a system-exclusive message of at most 1008
// data bytes).

#include <cstddef>
#include <cstdint>
#include <vector>

struct VVMIDIPacketView {
    uint64_t timestamp = 0; // host time in nanoseconds; 0 = now
    const uint8_t* bytes = nullptr;
    size_t length = 0;
};

class VVMIDIPacketList {
public:
    static constexpr size_t kCapacity = 1024;
    static constexpr size_t kCountSize = 4;
    static constexpr size_t kPacketHeaderSize = 10; // timestamp + length
    static constexpr size_t kMaxPacketBytes = kCapacity - kCountSize - kPacketHeaderSize;

    VVMIDIPacketList() { init(); }

    // Empties the list (the count becomes 0; the next add starts right after it).
    void init();
    // Appends one packet after the last one; false (and nothing changes) when
    // the bytes do not fit in the 1024-byte buffer or there are none.
    bool add(uint64_t timestamp, const uint8_t* bytes, size_t length);

    uint32_t packetCount() const { return count_; }
    bool empty() const { return count_ == 0; }
    // The buffer and the bytes in use (count + packets).
    const uint8_t* data() const { return buffer_; }
    size_t byteSize() const { return used_; }

    // The packets as views into this list's buffer (valid until the next change).
    std::vector<VVMIDIPacketView> packets() const;
    // Reads packets from a buffer in the same layout; stops at the first
    // packet that runs past size (a damaged list yields what was whole).
    static std::vector<VVMIDIPacketView> readPackets(const uint8_t* buffer, size_t size);

private:
    uint8_t buffer_[kCapacity];
    uint32_t count_ = 0;
    size_t used_ = kCountSize; // offset where the next packet goes
};
