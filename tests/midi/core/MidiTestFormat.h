#pragma once
// Compact text of MIDI messages for table-driven expectations:
// "TT/ch D1 D2 D3" in hex (channel in decimal), plus " [xx xx]" for a
// system-exclusive byte list; messages of one list joined by "; ".

#include "midi/VVMIDIMessage.h"

#include <cstdio>
#include <string>

namespace midi_test {

inline std::string hexByte(int v) {
    char b[8];
    std::snprintf(b, sizeof b, "%02X", v & 0xFF);
    return b;
}

inline std::string text(const VVMIDIMessage& m) {
    std::string s = hexByte(m.type()) + "/" + std::to_string(m.channel()) + " " +
                    hexByte(m.data1()) + " " + hexByte(m.data2()) + " " + hexByte(m.data3());
    if (!m.sysexArray().empty()) {
        s += " [";
        for (size_t i = 0; i < m.sysexArray().size(); ++i)
            s += (i ? " " : "") + hexByte(m.sysexArray()[i]);
        s += "]";
    }
    if (m.timestamp() != 0)
        s += " @" + std::to_string(m.timestamp());
    return s;
}

inline std::string text(const VVMIDIMessageList& list) {
    std::string s;
    for (size_t i = 0; i < list.size(); ++i)
        s += (i ? "; " : "") + (list[i] ? text(*list[i]) : std::string("null"));
    return s;
}

} // namespace midi_test
