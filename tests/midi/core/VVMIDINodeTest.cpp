// Nodes over the in-memory service: what goes on the wire, what is refused
// and logged, what reaches the delegate, and the clocks.

#include "midi/VVMIDINode.h"
#include "MidiTestService.h"
#include "platform/Log.h"

#include <gtest/gtest.h>

namespace {

using namespace midi_test;

struct NodeFixture : ::testing::Test {
    void SetUp() override { ts::setLogToStandardError(false); }
    std::shared_ptr<TestService> service = TestService::install();

    VVMIDINodePtr senderTo(std::uint32_t id) {
        for (const auto& d : service->destinations())
            if (d.uniqueID == id)
                return VVMIDINode::createSenderWithEndpoint(d);
        return nullptr;
    }
    VVMIDINodePtr receiverOf(std::uint32_t id) {
        for (const auto& s : service->sources())
            if (s.uniqueID == id)
                return VVMIDINode::createReceiverWithEndpoint(s);
        return nullptr;
    }
    std::vector<std::string> sentTexts(std::uint32_t id) {
        std::vector<std::string> out;
        for (const auto& list : service->sentTo(id))
            out.push_back(packetsText(list));
        return out;
    }
};

VVMIDIMessagePtr sysexOf(size_t n) {
    return VVMIDIMessage::createWithSysexArray(std::vector<int>(n, 0x11));
}

TEST_F(NodeFixture, SendMsgPutsTheWireFormOnTheDestinationOrLogsTheRefusal) {
    const auto dest = service->addDestination("Synth In", "Synth");
    auto node = senderTo(dest);
    ASSERT_TRUE(node);
    struct Case {
        const char* name;
        VVMIDIMessagePtr msg;
        const char* wire; // nullptr: refused
        const char* logLine;
    };
    const std::vector<Case> table = {
        {"note on", VVMIDIMessage::createFromVals(0x90, 0, 0x3C, 0x40), "90 3C 40", nullptr},
        {"channel ORed whole", VVMIDIMessage::createFromVals(0x90, 20, 60, 200), "94 3C C8",
         nullptr},
        {"clock with a channel", VVMIDIMessage::createWithTypeChannel(0xF8, 5), "FD", nullptr},
        {"program change", VVMIDIMessage::createFromVals(0xC0, 1, 5, 9), "C1 05", nullptr},
        {"undefined common", VVMIDIMessage::createWithTypeChannel(0xF4, 0), nullptr,
         "\t\terror adding new packet -[VVMIDINode sendMsg:]"},
        {"channel in the type", VVMIDIMessage::createFromVals(0x91, 0, 1, 2), nullptr,
         "\t\terror adding new packet -[VVMIDINode sendMsg:]"},
        {"largest sysex", sysexOf(1008), "F0 ...", nullptr},
        {"sysex one byte too long", sysexOf(1009), nullptr, "\terr adding new sysex packet"},
    };
    size_t expectedLists = 0;
    for (const Case& c : table) {
        ts::LogCapture log;
        node->sendMsg(c.msg);
        const auto sent = service->sentTo(dest);
        if (c.wire) {
            ASSERT_EQ(sent.size(), ++expectedLists) << c.name;
            ASSERT_EQ(sent.back().size(), 1u) << c.name;
            if (c.msg->type() == 0xF0)
                EXPECT_EQ(sent.back()[0].bytes.size(), 1010u) << c.name;
            else
                EXPECT_EQ(packetsText(sent.back()), c.wire) << c.name;
            EXPECT_TRUE(log.lines().empty()) << c.name;
        } else {
            EXPECT_EQ(sent.size(), expectedLists) << c.name;
            EXPECT_EQ(log.lines(), std::vector<std::string>{c.logLine}) << c.name;
        }
    }
}

TEST_F(NodeFixture, PacketTimesAreTheMessageTimeOrNow) {
    const auto dest = service->addDestination("Out");
    auto node = senderTo(dest);
    node->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 1, 2, 0xFF, 12345));
    node->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 1, 2));
    const auto sent = service->sentTo(dest);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0][0].timestamp, 12345u);
    EXPECT_GT(sent[1][0].timestamp, 0u);
}

TEST_F(NodeFixture, SendMsgsHandsOverOneListAndEndsABatchAtARefusal) {
    const auto dest = service->addDestination("Out");
    auto node = senderTo(dest);
    auto note = [](int n) {
        return VVMIDIMessage::createFromVals(0x90, 0, static_cast<uint8_t>(n), 0x40);
    };
    node->sendMsgs({note(1), note(2), note(3)});
    EXPECT_EQ(sentTexts(dest), std::vector<std::string>{"90 01 40 | 90 02 40 | 90 03 40"});

    ts::LogCapture log;
    node->sendMsgs({note(4), VVMIDIMessage::createWithTypeChannel(0xF4, 0), note(5)});
    EXPECT_EQ(log.lines(), std::vector<std::string>{"\t\terror adding new packet"});
    EXPECT_EQ(sentTexts(dest).back(), "90 04 40"); // what came before the refusal went out

    // Messages that together overflow the 1024-byte list: the batch ends at
    // the first one that does not fit, and the list is fresh for the next send.
    node->sendMsgs({sysexOf(600), sysexOf(600)});
    ASSERT_EQ(service->sentTo(dest).size(), 3u);
    EXPECT_EQ(service->sentTo(dest).back().size(), 1u);
    node->sendMsg(note(6));
    EXPECT_EQ(sentTexts(dest).back(), "90 06 40");
}

TEST_F(NodeFixture, FailedHandOverIsLoggedAndTheNextSendStartsClean) {
    const auto dest = service->addDestination("Out");
    auto node = senderTo(dest);
    service->failSends = 1;
    ts::LogCapture log;
    node->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 1, 1));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"\t\terr -1 at MIDISend A"});
    node->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 2, 2));
    // The failed packet is not sent again with the next one.
    EXPECT_EQ(sentTexts(dest), std::vector<std::string>{"90 02 02"});

    auto virtualSender = VVMIDINode::createSenderWithName("From Tessarine");
    ASSERT_TRUE(virtualSender);
    service->failPublishes = 1;
    virtualSender->sendMsg(VVMIDIMessage::createWithTypeChannel(0xFA, 0));
    EXPECT_EQ(log.count("\t\terr -1 at MIDIReceived A"), 1);
    virtualSender->sendMsgs({VVMIDIMessage::createWithTypeChannel(0xFC, 0)});
    ASSERT_EQ(service->published().size(), 1u);
    EXPECT_EQ(packetsText(service->published()[0]), "FC");
}

TEST_F(NodeFixture, DisabledNodesNeitherSendNorDeliverButStillFollowClocks) {
    const auto src = service->addSource("Keys", "Keyboard");
    const auto dest = service->addDestination("Out");
    RecordingDelegate delegate;
    auto in = receiverOf(src);
    auto out = senderTo(dest);
    ASSERT_TRUE(in && out);
    in->setDelegate(&delegate);
    in->setEnabled(false);
    out->setEnabled(false);
    out->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 1, 1));
    out->sendMsgs({VVMIDIMessage::createFromVals(0x90, 0, 1, 1)});
    EXPECT_TRUE(service->sentTo(dest).empty());
    // A full frame locates the time code clock even while disabled.
    ASSERT_TRUE(service->injectFromSource(
        src, packets({{0xF0, 0x7F, 0x7F, 0x01, 0x01, 0x01, 0x00, 0x00, 0x00, 0xF7}})));
    EXPECT_TRUE(delegate.received.empty());
    EXPECT_DOUBLE_EQ(in->MTCQuarterFrameSMPTEAsDouble(), 3600.0);

    in->setEnabled(true);
    service->injectFromSource(src, packets({{0x90, 0x3C}, {0x40}}));
    ASSERT_EQ(delegate.received.size(), 1u);
    EXPECT_EQ(delegate.received[0], "90/0 3C 40 FF");
    EXPECT_EQ(delegate.nodes[0], in.get());
    EXPECT_EQ(out->MTCQuarterFrameSMPTEAsDouble(), 0.0); // senders have no clocks
    EXPECT_EQ(out->midiClockBPM(), 0.0);
}

TEST_F(NodeFixture, DelegateWithOnlyTheListFormGetsThat) {
    struct ListOnly : VVMIDINodeDelegate {
        int lists = 0;
        void receivedMIDI(const VVMIDIMessageList& m) override {
            lists += static_cast<int>(m.size());
        }
    } delegate;
    auto in = VVMIDINode::createReceiverWithName("To Tessarine");
    ASSERT_TRUE(in);
    in->setDelegate(&delegate);
    service->injectToVirtualDestination(packets({{0xF8, 0xFA}}));
    EXPECT_EQ(delegate.lists, 2);
}

TEST_F(NodeFixture, ReleasedReceiverGetsNothingAndLeavesANewerConnectionAlone) {
    const auto src = service->addSource("Pads");
    RecordingDelegate delegate;
    auto first = receiverOf(src);
    auto second = receiverOf(src); // a rebuild makes the new node first
    second->setDelegate(&delegate);
    first.reset();
    EXPECT_TRUE(service->isConnected(src));
    service->injectFromSource(src, packets({{0xFE}}));
    EXPECT_EQ(delegate.received.size(), 1u);
    second.reset();
    EXPECT_FALSE(service->isConnected(src));
}

TEST_F(NodeFixture, NamesAndRefusedCreations) {
    const auto a = service->addSource("Port 1", "Controller");
    const auto b = service->addSource("Port 2");
    auto withDevice = receiverOf(a);
    auto plain = receiverOf(b);
    EXPECT_EQ(withDevice->fullName(), "Controller-Port 1");
    EXPECT_EQ(withDevice->deviceName(), "Controller");
    EXPECT_EQ(plain->fullName(), "Port 2");
    EXPECT_EQ(plain->description(), "<VVMIDINode: Port 2, " + std::to_string(b) + ">");
    EXPECT_EQ(*plain->properties().uniqueID, static_cast<int32_t>(b));
    EXPECT_TRUE(plain->receiver());

    ts::LogCapture log;
    EXPECT_FALSE(VVMIDINode::createReceiverWithEndpoint(VVMIDIEndpointRef{}));
    EXPECT_FALSE(VVMIDINode::createReceiverWithName(""));
    EXPECT_TRUE(log.lines().empty());
    VVMIDIEndpointRef gone{a + 100, "Gone", "", "", false};
    EXPECT_FALSE(VVMIDINode::createReceiverWithEndpoint(gone));
    EXPECT_EQ(log.count("\t\terror -1 at MIDIPortConnectSource() A"), 1);

    VVMIDIClient::installService(createNoMIDIService());
    EXPECT_FALSE(VVMIDINode::createReceiverWithName("To Tessarine"));
    EXPECT_FALSE(VVMIDINode::createSenderWithName("From Tessarine"));
    EXPECT_EQ(log.count("\t\terror -1 at MIDIDestinationCreate() A"), 1);
    EXPECT_EQ(log.count("\t\terror -1 at MIDISourceCreate A"), 1);
}

TEST_F(NodeFixture, ClockQueriesFollowWhatTheSourceSends) {
    const auto src = service->addSource("Sequencer");
    auto in = receiverOf(src);
    MIDIPacketList list;
    list.push_back({1'000'000'000ull, {0xFA}});
    for (int i = 0; i <= 48; ++i) // two beats at 20 ms per clock: 125 BPM
        list.push_back({1'000'000'000ull + i * 20'000'000ull, {0xF8}});
    service->injectFromSource(src, list);
    EXPECT_NEAR(in->midiClockBPM(), 125.0, 1e-6);
    // The last clock is long past by host time: one clock interval at most.
    EXPECT_NEAR(in->midiClockBeats(), 2.0 + 1.0 / 24, 1e-9);
    service->injectFromSource(src, packets({{0xFC}}));
    EXPECT_EQ(in->midiClockBPM(), 0.0);
}

} // namespace
