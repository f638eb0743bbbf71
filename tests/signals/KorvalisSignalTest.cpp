// The Korvalis signal: titles, the rising-edge detector, the sending rules
// with their fall-through, default ranges, and the bounded loopback.

#include "osc/BBOSCMessage.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSOSCSignal.h"
#include "signals/TSPlug.h"
#include "support/RecordingPorts.h"

#include <gtest/gtest.h>
#include <variant>

namespace {

using Argument = TSKorvalisSignal::Argument;

TEST(KorvalisSignal, TitlesFromTheAddressSuffix) {
    const std::pair<const char*, const char*> rows[] = {
        {"layer/opacity/2", "Layer 2 / Opacity changes"},
        {"layer/opacity/0", "Selected layer / Opacity changes"},
        {"layer/x/2", "Layer 2 / X changes"},
        {"layer/rotation/2", "Layer 2 / Rotation changes"},
        {"layer/media/time/2", "Layer 2 / Media's Time changes"},
        {"layer/media/speed/2", "Layer 2 / Media's Speed changes"},
        {"layer/media/text/prevLine/2", "Layer 2 / Text's Previous Line changes"},
        {"layer/media/text/nextLine/0", "Selected layer / Text's Next Line changes"},
        {"layer/media/quartz/param6/2", "Layer 2 / Quartz Param6 changes"},
        {"layer/effect5/param6/2", "Layer 2 / Effect 5 / Param6 changes"},
        {"layer/effect2/param3/0", "Selected layer / Effect 2 / Param3 changes"},
        {"layer/media/3/2", "Media starts / Layer 2 / Column 3"},
        {"layer/media/3/0", "Media starts / Selected layer / Column 3"},
        {"layer/media/0/2", "Stop layer 2"},
        {"layer/media/0/0", "Stop selected layer"},
        {"layer/media/0", "(unknow)"},
        {"layer/media/3", "(unknow)"},
        {"layer/x", "(unknow)"},
        {"board/columnLaunched/3", "Column 3 is launched"},
        {"board/columnLaunched/0", "Any column is launched"},
        {"board/columnStopped/3", "Column 3 is stopped"},
        {"board/columnStopped/0", "Any column is stopped"},
        {"board/columnMoved/3", "(unknow)"},
        {"composition/cue", "Cuepoint is reached"},
        {"action/stopAll", "Stop all layers"},
        {"action/fadeToBlack", "Fade to black"},
        {"action/launchPrevColumn", "Launch previous column"},
        {"action/launchNextColumn", "Launch next column"},
        {"action/launchOrStopColumn/3", "Launch/Stop column 3"},
        {"action/launchColumn/3", "Launch column 3"},
        {"action/launchColumn", "(unknow)"},
        {"action/stopColumn/3", "Stop column 3"},
        {"action/launchOrStopColumnWithName", "Launch/Stop column"},
        {"action/selectBoard/4", "Select board 4"},
        {"action/composition/start", "Composition starts"},
        {"action/composition/stop", "Composition stops"},
        {"action/composition/startOrStop", "Composition starts/stops"},
        {"something/else", "(unknow)"},
        {"", "(unknow)"},
    };
    for (const auto& [suffix, title] : rows) {
        SCOPED_TRACE(suffix);
        TSKorvalisSignal signal;
        signal.setAddressSuffix(suffix);
        EXPECT_EQ(signal.title(), title);
        EXPECT_EQ(signal.address(), QString("/korvalis/") + suffix);
    }
}

// Each row feeds values in turn; expected holds what each value sends.
struct SendRow {
    const char* suffix;
    const char* param; // nullptr: none
    std::vector<float> values;
    std::vector<std::optional<Argument>> expected;
};

TEST(KorvalisSignal, SendingRulesAndTheirFallThrough) {
    using A = std::optional<Argument>;
    const A none;
    const SendRow rows[] = {
        {"layer/opacity/2", nullptr, {0.5f, 0.5f, 2.0f}, {A(50.0f), A(50.0f), A(200.0f)}},
        {"action/launchColumn/5", nullptr, {0.0f, 1.0f, 0.0f, 1.0f, 1.0f},
         {none, A(std::int32_t{5}), none, A(std::int32_t{5}), A(std::int32_t{5})}},
        {"action/launchColumn/5", nullptr, {0.4f, 0.3f, 0.6f, 0.7f},
         {A(std::int32_t{5}), none, A(std::int32_t{5}), none}},
        {"action/stopColumn/12", nullptr, {1.0f}, {A(std::int32_t{12})}},
        {"action/launchOrStopColumn/7", nullptr, {0.9f}, {A(std::int32_t{7})}},
        {"action/selectBoard/4", nullptr, {0.2f, 0.1f}, {A(std::int32_t{4}), none}},
        {"action/launchColumn", nullptr, {1.0f}, {A(1.0f)}},
        {"action/launchOrStopColumnWithName", "Intro", {0.0f, 1.0f, 0.3f},
         {none, A(QString("Intro")), none}},
        {"action/launchOrStopColumnWithName", nullptr, {1.0f, 1.0f}, {none, none}},
        {"layer/media/time/1", nullptr, {0.2f, 0.1f}, {A(0.2f), A(0.1f)}},
        {"layer/media/3/1", nullptr, {0.0f, 0.8f, 0.9f}, {none, A(0.8f), none}},
        {"action/fadeToBlack", nullptr, {0.3f, 0.2f, 0.0f, 0.1f}, {A(0.3f), none, none, A(0.1f)}},
        {"layer/effect1/param2/0", nullptr, {0.5f}, {A(50.0f)}},
    };
    for (const SendRow& row : rows) {
        SCOPED_TRACE(row.suffix);
        TSKorvalisSignal signal;
        signal.setAddressSuffix(row.suffix);
        if (row.param)
            signal.setParamValue(row.param);
        ASSERT_EQ(row.values.size(), row.expected.size());
        for (size_t i = 0; i < row.values.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(signal.takeArgumentForValue(row.values[i]), row.expected[i]);
        }
    }
}

TEST(KorvalisSignal, ScaledPropertiesRememberTheScaledValue) {
    TSKorvalisSignal signal;
    signal.setAddressSuffix("layer/x/1");
    signal.setMinValue("-500");
    signal.setMaxValue("500");
    signal.takeArgumentForValue(0.75f);
    EXPECT_FLOAT_EQ(signal.previousValue(), 250.0f);
}

TEST(KorvalisSignal, RisingEdge) {
    struct Row {
        float previous;
        float value;
        bool switched;
    };
    const Row rows[] = {{0.0f, 0.5f, true},  {0.4f, 0.5f, true},  {0.5f, 0.9f, false},
                        {0.0f, 0.1f, true},  {0.2f, 0.3f, false}, {0.7f, 1.0f, true},
                        {1.0f, 1.0f, true},  {0.0f, 0.0f, false}, {0.9f, 0.0f, false},
                        {0.0f, -1.0f, false}};
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.previous << " -> " << r.value);
        TSKorvalisSignal signal;
        signal.setAddressSuffix("layer/media/time/1"); // records v as the previous value
        signal.takeArgumentForValue(r.previous);
        EXPECT_EQ(signal.hasValueSwitched(r.value), r.switched);
    }
}

TEST(KorvalisSignal, EditorDefaultRanges) {
    struct Row {
        const char* suffix;
        bool has;
        const char* min;
        const char* max;
    };
    const Row rows[] = {{"layer/opacity/1", true, "0", "100"},  {"layer/scale/1", true, "0", "100"},
                        {"layer/media/speed/2", true, "0", "100"}, {"layer/x/1", true, "-500", "500"},
                        {"layer/y/3", true, "-500", "500"},       {"layer/rotation/0", true, "0", "360"},
                        {"layer/media/quartz/param1/1", true, "0", "1"},
                        {"layer/effect3/param1/1", true, "0", "1"},
                        {"action/launchColumn/1", false, "", ""}, {"layer/media/time/1", false, "", ""}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.suffix);
        QString min, max;
        EXPECT_EQ(TSKorvalisSignal::defaultRangeForSuffix(r.suffix, &min, &max), r.has);
        if (r.has) {
            EXPECT_EQ(min, r.min);
            EXPECT_EQ(max, r.max);
        }
    }
}

class KorvalisLoopback : public ::testing::Test {
protected:
    std::shared_ptr<ts::test::RecordingPorts> ports = std::make_shared<ts::test::RecordingPorts>();
    TessarineController controller{ts::test::RecordingPorts::wiringTo(ports)};

    TSPlugPtr addPlug(int inType, int outType) {
        auto plug = TSPlug::initWithType(inType);
        if (plug->signalOutType() != outType)
            plug->setSignalOutType(outType);
        controller.plugs().addObject(plug);
        return plug;
    }
};

TEST_F(KorvalisLoopback, AnActionSentAlsoFiresPlugsListeningToIt) {
    auto trigger = addPlug(4, 0);
    static_cast<TSOSCSignal*>(trigger->signalIn().get())->changeAddress("/go");
    static_cast<TSKorvalisSignal*>(trigger->signalOut().get())->setAddressSuffix("action/launchColumn/5");
    auto listener = addPlug(0, 4);
    static_cast<TSKorvalisSignal*>(listener->signalIn().get())->changeAddressSuffix("action/launchColumn/5");
    static_cast<TSOSCSignal*>(listener->signalOut().get())->changeAddress("/launched");

    const BBOSCArgument args[] = {BBOSCArgument::argumentWithFloat(1.0f)};
    EXPECT_TRUE(controller.processKorvalisOSCMessageWithAddressAndArguments("/go", args));
    const auto sent = ports->sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].text, "/launched");
    EXPECT_FLOAT_EQ(sent[0].value, 500.0f); // int 5 through the 0..100 OSC range
}

TEST_F(KorvalisLoopback, APlugFeedingItsOwnInputStops) {
    auto self = addPlug(0, 0);
    static_cast<TSKorvalisSignal*>(self->signalIn().get())->changeAddressSuffix("layer/opacity/1");
    static_cast<TSKorvalisSignal*>(self->signalOut().get())->setAddressSuffix("layer/opacity/1");
    auto watcher = addPlug(0, 4);
    static_cast<TSKorvalisSignal*>(watcher->signalIn().get())->changeAddressSuffix("layer/opacity/1");

    BBOSCMessage message(BBOSCAddress::addressWithString("/korvalis/layer/opacity/1"));
    message.attachArgument(BBOSCArgument::argumentWithFloat(50.0f));
    EXPECT_TRUE(controller.processKorvalisOSCMessage(message));
    // The watcher sees the original message and the one looped back; the
    // second send of the self-feeding plug is not looped back again.
    EXPECT_EQ(ports->count(), 2u);
}

} // namespace
