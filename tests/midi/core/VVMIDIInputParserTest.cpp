// The input parser against byte lists: each case is a sequence of input
// callbacks (each one packet list of packets) and what each call delivers.

#include "midi/VVMIDIInputParser.h"
#include "MidiTestFormat.h"
#include "platform/Log.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;
using Call = std::vector<Bytes>; // the packets of one callback

struct ParseCase {
    const char* name;
    std::vector<Call> calls;
    std::vector<std::string> delivered; // one entry per call
};

std::string runCall(VVMIDIInputParser& parser, const Call& call, uint64_t now = 1) {
    std::vector<VVMIDIPacketView> packets;
    for (const Bytes& b : call)
        packets.push_back({0, b.data(), b.size()});
    VVMIDIMessageList out;
    parser.parsePacketList(packets, now, out);
    return midi_test::text(out);
}

void runTable(const std::vector<ParseCase>& table) {
    ts::setLogToStandardError(false);
    for (const ParseCase& c : table) {
        VVMIDIInputParser parser;
        ASSERT_EQ(c.calls.size(), c.delivered.size()) << c.name;
        for (size_t i = 0; i < c.calls.size(); ++i)
            EXPECT_EQ(runCall(parser, c.calls[i]), c.delivered[i]) << c.name << ", call " << i;
    }
}

TEST(MidiParser, ChannelMessagesOnePerStatusByteWithoutRunningStatus) {
    runTable({
        {"note on", {{{0x90, 0x3C, 0x40}}}, {"90/0 3C 40 FF"}},
        {"velocity 0 is a note off", {{{0x93, 0x3C, 0x00}}}, {"80/3 3C 00 FF"}},
        {"note off stays", {{{0x8F, 0x10, 0x20}}}, {"80/15 10 20 FF"}},
        {"bare status", {{{0x90}}}, {"90/0 FF FF FF"}},
        {"running status dropped", {{{0x90, 0x3C, 0x40, 0x3E, 0x40}}}, {"90/0 3C 40 FF"}},
        {"leading data dropped", {{{0x3C, 0x40, 0x90}}}, {"90/0 FF FF FF"}},
        {"program change takes a second byte too", {{{0xC5, 0x10, 0x11}}}, {"C0/5 10 11 FF"}},
        {"pressure", {{{0xD3, 0x22}}}, {"D0/3 22 FF FF"}},
        {"aftertouch", {{{0xA1, 0x3C, 0x7F}}}, {"A0/1 3C 7F FF"}},
        {"pitch wheel", {{{0xE2, 0x00, 0x40}}}, {"E0/2 00 40 FF"}},
        {"status split across packets", {{{0x90}, {0x3C}, {0x40}}}, {"90/0 3C 40 FF"}},
        {"data of the next call is dropped", {{{0x90, 0x3C}}, {{0x40}}}, {"90/0 3C FF FF", ""}},
        {"several notes",
         {{{0x90, 1, 2, 0x91, 3, 4}, {0x82, 5, 6}}},
         {"90/0 01 02 FF; 90/1 03 04 FF; 80/2 05 06 FF"}},
    });
}

TEST(MidiParser, ControlChangeIsDeliveredWhenItsValueArrives) {
    runTable({
        {"complete", {{{0xB1, 0x07, 0x64}}}, {"B0/1 07 64 FF"}},
        {"value 0", {{{0xB0, 0x07, 0x00}}}, {"B0/0 07 00 FF"}},
        {"no value, no message", {{{0xB1, 0x07}}}, {""}},
        {"value in the next call is lost", {{{0xB1, 0x07}}, {{0x64}}}, {"", ""}},
        {"before a note",
         {{{0xB0, 0x07, 0x64, 0x90, 0x3C, 0x40}}},
         {"B0/0 07 64 FF; 90/0 3C 40 FF"}},
        {"after a note",
         {{{0x90, 0x3C, 0x40, 0xB0, 0x07, 0x64}}},
         {"90/0 3C 40 FF; B0/0 07 64 FF"}},
        {"overtaken by a note", {{{0xB0, 0x07, 0x90, 0x3C, 0x40}}}, {"90/0 3C 40 FF"}},
        {"takes its place at the value", {{{0xB0, 0x07, 0xF8, 0x64}}}, {"F8/0 FF 64 FF"}},
    });
}

TEST(MidiParser, SystemCommonAndRealTimeBytes) {
    runTable({
        {"quarter frame", {{{0xF1, 0x74}}}, {"F1/0 74 FF FF"}},
        {"song position", {{{0xF2, 0x10, 0x20}}}, {"F2/0 10 20 FF"}},
        {"song select", {{{0xF3, 0x05}}}, {"F3/0 05 FF FF"}},
        {"undefined common carries data", {{{0xF4, 0x01}}}, {"F4/0 01 FF FF"}},
        {"tune request", {{{0xF6}}}, {"F6/0 FF FF FF"}},
        {"every real-time byte",
         {{{0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF}}},
         {"F8/0 FF FF FF; F9/0 FF FF FF; FA/0 FF FF FF; FB/0 FF FF FF; FC/0 FF FF FF; "
          "FD/0 FF FF FF; FE/0 FF FF FF; FF/0 FF FF FF"}},
        {"clock takes the data of the note it interrupts",
         {{{0x90, 0xF8, 0x3C, 0x40}}},
         {"90/0 FF FF FF; F8/0 3C 40 FF"}},
        {"clock between data bytes",
         {{{0x90, 0x3C, 0xF8, 0x40}}},
         {"90/0 3C FF FF; F8/0 FF 40 FF"}},
        {"data after a lone clock is dropped", {{{0xF8, 0x3C}}}, {"F8/0 FF FF FF"}},
        {"end of exclusive alone is not a message", {{{0xF7}}}, {""}},
    });
}

TEST(MidiParser, SystemExclusiveIsGatheredAcrossCallsAndInterleaved) {
    runTable({
        {"whole", {{{0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}}}, {"F0/255 FF FF FF [7E 7F 06 01]"}},
        {"across calls",
         {{{0xF0, 0x01, 0x02}}, {{0x03, 0xF7}}},
         {"", "F0/255 FF FF FF [01 02 03]"}},
        {"across packets", {{{0xF0, 0x01}, {0x02}, {0xF7}}}, {"F0/255 FF FF FF [01 02]"}},
        {"real time inside",
         {{{0xF0, 0x01, 0xF8, 0x02, 0xF7}}},
         {"F8/0 FF FF FF; F0/255 FF FF FF [01 02]"}},
        {"status inside still gathers",
         {{{0xF0, 0x01, 0x90, 0x02, 0xF7}}},
         {"90/0 FF FF FF; F0/255 FF FF FF [01 02]"}},
        {"a second F0 restarts", {{{0xF0, 0x01, 0xF0, 0x02, 0xF7}}}, {"F0/255 FF FF FF [02]"}},
        {"empty is refused", {{{0xF0, 0xF7}}}, {""}},
        {"data after it, no state yet", {{{0xF0, 0x01, 0xF7, 0x40}}}, {"F0/255 FF FF FF [01]"}},
        {"inherits the interrupted state",
         {{{0x90, 0x3C, 0xF0, 0x01, 0xF7, 0x40}}},
         {"90/0 3C FF FF; F0/255 FF 40 FF [01]"}},
        {"a later F7 still ends it",
         {{{0xF0, 0x05}}, {{0x90, 0x3C, 0x40}}, {{0xF7}}},
         {"", "90/0 FF FF FF", "F0/255 FF FF FF [05 3C 40]"}},
    });
}

TEST(MidiParser, EndOfExclusiveWithNothingGatheredLogsTheRefusal) {
    ts::setLogToStandardError(false);
    ts::LogCapture log;
    VVMIDIInputParser parser;
    EXPECT_EQ(runCall(parser, {{0x90, 0x3C, 0xF7, 0x40}}), "90/0 3C FF FF");
    EXPECT_EQ(log.count("\t\terr: -[VVMIDIMessage initWithSysexArray:timestamp:] - BAIL"), 1);
    EXPECT_FALSE(parser.processingSysex());
}

// The gathering stays open for 128 calls after the one with the F0; the 129th
// begins by giving it up, so its data bytes are dropped (an F7 still delivers
// what was gathered before).
TEST(MidiParser, GatheringIsAbandonedWhenThe129thCallBegins) {
    ts::setLogToStandardError(false);
    struct Case {
        int fillerCalls;      // calls of one 0x02 after the F0 call
        std::string lastCall; // expected delivery of the call [03 F7]
        size_t expectedBytes;
    };
    for (const Case& c : {Case{127, "", 1 + 127 + 1}, Case{128, "", 1 + 128}}) {
        VVMIDIInputParser parser;
        runCall(parser, {{0xF0, 0x01}});
        for (int i = 0; i < c.fillerCalls; ++i)
            EXPECT_EQ(runCall(parser, {{0x02}}), "");
        EXPECT_TRUE(parser.processingSysex());
        EXPECT_EQ(parser.processingSysexIterationCount(), c.fillerCalls);
        VVMIDIMessageList out;
        const Bytes last = {0x03, 0xF7};
        VVMIDIPacketView view{0, last.data(), last.size()};
        parser.parsePacketList({&view, 1}, 1, out);
        ASSERT_EQ(out.size(), 1u) << c.fillerCalls;
        EXPECT_EQ(out[0]->sysexArray().size(), c.expectedBytes) << c.fillerCalls;
        EXPECT_EQ(out[0]->sysexArray().back(), c.fillerCalls == 127 ? 3 : 2) << c.fillerCalls;
    }
    // Abandoned and no F7: the data of the 129th call go nowhere and the
    // gathering is over.
    VVMIDIInputParser parser;
    runCall(parser, {{0xF0, 0x01}});
    for (int i = 0; i < 128; ++i)
        runCall(parser, {{0x02}});
    EXPECT_EQ(runCall(parser, {{0x03, 0x90, 0x3C}}), "90/0 3C FF FF");
    EXPECT_FALSE(parser.processingSysex());
    EXPECT_EQ(parser.processingSysexIterationCount(), 0);
    EXPECT_EQ(parser.sysexArray().size(), 129u); // kept until the next F0 or F7
}

TEST(MidiParser, QuarterFrameRatePieceSetsTheTimeCodeFormat) {
    struct Case {
        uint8_t piece;
        int formatBefore;
        int formatAfter;
    };
    for (const Case& c : {Case{0x74, 3, 2}, Case{0x76, 0, 3}, Case{0x72, 3, 1}, Case{0x70, 2, 0},
                          Case{0x64, 3, 3} /* not the rate piece */}) {
        VVMIDIInputParser parser;
        parser.timeCodeClock().setSmpteFormat(c.formatBefore);
        EXPECT_EQ(runCall(parser, {{0xF1, c.piece}}),
                  "F1/0 " + midi_test::hexByte(c.piece) + " FF FF");
        EXPECT_EQ(parser.timeCodeClock().smpteFormat(), c.formatAfter) << int(c.piece);
    }
}

TEST(MidiParser, FullFrameLocatesTheTimeCodeClockInItsFormat) {
    VVMIDIInputParser parser;
    parser.timeCodeClock().setSmpteFormat(1); // 25 fps
    EXPECT_EQ(runCall(parser, {{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x21, 0x02, 0x03, 0x04, 0xF7}}),
              "F0/255 FF FF FF [7F 7F 01 01 21 02 03 04]");
    EXPECT_TRUE(parser.timeCodeClock().running());
    // hours 0x21 AND 0x1F = 1; the position stands until quarter frames move it.
    EXPECT_DOUBLE_EQ(parser.timeCodeClock().currentSMPTESeconds(5'000'000'000ull),
                     3600 + 120 + 3 + 4 / 25.0);

    // A nine-byte list is no full frame and leaves the clock alone.
    VVMIDIInputParser other;
    runCall(other, {{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x21, 0x02, 0x03, 0x04, 0x05, 0xF7}});
    EXPECT_FALSE(other.timeCodeClock().running());
    EXPECT_EQ(other.timeCodeClock().currentSMPTESeconds(1), 0.0);
}

TEST(MidiParser, BeatClockFollowsTheRealTimeBytesOfEachCall) {
    VVMIDIInputParser parser;
    const uint64_t t0 = 1'000'000'000ull;
    const uint64_t step = 20'000'000ull; // 20 ms per clock = 125 BPM
    const Bytes start = {0xFA};
    const Bytes clock = {0xF8};
    VVMIDIMessageList out;
    VVMIDIPacketView v{t0, start.data(), 1};
    parser.parsePacketList({&v, 1}, t0, out);
    for (int i = 0; i <= 24; ++i) {
        VVMIDIPacketView c{t0 + i * step, clock.data(), 1};
        parser.parsePacketList({&c, 1}, 0, out);
    }
    EXPECT_EQ(out.size(), 26u);
    const uint64_t last = t0 + 24 * step;
    EXPECT_NEAR(parser.beatClock().currentBeats(last), 1.0, 1e-9);
    EXPECT_NEAR(parser.beatClock().currentTempo(), 125.0, 1e-6);

    // A song position pointer alone (no real-time byte in its call) still
    // moves the beat position: 32 sixteenths = 8 beats.
    runCall(parser, {{0xFC}});
    runCall(parser, {{0xF2, 0x20, 0x00}});
    EXPECT_NEAR(parser.beatClock().currentBeats(last), 8.0, 1e-9);
}

} // namespace
