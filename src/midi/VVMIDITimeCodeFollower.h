#pragma once
// Follows incoming MIDI time code and answers "where is the sender now" in
// SMPTE seconds (hours*3600 + minutes*60 + seconds + frames/fps).
//
// Quarter frames: eight pieces (0..7) carry frames, seconds, minutes, hours
// and the rate. Piece 0 goes out at the start of the frame it describes, one
// piece per quarter frame, so when piece 7 completes a forward run of 0..7
// the sender is 7/4 frames past the assembled time. From then on every
// quarter frame moves the position on by 1/4 frame, and each completed run
// re-anchors it, so drift never accumulates.
//
// Between quarter frames the position runs on with the host clock, for at most
// the freewheel time (0.2 s): a sender that stops leaves the clock standing
// 0.2 s past its last quarter frame, and the next quarter frames must complete
// a run again before the clock moves (out-of-order pieces, as in reverse play,
// never complete a run).
//
// A full-frame message locates: stop, set the time, start. The position then
// stands exactly there until quarter frames move it (a located sender is not
// assumed to be rolling).
//
// The rate (SMPTE format) uses the time code numbering: 0 = 24 fps, 1 = 25,
// 2 = 30 drop-frame, 3 = 30. Drop-frame positions count nominal 30 fps frames.
//
// Thread use: fed on the MIDI receive thread, queried from any thread; one
// internal mutex (a leaf: nothing else is taken while it is held) guards all.

#include "midi/VVMIDIPacketList.h"

#include <cstdint>
#include <mutex>
#include <span>

class VVMIDITimeCodeFollower {
public:
    static constexpr double kFreewheelSeconds = 0.2;

    int smpteFormat() const;
    void setSmpteFormat(int format);

    // The three steps of a locate from a full-frame message.
    void stop();
    void setCurrentTime(int hours, int minutes, int seconds, int frames);
    void start();

    // Reads every quarter frame (0xF1 + data byte) of a packet list. Packets
    // with time 0 count as arriving at now.
    void parseMIDI(std::span<const VVMIDIPacketView> packets, uint64_t now);
    // One quarter frame's data byte, arriving at a host time.
    void quarterFrame(uint8_t data, uint64_t hostTime);

    // The current position in SMPTE seconds at the given host time.
    double currentSMPTESeconds(uint64_t now) const;
    bool running() const;

private:
    double fpsLocked() const;
    double positionLocked(uint64_t now) const;

    mutable std::mutex mutex_;
    int format_ = 3;
    bool running_ = false;    // start()ed and not stop()ped, or locked by quarter frames
    bool moving_ = false;     // quarter frames are flowing: extrapolate from the anchor
    bool locked_ = false;     // the position is valid for quarter-frame steps
    double position_ = 0.0;   // SMPTE seconds at anchorHost_
    uint64_t anchorHost_ = 0; // host time of the last quarter frame or locate
    int lastPiece_ = -1;      // the piece last received, for run detection
    uint8_t runMask_ = 0;     // pieces received in order since piece 0
    uint8_t nibbles_[8] = {}; // the pieces' values
};
