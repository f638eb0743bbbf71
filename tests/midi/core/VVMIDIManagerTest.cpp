// The manager over the in-memory service: which endpoints become nodes,
// rebuilding on setup changes, sending to every destination, look-ups, name
// lists and snapshots.

#include "midi/VVMIDIManager.h"
#include "MidiTestService.h"
#include "platform/Log.h"

#include <gtest/gtest.h>

namespace {

using namespace midi_test;

std::vector<std::string> names(VVMIDIManager::NodeArray& list) {
    std::vector<std::string> out;
    for (const auto& n : list.lockCreateArrayCopy())
        out.push_back(n->name());
    return out;
}

struct ManagerFixture : ::testing::Test {
    void SetUp() override { ts::setLogToStandardError(false); }
    std::shared_ptr<TestService> service = TestService::install();
};

TEST_F(ManagerFixture, ListsHoldSystemEndpointsButNotTessarinesOwn) {
    service->addSource("Keys", "Keyboard");
    service->addSource("Pads", "Drums");
    service->addDestination("Synth In", "Synth");
    service->addDestination("To Tessarine (copy)", "Other program"); // named like ours
    auto manager = KVVVMIDIManager::create();
    ASSERT_TRUE(manager->virtualSource() && manager->virtualDest());
    EXPECT_EQ(manager->virtualSource()->name(), "To Tessarine");
    EXPECT_EQ(manager->virtualDest()->name(), "From Tessarine");
    EXPECT_EQ(names(manager->sourceArray()), (std::vector<std::string>{"Keys", "Pads"}));
    EXPECT_EQ(names(manager->destArray()), (std::vector<std::string>{"Synth In"}));
    // The service lists our own endpoints too.
    int own = 0;
    for (const auto& e : service->sources())
        own += e.own && e.name == "From Tessarine";
    for (const auto& e : service->destinations())
        own += e.own && e.name == "To Tessarine";
    EXPECT_EQ(own, 2);

    auto base = VVMIDIManager::create();
    EXPECT_EQ(base->receivingNodeName(), "To Korvalis");
    EXPECT_EQ(base->sendingNodeName(), "From Korvalis");
}

TEST_F(ManagerFixture, WithoutVirtualEndpointsNothingIsListed) {
    service->addSource("Keys");
    VVMIDIClient::installService(createNoMIDIService());
    auto manager = KVVVMIDIManager::create();
    EXPECT_FALSE(manager->virtualSource());
    EXPECT_EQ(manager->sourceArray().lockCount(), 0);
    manager->sendMsg(VVMIDIMessage::createFromVals(0x90, 0, 1, 2)); // no crash, nothing to do
}

TEST_F(ManagerFixture, SendReachesEveryEnabledDestinationAndTheVirtualSourceOnce) {
    const auto a = service->addDestination("A");
    const auto b = service->addDestination("B");
    const auto c = service->addDestination("C");
    auto manager = KVVVMIDIManager::create();
    manager->findDestNodeNamed("B")->setEnabled(false);
    manager->sendMsg(VVMIDIMessage::createFromVals(0xB0, 2, 7, 100));
    manager->sendMsg(nullptr);
    EXPECT_EQ(service->sentTo(a).size(), 1u);
    EXPECT_EQ(service->sentTo(b).size(), 0u);
    ASSERT_EQ(service->sentTo(c).size(), 1u);
    EXPECT_EQ(packetsText(service->sentTo(c)[0]), "B2 07 64");
    ASSERT_EQ(service->published().size(), 1u);
    EXPECT_EQ(packetsText(service->published()[0]), "B2 07 64");

    manager->sendMsgs({VVMIDIMessage::createWithTypeChannel(0xFA, 0),
                       VVMIDIMessage::createWithTypeChannel(0xF8, 0),
                       VVMIDIMessage::createWithTypeChannel(0xFC, 0)});
    manager->sendMsgs({});
    ASSERT_EQ(service->sentTo(a).size(), 2u);
    EXPECT_EQ(packetsText(service->sentTo(a)[1]), "FA | F8 | FC");
    EXPECT_EQ(service->published().size(), 2u);
}

TEST_F(ManagerFixture, SetupChangeRebuildsEnablesAgainAndTellsTheDelegateOnce) {
    const auto keys = service->addSource("Keys", "Keyboard");
    const auto pads = service->addSource("Pads", "Drums");
    service->addDestination("Synth In");
    auto manager = KVVVMIDIManager::create();
    RecordingDelegate delegate;
    manager->setDelegate(&delegate);
    manager->findSourceNodeNamed("Keys")->setEnabled(false);
    manager->findDestNodeNamed("Synth In")->setEnabled(false);
    const auto oldKeys = manager->findSourceNodeNamed("Keys");

    service->removeEndpoint(pads); // unplugged: the service reports the change
    EXPECT_EQ(delegate.setupChanges.load(), 1);
    EXPECT_EQ(names(manager->sourceArray()), std::vector<std::string>{"Keys"});
    EXPECT_NE(manager->findSourceNodeNamed("Keys"), oldKeys);
    EXPECT_TRUE(manager->findSourceNodeNamed("Keys")->enabled());
    EXPECT_TRUE(manager->findDestNodeNamed("Synth In")->enabled());

    // The new node receives; the old one, still held here, does not.
    service->injectFromSource(keys, packets({{0x90, 0x3C, 0x40}}));
    ASSERT_EQ(delegate.received.size(), 1u);
    EXPECT_EQ(delegate.nodes[0], manager->findSourceNodeNamed("Keys").get());

    // A snapshot taken before a change restores the choices after it.
    manager->findSourceNodeNamed("Keys")->setEnabled(false);
    const auto snapshot = manager->createSnapshot();
    service->addSource("Later");
    EXPECT_EQ(delegate.setupChanges.load(), 2);
    EXPECT_TRUE(manager->findSourceNodeNamed("Keys")->enabled());
    manager->loadSnapshot(snapshot);
    EXPECT_FALSE(manager->findSourceNodeNamed("Keys")->enabled());
    EXPECT_TRUE(manager->findSourceNodeNamed("Later")->enabled()); // not in the snapshot
}

TEST_F(ManagerFixture, ReceivedListsPassToTheDelegateWithTheirNode) {
    const auto keys = service->addSource("Keys");
    auto manager = KVVVMIDIManager::create();
    RecordingDelegate delegate;
    manager->setDelegate(&delegate);
    service->injectFromSource(keys, packets({{0xB0, 0x07, 0x64, 0x90, 0x3C, 0x00}}));
    service->injectToVirtualDestination(packets({{0xF8}}));
    ASSERT_EQ(delegate.received.size(), 2u);
    EXPECT_EQ(delegate.received[0], "B0/0 07 64 FF; 80/0 3C 00 FF");
    EXPECT_EQ(delegate.nodes[0], manager->findSourceNodeNamed("Keys").get());
    EXPECT_EQ(delegate.received[1], "F8/0 FF FF FF");
    EXPECT_EQ(delegate.nodes[1], manager->virtualSource().get());

    manager->setDelegate(nullptr);
    service->injectFromSource(keys, packets({{0xFE}}));
    EXPECT_EQ(delegate.received.size(), 2u);
}

TEST_F(ManagerFixture, LookUpsAndNameLists) {
    const auto a = service->addSource("Port", "Box");
    service->addSource("Port", "Other box");
    service->addSource("Knobs", "Box");
    service->addSource("Faders", "Box");
    service->addSource("Solo");
    const auto d = service->addDestination("Out", "Box");
    service->models[a] = "BX-1";
    service->models[d] = "BX-1";
    auto manager = KVVVMIDIManager::create();

    struct Case {
        const char* what;
        VVMIDINodePtr found;
        std::string fullName; // empty: no node
    };
    const std::vector<Case> table = {
        {"empty name", manager->findSourceNodeNamed(""), ""},
        {"first of two names", manager->findSourceNodeNamed("Port"), "Box-Port"},
        {"full name", manager->findSourceNodeWithFullName("Other box-Port"), "Other box-Port"},
        {"full name without device", manager->findSourceNodeWithFullName("Solo"), "Solo"},
        {"device", manager->findSourceNodeWithDeviceName("Box"), "Box-Port"},
        {"model", manager->findSourceNodeWithModelName("BX-1"), "Box-Port"},
        {"case matters", manager->findSourceNodeNamed("port"), ""},
        {"unknown", manager->findSourceNodeNamed("Nothing"), ""},
        {"dest by name", manager->findDestNodeNamed("Out"), "Box-Out"},
        {"dest by full name", manager->findDestNodeWithFullName("Box-Out"), "Box-Out"},
        {"dest by model", manager->findDestNodeWithModelName("BX-1"), "Box-Out"},
        {"dest by device", manager->findDestNodeWithDeviceName("Box"), "Box-Out"},
        {"dest empty device", manager->findDestNodeWithDeviceName(""), ""},
    };
    for (const Case& c : table)
        EXPECT_EQ(c.found ? c.found->fullName() : "", c.fullName) << c.what;

    EXPECT_EQ(manager->sourceNodeNameArray(),
              (std::vector<std::string>{"Port", "Port", "Knobs", "Faders", "Solo"}));
    EXPECT_EQ(manager->sourceNodeFullNameArray(),
              (std::vector<std::string>{"Box-Port", "Other box-Port", "Box-Knobs", "Box-Faders",
                                        "Solo"}));
    EXPECT_EQ(manager->deviceNameArray(), (std::vector<std::string>{"Box", "Other box"}));
    EXPECT_EQ(manager->destNodeNameArray(), std::vector<std::string>{"Out"});
    EXPECT_EQ(manager->destNodeFullNameArray(), std::vector<std::string>{"Box-Out"});
}

TEST_F(ManagerFixture, SnapshotsByFullNameOrByName) {
    service->addSource("Keys", "Keyboard");
    service->addSource("Pads");
    service->addDestination("Synth In", "Synth");
    auto manager = KVVVMIDIManager::create();
    manager->findSourceNodeNamed("Pads")->setEnabled(false);
    const auto snapshot = manager->createSnapshot();
    EXPECT_EQ(snapshot.size(), 2u);
    EXPECT_EQ(snapshot.at("fullSrc"),
              (std::map<std::string, bool>{{"Keyboard-Keys", true}, {"Pads", false}}));
    EXPECT_EQ(snapshot.at("fullDst"), (std::map<std::string, bool>{{"Synth-Synth In", true}}));

    struct Case {
        const char* what;
        VVMIDIManager::Snapshot snapshot;
        bool keys, pads, synth;
    };
    const std::vector<Case> table = {
        {"only src, by name", {{"src", {{"Keys", false}}}}, false, true, true},
        {"full name wins over name",
         {{"fullSrc", {{"Keyboard-Keys", false}}}, {"src", {{"Pads", false}}}},
         false,
         true,
         true},
        {"name is not a full name", {{"fullSrc", {{"Keys", false}}}}, true, true, true},
        {"destinations by name", {{"dst", {{"Synth In", false}}}}, true, true, false},
        {"empty", {}, true, true, true},
    };
    for (const Case& c : table) {
        for (auto* list : {&manager->sourceArray(), &manager->destArray()})
            for (const auto& n : list->lockCreateArrayCopy())
                n->setEnabled(true);
        manager->loadSnapshot(c.snapshot);
        EXPECT_EQ(manager->findSourceNodeNamed("Keys")->enabled(), c.keys) << c.what;
        EXPECT_EQ(manager->findSourceNodeNamed("Pads")->enabled(), c.pads) << c.what;
        EXPECT_EQ(manager->findDestNodeNamed("Synth In")->enabled(), c.synth) << c.what;
    }
}

} // namespace
