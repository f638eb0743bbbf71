#pragma once
// The host clock of MIDI packet times: the monotonic clock in nanoseconds
// (time base ratio 1). Packet time 0 means "now" everywhere in the MIDI code.

#include <cstdint>
#include <ctime>

inline uint64_t vvmidiHostTime() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// The ratio by which host clock readings are multiplied to give packet times.
inline constexpr double kVVMIDIHostTimeBaseRatio = 1.0;
