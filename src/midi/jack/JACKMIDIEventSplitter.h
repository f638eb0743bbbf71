#pragma once
// Cuts a MIDI byte stream into the single messages that an event-based
// transport (a JACK MIDI buffer holds one message per event) must carry.
// Packets handed to the service may hold several messages, running status or
// real-time bytes in the middle of another message; consumers on the other
// side of JACK expect each event to be one message starting with its status.
//
// Rules:
// - a real-time byte (F8..FF) is an event of its own at once, wherever it
//   stands; the message it interrupted goes on around it and follows it;
// - F0 starts a system-exclusive event that runs to its F7 included, or up
//   to the next status byte that is not real-time, or to the end of the
//   stream (a piece of a long message, passed on as it is);
// - any other status byte starts an event of its message's length (a message
//   cut short by the next status byte or the end is passed on short);
// - data bytes after a complete channel message repeat its status (running
//   status): they become events of their own with that status put in front;
// - data bytes before any status byte, and an F7 outside a system-exclusive
//   message, are dropped.
// Pure code: it touches nothing but the vectors it is given.

#include <cstddef>
#include <cstdint>
#include <vector>

class JACKMIDIEventSplitter {
public:
    struct Span {
        std::size_t offset = 0; // in the output bytes
        std::size_t length = 0;
        bool operator==(const Span&) const = default;
    };

    // Replaces out and events: out holds the events' bytes back to back,
    // events where each one lies in out, in the order they must be sent.
    static void split(const std::uint8_t* bytes, std::size_t count, std::vector<std::uint8_t>& out,
                      std::vector<Span>& events);

    // Bytes of a whole message that begins with this status byte (status
    // included); 0 for system exclusive, whose length is open.
    static std::size_t messageLength(std::uint8_t status);
};
