// Input layout: a sequence of packets, each one header byte and up to 63
// bytes. Header: low 6 bits = packet length, bit 6 = this packet ends the
// current callback, bit 7 = the packet carries a host time (else "now").
// One parser lives through the whole input, so gatherings span callbacks.

#include "midi/VVMIDIInputParser.h"
#include "midi/VVMIDIPacketList.h"
#include "platform/Log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Refused sysex lists log a line each: keep them off the terminal and out
    // of the user's log folder.
    setenv("XDG_STATE_HOME", "/tmp/tessarine-fuzz-state", 1);
    ts::setLogToStandardError(false);
    return 0;
}

namespace {

void check(const VVMIDIMessageList& out) {
    for (const VVMIDIMessagePtr& m : out) {
        if (!m)
            abort();
        for (int v : m->sysexArray())
            if (v < 0 || v > 0x7F)
                abort();
        if (m->type() < 0x80)
            abort();
        (void)m->lengthyDescription();
        (void)m->description();
        (void)m->doubleValue();
        // The wire form of what was parsed is always within the packet list.
        VVMIDIPacketList list;
        const std::vector<uint8_t> wire = m->wireForm();
        if (!wire.empty() && wire.size() <= VVMIDIPacketList::kMaxPacketBytes &&
            !list.add(1, wire.data(), wire.size()))
            abort();
        auto copy = m->copy();
        if (!copy || copy.get() == m.get())
            abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    VVMIDIInputParser parser;
    std::vector<VVMIDIPacketView> packets;
    uint64_t clock = 1'000'000'000ull;
    size_t i = 0;
    auto flush = [&] {
        VVMIDIMessageList out;
        parser.parsePacketList(packets, clock, out);
        check(out);
        packets.clear();
        (void)parser.timeCodeClock().currentSMPTESeconds(clock);
        (void)parser.beatClock().currentBeats(clock);
        (void)parser.beatClock().currentTempo();
        if (parser.processingSysexIterationCount() > VVMIDIInputParser::kMaxSysexCalls)
            abort();
    };
    while (i < size) {
        const uint8_t header = data[i++];
        const size_t len = std::min<size_t>(header & 0x3F, size - i);
        clock += 3'000'000ull + header; // time moves on irregularly
        packets.push_back({(header & 0x80) ? clock : 0, data + i, len});
        i += len;
        if (header & 0x40)
            flush();
    }
    flush();

    // The same bytes read as a packet list in the sender's layout: the reader
    // must stop at the first packet that runs past the end.
    const std::vector<VVMIDIPacketView> raw = VVMIDIPacketList::readPackets(data, size);
    for (const VVMIDIPacketView& p : raw)
        if (p.bytes < data || p.bytes + p.length > data + size)
            abort();
    VVMIDIMessageList out;
    VVMIDIInputParser second;
    second.parsePacketList(raw, clock, out);
    check(out);
    return 0;
}
