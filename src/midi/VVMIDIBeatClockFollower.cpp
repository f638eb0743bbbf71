#include "midi/VVMIDIBeatClockFollower.h"

#include <algorithm>

namespace {
constexpr uint64_t kMaxClockGap = 1000000000ull; // 1 s: slower than 2.5 BPM is no clock
}

void VVMIDIBeatClockFollower::parseMIDI(std::span<const VVMIDIPacketView> packets, uint64_t now) {
    // Song position: 0xF2 and two data bytes, which may straddle packets and
    // have real-time bytes between them; any other status byte cancels it.
    int sppBytes = -1;
    int sppValue = 0;
    for (const VVMIDIPacketView& p : packets) {
        const uint64_t t = p.timestamp ? p.timestamp : now;
        for (size_t i = 0; i < p.length; ++i) {
            const uint8_t b = p.bytes[i];
            if (b < 0x80) {
                if (sppBytes == 0) {
                    sppValue = b;
                    sppBytes = 1;
                } else if (sppBytes == 1) {
                    songPosition(sppValue | (b << 7));
                    sppBytes = -1;
                }
                continue;
            }
            switch (b) {
            case 0xF8:
                clock(t);
                break;
            case 0xFA:
                startTransport();
                break;
            case 0xFB:
                continueTransport();
                break;
            case 0xFC:
                stopTransport();
                break;
            case 0xF2:
                sppBytes = 0;
                break;
            default:
                if (b < 0xF8)
                    sppBytes = -1;
                break;
            }
        }
    }
}

void VVMIDIBeatClockFollower::clock(uint64_t hostTime) {
    std::lock_guard lock(mutex_);
    if (lastClock_ != 0 && hostTime > lastClock_) {
        const uint64_t gap = hostTime - lastClock_;
        if (gap > kMaxClockGap) {
            intervalCount_ = 0;
            intervalNext_ = 0;
            intervalSum_ = 0;
        } else {
            if (intervalCount_ == kTempoWindow)
                intervalSum_ -= intervals_[intervalNext_];
            else
                ++intervalCount_;
            intervals_[intervalNext_] = gap;
            intervalSum_ += gap;
            intervalNext_ = (intervalNext_ + 1) % kTempoWindow;
        }
    }
    if (running_) {
        if (awaitingFirstClock_)
            awaitingFirstClock_ = false;
        else
            beats_ += 1.0 / kClocksPerBeat;
    }
    lastClock_ = hostTime;
}

void VVMIDIBeatClockFollower::startTransport() {
    std::lock_guard lock(mutex_);
    beats_ = 0.0;
    running_ = true;
    awaitingFirstClock_ = true;
}

void VVMIDIBeatClockFollower::continueTransport() {
    std::lock_guard lock(mutex_);
    running_ = true;
    awaitingFirstClock_ = true;
}

void VVMIDIBeatClockFollower::stopTransport() {
    std::lock_guard lock(mutex_);
    running_ = false;
    awaitingFirstClock_ = false;
}

void VVMIDIBeatClockFollower::songPosition(int sixteenths) {
    std::lock_guard lock(mutex_);
    beats_ = sixteenths / 4.0;
}

double VVMIDIBeatClockFollower::currentBeats(uint64_t now) const {
    std::lock_guard lock(mutex_);
    if (!running_ || awaitingFirstClock_ || intervalCount_ == 0 || now <= lastClock_)
        return beats_;
    const double interval = static_cast<double>(intervalSum_) / intervalCount_;
    const double elapsed = static_cast<double>(now - lastClock_);
    return beats_ + std::min(elapsed / interval, 1.0) / kClocksPerBeat;
}

double VVMIDIBeatClockFollower::currentTempo() const {
    std::lock_guard lock(mutex_);
    if (intervalCount_ == 0)
        return 0.0;
    const double intervalSeconds = static_cast<double>(intervalSum_) / intervalCount_ / 1e9;
    return 60.0 / (kClocksPerBeat * intervalSeconds);
}

double VVMIDIBeatClockFollower::playRate() const {
    std::lock_guard lock(mutex_);
    return running_ ? 1.0 : 0.0;
}

bool VVMIDIBeatClockFollower::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}
