// The controller as the MIDI manager's delegate, over the in-memory MIDI
// service: notes from a source fire plugs, MIDI outputs reach every
// destination, MIDI learn takes the next message, and the endpoint tables.

#include "app/TessarineController.h"
#include "midi/VVMIDIClient.h"
#include "midi/VVMIDIManager.h"
#include "midi/memory/MemoryMIDIService.h"
#include "osc/BBOSCMessage.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

class MidiOut final : public MIDIOutputPort {
public:
    explicit MidiOut(std::shared_ptr<VVMIDIManager> m) : manager(std::move(m)) {}
    void sendMsg(const std::shared_ptr<VVMIDIMessage>& message) override { manager->sendMsg(message); }
    std::shared_ptr<VVMIDIManager> manager;
};

class ControllerMidi : public ::testing::Test {
protected:
    void SetUp() override {
        service = std::make_shared<MemoryMIDIService>();
        VVMIDIClient::installService(service);
        keys = service->addSource("Keys", "Keyboard");
        synth = service->addDestination("Synth In", "Synth");
        manager = KVVVMIDIManager::create();
        auto wiring = ts::test::RecordingPorts::wiringTo(ports);
        wiring.midiManager = manager;
        wiring.midi = std::make_shared<MidiOut>(manager);
        controller = std::make_unique<TessarineController>(wiring);
    }
    void TearDown() override {
        controller.reset();
        manager.reset();
        VVMIDIClient::installService(createNoMIDIService());
    }
    TSPlugPtr midiToOsc(unsigned type, unsigned channel, unsigned note) {
        auto plug = TSPlug::initWithType(3);
        plug->setSignalOutType(4);
        static_cast<TSMidiSignal*>(plug->signalIn().get())->changeTypeAndChannelAndNote(type, channel, note);
        controller->plugs().addObject(plug);
        return plug;
    }

    std::shared_ptr<ts::test::RecordingPorts> ports = std::make_shared<ts::test::RecordingPorts>();
    std::shared_ptr<MemoryMIDIService> service;
    std::uint32_t keys = 0, synth = 0;
    std::shared_ptr<KVVVMIDIManager> manager;
    std::unique_ptr<TessarineController> controller;
};

TEST_F(ControllerMidi, ANoteFromASourceFiresItsPlugAndEnds) {
    midiToOsc(144, 0, 60);
    ASSERT_TRUE(service->injectFromSource(keys, {{0, {0x90, 60, 127}}}));
    const auto sent = ports->sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_FLOAT_EQ(sent[0].value, 100.0f);
    EXPECT_FLOAT_EQ(sent[1].value, 0.0f);
    // Through the program's own destination as well.
    ports->clear();
    ASSERT_TRUE(service->injectToVirtualDestination({{0, {0x90, 60, 127}}}));
    EXPECT_EQ(ports->count(), 2u);
}

TEST_F(ControllerMidi, AKorvalisEventBecomesAControlChangeOnEveryDestination) {
    auto plug = TSPlug::initWithType(0); // Korvalis in, MIDI out
    static_cast<TSKorvalisSignal*>(plug->signalIn().get())->changeAddressSuffix("layer/opacity/1");
    static_cast<TSMidiSignal*>(plug->signalOut().get())->changeTypeAndChannelAndNote(176, 2, 7);
    controller->plugs().addObject(plug);
    BBOSCMessage message(BBOSCAddress::addressWithString("/korvalis/layer/opacity/1"));
    message.attachArgument(BBOSCArgument::argumentWithFloat(50.0f));
    EXPECT_TRUE(controller->processKorvalisOSCMessage(message));
    const auto toSynth = service->sentTo(synth);
    ASSERT_EQ(toSynth.size(), 1u);
    ASSERT_EQ(toSynth[0].size(), 1u);
    EXPECT_EQ(toSynth[0][0].bytes, (std::vector<std::uint8_t>{0xB2, 7, 63}));
    ASSERT_EQ(service->published().size(), 1u); // and on "From Tessarine"
}

TEST_F(ControllerMidi, LearnTakesTheNextMessageFromTheService) {
    auto plug = midiToOsc(176, 0, 24);
    controller->waitForMidi(plug);
    ASSERT_TRUE(service->injectFromSource(keys, {{0, {0x84, 33, 0}}}));
    ASSERT_TRUE(ts::test::spinUntil([&] {
        return static_cast<TSMidiSignal*>(plug->signalIn().get())->midiType() == 128;
    }));
    auto* midi = static_cast<TSMidiSignal*>(plug->signalIn().get());
    EXPECT_EQ(midi->midiChannel(), 4u);
    EXPECT_EQ(midi->midiNote(), 33u);
    EXPECT_EQ(ports->count(), 0u);
    service->injectFromSource(keys, {{0, {0x84, 33, 127}}});
    EXPECT_EQ(ports->count(), 1u);
}

TEST_F(ControllerMidi, EndpointTablesListNodesThenTheProgramsOwnEndpoint) {
    using T = TessarineController::MIDITable;
    EXPECT_EQ(controller->numberOfRowsInTableView(T::Sources), 2);
    EXPECT_EQ(controller->numberOfRowsInTableView(T::Destinations), 2);
    EXPECT_EQ(controller->numberOfRowsInTableView(T::Other), 0);
    EXPECT_EQ(controller->tableViewObjectValueForTableColumnRow(T::Sources, "SourcesName", 0).toString(), "Keys");
    EXPECT_EQ(controller->tableViewObjectValueForTableColumnRow(T::Sources, "SourcesName", 1).toString(), "To Tessarine");
    EXPECT_EQ(controller->tableViewObjectValueForTableColumnRow(T::Destinations, "SourcesName", 1).toString(), "From Tessarine");
    EXPECT_FALSE(controller->tableViewObjectValueForTableColumnRow(T::Sources, "Other", 0).isValid());
    EXPECT_FALSE(controller->getMidiNodeForTableViewAndRow(T::Other, 0));

    // Disabling the source in the table stops its input.
    midiToOsc(144, 0, 60);
    controller->tableViewSetObjectValueForTableColumnRow(T::Sources, 0, "SourcesEnabled", 0);
    EXPECT_EQ(controller->tableViewObjectValueForTableColumnRow(T::Sources, "SourcesEnabled", 0).toInt(), 0);
    service->injectFromSource(keys, {{0, {0x90, 60, 127}}});
    EXPECT_EQ(ports->count(), 0u);
    controller->tableViewSetObjectValueForTableColumnRow(T::Sources, 1, "SourcesEnabled", 0);
    service->injectFromSource(keys, {{0, {0x90, 60, 127}}});
    EXPECT_EQ(ports->count(), 2u);

    // A source that appears later is listed after the setup change.
    int reloads = 0;
    QObject::connect(controller.get(), &TessarineController::midiSetupChanged, [&] { ++reloads; });
    service->addSource("Pads", "Drums");
    ASSERT_TRUE(ts::test::spinUntil([&] { return controller->numberOfRowsInTableView(T::Sources) == 3; }));
    EXPECT_TRUE(ts::test::spinUntil([&] { return reloads > 0; }));
}

} // namespace
