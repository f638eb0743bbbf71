// The ALSA backend as far as a machine without a kernel sequencer allows:
// the clean failure to open it, the address/ID mapping, and the conversion
// between MIDI bytes and sequencer events (alsa-lib's parser needs no
// sequencer).

#include "midi/alsa/ALSAMIDIService.h"
#include "midi/alsa/ALSAMIDIEventCodec.h"
#include "platform/Log.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>

namespace {

using Bytes = std::vector<std::uint8_t>;

struct CodecCase {
    const char* what;
    Bytes stream;
    std::vector<int> types; // event types in the order they come out
    Bytes decoded;          // all events decoded back, one after the other
};

TEST(ALSAMIDIEventCodec, BytesBecomeEventsAndEventsTheSameBytesWithEveryStatus) {
    Bytes longSysex{0xF0};
    for (int i = 0; i < 2500; ++i)
        longSysex.push_back(static_cast<std::uint8_t>(i & 0x7F));
    longSysex.push_back(0xF7);

    const std::vector<CodecCase> cases = {
        {"note on", {0x90, 0x3C, 0x40}, {SND_SEQ_EVENT_NOTEON}, {0x90, 0x3C, 0x40}},
        {"note on with velocity 0 stays as sent",
         {0x93, 0x3C, 0x00},
         {SND_SEQ_EVENT_NOTEON},
         {0x93, 0x3C, 0x00}},
        {"note off", {0x80, 0x3C, 0x00}, {SND_SEQ_EVENT_NOTEOFF}, {0x80, 0x3C, 0x00}},
        {"control change", {0xB1, 0x07, 0x64}, {SND_SEQ_EVENT_CONTROLLER}, {0xB1, 0x07, 0x64}},
        {"program change", {0xC2, 0x05}, {SND_SEQ_EVENT_PGMCHANGE}, {0xC2, 0x05}},
        {"pitch bend centre", {0xE0, 0x00, 0x40}, {SND_SEQ_EVENT_PITCHBEND}, {0xE0, 0x00, 0x40}},
        {"channel pressure", {0xD4, 0x22}, {SND_SEQ_EVENT_CHANPRESS}, {0xD4, 0x22}},
        {"running status is written out",
         {0x90, 0x3C, 0x40, 0x3E, 0x40},
         {SND_SEQ_EVENT_NOTEON, SND_SEQ_EVENT_NOTEON},
         {0x90, 0x3C, 0x40, 0x90, 0x3E, 0x40}},
        {"two notes in a row keep both status bytes",
         {0x90, 0x3C, 0x40, 0x90, 0x3E, 0x40},
         {SND_SEQ_EVENT_NOTEON, SND_SEQ_EVENT_NOTEON},
         {0x90, 0x3C, 0x40, 0x90, 0x3E, 0x40}},
        {"clock, start, continue, stop",
         {0xF8, 0xFA, 0xFB, 0xFC},
         {SND_SEQ_EVENT_CLOCK, SND_SEQ_EVENT_START, SND_SEQ_EVENT_CONTINUE, SND_SEQ_EVENT_STOP},
         {0xF8, 0xFA, 0xFB, 0xFC}},
        {"song position", {0xF2, 0x10, 0x20}, {SND_SEQ_EVENT_SONGPOS}, {0xF2, 0x10, 0x20}},
        {"quarter frame", {0xF1, 0x74}, {SND_SEQ_EVENT_QFRAME}, {0xF1, 0x74}},
        {"system exclusive",
         {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7},
         {SND_SEQ_EVENT_SYSEX},
         {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}},
        {"incomplete message gives no event", {0xB0, 0x07}, {}, {}},
    };
    for (const CodecCase& c : cases) {
        ALSAMIDIEventCodec codec;
        ASSERT_TRUE(codec.valid());
        std::vector<int> types;
        Bytes decoded;
        codec.encode(c.stream.data(), c.stream.size(), [&](const snd_seq_event_t& ev) {
            types.push_back(ev.type);
            EXPECT_TRUE(codec.decode(ev, decoded)) << c.what;
        });
        EXPECT_EQ(types, c.types) << c.what;
        EXPECT_EQ(decoded, c.decoded) << c.what;
    }
}

TEST(ALSAMIDIEventCodec, LongSystemExclusiveComesBackWholeFromItsPieces) {
    Bytes sysex{0xF0};
    for (int i = 0; i < 2500; ++i)
        sysex.push_back(static_cast<std::uint8_t>(i & 0x7F));
    sysex.push_back(0xF7);
    ALSAMIDIEventCodec codec;
    int events = 0;
    Bytes decoded;
    codec.encode(sysex.data(), sysex.size(), [&](const snd_seq_event_t& ev) {
        EXPECT_EQ(ev.type, SND_SEQ_EVENT_SYSEX);
        EXPECT_LE(ev.data.ext.len, ALSAMIDIEventCodec::kEncodeBufferSize);
        ++events;
        codec.decode(ev, decoded);
    });
    EXPECT_GE(events, 3) << "2502 bytes do not fit one piece";
    EXPECT_EQ(decoded, sysex);
}

TEST(ALSAMIDIEventCodec, EventsWithoutMIDIDecodeToNothing) {
    ALSAMIDIEventCodec codec;
    for (const int type :
         {SND_SEQ_EVENT_PORT_START, SND_SEQ_EVENT_CLIENT_EXIT, SND_SEQ_EVENT_PORT_SUBSCRIBED}) {
        snd_seq_event_t ev;
        snd_seq_ev_clear(&ev);
        ev.type = static_cast<snd_seq_event_type_t>(type);
        Bytes out{0x01};
        EXPECT_FALSE(codec.decode(ev, out)) << type;
        EXPECT_EQ(out, Bytes{0x01}) << "left as it was";
    }
}

TEST(ALSAMIDIService, UniqueIDsAreNonZeroAndGiveTheAddressBack) {
    std::set<std::uint32_t> ids;
    for (const auto& [client, port] : std::vector<std::pair<int, int>>{
             {0, 0}, {0, 1}, {14, 0}, {20, 0}, {20, 1}, {128, 0}, {129, 3}, {255, 255}}) {
        const std::uint32_t id = ALSAMIDIService::uniqueIDForAddress(client, port);
        EXPECT_NE(id, 0u);
        int c = -1, p = -1;
        ASSERT_TRUE(ALSAMIDIService::addressForUniqueID(id, c, p));
        EXPECT_EQ(c, client);
        EXPECT_EQ(p, port);
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 8u);
    int c, p;
    EXPECT_FALSE(ALSAMIDIService::addressForUniqueID(0, c, p));
    EXPECT_FALSE(ALSAMIDIService::addressForUniqueID(0x10001, c, p));
}

// Restores the variable whatever the test does.
struct SequencerDeviceOverride {
    explicit SequencerDeviceOverride(const std::string& path) {
        setenv("TESSARINE_ALSA_SEQ_DEVICE", path.c_str(), 1);
    }
    ~SequencerDeviceOverride() { unsetenv("TESSARINE_ALSA_SEQ_DEVICE"); }
};

TEST(ALSAMIDIService, SequencerThatDoesNotOpenIsOneCleanLine) {
    const std::string dir = ts::test::makeTempDir("alsaseq");
    {
        // No such device.
        SequencerDeviceOverride device(dir + "/seq");
        ts::LogCapture log;
        EXPECT_EQ(ALSAMIDIService::create(), nullptr);
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_EQ(log.count("MIDI: cannot open the ALSA sequencer (" + dir +
                            "/seq: No such file or directory)"),
                  1);
    }
    {
        // A file that is no device.
        std::ofstream(dir + "/plain") << "x";
        SequencerDeviceOverride device(dir + "/plain");
        ts::LogCapture log;
        const auto service = createMIDIService("alsa");
        ASSERT_NE(service, nullptr);
        EXPECT_EQ(service->name(), "none");
        EXPECT_EQ(log.count("MIDI: cannot open the ALSA sequencer ("), 1);
        EXPECT_EQ(log.count("MIDI is off"), 1);
        EXPECT_EQ(log.lines().size(), 2u);
    }
}

} // namespace
