#pragma once
// One MIDI message: a channel voice message, a system common or real-time
// message, or a whole system-exclusive message.
//
// Plain C++ (no Qt), so that the input parser that makes these can be fuzzed.
// Messages have no value equality: lists of them hold shared pointers and
// find and remove messages by identity (pointer comparison).
//
// Byte fields are stored exactly as given: neither the constructors nor the
// setters mask or check them, so a channel of 20 or a note of 200 travels
// through unchanged (the wire form ORs the channel into the status byte whole).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class VVMIDIMessage;
using VVMIDIMessagePtr = std::shared_ptr<VVMIDIMessage>;
using VVMIDIMessageList = std::vector<VVMIDIMessagePtr>;

class VVMIDIMessage {
public:
    // A data byte of 0xFF means "not set". data3 counts as absent at 0x80 or more.
    static constexpr uint8_t kUnset = 0xFF;

    // Type codes: channel messages carry the status byte with its low nibble
    // cleared, system messages the whole status byte.
    enum Type : uint8_t {
        NoteOff = 0x80,
        NoteOn = 0x90,
        AfterTouch = 0xA0,
        ControlChange = 0xB0,
        ProgramChange = 0xC0,
        ChannelPressure = 0xD0,
        PitchWheel = 0xE0,
        Sysex = 0xF0,
        QuarterFrame = 0xF1,
        SongPositionPointer = 0xF2,
        SongSelect = 0xF3,
        UndefinedCommon = 0xF4,
        UndefinedCommon2 = 0xF5,
        TuneRequest = 0xF6,
        EndOfExclusive = 0xF7,
        Clock = 0xF8,
        Tick = 0xF9,
        Start = 0xFA,
        Continue = 0xFB,
        Stop = 0xFC,
        UndefinedRealtime = 0xFD,
        ActiveSense = 0xFE,
        Reset = 0xFF,
    };

    // ---- initialisers (non-exclusive forms; every one ends in the six-value form)
    VVMIDIMessage(uint8_t type, uint8_t channel); // initWithType:channel:
    VVMIDIMessage(uint8_t type, uint8_t channel,
                  uint64_t timestamp); // initWithType:channel:timestamp:
    VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2); // initFromVals::::
    VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2,
                  uint8_t data3); // initFromVals:::::
    VVMIDIMessage(uint8_t type, uint8_t channel, uint8_t data1, uint8_t data2, uint8_t data3,
                  uint64_t timestamp); // initFromVals::::::

    // ---- factories: a new shared message, same arguments as the initialisers
    static VVMIDIMessagePtr createWithTypeChannel(uint8_t type, uint8_t channel);
    static VVMIDIMessagePtr createWithTypeChannelTimestamp(uint8_t type, uint8_t channel,
                                                           uint64_t timestamp);
    static VVMIDIMessagePtr createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                           uint8_t data2);
    static VVMIDIMessagePtr createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                           uint8_t data2, uint8_t data3);
    static VVMIDIMessagePtr createFromVals(uint8_t type, uint8_t channel, uint8_t data1,
                                           uint8_t data2, uint8_t data3, uint64_t timestamp);

    // System exclusive: the data bytes between 0xF0 and 0xF7. A system-exclusive
    // message can be refused (empty list, or a value outside 0..0x7F), so it is
    // only made by these factories, which answer nullptr and log on refusal.
    // The message keeps its own copy of the list.
    static VVMIDIMessagePtr createWithSysexArray(const std::vector<int>& sysex);
    static VVMIDIMessagePtr createWithSysexArrayTimestamp(const std::vector<int>& sysex,
                                                          uint64_t timestamp);

    // A new message with equal fields (a system-exclusive copy owns its own
    // list). nullptr only when the sysex list was edited into an invalid state.
    VVMIDIMessagePtr copy() const;

    // ---- accessors
    uint8_t type() const { return type_; }
    void setType(uint8_t t) { type_ = t; }
    uint8_t channel() const { return channel_; }
    uint8_t data1() const { return data1_; }
    void setData1(uint8_t v) { data1_ = v; }
    uint8_t data2() const { return data2_; }
    void setData2(uint8_t v) { data2_ = v; }
    uint8_t data3() const { return data3_; }
    void setData3(uint8_t v) { data3_ = v; }
    // The message's own list; empty for every type but 0xF0.
    const std::vector<int>& sysexArray() const { return sysex_; }
    std::vector<int>& sysexArray() { return sysex_; }
    uint64_t timestamp() const { return timestamp_; }
    void setTimestamp(uint64_t t) { timestamp_ = t; }

    // 0..1: a 14-bit value from data2/data3 when data3 is below 0x80, else
    // data2 / 127 (unmasked, so an unset data2 gives 255/127).
    double doubleValue() const;

    // A time code full-frame message: 8 bytes, 0x7F, any device, 0x01, 0x01, hh mm ss ff.
    bool isFullFrameSMPTE() const;

    // "<VVMIDIMessage: 0x90 : 3 : 60 : 64 : 255 : 0>" style.
    std::string description() const;
    // A readable line by type; empty when the type has no text (0xF7, channel
    // types with a nonzero low nibble, codes below 0x80).
    std::string lengthyDescription() const;

    // ---- wire form
    // Bytes on the wire for a non-exclusive type: 3, 2, 1, or 0 (no wire form).
    static int shortWireLength(uint8_t type);
    // Total bytes of this message on the wire (sysex: element count + 2);
    // 0 when the message has no wire form.
    size_t wireLength() const;
    // Writes the wire form into out; answers the byte count, or 0 when the
    // message has no wire form or does not fit in capacity.
    size_t writeWireForm(uint8_t* out, size_t capacity) const;
    // The wire form as a new vector (empty when refused).
    std::vector<uint8_t> wireForm() const;

    // Text form of a list of numbers as description texts print it: "(1, 2, 3)".
    static std::string listText(const std::vector<int>& values);

private:
    struct SysexTag {};
    VVMIDIMessage(SysexTag, std::vector<int>&& sysex, uint64_t timestamp);

    uint8_t type_;
    uint8_t channel_;
    uint8_t data1_;
    uint8_t data2_;
    uint8_t data3_;
    std::vector<int> sysex_;
    uint64_t timestamp_;
};
