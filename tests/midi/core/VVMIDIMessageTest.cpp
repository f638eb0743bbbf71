#include "midi/VVMIDIMessage.h"
#include "MidiTestFormat.h"
#include "platform/Log.h"

#include <gtest/gtest.h>

namespace {

using midi_test::text;

TEST(MidiMessage, FactoriesFillTheFieldsTheyDoNotTake) {
    struct Case {
        const char* name;
        VVMIDIMessagePtr msg;
        std::string expected;
    };
    const std::vector<Case> table = {
        {"type, channel", VVMIDIMessage::createWithTypeChannel(0x90, 3), "90/3 FF FF FF"},
        {"type, channel, time", VVMIDIMessage::createWithTypeChannelTimestamp(0xB0, 1, 77),
         "B0/1 FF FF FF @77"},
        {"four values", VVMIDIMessage::createFromVals(0x80, 2, 60, 0), "80/2 3C 00 FF"},
        {"five values", VVMIDIMessage::createFromVals(0xB0, 0, 7, 0x40, 0x00), "B0/0 07 40 00"},
        {"six values", VVMIDIMessage::createFromVals(0xE0, 15, 1, 2, 3, 9), "E0/15 01 02 03 @9"},
        {"bytes kept unmasked", VVMIDIMessage::createFromVals(0x91, 20, 200, 0x80),
         "91/20 C8 80 FF"},
        {"sysex", VVMIDIMessage::createWithSysexArray({1, 2, 0x7F}), "F0/255 FF FF FF [01 02 7F]"},
        {"sysex with time", VVMIDIMessage::createWithSysexArrayTimestamp({5}, 123),
         "F0/255 FF FF FF [05] @123"},
    };
    for (const Case& c : table) {
        ASSERT_TRUE(c.msg) << c.name;
        EXPECT_EQ(text(*c.msg), c.expected) << c.name;
    }
    // The initialisers give what the factories give.
    EXPECT_EQ(text(VVMIDIMessage(0x90, 3)), "90/3 FF FF FF");
    EXPECT_EQ(text(VVMIDIMessage(0xC0, 4, uint64_t(8))), "C0/4 FF FF FF @8");
    EXPECT_EQ(text(VVMIDIMessage(0xA0, 5, 1, 2)), "A0/5 01 02 FF");
}

TEST(MidiMessage, RefusedSysexListsLogAndMakeNothing) {
    ts::setLogToStandardError(false);
    struct Case {
        std::vector<int> list;
        int valueLines;
        const char* valueText;
    };
    for (const Case& c :
         {Case{{}, 0, ""}, Case{{1, 2, 0x80}, 1, "(80)"}, Case{{0x90, 0xA0}, 1, "(90)"},
          Case{{1, 300}, 1, "(12C)"}, Case{{-1}, 1, "(FFFFFFFF)"}}) {
        ts::LogCapture log;
        EXPECT_FALSE(VVMIDIMessage::createWithSysexArray(c.list));
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), size_t(c.valueLines + 1));
        if (c.valueLines) {
            EXPECT_EQ(lines[0], std::string("\terr: bailing, val in passed sysex array ") +
                                    c.valueText + " was > 0x7F");
        }
        EXPECT_EQ(lines.back(), "\t\terr: -[VVMIDIMessage initWithSysexArray:timestamp:] - BAIL");
    }
}

TEST(MidiMessage, CopiesAreNewObjectsWithTheirOwnSysexList) {
    auto sysex = VVMIDIMessage::createWithSysexArrayTimestamp({1, 2, 3}, 42);
    auto copy = sysex->copy();
    ASSERT_TRUE(copy);
    EXPECT_NE(copy.get(), sysex.get());
    EXPECT_EQ(text(*copy), text(*sysex));
    copy->sysexArray()[0] = 9;
    EXPECT_EQ(sysex->sysexArray()[0], 1);

    auto cc = VVMIDIMessage::createFromVals(0xB3, 4, 5, 6, 7, 8);
    auto ccCopy = cc->copy();
    EXPECT_NE(ccCopy.get(), cc.get());
    EXPECT_EQ(text(*ccCopy), "B3/4 05 06 07 @8");
}

TEST(MidiMessage, DoubleValueUsesFourteenBitsOnlyWhenData3IsPresent) {
    struct Case {
        uint8_t data2, data3;
        double expected;
    };
    for (const Case& c :
         {Case{64, 0xFF, 64 / 127.0}, Case{0x40, 0, 8192 / 16383.0}, Case{127, 0x80, 1.0},
          Case{0x7F, 0x7F, 1.0}, Case{0xFF, 0xFF, 255 / 127.0}, Case{0xFF, 0x01, 16257 / 16383.0},
          Case{0, 0xFF, 0.0}}) {
        EXPECT_DOUBLE_EQ(VVMIDIMessage::createFromVals(0xB0, 0, 1, c.data2, c.data3)->doubleValue(),
                         c.expected)
            << int(c.data2) << "/" << int(c.data3);
    }
}

TEST(MidiMessage, FullFrameNeedsEightBytesWithTheRightMarkers) {
    struct Case {
        std::vector<int> list;
        bool full;
    };
    for (const Case& c : {Case{{0x7F, 0x05, 0x01, 0x01, 1, 2, 3, 4}, true},
                          Case{{0x7F, 0x7F, 0x01, 0x01, 0, 0, 0, 0}, true},
                          Case{{0x7F, 0x05, 0x01, 0x01, 1, 2, 3, 4, 5}, false},
                          Case{{0x7E, 0x05, 0x01, 0x01, 1, 2, 3, 4}, false},
                          Case{{0x7F, 0x05, 0x01, 0x02, 1, 2, 3, 4}, false},
                          Case{{0x7F, 0x05, 0x02, 0x01, 1, 2, 3, 4}, false}}) {
        EXPECT_EQ(VVMIDIMessage::createWithSysexArray(c.list)->isFullFrameSMPTE(), c.full)
            << VVMIDIMessage::listText(c.list);
    }
    EXPECT_FALSE(VVMIDIMessage::createFromVals(0xF0, 0, 0x7F, 1)->isFullFrameSMPTE());
}

TEST(MidiMessage, DescriptionsByType) {
    EXPECT_EQ(VVMIDIMessage::createFromVals(0x90, 3, 60, 64, 0xFF, 12)->description(),
              "<VVMIDIMessage: 0x90 : 3 : 60 : 64 : 255 : 12>");
    struct Case {
        VVMIDIMessagePtr msg;
        const char* text;
    };
    const std::vector<Case> table = {
        {VVMIDIMessage::createWithTypeChannel(0x90, 3), "NoteOn, ch.3, note.-1, val.-1, time.0"},
        {VVMIDIMessage::createFromVals(0x80, 1, 60, 0), "NoteOff, ch.1, note.60, val.0, time.0"},
        {VVMIDIMessage::createFromVals(0xA0, 2, 61, 100, 0xFF, 5),
         "AfterTouch, ch.2, note.61, val.100, time.5"},
        {VVMIDIMessage::createFromVals(0xB0, 15, 7, 127), "Ctrl, ch.15, ctrl.7, val.127, time.0"},
        {VVMIDIMessage::createFromVals(0xB0, 0, 200, 128),
         "Ctrl, ch.0, ctrl.-56, val.-128, time.0"},
        {VVMIDIMessage::createFromVals(0xC0, 4, 9, 0xFF), "PgmChange, ch.4, pgm.9, time.0"},
        {VVMIDIMessage::createFromVals(0xD0, 5, 33, 0xFF), "ChannelPressure, ch.5, val.33, time.0"},
        {VVMIDIMessage::createFromVals(0xE0, 6, 0x00, 0x40), "PitchWheel, ch.6, val.8192, time.0"},
        {VVMIDIMessage::createWithSysexArrayTimestamp({1, 2}, 3), "Sysex: (1, 2), time.3"},
        {VVMIDIMessage::createFromVals(0xF1, 0, 0x74, 0xFF), "Quarter-Frame: 116, time.0"},
        {VVMIDIMessage::createFromVals(0xF2, 0, 0x7F, 0x7F), "Song Pos'n ptr: 16383, time.0"},
        {VVMIDIMessage::createFromVals(0xF3, 0, 0xFF, 0xFF), "Song Select: -1, time.0"},
        {VVMIDIMessage::createWithTypeChannel(0xF4, 0), "Undefined common"},
        {VVMIDIMessage::createWithTypeChannel(0xF5, 0), "Undefined common 2"},
        {VVMIDIMessage::createWithTypeChannel(0xF6, 0), "Tune Request"},
        {VVMIDIMessage::createWithTypeChannel(0xF8, 0), "Clock"},
        {VVMIDIMessage::createWithTypeChannel(0xF9, 0), "Tick"},
        {VVMIDIMessage::createWithTypeChannel(0xFA, 0), "Start"},
        {VVMIDIMessage::createWithTypeChannel(0xFB, 0), "Continue"},
        {VVMIDIMessage::createWithTypeChannel(0xFC, 0), "Stop"},
        {VVMIDIMessage::createWithTypeChannel(0xFD, 0), "Undefined Realtime"},
        {VVMIDIMessage::createWithTypeChannel(0xFE, 0), "Active Sense"},
        {VVMIDIMessage::createWithTypeChannel(0xFF, 0), "MIDI Reset"},
        {VVMIDIMessage::createWithTypeChannel(0xF7, 0), ""},
        {VVMIDIMessage::createWithTypeChannel(0x91, 0), ""},
        {VVMIDIMessage::createWithTypeChannel(0x40, 0), ""},
    };
    for (const Case& c : table)
        EXPECT_EQ(c.msg->lengthyDescription(), c.text) << c.msg->description();
}

TEST(MidiMessage, WireFormOrsTheChannelIntoEveryStatusByte) {
    struct Case {
        VVMIDIMessagePtr msg;
        std::vector<uint8_t> bytes;
    };
    const std::vector<Case> table = {
        {VVMIDIMessage::createFromVals(0x90, 0, 0x3C, 0x40), {0x90, 0x3C, 0x40}},
        {VVMIDIMessage::createFromVals(0x90, 20, 60, 200), {0x94, 0x3C, 0xC8}},
        {VVMIDIMessage::createFromVals(0x80, 1, 1, 2), {0x81, 1, 2}},
        {VVMIDIMessage::createFromVals(0xA0, 2, 1, 2), {0xA2, 1, 2}},
        {VVMIDIMessage::createFromVals(0xB0, 3, 7, 100, 5), {0xB3, 7, 100}},
        {VVMIDIMessage::createFromVals(0xE0, 4, 0, 0x40), {0xE4, 0, 0x40}},
        {VVMIDIMessage::createFromVals(0xF2, 0, 1, 2), {0xF2, 1, 2}},
        {VVMIDIMessage::createFromVals(0xC0, 5, 9, 9), {0xC5, 9}},
        {VVMIDIMessage::createFromVals(0xD0, 6, 9, 9), {0xD6, 9}},
        {VVMIDIMessage::createFromVals(0xF1, 0, 0x74, 9), {0xF1, 0x74}},
        {VVMIDIMessage::createFromVals(0xF3, 0, 3, 9), {0xF3, 3}},
        {VVMIDIMessage::createWithTypeChannel(0xF8, 5), {0xFD}},
        {VVMIDIMessage::createWithTypeChannel(0xF6, 0), {0xF6}},
        {VVMIDIMessage::createWithTypeChannel(0xFF, 0), {0xFF}},
        {VVMIDIMessage::createWithSysexArray({0x7E, 0x7F, 6, 1}), {0xF0, 0x7E, 0x7F, 6, 1, 0xF7}},
        {VVMIDIMessage::createWithTypeChannel(0xF4, 0), {}},
        {VVMIDIMessage::createWithTypeChannel(0xF5, 0), {}},
        {VVMIDIMessage::createWithTypeChannel(0xF7, 0), {}},
        {VVMIDIMessage::createWithTypeChannel(0xFD, 0), {}},
        {VVMIDIMessage::createWithTypeChannel(0x91, 0), {}},
        {VVMIDIMessage::createWithTypeChannel(0x10, 0), {}},
    };
    for (const Case& c : table)
        EXPECT_EQ(c.msg->wireForm(), c.bytes) << c.msg->description();

    // Too little room is a refusal, not a partial write.
    uint8_t two[2];
    EXPECT_EQ(VVMIDIMessage::createFromVals(0x90, 0, 1, 2)->writeWireForm(two, sizeof two), 0u);
}

} // namespace
