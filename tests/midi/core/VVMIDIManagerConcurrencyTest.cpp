// Input arriving on other threads, mapped straight back out (as a MIDI-to-MIDI
// plug does), and sends from further threads, while the main thread rebuilds
// the node lists on setup changes. Run under ThreadSanitizer and
// AddressSanitizer by the test script: nodes released during a rebuild must
// never be called into, and the lists must never be read torn.

#include "MidiTestService.h"
#include "midi/VVMIDIManager.h"
#include "platform/Log.h"

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace midi_test;

struct EchoDelegate : VVMIDIManagerDelegate {
    VVMIDIManager* manager = nullptr;
    std::atomic<int> lists{0};
    std::atomic<int> setups{0};
    void receivedMIDIFromNode(const VVMIDIMessageList& messages, VVMIDINode*) override {
        ++lists;
        for (const auto& m : messages)
            manager->sendMsg(VVMIDIMessage::createFromVals(0xB0, 0, 1, m->data1() & 0x7F));
    }
    void setupChanged() override { ++setups; }
};

TEST(MidiManagerConcurrency, InputAndSendsDuringRebuilds) {
    ts::setLogToStandardError(false);
    auto service = TestService::install();
    std::vector<std::uint32_t> sources;
    for (int i = 0; i < 3; ++i)
        sources.push_back(service->addSource("In " + std::to_string(i), "Box"));
    service->addDestination("Out", "Box");
    auto manager = KVVVMIDIManager::create();
    EchoDelegate delegate;
    delegate.manager = manager.get();
    manager->setDelegate(&delegate);

    std::atomic<bool> stop{false};
    std::thread input([&] {
        const MIDIPacketList notes = packets({{0x90, 0x3C, 0x40, 0xF8}});
        while (!stop)
            for (auto id : sources)
                service->injectFromSource(id, notes); // false while disconnected
    });
    std::thread output([&] {
        while (!stop) {
            manager->sendMsg(VVMIDIMessage::createWithTypeChannel(0xF8, 0));
            (void)manager->sourceNodeFullNameArray();
            (void)manager->createSnapshot();
        }
    });

    // Both threads are under way before the endpoints start to move.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (delegate.lists.load() == 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_GT(delegate.lists.load(), 0);
    const int listsBefore = delegate.lists.load();

    // Endpoints come and go on the main thread, as the service reports them.
    for (int round = 0; round < 150; ++round) {
        const auto extra = service->addDestination("Extra", "Other");
        const auto later = service->addSource("Later");
        service->removeEndpoint(extra);
        service->removeEndpoint(later);
    }
    stop = true;
    input.join();
    output.join();

    EXPECT_EQ(delegate.setups.load(), 600);
    EXPECT_GE(delegate.lists.load(), listsBefore);
    EXPECT_EQ(manager->sourceArray().lockCount(), 3);
    EXPECT_FALSE(
        service->sentTo(manager->findDestNodeNamed("Out")->endpointRef().uniqueID).empty());
    manager.reset(); // teardown with input possibly still queued in the service
}

} // namespace
