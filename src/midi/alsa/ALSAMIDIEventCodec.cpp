#include "midi/alsa/ALSAMIDIEventCodec.h"

ALSAMIDIEventCodec::ALSAMIDIEventCodec() {
    if (snd_midi_event_new(kEncodeBufferSize, &encoder_) < 0)
        encoder_ = nullptr;
    // The decoder's own buffer is not used: decoding writes to the caller's.
    if (snd_midi_event_new(0, &decoder_) < 0)
        decoder_ = nullptr;
    if (decoder_)
        snd_midi_event_no_status(decoder_, 1);
}

ALSAMIDIEventCodec::~ALSAMIDIEventCodec() {
    if (encoder_)
        snd_midi_event_free(encoder_);
    if (decoder_)
        snd_midi_event_free(decoder_);
}

void ALSAMIDIEventCodec::encode(const std::uint8_t* bytes, std::size_t count,
                                const std::function<void(const snd_seq_event_t&)>& emit) {
    if (!encoder_)
        return;
    for (std::size_t i = 0; i < count; ++i) {
        snd_seq_event_t event;
        snd_seq_ev_clear(&event);
        if (snd_midi_event_encode_byte(encoder_, bytes[i], &event) == 1 &&
            event.type != SND_SEQ_EVENT_NONE)
            emit(event);
    }
}

void ALSAMIDIEventCodec::resetEncoder() {
    if (encoder_)
        snd_midi_event_reset_encode(encoder_);
}

bool ALSAMIDIEventCodec::decode(const snd_seq_event_t& event, std::vector<std::uint8_t>& out) {
    if (!decoder_)
        return false;
    std::size_t room = 16;
    if (event.type == SND_SEQ_EVENT_SYSEX)
        room += event.data.ext.len;
    const std::size_t at = out.size();
    out.resize(at + room);
    // The decoder keeps no state that matters with running status off, but
    // a fresh start per event keeps one bad event from touching the next.
    snd_midi_event_reset_decode(decoder_);
    const long n =
        snd_midi_event_decode(decoder_, reinterpret_cast<unsigned char*>(out.data() + at),
                              static_cast<long>(room), &event);
    if (n <= 0) {
        out.resize(at);
        return false;
    }
    out.resize(at + static_cast<std::size_t>(n));
    return true;
}
