#include "midi/VVMIDITimeCodeFollower.h"

#include <algorithm>

namespace {

constexpr double kNanos = 1e9;

double secondsBetween(uint64_t from, uint64_t to) {
    return to > from ? static_cast<double>(to - from) / kNanos : 0.0;
}

} // namespace

int VVMIDITimeCodeFollower::smpteFormat() const {
    std::lock_guard lock(mutex_);
    return format_;
}

void VVMIDITimeCodeFollower::setSmpteFormat(int format) {
    std::lock_guard lock(mutex_);
    format_ = format & 3;
}

void VVMIDITimeCodeFollower::stop() {
    std::lock_guard lock(mutex_);
    running_ = false;
    moving_ = false;
}

void VVMIDITimeCodeFollower::setCurrentTime(int hours, int minutes, int seconds, int frames) {
    std::lock_guard lock(mutex_);
    position_ = hours * 3600.0 + minutes * 60.0 + seconds + frames / fpsLocked();
    // A located clock counts on by quarter frames from here; a run of eight
    // will re-anchor it.
    locked_ = true;
    moving_ = false;
    lastPiece_ = -1;
    runMask_ = 0;
}

void VVMIDITimeCodeFollower::start() {
    std::lock_guard lock(mutex_);
    running_ = true;
}

bool VVMIDITimeCodeFollower::running() const {
    std::lock_guard lock(mutex_);
    return running_;
}

double VVMIDITimeCodeFollower::fpsLocked() const {
    switch (format_) {
    case 0:
        return 24.0;
    case 1:
        return 25.0;
    default:
        return 30.0;
    }
}

double VVMIDITimeCodeFollower::positionLocked(uint64_t now) const {
    if (!running_ || !moving_)
        return position_;
    return position_ + std::min(secondsBetween(anchorHost_, now), kFreewheelSeconds);
}

double VVMIDITimeCodeFollower::currentSMPTESeconds(uint64_t now) const {
    std::lock_guard lock(mutex_);
    return positionLocked(now);
}

void VVMIDITimeCodeFollower::parseMIDI(std::span<const VVMIDIPacketView> packets, uint64_t now) {
    // A quarter frame's data byte may follow in the next packet, and real-time
    // bytes may come between the two.
    bool pending = false;
    for (const VVMIDIPacketView& p : packets) {
        const uint64_t t = p.timestamp ? p.timestamp : now;
        for (size_t i = 0; i < p.length; ++i) {
            const uint8_t b = p.bytes[i];
            if (b == 0xF1) {
                pending = true;
            } else if (b < 0x80) {
                if (pending)
                    quarterFrame(b, t);
                pending = false;
            } else if (b < 0xF8) {
                pending = false;
            }
        }
    }
}

void VVMIDITimeCodeFollower::quarterFrame(uint8_t data, uint64_t hostTime) {
    std::lock_guard lock(mutex_);
    const int piece = (data >> 4) & 7;
    nibbles_[piece] = data & 0x0F;

    // A sender silent for longer than the freewheel time has stopped: the
    // clock stands where the freewheel left it and must lock again.
    if (moving_ && secondsBetween(anchorHost_, hostTime) > kFreewheelSeconds) {
        position_ += kFreewheelSeconds;
        moving_ = false;
        locked_ = false;
    }

    if (piece == 0)
        runMask_ = 1;
    else if (piece == lastPiece_ + 1 && (runMask_ & (1u << lastPiece_)))
        runMask_ |= static_cast<uint8_t>(1u << piece);
    else
        runMask_ = 0;
    lastPiece_ = piece;

    const double quarter = 0.25 / fpsLocked();
    if (piece == 7 && runMask_ == 0xFF) {
        const int frames = nibbles_[0] | ((nibbles_[1] & 0x1) << 4);
        const int seconds = nibbles_[2] | ((nibbles_[3] & 0x3) << 4);
        const int minutes = nibbles_[4] | ((nibbles_[5] & 0x3) << 4);
        const int hours = nibbles_[6] | ((nibbles_[7] & 0x1) << 4);
        format_ = (nibbles_[7] >> 1) & 3;
        const double fps = fpsLocked();
        position_ = hours * 3600.0 + minutes * 60.0 + seconds + (frames + 1.75) / fps;
        locked_ = true;
        running_ = true;
        moving_ = true;
        anchorHost_ = hostTime;
        return;
    }
    if (locked_) {
        // Step on from the last anchor (not from the extrapolated time), so
        // jitter in arrival times does not add up.
        position_ += moving_ ? quarter : 0.0;
        moving_ = true;
        running_ = true;
        anchorHost_ = hostTime;
    }
}
