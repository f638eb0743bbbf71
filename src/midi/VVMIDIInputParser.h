#pragma once
// The byte parser of a receiving MIDI node: turns the packet list of one input
// callback into VVMIDIMessage objects and feeds the node's two clock followers.
//
// It is deliberately simple and byte-exact to what Tessarine has always
// delivered, so that mappings made against it keep working:
// - one message per status byte, in the order of the status bytes; running
//   status is not interpreted (data bytes after a complete message, or before
//   the first status byte of a call, are dropped);
// - a control change is delivered when its value arrives (and not at all when
//   it never does); a note-on with velocity 0 is delivered as a note-off;
// - a system-exclusive message is gathered across calls and delivered at 0xF7;
//   a gathering still open when the 129th call after its 0xF0 begins is
//   abandoned; real-time and other status bytes inside it make their own
//   messages while its data bytes keep being gathered;
// - a real-time byte becomes the current message, so data bytes that follow
//   it in the same call land in it instead of the message it interrupted;
// - quarter frames set the time code clock's rate, full-frame messages locate
//   it, and the whole packet list is given to the time code follower when a
//   quarter frame was seen, and to the beat clock follower when a real-time
//   byte or a song position pointer was seen (a pointer sent alone while the
//   transport is stopped must still move the beat position).
// Messages carry timestamp 0; packet times only drive the followers.
//
// Thread use: parsePacketList and the gathering state belong to the one thread
// that receives for the node (the backend's receive thread); the followers
// lock themselves and may be queried from any thread.

#include "midi/VVMIDIBeatClockFollower.h"
#include "midi/VVMIDIMessage.h"
#include "midi/VVMIDIPacketList.h"
#include "midi/VVMIDITimeCodeFollower.h"

#include <cstdint>
#include <span>
#include <vector>

class VVMIDIInputParser {
public:
    // Calls that may begin inside one system-exclusive message.
    static constexpr int kMaxSysexCalls = 128;

    // Parses one packet list (one input callback) and appends what it delivers
    // to out. now is the host time of packets whose time is 0.
    void parsePacketList(std::span<const VVMIDIPacketView> packets, uint64_t now,
                         VVMIDIMessageList& out);

    bool processingSysex() const { return processingSysex_; }
    void setProcessingSysex(bool on) { processingSysex_ = on; }
    int processingSysexIterationCount() const { return processingSysexIterationCount_; }
    void setProcessingSysexIterationCount(int n) { processingSysexIterationCount_ = n; }
    // The data bytes of the system-exclusive message being gathered.
    const std::vector<int>& sysexArray() const { return sysexArray_; }

    VVMIDITimeCodeFollower& timeCodeClock() { return mtc_; }
    const VVMIDITimeCodeFollower& timeCodeClock() const { return mtc_; }
    VVMIDIBeatClockFollower& beatClock() { return beat_; }
    const VVMIDIBeatClockFollower& beatClock() const { return beat_; }

private:
    void locateFromFullFrame(const VVMIDIMessage& fullFrame);

    // Receive thread only.
    bool processingSysex_ = false;
    int processingSysexIterationCount_ = 0;
    std::vector<int> sysexArray_;

    VVMIDITimeCodeFollower mtc_;
    VVMIDIBeatClockFollower beat_;
};
