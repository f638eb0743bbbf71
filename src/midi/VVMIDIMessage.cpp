#include "midi/VVMIDIMessage.h"

#include "platform/Log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char* kSysexInitName = "-[VVMIDIMessage initWithSysexArray:timestamp:]";

// The readable texts print their "%hhd" fields as signed bytes: an unset 0xFF
// byte reads -1, which is how an operator spots a missing value in a log.
signed char signedByte(uint8_t v) {
    return static_cast<signed char>(v);
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char buffer[160];
    va_list args;
    va_start(args, fmt);
    const int n = std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    if (n < 0)
        return {};
    return std::string(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof buffer - 1));
}

} // namespace

VVMIDIMessage::VVMIDIMessage(uint8_t type, uint8_t channel)
    : VVMIDIMessage(type, channel, kUnset, kUnset, kUnset, 0) {}

VVMIDIMessage::VVMIDIMessage(uint8_t type, uint8_t channel, uint64_t timestamp)
    : VVMIDIMessage(type, channel, kUnset, kUnset, kUnset, timestamp) {}

VVMIDIMessage::VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2)
    : VVMIDIMessage(type, channel, data1, data2, kUnset, 0) {}

VVMIDIMessage::VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2,
                             uint8_t data3)
    : VVMIDIMessage(type, channel, data1, data2, data3, 0) {}

VVMIDIMessage::VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2,
                             uint8_t data3, uint64_t timestamp)
    : type_(type), channel_(channel), data1_(data1), data2_(data2), data3_(data3),
      timestamp_(timestamp) {}

VVMIDIMessage::VVMIDIMessage(SysexTag, std::vector<int>&& sysex, uint64_t timestamp)
    : type_(Sysex), channel_(kUnset), data1_(kUnset), data2_(kUnset), data3_(kUnset),
      sysex_(std::move(sysex)), timestamp_(timestamp) {}

VVMIDIMessagePtr VVMIDIMessage::createWithTypeChannel(uint8_t type, uint8_t channel) {
    return std::make_shared<VVMIDIMessage>(type, channel);
}

VVMIDIMessagePtr VVMIDIMessage::createWithTypeChannelTimestamp(uint8_t type, uint8_t channel,
                                                               uint64_t timestamp) {
    return std::make_shared<VVMIDIMessage>(type, channel, timestamp);
}

VVMIDIMessagePtr VVMIDIMessage::createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                               uint8_t data2) {
    return std::make_shared<VVMIDIMessage>(type, channel, data1, data2);
}

VVMIDIMessagePtr VVMIDIMessage::createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                               uint8_t data2, uint8_t data3) {
    return std::make_shared<VVMIDIMessage>(type, channel, data1, data2, data3);
}

VVMIDIMessagePtr VVMIDIMessage::createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                               uint8_t data2, uint8_t data3, uint64_t timestamp) {
    return std::make_shared<VVMIDIMessage>(type, channel, data1, data2, data3, timestamp);
}

VVMIDIMessagePtr VVMIDIMessage::createWithSysexArray(const std::vector<int>& sysex) {
    return createWithSysexArrayTimestamp(sysex, 0);
}

VVMIDIMessagePtr VVMIDIMessage::createWithSysexArrayTimestamp(const std::vector<int>& sysex,
                                                              uint64_t timestamp) {
    bool refused = sysex.empty();
    for (int value : sysex) {
        // Negative values are refused as well: every element must fit in a
        // 7-bit data byte, and a negative one would go out as a status byte.
        if (value < 0 || value >= 0x80) {
            ts::logf("\terr: bailing, val in passed sysex array (%X) was > 0x7F",
                     static_cast<unsigned>(value));
            refused = true;
            break;
        }
    }
    if (refused) {
        ts::logf("\t\terr: %s - BAIL", kSysexInitName);
        return nullptr;
    }
    std::vector<int> own(sysex);
    return VVMIDIMessagePtr(new VVMIDIMessage(SysexTag{}, std::move(own), timestamp));
}

VVMIDIMessagePtr VVMIDIMessage::copy() const {
    if (type_ == Sysex)
        return createWithSysexArrayTimestamp(sysex_, timestamp_);
    return createFromVals(type_, channel_, data1_, data2_, data3_, timestamp_);
}

double VVMIDIMessage::doubleValue() const {
    if (data3_ < 0x80)
        return static_cast<double>(((data2_ & 0x7F) << 7) | (data3_ & 0x7F)) / 16383.0;
    return static_cast<double>(data2_) / 127.0;
}

bool VVMIDIMessage::isFullFrameSMPTE() const {
    return sysex_.size() == 8 && sysex_[0] == 127 && sysex_[2] == 1 && sysex_[3] == 1;
}

std::string VVMIDIMessage::description() const {
    return format("<VVMIDIMessage: 0x%X : %d : %d : %d : %d : %llu>", type_, channel_, data1_,
                  data2_, data3_, static_cast<unsigned long long>(timestamp_));
}

std::string VVMIDIMessage::listText(const std::vector<int>& values) {
    std::string text = "(";
    for (size_t i = 0; i < values.size(); ++i) {
        if (i)
            text += ", ";
        text += std::to_string(values[i]);
    }
    text += ")";
    return text;
}

std::string VVMIDIMessage::lengthyDescription() const {
    const unsigned long long t = static_cast<unsigned long long>(timestamp_);
    const int fourteenBit = data1_ | (data2_ << 7);
    switch (type_) {
    case NoteOff:
        return format("NoteOff, ch.%hhd, note.%hhd, val.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), signedByte(data2_), t);
    case NoteOn:
        return format("NoteOn, ch.%hhd, note.%hhd, val.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), signedByte(data2_), t);
    case AfterTouch:
        return format("AfterTouch, ch.%hhd, note.%hhd, val.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), signedByte(data2_), t);
    case ControlChange:
        return format("Ctrl, ch.%hhd, ctrl.%hhd, val.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), signedByte(data2_), t);
    case ProgramChange:
        return format("PgmChange, ch.%hhd, pgm.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), t);
    case ChannelPressure:
        return format("ChannelPressure, ch.%hhd, val.%hhd, time.%llu", signedByte(channel_),
                      signedByte(data1_), t);
    case PitchWheel:
        return format("PitchWheel, ch.%hhd, val.%d, time.%llu", signedByte(channel_), fourteenBit,
                      t);
    case Sysex:
        // The byte list can be long: build it without the fixed-size buffer.
        return "Sysex: " + listText(sysex_) + ", time." +
               std::to_string(static_cast<long long>(timestamp_));
    case QuarterFrame:
        return format("Quarter-Frame: %hhd, time.%llu", signedByte(data1_), t);
    case SongPositionPointer:
        return format("Song Pos'n ptr: %d, time.%llu", fourteenBit, t);
    case SongSelect:
        return format("Song Select: %hhd, time.%llu", signedByte(data1_), t);
    case UndefinedCommon:
        return "Undefined common";
    case UndefinedCommon2:
        return "Undefined common 2";
    case TuneRequest:
        return "Tune Request";
    case Clock:
        return "Clock";
    case Tick:
        return "Tick";
    case Start:
        return "Start";
    case Continue:
        return "Continue";
    case Stop:
        return "Stop";
    case UndefinedRealtime:
        return "Undefined Realtime";
    case ActiveSense:
        return "Active Sense";
    case Reset:
        return "MIDI Reset";
    default:
        return {};
    }
}

int VVMIDIMessage::shortWireLength(uint8_t type) {
    switch (type) {
    case NoteOff:
    case NoteOn:
    case AfterTouch:
    case ControlChange:
    case PitchWheel:
    case SongPositionPointer:
        return 3;
    case ProgramChange:
    case ChannelPressure:
    case QuarterFrame:
    case SongSelect:
        return 2;
    case TuneRequest:
    case Clock:
    case Tick:
    case Start:
    case Continue:
    case Stop:
    case ActiveSense:
    case Reset:
        return 1;
    default:
        return 0;
    }
}

size_t VVMIDIMessage::wireLength() const {
    if (type_ == Sysex)
        return sysex_.size() + 2;
    return static_cast<size_t>(shortWireLength(type_));
}

size_t VVMIDIMessage::writeWireForm(uint8_t* out, size_t capacity) const {
    const size_t n = wireLength();
    if (n == 0 || n > capacity || !out)
        return 0;
    if (type_ == Sysex) {
        out[0] = 0xF0;
        for (size_t i = 0; i < sysex_.size(); ++i)
            out[i + 1] = static_cast<uint8_t>(sysex_[i]);
        out[n - 1] = 0xF7;
        return n;
    }
    // The channel is ORed in whole, for system types too: that is how the
    // message was built, and the wire shows exactly what the caller asked for.
    out[0] = static_cast<uint8_t>(type_ | channel_);
    if (n > 1)
        out[1] = data1_;
    if (n > 2)
        out[2] = data2_;
    return n;
}

std::vector<uint8_t> VVMIDIMessage::wireForm() const {
    std::vector<uint8_t> bytes(wireLength());
    if (bytes.empty())
        return bytes;
    bytes.resize(writeWireForm(bytes.data(), bytes.size()));
    return bytes;
}
