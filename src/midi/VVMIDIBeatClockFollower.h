#pragma once
// Follows incoming MIDI beat clock: position in beats (quarter notes) and
// tempo in beats per minute.
//
// - Clock (0xF8), 24 per beat: the tempo is measured from the spacing of the
//   last clocks (up to one beat of them, whether or not the transport runs);
//   while running, every clock after the first one following Start/Continue
//   moves the position on by 1/24 beat.
// - Start (0xFA): position 0, running. Continue (0xFB): running from the
//   current position. Stop (0xFC): stands still where the last clock left it.
// - Song position pointer (0xF2 lsb msb): the position in sixteenth notes,
//   i.e. value / 4 beats.
// Between clocks the position runs on with the host clock, for at most one
// clock interval, so a sender that stops sending does not run away.
// A gap of more than a second between clocks restarts the tempo measurement.
//
// The tempo answered is the measured tempo times the play rate, which is 1
// while running and 0 when stopped: a stopped transport reports 0 BPM.
//
// Thread use: fed on the MIDI receive thread, queried from any thread; one
// internal mutex (a leaf lock) guards all.

#include "midi/VVMIDIPacketList.h"

#include <cstdint>
#include <mutex>
#include <span>

class VVMIDIBeatClockFollower {
public:
    static constexpr int kClocksPerBeat = 24;
    static constexpr int kTempoWindow = 24; // intervals averaged

    // Reads clock, start, continue, stop and song position pointers of a
    // packet list; packets with time 0 count as arriving at now.
    void parseMIDI(std::span<const VVMIDIPacketView> packets, uint64_t now);

    void clock(uint64_t hostTime);
    void startTransport();
    void continueTransport();
    void stopTransport();
    void songPosition(int sixteenths);

    double currentBeats(uint64_t now) const;
    double currentTempo() const; // measured BPM, 0 when unknown
    double playRate() const;     // 1 running, 0 stopped
    bool running() const;

private:
    mutable std::mutex mutex_;
    bool running_ = false;
    bool awaitingFirstClock_ = false; // Start/Continue: the next clock is the downbeat
    double beats_ = 0.0;              // position at lastClock_
    uint64_t lastClock_ = 0;          // host time of the last clock, 0 = none
    uint64_t intervals_[kTempoWindow] = {};
    int intervalCount_ = 0;
    int intervalNext_ = 0;
    uint64_t intervalSum_ = 0;
};
