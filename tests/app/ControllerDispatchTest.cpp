// Matching of every input kind against the plug list, console lines, and the
// dispatch index following every change of the list and of the plugs.

#include "app/TessarineController.h"
#include "dmx/LODMXResponse.h"
#include "midi/VVMIDIMessage.h"
#include "osc/BBOSCMessage.h"
#include "platform/NotificationCenter.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSGeneratedSignals.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using ts::test::RecordingPorts;

class Dispatch : public ::testing::Test {
protected:
    std::shared_ptr<RecordingPorts> ports = std::make_shared<RecordingPorts>();
    TessarineController controller{RecordingPorts::wiringTo(ports)};

    // A plug with the given input whose output is an OSC signal at outAddress
    // (range 0..1, so the recorded value is the normalised one).
    TSPlugPtr plug(int inType, const char* outAddress) {
        auto p = TSPlug::initWithType(inType);
        p->setSignalOutType(4);
        auto* out = static_cast<TSOSCSignal*>(p->signalOut().get());
        out->changeAddress(outAddress);
        out->setMaxValue("1");
        controller.plugs().addObject(p);
        return p;
    }
    std::vector<std::pair<std::string, double>> sent() const {
        std::vector<std::pair<std::string, double>> result;
        for (const auto& s : ports->sent())
            result.emplace_back(s.text, s.value);
        return result;
    }
    using Sends = std::vector<std::pair<std::string, double>>;
};

template <typename T> T* in(const TSPlugPtr& p) { return static_cast<T*>(p->signalIn().get()); }

TEST_F(Dispatch, MidiMatchesTypeChannelAndNoteAndEndsNotes) {
    auto note = plug(3, "/note");
    in<TSMidiSignal>(note)->changeTypeAndChannelAndNote(144, 2, 60);
    auto off = plug(3, "/off");
    in<TSMidiSignal>(off)->changeTypeAndChannelAndNote(128, 2, 60);
    auto cc = plug(3, "/cc");
    in<TSMidiSignal>(cc)->changeTypeAndChannelAndNote(176, 0, 7);

    struct Row {
        unsigned type, channel, d1, d2;
        bool handled;
        Sends sends;
    };
    const Row rows[] = {
        {144, 2, 60, 127, true, {{"/note", 1.0}, {"/note", 0.0}}},
        {128, 2, 60, 64, true, {{"/off", 64.0 / 127.0}}},
        {176, 0, 7, 127, true, {{"/cc", 1.0}}},
        {176, 1, 7, 127, false, {}},
        {144, 2, 61, 127, false, {}},
        {144, 3, 60, 127, false, {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.type << "/" << r.channel << "/" << r.d1);
        ports->clear();
        auto message = VVMIDIMessage::createFromVals(r.type, r.channel, r.d1, r.d2);
        EXPECT_EQ(controller.processMIDIMessage(*message), r.handled);
        ASSERT_EQ(sent().size(), r.sends.size());
        for (size_t i = 0; i < r.sends.size(); ++i) {
            EXPECT_EQ(sent()[i].first, r.sends[i].first);
            EXPECT_NEAR(sent()[i].second, r.sends[i].second, 1e-6);
        }
    }
}

TEST_F(Dispatch, TextInputsMatchExactly) {
    in<TSOSCSignal>(plug(4, "/a-out"))->changeAddress("/a");
    in<TSOSCSignal>(plug(4, "/a-again"))->changeAddress("/a");
    in<TSCommandSignal>(plug(10, "/cmd"))->changeString("go");

    const BBOSCArgument half[] = {BBOSCArgument::argumentWithFloat(0.5f), BBOSCArgument::argumentWithInt(9)};
    EXPECT_TRUE(controller.processKorvalisOSCMessageWithAddressAndArguments("/a", half));
    EXPECT_EQ(sent(), (Sends{{"/a-out", 0.5}, {"/a-again", 0.5}})); // both, in list order
    ports->clear();
    EXPECT_TRUE(controller.processKorvalisOSCMessageWithAddressAndArguments("/a", {}));
    EXPECT_EQ(sent(), (Sends{{"/a-out", 1.0}, {"/a-again", 1.0}})); // no arguments: 1.0
    ports->clear();
    EXPECT_FALSE(controller.processKorvalisOSCMessageWithAddressAndArguments("/a/", half));
    EXPECT_FALSE(controller.processKorvalisOSCMessageWithAddressAndArguments("/A", half));
    EXPECT_FALSE(controller.processCommandWithString("go "));
    EXPECT_FALSE(controller.processCommandWithString("Go"));
    EXPECT_TRUE(controller.processCommandWithString("go"));
    EXPECT_EQ(sent(), (Sends{{"/cmd", 1.0}}));
}

TEST_F(Dispatch, UsbDmxReachesArtnetPlugsButArtnetNeverReachesDmxPlugs) {
    in<TSDmxSignal>(plug(5, "/dmx"))->changeChannel(5);
    in<TSArtnetSignal>(plug(6, "/artnet"))->changeChannel(5);
    EXPECT_TRUE(controller.processDMXChannelAndValue(5, 127));
    EXPECT_EQ(sent(), (Sends{{"/dmx", 0.5}, {"/artnet", 0.5}}));
    ports->clear();
    EXPECT_TRUE(controller.processArtnetChannelAndValue(5, 255));
    EXPECT_EQ(sent(), (Sends{{"/artnet", 1.0}}));
    ports->clear();
    EXPECT_FALSE(controller.processDMXChannelAndValue(6, 255));
    EXPECT_TRUE(sent().empty());
}

TEST_F(Dispatch, DmxNotificationFeedsTheLowByteOfTheValue) {
    in<TSDmxSignal>(plug(5, "/dmx"))->changeChannel(9);
    ts::Notification n;
    n.name = "LODMXDidReceiveChannelValueNotification";
    n.userInfo["response"] = LODMXResponse{0, 9, 0x1FF, nullptr};
    ts::NotificationCenter::defaultCenter().postNotification(n);
    EXPECT_EQ(sent(), (Sends{{"/dmx", 1.0}}));
}

TEST_F(Dispatch, DisabledPlugsAreNeverCandidates) {
    auto p = plug(10, "/cmd");
    p->setEnabled(false);
    EXPECT_FALSE(controller.processCommandWithString("play"));
    EXPECT_TRUE(controller.getPlugWithSignalInClass(TSCommandSignal::staticClass()).empty());
    p->setEnabled(true);
    EXPECT_TRUE(controller.processCommandWithString("play"));
    EXPECT_EQ(controller.getPlugWithSignalInClass(TSSignal::staticClass()).size(), 1u);
}

TEST_F(Dispatch, IndexFollowsIdentityChangesAndRemoval) {
    auto p = plug(4, "/out");
    in<TSOSCSignal>(p)->changeAddress("/old");
    EXPECT_TRUE(controller.processKorvalisOSCMessageWithAddressAndArguments("/old", {}));
    in<TSOSCSignal>(p)->changeAddress("/new");
    EXPECT_FALSE(controller.processKorvalisOSCMessageWithAddressAndArguments("/old", {}));
    EXPECT_TRUE(controller.processKorvalisOSCMessageWithAddressAndArguments("/new", {}));
    auto k = plug(1, "/key");
    in<TSKeyboardSignal>(k)->changeCharactersAndKeyCodeAndModifierFlags("q", 12, 0);
    EXPECT_TRUE(controller.processKeyCodeAndModifierFlagsAndPressed(12, 0, true));
    EXPECT_FALSE(controller.processKeyCodeAndModifierFlagsAndPressed(12, 0x10000, true));
    controller.plugs().removeObjects({p});
    EXPECT_FALSE(controller.processKorvalisOSCMessageWithAddressAndArguments("/new", {}));
    EXPECT_TRUE(controller.processKeyCodeAndModifierFlagsAndPressed(12, 0, false));
}

TEST_F(Dispatch, ArduinoUsesTheFirstCompleteLineAndKeepsTheRest) {
    plug(8, "/ard")->signalIn()->setMaxValue("1023");
    struct Row {
        const char* fragment;
        bool handled;
        double value;
    };
    const Row rows[] = {{"12", false, 0},  {"3\n4", true, 123.0 / 1023}, {"\n", true, 4.0 / 1023},
                        {"7\n8\n9", true, 7.0 / 1023}, {"\n", true, 9.0 / 1023},
                        {"x\n", true, 0.0}, {"-5\r\n", true, -5.0 / 1023}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.fragment);
        ports->clear();
        EXPECT_EQ(controller.processArduinoText(r.fragment), r.handled);
        if (r.handled) {
            ASSERT_EQ(sent().size(), 1u);
            EXPECT_NEAR(sent()[0].second, r.value, 1e-6);
        } else {
            EXPECT_TRUE(sent().empty());
        }
    }
}

TEST_F(Dispatch, KeysSendPressAndReleaseOrToggle) {
    auto plain = plug(1, "/plain");
    in<TSKeyboardSignal>(plain)->changeCharactersAndKeyCodeAndModifierFlags("a", 0, 0);
    auto toggle = plug(1, "/toggle");
    in<TSKeyboardSignal>(toggle)->changeCharactersAndKeyCodeAndModifierFlags("b", 11, 0);
    in<TSKeyboardSignal>(toggle)->setToggle(true);

    const std::pair<bool, double> plainRows[] = {{true, 1.0}, {false, 0.0}};
    for (auto [pressed, value] : plainRows) {
        ports->clear();
        EXPECT_TRUE(controller.processKeyCodeAndModifierFlagsAndPressed(0, 0, pressed));
        EXPECT_EQ(sent(), (Sends{{"/plain", value}}));
    }
    // A new toggle starts on: press 1, release 1 (turns off), press 0, release 0 (turns on).
    const std::pair<bool, double> toggleRows[] = {
        {true, 1.0}, {false, 1.0}, {true, 0.0}, {false, 0.0}, {true, 1.0}};
    for (auto [pressed, value] : toggleRows) {
        ports->clear();
        EXPECT_TRUE(controller.processKeyCodeAndModifierFlagsAndPressed(11, 0, pressed));
        EXPECT_EQ(sent(), (Sends{{"/toggle", value}}));
    }
}

TEST_F(Dispatch, AudioLevelIsScaledAndClamped) {
    plug(2, "/level");
    const std::pair<float, double> rows[] = {{5.0f, 0.5}, {10.0f, 1.0}, {45.0f, 1.0}, {-3.0f, 0.0}};
    for (auto [level, value] : rows) {
        ports->clear();
        EXPECT_TRUE(controller.processAudioLevel(level));
        EXPECT_EQ(sent(), (Sends{{"/level", value}}));
    }
}

TEST_F(Dispatch, KorvalisEventsMatchAddressCueNameAndPositiveMediaStarts) {
    auto opacity = plug(0, "/opacity");
    in<TSKorvalisSignal>(opacity)->changeAddressSuffix("layer/x/1");
    in<TSKorvalisSignal>(opacity)->setMinValue("-500");
    in<TSKorvalisSignal>(opacity)->setMaxValue("500");
    auto cue = plug(0, "/cue");
    in<TSKorvalisSignal>(cue)->changeAddressSuffix("composition/cue");
    in<TSKorvalisSignal>(cue)->setParamValue("A");
    auto namelessCue = plug(0, "/nameless");
    in<TSKorvalisSignal>(namelessCue)->changeAddressSuffix("composition/cue");
    auto media = plug(0, "/media");
    in<TSKorvalisSignal>(media)->changeAddressSuffix("layer/media/3/1");

    struct Row {
        const char* address;
        std::optional<BBOSCArgument> argument;
        Sends sends;
    };
    const Row rows[] = {
        {"/korvalis/layer/x/1", BBOSCArgument::argumentWithFloat(0.0f), {{"/opacity", 0.5}}},
        {"/korvalis/layer/x/1", std::nullopt, {}},
        {"/korvalis/composition/cue", BBOSCArgument::argumentWithString("A"), {{"/cue", 1.0}}},
        {"/korvalis/composition/cue", BBOSCArgument::argumentWithString("B"), {}},
        {"/korvalis/layer/media/3/1", BBOSCArgument::argumentWithFloat(0.0f), {}},
        {"/korvalis/layer/media/3/1", BBOSCArgument::argumentWithInt(1), {{"/media", 1.0}}},
        {"/korvalis/layer/media/3/2", BBOSCArgument::argumentWithInt(1), {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.address);
        ports->clear();
        BBOSCMessage message(BBOSCAddress::addressWithString(r.address));
        if (r.argument)
            message.attachArgument(*r.argument);
        EXPECT_EQ(controller.processKorvalisOSCMessage(message), !r.sends.empty());
        EXPECT_EQ(sent(), r.sends);
    }
}

TEST_F(Dispatch, ConsoleLinesOnlyWhileVisible) {
    QStringList lines;
    QObject::connect(&controller, &TessarineController::consoleLineAppended,
                     [&](const QString& line) { lines << line; });
    controller.processCommandWithString("hidden");
    controller.showConsole();
    ASSERT_TRUE(controller.consoleVisible());
    controller.processMIDIMessage(*VVMIDIMessage::createFromVals(176, 0, 7, 100));
    const BBOSCArgument args[] = {BBOSCArgument::argumentWithFloat(0.25f)};
    controller.processKorvalisOSCMessageWithAddressAndArguments("/fader", args);
    controller.processCommandWithString("play");
    controller.processDMXChannelAndValue(3, 200);
    controller.processArtnetChannelAndValue(0, 17);
    controller.processArduinoText("12");
    controller.processArduinoText("3\n");
    controller.processKeyCodeAndModifierFlagsAndPressed(1, 0, true);
    controller.processAudioLevel(3);
    controller.processAnimations();
    // From another thread the line still arrives, on the main thread.
    std::thread([&] { controller.processCommandWithString("from a thread"); }).join();
    ts::test::spinUntil([&] { return lines.size() == 7; });
    EXPECT_EQ(lines, (QStringList{"MIDI : channel_1, type_176, note_7, value_100",
                                  "OSC : '/fader'    0.250000", "Command : play",
                                  "DMX : channel_3, value_200", "ARTNET : channel_0, value_17",
                                  "ARDUINO : '123'", "Command : from a thread"}));
    EXPECT_TRUE(controller.consoleText().endsWith("Command : from a thread\n"));
    controller.showConsole();
    EXPECT_EQ(controller.consoleText(), "");
    controller.showConsole();
    EXPECT_EQ(controller.consoleText(), "");
}

TEST_F(Dispatch, AConsoleThatKeepsNoTextStillEmitsEveryLine) {
    controller.setConsoleRetainsText(false);
    controller.setConsoleVisible(true);
    int lines = 0;
    QObject::connect(&controller, &TessarineController::consoleLineAppended, [&] { ++lines; });
    for (int i = 0; i < 1000; ++i)
        controller.processCommandWithString("go");
    EXPECT_EQ(lines, 1000);
    EXPECT_TRUE(controller.consoleText().isEmpty());
}

} // namespace
