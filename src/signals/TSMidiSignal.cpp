#include "signals/TSMidiSignal.h"

#include "app/TessarineController.h"
#include "midi/VVMIDIMessage.h"

const TSSignalClass& TSMidiSignal::staticClass() {
    return tsSignalClassOf<TSMidiSignal>("TSMidiSignal", 3, &TSSignal::staticClass());
}

TSMidiSignal::TSMidiSignal() : type_(176), channel_(0), note_(24) { setRangeDefaults("0", "127"); }

QString TSMidiSignal::noteName(unsigned note) {
    static const char* const patterns[12] = {"C%i", "C%i#", "D%i", "D%i#", "E%i", "F%i",
                                             "F%i#", "G%i", "G%i#", "A%i", "A%i#", "B%i"};
    const int octave = static_cast<int>(note / 12) - 2;
    return QString::asprintf(patterns[note % 12], octave);
}

QString TSMidiSignal::title() const {
    const unsigned type = midiType();
    const int channel = static_cast<int>(midiChannel()) + 1;
    const unsigned note = midiNote();
    switch (type) {
    case 128: return QString("NoteOFF / CH%1 / %2").arg(channel).arg(noteName(note));
    case 144: return QString("NoteON / CH%1 / %2").arg(channel).arg(noteName(note));
    case 176: return QString("Control / CH%1 / %2").arg(channel).arg(static_cast<int>(note));
    default: return TSSignal::title();
    }
}

void TSMidiSignal::sendWithValue(float value) {
    TessarineController* controller = TessarineController::sharedController();
    if (!controller)
        return;
    const auto byte = static_cast<std::uint8_t>(scaledClampedInteger(value, 127) & 0xFF);
    // Out-of-range settings (a restored channel of 20, say) pass as bytes.
    const auto type = static_cast<std::uint8_t>(midiType());
    const auto channel = static_cast<std::uint8_t>(midiChannel());
    const auto note = static_cast<std::uint8_t>(midiNote());
    controller->sendMidiMessage(VVMIDIMessage::createFromVals(type, channel, note, byte));
    if (type == 144)
        controller->sendMidiMessage(VVMIDIMessage::createFromVals(128, channel, note, byte));
}

void TSMidiSignal::changeTypeAndChannelAndNote(unsigned type, unsigned channel, unsigned note) {
    changeIdentity([&] {
        type_.store(type);
        channel_.store(channel);
        note_.store(note);
    });
}

void TSMidiSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeInt32ForKey(static_cast<std::int32_t>(midiType()), "midiType");
    coder.encodeInt32ForKey(static_cast<std::int32_t>(midiChannel()), "midiChannel");
    coder.encodeInt32ForKey(static_cast<std::int32_t>(midiNote()), "midiNote");
}

void TSMidiSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    type_.store(static_cast<unsigned>(coder.decodeInt32ForKey("midiType")));
    channel_.store(static_cast<unsigned>(coder.decodeInt32ForKey("midiChannel")));
    note_.store(static_cast<unsigned>(coder.decodeInt32ForKey("midiNote")));
}
