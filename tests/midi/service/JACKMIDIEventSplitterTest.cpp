// Byte streams cut into the one-message events a JACK MIDI buffer carries.

#include "midi/jack/JACKMIDIEventSplitter.h"
#include "midi/jack/JACKMIDIService.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> split(const Bytes& stream) {
    std::vector<std::uint8_t> out;
    std::vector<JACKMIDIEventSplitter::Span> spans;
    JACKMIDIEventSplitter::split(stream.data(), stream.size(), out, spans);
    std::vector<Bytes> events;
    for (const auto& s : spans)
        events.emplace_back(out.begin() + static_cast<std::ptrdiff_t>(s.offset),
                            out.begin() + static_cast<std::ptrdiff_t>(s.offset + s.length));
    return events;
}

struct SplitCase {
    const char* what;
    Bytes stream;
    std::vector<Bytes> events;
};

TEST(JACKMIDIEventSplitter, EachEventIsOneMessageStartingWithItsStatus) {
    const std::vector<SplitCase> cases = {
        {"one note", {0x90, 0x3C, 0x40}, {{0x90, 0x3C, 0x40}}},
        {"two messages",
         {0x90, 0x3C, 0x40, 0x80, 0x3C, 0x00},
         {{0x90, 0x3C, 0x40}, {0x80, 0x3C, 0x00}}},
        {"running status repeats the status",
         {0x90, 0x3C, 0x40, 0x3E, 0x40},
         {{0x90, 0x3C, 0x40}, {0x90, 0x3E, 0x40}}},
        {"two-byte running status", {0xC5, 0x07, 0x08}, {{0xC5, 0x07}, {0xC5, 0x08}}},
        {"system exclusive whole",
         {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7},
         {{0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}}},
        {"clock inside sysex goes first",
         {0xF0, 0x01, 0xF8, 0x02, 0xF7},
         {{0xF8}, {0xF0, 0x01, 0x02, 0xF7}}},
        {"clock inside a note goes first", {0x90, 0xF8, 0x3C, 0x40}, {{0xF8}, {0x90, 0x3C, 0x40}}},
        {"real time alone", {0xFE}, {{0xFE}}},
        {"leading data bytes dropped", {0x3C, 0x40, 0x90, 0x3C, 0x40}, {{0x90, 0x3C, 0x40}}},
        {"lone end of exclusive dropped", {0xF7}, {}},
        {"short message passed on short", {0xB0, 0x07}, {{0xB0, 0x07}}},
        {"status cuts a short message",
         {0x90, 0x3C, 0xB0, 0x07, 0x64},
         {{0x90, 0x3C}, {0xB0, 0x07, 0x64}}},
        {"unterminated sysex is a piece", {0xF0, 0x01, 0x02}, {{0xF0, 0x01, 0x02}}},
        {"status ends a sysex", {0xF0, 0x01, 0x90, 0x3C, 0x40}, {{0xF0, 0x01}, {0x90, 0x3C, 0x40}}},
        {"quarter frames", {0xF1, 0x74, 0xF1, 0x03}, {{0xF1, 0x74}, {0xF1, 0x03}}},
        {"no running status after system common", {0xF1, 0x74, 0x05}, {{0xF1, 0x74}}},
        {"no running status after sysex",
         {0x90, 0x3C, 0x40, 0xF0, 0x01, 0xF7, 0x3C, 0x00},
         {{0x90, 0x3C, 0x40}, {0xF0, 0x01, 0xF7}}},
        {"song position", {0xF2, 0x10, 0x20}, {{0xF2, 0x10, 0x20}}},
        {"tune request stands alone", {0xF6, 0x05}, {{0xF6}}},
        {"running status kept across real time",
         {0x90, 0x3C, 0x40, 0xF8, 0x3E, 0x40},
         {{0x90, 0x3C, 0x40}, {0xF8}, {0x90, 0x3E, 0x40}}},
        {"empty", {}, {}},
    };
    for (const SplitCase& c : cases)
        EXPECT_EQ(split(c.stream), c.events) << c.what;
}

TEST(JACKMIDIEventSplitter, PortIDsAreNonZeroAndDistinct) {
    // Names as JACK shows them; an ID must tell them all apart.
    const std::vector<std::string> names = {"system:midi_capture_1",
                                            "system:midi_capture_2",
                                            "system:midi_playback_1",
                                            "Tessarine:To Tessarine",
                                            "Tessarine:From Tessarine",
                                            "a2j:Midi Through [14] (capture): Midi Through Port-0",
                                            "tsnote:out",
                                            "tsnote:out ",
                                            "",
                                            "x"};
    std::set<std::uint32_t> ids;
    for (const std::string& n : names) {
        const std::uint32_t id = JACKMIDIService::uniqueIDForPortName(n);
        EXPECT_NE(id, 0u) << n;
        EXPECT_EQ(id, JACKMIDIService::uniqueIDForPortName(n)) << "stable: " << n;
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), names.size());
}

} // namespace
