// The signal kinds: type codes and defaults, normalisation, scaling with its
// clamps and truncation, and titles.

#include "signals/TSArduinoSignal.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSGeneratedSignals.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"
#include "signals/TSPlug.h"
#include "support/RecordingPorts.h"

#include <gtest/gtest.h>

namespace {

using ts::test::RecordingPorts;
using ts::test::Sent;

struct KindRow {
    unsigned code;
    const char* className; // nullptr: no class
    const char* min;
    const char* max;
};

TEST(SignalKinds, TypeCodesClassesAndDefaultRanges) {
    const KindRow rows[] = {
        {0, "TSKorvalisSignal", "0", "100"}, {1, "TSKeyboardSignal", "0", "100"},
        {2, "TSAudioSignal", "0", "100"},    {3, "TSMidiSignal", "0", "127"},
        {4, "TSOSCSignal", "0", "100"},      {5, "TSDmxSignal", "0", "255"},
        {6, "TSArtnetSignal", "0", "255"},   {7, nullptr, nullptr, nullptr},
        {8, "TSArduinoSignal", "0", "1023"}, {9, "TSAnimationSignal", "0", "100"},
        {10, "TSCommandSignal", "0", "100"}, {11, "TSKorvalisSignal", "0", "100"},
        {4000000000u, "TSKorvalisSignal", "0", "100"}};
    for (const KindRow& row : rows) {
        SCOPED_TRACE(row.code);
        const TSSignalClass* cls = TSPlug::getSignalClassWithType(row.code);
        if (!row.className) {
            EXPECT_EQ(cls, nullptr);
            continue;
        }
        ASSERT_NE(cls, nullptr);
        EXPECT_STREQ(cls->name, row.className);
        auto signal = cls->create();
        EXPECT_EQ(signal->type(), cls->typeCode);
        EXPECT_EQ(signal->type() == 0, signal->isKorvalisSignal());
        EXPECT_EQ(signal->minValue(), row.min);
        EXPECT_EQ(signal->maxValue(), row.max);
        EXPECT_EQ(TSPlug::signalClassWithName(row.className), cls);
    }
    EXPECT_TRUE(TSArtnetSignal::staticClass().isSubclassOf(TSDmxSignal::staticClass()));
    EXPECT_FALSE(TSDmxSignal::staticClass().isSubclassOf(TSArtnetSignal::staticClass()));
}

TEST(SignalKinds, NewPlugsPairKorvalisWithMidiAndEverythingElseWithKorvalis) {
    for (int code = -1; code <= 12; ++code) {
        SCOPED_TRACE(code);
        auto plug = TSPlug::initWithType(code);
        EXPECT_TRUE(plug->enabled());
        const TSSignalClass* in = TSPlug::getSignalClassWithType(static_cast<unsigned>(code));
        if (!in) {
            EXPECT_EQ(plug->signalIn(), nullptr);
            EXPECT_EQ(plug->signalOutType(), 0);
            plug->sendSignalWithValue(1.0f); // an input-less plug sends nothing, and survives
            continue;
        }
        EXPECT_EQ(&plug->signalIn()->signalClass(), in);
        EXPECT_EQ(plug->signalOutType(), in->typeCode == 0 ? 3 : 0);
    }
}

TEST(SignalKinds, SetSignalOutTypeAlwaysMakesAFreshSignal) {
    auto plug = TSPlug::initWithType(4);
    auto* before = plug->signalOut().get();
    plug->signalOut()->setMaxValue("7");
    int announced = 0;
    QObject::connect(plug.get(), &TSPlug::signalOutChanged, [&] { ++announced; });
    plug->setSignalOutType(0);
    EXPECT_NE(plug->signalOut().get(), before);
    EXPECT_EQ(plug->signalOut()->maxValue(), "100");
    EXPECT_EQ(announced, 1);
    plug->setSignalOutType(7);
    EXPECT_EQ(plug->signalOut(), nullptr);
    plug->sendSignalWithValue(1.0f);
}

struct NormaliseRow {
    std::function<std::shared_ptr<TSSignal>()> make;
    float raw;
    float expected;
};

TEST(SignalKinds, NormalisationByKind) {
    auto dmx = [] { return tsMakeSignal<TSDmxSignal>(); };
    auto artnet = [] { return tsMakeSignal<TSArtnetSignal>(); };
    auto midiOddRange = [] {
        auto s = tsMakeSignal<TSMidiSignal>();
        s->setMinValue("50");
        s->setMaxValue("60");
        return s;
    };
    auto korvalis = [](const char* suffix, const char* min, const char* max) {
        return [=] {
            auto s = tsMakeSignal<TSKorvalisSignal>();
            s->setAddressSuffix(suffix);
            s->setMinValue(min);
            s->setMaxValue(max);
            return std::shared_ptr<TSSignal>(s);
        };
    };
    const NormaliseRow rows[] = {
        {dmx, 127, 0.5f},
        {dmx, 128, 128.0f / 255.0f},
        {dmx, 255, 1.0f},
        {dmx, 0, 0.0f},
        {artnet, 127, 0.5f},
        {midiOddRange, 127, 1.0f},
        {midiOddRange, 64, 64.0f / 127.0f},
        {[] { return tsMakeSignal<TSArduinoSignal>(); }, 1023, 1.0f},
        {[] { return tsMakeSignal<TSArduinoSignal>(); }, 511, 511.0f / 1023.0f},
        {[] { return tsMakeSignal<TSOSCSignal>(); }, 3.5f, 3.5f},
        {[] { return tsMakeSignal<TSCommandSignal>(); }, 1.0f, 1.0f},
        {korvalis("layer/x/1", "-500", "500"), 0.0f, 0.5f},
        {korvalis("layer/x/1", "-500", "500"), 750.0f, 1.25f},
        {korvalis("layer/opacity/0", "20", "20"), 5.0f, 1.0f},
        {korvalis("layer/media/speed/3", "0", "200"), 50.0f, 0.25f},
        {korvalis("layer/media/time/3", "0", "200"), 50.0f, 50.0f},
        {korvalis("layer/x", "-500", "500"), 7.0f, 7.0f},
        {korvalis("composition/cue", "0", "100"), 0.0f, 1.0f},
        {korvalis("action/launchOrStopColumnWithName", "0", "100"), 0.0f, 1.0f},
        {korvalis("board/columnLaunched/3", "0", "100"), 4.0f, 4.0f},
    };
    int i = 0;
    for (const NormaliseRow& row : rows) {
        SCOPED_TRACE(i++);
        EXPECT_FLOAT_EQ(row.make()->normalizeValue(row.raw), row.expected);
    }
}

TEST(SignalKinds, AnimationWaveformsFollowTheClock) {
    struct Row {
        int kind;
        std::int64_t duration;
        std::int64_t now;
        float expected;
    };
    const Row rows[] = {
        {0, 1000, 1'700'000'000'500, 0.5f},   {0, 1000, 1'700'000'000'999, 0.999f},
        {7, 1000, 1'700'000'000'250, 0.25f},  {1, 1000, 1'700'000'000'250, 0.5f},
        {1, 1000, 1'700'000'000'750, 0.5f},   {1, 1000, 1'700'000'000'500, 1.0f},
        {2, 1000, 1'700'000'000'000, 0.5f},   {2, 1000, 1'700'000'000'250, 1.0f},
        {2, 1000, 1'700'000'000'750, 0.0f},   {3, 1000, 1'700'000'000'499, 0.0f},
        {3, 1000, 1'700'000'000'500, 1.0f},   {3, 0, 1'700'000'000'100, 1.0f},
        {4, 0, 1'700'000'000'100, 1.0f}};
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.kind << " " << r.now);
        EXPECT_NEAR(TSAnimationSignal::waveformValue(r.kind, r.duration, r.now), r.expected, 1e-5);
    }
    for (int i = 0; i < 50; ++i) {
        const float random = TSAnimationSignal::waveformValue(4, 1000, i);
        EXPECT_GE(random, 0.0f);
        EXPECT_LE(random, 0.999f);
        EXPECT_FLOAT_EQ(random * 1000.0f, std::round(random * 1000.0f));
    }
    TSAnimationSignal signal;
    signal.setNilValueForKey("duration");
    EXPECT_EQ(signal.duration(), 0);
    EXPECT_FLOAT_EQ(signal.normalizeValue(0.0f), 1.0f);
}

class OutputScaling : public ::testing::Test {
protected:
    std::shared_ptr<RecordingPorts> ports = std::make_shared<RecordingPorts>();
    std::shared_ptr<ts::test::OneBridgeHardware> hardware =
        std::make_shared<ts::test::OneBridgeHardware>(ports);
    TessarineController controller{[this] {
        auto w = RecordingPorts::wiringTo(ports);
        w.dmxHardware = hardware;
        return w;
    }()};
};

struct ScaleRow {
    std::function<std::shared_ptr<TSSignal>()> make;
    const char* min;
    const char* max;
    float v;
    std::vector<Sent> expected;
};

template <typename T> std::function<std::shared_ptr<TSSignal>()> maker() {
    return [] { return tsMakeSignal<T>(); };
}

std::function<std::shared_ptr<TSSignal>()> midiMaker(unsigned type, unsigned channel, unsigned note) {
    return [=] {
        auto s = tsMakeSignal<TSMidiSignal>();
        s->changeTypeAndChannelAndNote(type, channel, note);
        return std::shared_ptr<TSSignal>(s);
    };
}

TEST_F(OutputScaling, EachWireGetsItsScaledClampedTruncatedValue) {
    auto artnetOn = [](unsigned ch) {
        return std::function<std::shared_ptr<TSSignal>()>([ch] {
            auto s = tsMakeSignal<TSArtnetSignal>();
            s->changeChannel(ch);
            return std::shared_ptr<TSSignal>(s);
        });
    };
    const ScaleRow rows[] = {
        {midiMaker(144, 0, 60), "0", "127", 0.5f,
         {{"midi", "", 63, {144, 0, 60, 63}}, {"midi", "", 63, {128, 0, 60, 63}}}},
        {midiMaker(176, 2, 7), "0", "200", 1.0f, {{"midi", "", 127, {176, 2, 7, 127}}}},
        {midiMaker(176, 2, 7), "-50", "127", 0.0f, {{"midi", "", 0, {176, 2, 7, 0}}}},
        {midiMaker(128, 20, 300), "0", "127", 1.0f, {{"midi", "", 127, {128, 20, 44, 127}}}},
        {maker<TSOSCSignal>(), "0", "100", 1.7f, {{"osc", "/none", 170.0, {}}}},
        {maker<TSOSCSignal>(), "100", "0", 0.25f, {{"osc", "/none", 75.0, {}}}},
        {maker<TSOSCSignal>(), "zero", "1e2", 0.5f, {{"osc", "/none", 50.0, {}}}},
        {maker<TSCommandSignal>(), "0", "100", 0.3f, {{"command", "play", 30.0f, {}}}},
        {maker<TSDmxSignal>(), "0", "255", 0.999f, {{"dmx", "", 254, {1, 254}}}},
        {maker<TSDmxSignal>(), "0", "255", 2.0f, {{"dmx", "", 255, {1, 255}}}},
        {maker<TSDmxSignal>(), "-10", "255", 0.0f, {{"dmx", "", 0, {1, 0}}}},
        {artnetOn(1), "0", "255", 1.0f, {{"artnet", "", 255, {0, 255}}}},
        {artnetOn(512), "0", "255", 0.5f, {{"artnet", "", 127, {511, 127}}}},
        {maker<TSArduinoSignal>(), "0", "1023", 0.5f, {{"arduino", "511\n", 0, {}}}},
        {maker<TSArduinoSignal>(), "0", "5000", 1.0f, {{"arduino", "1023\n", 0, {}}}},
        {maker<TSKeyboardSignal>(), "0", "100", 1.0f, {}},
        {maker<TSAudioSignal>(), "0", "100", 1.0f, {}},
        {maker<TSAnimationSignal>(), "0", "100", 1.0f, {}},
    };
    int i = 0;
    for (const ScaleRow& row : rows) {
        SCOPED_TRACE(i++);
        ports->clear();
        auto signal = row.make();
        signal->setMinValue(row.min);
        signal->setMaxValue(row.max);
        signal->sendWithValue(row.v);
        auto sent = ports->sent();
        ASSERT_EQ(sent.size(), row.expected.size());
        for (size_t k = 0; k < sent.size(); ++k) {
            EXPECT_EQ(sent[k].wire, row.expected[k].wire);
            EXPECT_EQ(sent[k].text, row.expected[k].text);
            EXPECT_NEAR(sent[k].value, row.expected[k].value, 1e-4);
            EXPECT_EQ(sent[k].bytes, row.expected[k].bytes);
        }
    }
}

TEST_F(OutputScaling, PlugNormalisesThenScales) {
    auto plug = TSPlug::initWithType(3); // MIDI in
    plug->setSignalOutType(4);           // OSC out, 0..100
    plug->sendSignalWithValue(127.0f);
    plug->sendSignalWithValue(64.0f);
    auto sent = ports->sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_FLOAT_EQ(sent[0].value, 100.0f);
    EXPECT_NEAR(sent[1].value, 64.0 / 127.0 * 100.0, 1e-4);
}

TEST(SignalKinds, Titles) {
    struct Row {
        std::function<std::shared_ptr<TSSignal>()> make;
        const char* title;
    };
    auto key = [](const char* chars, unsigned code, unsigned flags) {
        return [=] {
            auto s = tsMakeSignal<TSKeyboardSignal>();
            s->changeCharactersAndKeyCodeAndModifierFlags(chars, code, flags);
            return std::shared_ptr<TSSignal>(s);
        };
    };
    auto dmx = [](unsigned ch) {
        return [=] {
            auto s = tsMakeSignal<TSDmxSignal>();
            s->changeChannel(ch);
            return std::shared_ptr<TSSignal>(s);
        };
    };
    const Row rows[] = {
        {midiMaker(176, 0, 7), "Control / CH1 / 7"},
        {midiMaker(144, 15, 60), "NoteON / CH16 / C3"},
        {midiMaker(128, 1, 61), "NoteOFF / CH2 / C3#"},
        {midiMaker(144, 0, 0), "NoteON / CH1 / C-2"},
        {midiMaker(144, 0, 24), "NoteON / CH1 / C0"},
        {midiMaker(144, 0, 127), "NoteON / CH1 / G8"},
        {midiMaker(224, 0, 1), "(unknow)"},
        {dmx(12), "Channel 12"},
        {maker<TSOSCSignal>(), "(unknow)"},
        {maker<TSCommandSignal>(), "(unknow)"},
        {maker<TSArduinoSignal>(), "(unknow)"},
        {maker<TSKeyboardSignal>(), "(press to set)"},
        {key("a", 0, 0), "a"},
        {key("a", 0, 0x20000), "SHIFT+A"},
        {key("x", 126, 0x800000), "FN+UP"},
        {key("x", 49, 0x100000 | 0x80000 | 0x40000 | 0x20000 | 0x800000),
         "CMD+ALT+CTRL+SHIFT+FN+SPACE"},
        {key("é", 0, 0x40000), "CTRL+É"},
    };
    int i = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(i++);
        EXPECT_EQ(row.make()->title(), QString::fromUtf8(row.title));
    }
}

TEST(SignalKinds, ChangeOperationsAnnounceTheTitleAroundTheChange) {
    TSOSCSignal signal;
    QStringList seen;
    QObject::connect(&signal, &TSSignal::titleAboutToChange, [&] { seen << "before:" + signal.address(); });
    QObject::connect(&signal, &TSSignal::titleChanged, [&] { seen << "after:" + signal.address(); });
    signal.changeAddress("/go");
    EXPECT_EQ(seen, (QStringList{"before:/none", "after:/go"}));
}

TEST(SignalKinds, RangeTextsReadAsTheirLeadingNumber) {
    const std::pair<const char*, float> rows[] = {
        {"12.5", 12.5f}, {"-500", -500.0f}, {"  7", 7.0f}, {"+3", 3.0f},   {"50 %", 50.0f},
        {".5", 0.5f},    {"1e2", 100.0f},   {"abc", 0.0f}, {"", 0.0f},     {"inf", 0.0f},
        {"nan", 0.0f},   {"-", 0.0f},       {"0x10", 0.0f}, {"--1", 0.0f}};
    for (const auto& [text, value] : rows) {
        SCOPED_TRACE(text);
        EXPECT_FLOAT_EQ(tsFloatValue(text), value);
    }
    EXPECT_FLOAT_EQ(tsFloatValue(QString()), 0.0f);
}

} // namespace
