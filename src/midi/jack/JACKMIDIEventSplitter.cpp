#include "midi/jack/JACKMIDIEventSplitter.h"

std::size_t JACKMIDIEventSplitter::messageLength(std::uint8_t status) {
    switch (status & 0xF0) {
    case 0x80:
    case 0x90:
    case 0xA0:
    case 0xB0:
    case 0xE0:
        return 3;
    case 0xC0:
    case 0xD0:
        return 2;
    default:
        break;
    }
    switch (status) {
    case 0xF0:
        return 0;
    case 0xF1:
    case 0xF3:
        return 2;
    case 0xF2:
        return 3;
    default:
        return 1; // F4..F7 and the real-time bytes stand alone
    }
}

void JACKMIDIEventSplitter::split(const std::uint8_t* bytes, std::size_t count,
                                  std::vector<std::uint8_t>& out, std::vector<Span>& events) {
    out.clear();
    events.clear();
    out.reserve(count + count / 2);

    // The message being gathered sits at the end of out, from pendingStart;
    // real-time bytes that interrupt it are put out before it by moving it.
    std::size_t pendingStart = 0;
    bool pending = false;
    bool sysex = false;
    std::size_t wanted = 0;   // whole length of the pending short message
    std::uint8_t running = 0; // status that data bytes without one repeat

    const auto finish = [&] {
        if (pending && out.size() > pendingStart)
            events.push_back({pendingStart, out.size() - pendingStart});
        else
            out.resize(pendingStart);
        pending = false;
        sysex = false;
        pendingStart = out.size();
    };
    const auto begin = [&](std::uint8_t status) {
        finish();
        pending = true;
        out.push_back(status);
    };

    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t b = bytes[i];
        if (b >= 0xF8) {
            // Insert ahead of the pending message, which moves up one byte.
            out.insert(out.begin() + static_cast<std::ptrdiff_t>(pendingStart), b);
            events.push_back({pendingStart, 1});
            ++pendingStart;
            continue;
        }
        if (b == 0xF7) {
            if (pending && sysex)
                out.push_back(b);
            finish();
            running = 0;
            continue;
        }
        if (b >= 0x80) {
            begin(b);
            if (b == 0xF0) {
                sysex = true;
                running = 0;
                continue;
            }
            wanted = messageLength(b);
            running = b < 0xF0 ? b : 0; // system common messages cancel running status
            if (wanted == 1)
                finish();
            continue;
        }
        // A data byte.
        if (!pending) {
            if (running == 0)
                continue; // no status to belong to
            begin(running);
            wanted = messageLength(running);
        }
        out.push_back(b);
        if (!sysex && out.size() - pendingStart >= wanted)
            finish();
    }
    finish();
}
