#include "midi/VVMIDIInputParser.h"

namespace {

// What the next data byte does to the current message.
enum class DataState { None, ExpectFirst, ExpectSecond, Complete };

} // namespace

void VVMIDIInputParser::parsePacketList(std::span<const VVMIDIPacketView> packets, uint64_t now,
                                        VVMIDIMessageList& out) {
    VVMIDIMessagePtr current;
    DataState state = DataState::None;
    bool timeCodeSeen = false;
    bool realTimeSeen = false;
    bool songPositionSeen = false;

    // Every call that begins inside a gathering counts; past the limit the
    // gathering is given up (its bytes stay until the next 0xF0 or 0xF7).
    bool sysex = processingSysex_;
    int count = processingSysexIterationCount_ + (processingSysex_ ? 1 : 0);
    if (count > kMaxSysexCalls) {
        sysex = false;
        count = 0;
    }

    for (const VVMIDIPacketView& packet : packets) {
        for (size_t i = 0; i < packet.length; ++i) {
            const uint8_t b = packet.bytes[i];
            if (b < 0x80) {
                if (sysex) {
                    sysexArray_.push_back(b);
                    continue;
                }
                if (!current)
                    continue;
                switch (state) {
                case DataState::ExpectSecond:
                    if (current->type() == VVMIDIMessage::NoteOn && b == 0) {
                        current->setType(VVMIDIMessage::NoteOff);
                        current->setData2(0);
                    } else if (current->type() == VVMIDIMessage::ControlChange) {
                        current->setData2(b);
                        out.push_back(current);
                    } else {
                        current->setData2(b);
                    }
                    state = DataState::Complete;
                    break;
                case DataState::ExpectFirst:
                    current->setData1(b);
                    state = DataState::ExpectSecond;
                    break;
                case DataState::Complete:
                case DataState::None:
                    break;
                }
                // The piece with the rate (high nibble 7) keeps the time code
                // clock's format in step with the sender.
                if (current->type() == VVMIDIMessage::QuarterFrame &&
                    (current->data1() >> 4) == 7) {
                    const int rate = (current->data1() >> 1) & 3;
                    if (mtc_.smpteFormat() != rate)
                        mtc_.setSmpteFormat(rate);
                }
                continue;
            }

            if (b < 0xF0) {
                auto msg = VVMIDIMessage::createWithTypeChannel(b & 0xF0, b & 0x0F);
                // A control change waits for its value before it is delivered.
                if ((b & 0xF0) != VVMIDIMessage::ControlChange)
                    out.push_back(msg);
                current = std::move(msg);
                state = DataState::ExpectFirst;
                continue;
            }
            switch (b) {
            case 0xF0:
                sysexArray_.clear();
                sysex = true;
                count = 0;
                break;
            case 0xF1:
            case 0xF2:
            case 0xF3:
            case 0xF4:
            case 0xF5:
            case 0xF6: {
                if (b == 0xF1)
                    timeCodeSeen = true;
                if (b == 0xF2)
                    songPositionSeen = true;
                auto msg = VVMIDIMessage::createWithTypeChannel(b, 0);
                out.push_back(msg);
                current = std::move(msg);
                state = DataState::ExpectFirst;
                break;
            }
            case 0xF7: {
                current = VVMIDIMessage::createWithSysexArray(sysexArray_);
                if (current) {
                    if (current->isFullFrameSMPTE())
                        locateFromFullFrame(*current);
                    out.push_back(current);
                }
                sysexArray_.clear();
                sysex = false;
                count = 0;
                break;
            }
            default: { // 0xF8..0xFF: real time, interleaved anywhere
                auto msg = VVMIDIMessage::createWithTypeChannel(b, 0);
                out.push_back(msg);
                realTimeSeen = true;
                current = std::move(msg);
                break;
            }
            }
        }
    }

    if (timeCodeSeen)
        mtc_.parseMIDI(packets, now);
    if (realTimeSeen || songPositionSeen)
        beat_.parseMIDI(packets, now);
    processingSysex_ = sysex;
    processingSysexIterationCount_ = count;
}

void VVMIDIInputParser::locateFromFullFrame(const VVMIDIMessage& fullFrame) {
    const std::vector<int>& s = fullFrame.sysexArray();
    // The time code clock is located in its own current format; hours carry
    // the rate in their top bits, which the mask drops.
    mtc_.stop();
    mtc_.setCurrentTime(s[4] & 0x1F, s[5], s[6], s[7]);
    mtc_.start();
}
