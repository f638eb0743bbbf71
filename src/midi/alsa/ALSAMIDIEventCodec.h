#pragma once
// MIDI bytes to ALSA sequencer events and back, with alsa-lib's MIDI event
// parser (which needs no sequencer: it is plain code in the library).
//
// Decoding always writes the status byte of every message: the program's
// input parser does not interpret running status, so the decoder's default
// of leaving repeated status bytes out must be switched off. A long system
// exclusive message arrives from the sequencer as several events; each is
// decoded to its piece of bytes, and the parser gathers them.
//
// One codec is used by one thread at a time.

#include <alsa/asoundlib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

class ALSAMIDIEventCodec {
public:
    // Longest system exclusive piece put in one event when encoding.
    static constexpr std::size_t kEncodeBufferSize = 1024;

    ALSAMIDIEventCodec();
    ~ALSAMIDIEventCodec();
    ALSAMIDIEventCodec(const ALSAMIDIEventCodec&) = delete;
    ALSAMIDIEventCodec& operator=(const ALSAMIDIEventCodec&) = delete;

    bool valid() const { return encoder_ && decoder_; }

    // Cuts the bytes into events, handed one by one to emit (the event's
    // variable data points into the codec and is valid during the call).
    // Encoding state carries over between calls until resetEncoder().
    void encode(const std::uint8_t* bytes, std::size_t count,
                const std::function<void(const snd_seq_event_t&)>& emit);
    void resetEncoder();

    // Appends the MIDI bytes of the event to out; false (out unchanged) for
    // events that carry no MIDI (announcements, subscriptions, ...).
    bool decode(const snd_seq_event_t& event, std::vector<std::uint8_t>& out);

private:
    snd_midi_event_t* encoder_ = nullptr;
    snd_midi_event_t* decoder_ = nullptr;
};
