// The time code and beat clock followers, driven with explicit host times.

#include "midi/VVMIDIBeatClockFollower.h"
#include "midi/VVMIDITimeCodeFollower.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t kMs = 1'000'000ull;

// The eight quarter-frame pieces of hh:mm:ss:ff at a rate code.
std::vector<uint8_t> pieces(int h, int m, int s, int f, int rate) {
    return {uint8_t(0x00 | (f & 0xF)), uint8_t(0x10 | (f >> 4)),
            uint8_t(0x20 | (s & 0xF)), uint8_t(0x30 | (s >> 4)),
            uint8_t(0x40 | (m & 0xF)), uint8_t(0x50 | (m >> 4)),
            uint8_t(0x60 | (h & 0xF)), uint8_t(0x70 | (h >> 4) | (rate << 1))};
}

TEST(MidiTimeCode, RunOfEightLocksStepsByQuarterFramesAndFreewheels) {
    VVMIDITimeCodeFollower mtc;
    const uint64_t t0 = 10'000 * kMs;
    const auto run = pieces(1, 2, 3, 4, 1); // 25 fps: a quarter frame is 10 ms
    for (int i = 0; i < 7; ++i) {
        mtc.quarterFrame(run[i], t0 + i * 10 * kMs);
        EXPECT_EQ(mtc.currentSMPTESeconds(t0 + i * 10 * kMs), 0.0) << "no lock before piece 7";
    }
    const uint64_t t7 = t0 + 70 * kMs;
    mtc.quarterFrame(run[7], t7);
    EXPECT_EQ(mtc.smpteFormat(), 1);
    const double locked = 3723 + (4 + 1.75) / 25.0;
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7), locked, 1e-9);
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7 + 5 * kMs), locked + 0.005, 1e-9);
    // The next quarter frame moves on by exactly a quarter frame.
    mtc.quarterFrame(0x00 | 6, t7 + 10 * kMs);
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7 + 10 * kMs), locked + 0.01, 1e-9);
    // Silence: the clock freewheels for 0.2 s and then stands.
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7 + 10 * kMs + 150 * kMs), locked + 0.16, 1e-9);
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7 + 10 * kMs + 5000 * kMs), locked + 0.21, 1e-9);
    // A quarter frame after the silence does not move it: it must lock again.
    mtc.quarterFrame(0x10, t7 + 6000 * kMs);
    EXPECT_NEAR(mtc.currentSMPTESeconds(t7 + 6005 * kMs), locked + 0.21, 1e-9);
}

TEST(MidiTimeCode, OutOfOrderPiecesNeverLock) {
    VVMIDITimeCodeFollower mtc;
    const auto run = pieces(1, 2, 3, 4, 3);
    for (int i = 7; i >= 0; --i) // reverse play
        mtc.quarterFrame(run[i], 1000 * kMs + (7 - i) * 8 * kMs);
    for (int i : {0, 1, 2, 4, 3, 5, 6, 7}) // a lost or swapped piece
        mtc.quarterFrame(run[i], 2000 * kMs + i * 8 * kMs);
    EXPECT_EQ(mtc.currentSMPTESeconds(3000 * kMs), 0.0);
    EXPECT_FALSE(mtc.running());
}

TEST(MidiTimeCode, LocatedClockCountsOnFromTheFirstQuarterFrame) {
    VVMIDITimeCodeFollower mtc;
    mtc.setSmpteFormat(3);
    mtc.stop();
    mtc.setCurrentTime(0, 0, 10, 0);
    mtc.start();
    EXPECT_DOUBLE_EQ(mtc.currentSMPTESeconds(99'000 * kMs), 10.0);
    const double q = 0.25 / 30;
    mtc.quarterFrame(0x00, 100'000 * kMs); // the first one marks the located frame
    mtc.quarterFrame(0x10, 100'008 * kMs);
    mtc.quarterFrame(0x20, 100'016 * kMs);
    EXPECT_NEAR(mtc.currentSMPTESeconds(100'016 * kMs), 10.0 + 2 * q, 1e-9);
}

TEST(MidiTimeCode, ParsesQuarterFramesFromPacketsWithInterleavedRealTime) {
    VVMIDITimeCodeFollower mtc;
    const auto run = pieces(0, 0, 1, 0, 3);
    std::vector<uint8_t> bytes;
    for (uint8_t p : run) {
        bytes.push_back(0xF1);
        bytes.push_back(0xF8); // a clock between status and data
        bytes.push_back(p);
    }
    VVMIDIPacketView view{0, bytes.data(), bytes.size()};
    mtc.parseMIDI({&view, 1}, 500 * kMs);
    EXPECT_NEAR(mtc.currentSMPTESeconds(500 * kMs), 1.0 + 1.75 / 30, 1e-9);
}

TEST(MidiBeatClock, StartContinueStopAndSongPosition) {
    struct Step {
        const char* what;
        std::vector<uint8_t> bytes;
        double beats; // at the time of the last clock
        double bpm;
    };
    // 10 ms per clock: 250 BPM.
    const std::vector<Step> steps = {
        {"clocks while stopped give a tempo but no motion", {0xF8, 0xF8, 0xF8}, 0.0, 0.0},
        {"start: the next clock is the downbeat", {0xFA, 0xF8}, 0.0, 250.0},
        {"twelve clocks are half a beat", std::vector<uint8_t>(12, 0xF8), 0.5, 250.0},
        {"stop stands still", {0xFC, 0xF8, 0xF8}, 0.5, 0.0},
        {"song position 8 sixteenths = 2 beats", {0xF2, 0x08, 0x00}, 2.0, 0.0},
        {"continue from there", {0xFB, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8, 0xF8}, 2.25, 250.0},
        {"song position straddling a clock", {0xFC, 0xF2, 0x00, 0xF8, 0x01}, 32.0, 0.0},
    };
    VVMIDIBeatClockFollower clock;
    uint64_t t = 1000 * kMs;
    for (const Step& s : steps) {
        std::vector<VVMIDIPacketView> packets;
        for (const uint8_t& b : s.bytes) {
            if (b == 0xF8)
                t += 10 * kMs;
            packets.push_back({t, &b, 1});
        }
        clock.parseMIDI(packets, 0);
        EXPECT_NEAR(clock.currentBeats(t), s.beats, 1e-9) << s.what;
        EXPECT_NEAR(clock.currentTempo() * clock.playRate(), s.bpm, 1e-6) << s.what;
    }
    // Between clocks the position runs on for at most one clock.
    EXPECT_NEAR(clock.currentBeats(t + 5 * kMs), 32.0, 1e-9); // stopped: stands
    clock.continueTransport();
    clock.clock(t + 10 * kMs);
    EXPECT_NEAR(clock.currentBeats(t + 15 * kMs), 32.0 + 0.5 / 24, 1e-9);
    EXPECT_NEAR(clock.currentBeats(t + 900 * kMs), 32.0 + 1.0 / 24, 1e-9);
}

TEST(MidiBeatClock, LongGapRestartsTheTempoMeasurement) {
    VVMIDIBeatClockFollower clock;
    uint64_t t = kMs;
    for (int i = 0; i < 30; ++i)
        clock.clock(t += 20 * kMs); // 125 BPM
    clock.clock(t += 5000 * kMs);
    EXPECT_EQ(clock.currentTempo(), 0.0);
    clock.clock(t += 10 * kMs);
    EXPECT_NEAR(clock.currentTempo(), 250.0, 1e-6);
}

} // namespace
