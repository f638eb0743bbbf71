// Outgoing generic OSC comes from the command and MIDI receive threads while
// the main thread replaces the sender: no send may touch a sender being
// destroyed, and what leaves is always whole one-float bundles.

#include "osc/OSCManager.h"

#include "io/ManagerTestSupport.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCSender.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {

using ts::test::Bytes;
using ts::test::PrivateSettings;
using ts::test::receiveSpinning;
using ts::test::tryReceive;
using ts::test::UdpEndpoint;

// Every message of every bundle received: address and its one float.
void expectWholeOneFloatBundles(const UdpEndpoint& peer, int& messages) {
    while (std::optional<Bytes> datagram = tryReceive(peer)) {
        const auto packet = BBOSCDecoder::decodeData(*datagram);
        ASSERT_NE(packet, nullptr);
        const BBOSCBundle* bundle = packet->asBundle();
        ASSERT_NE(bundle, nullptr);
        for (const auto& element : bundle->attachedObjects()) {
            const BBOSCMessage* message = element->asMessage();
            ASSERT_NE(message, nullptr);
            EXPECT_EQ(message->addressString(), "/x");
            ASSERT_EQ(message->typeTagString(), ",f");
            EXPECT_EQ(message->argumentAtIndex(0).floatValue(), 0.5f);
            ++messages;
        }
    }
}

TEST(OSCManagerConcurrency, SendsFromManyThreadsWhileTheSenderIsReplaced) {
    PrivateSettings settings;
    UdpEndpoint first, second;
    settings.defaults().setStringForKey("127.0.0.1", "oscSenderMachine");
    settings.defaults().setIntegerForKey(first.port(), "oscSenderPort");
    settings.defaults().setBoolForKey(false, "oscListenerIsEnabled");
    OSCManager manager;

    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < 4; ++t)
        senders.emplace_back([&] {
            while (!stop.load()) {
                manager.sendOSCMessageAtAddressWithValue("/x", 0.5f);
                sent.fetch_add(1);
                std::this_thread::yield();
            }
        });

    int messages = 0;
    for (int round = 0; round < 200; ++round) {
        manager.setOscSenderPort(round % 2 ? first.port() : second.port());
        ts::test::spinFor(std::chrono::milliseconds(2)); // let bundles flush
        expectWholeOneFloatBundles(first, messages);
        expectWholeOneFloatBundles(second, messages);
    }
    stop.store(true);
    for (auto& t : senders)
        t.join();

    // The last sender still works after all the replacing.
    manager.setOscSenderPort(first.port());
    manager.sendOSCMessageAtAddressWithValue("/x", 0.5f);
    ASSERT_TRUE(ts::test::spinUntil([&] {
        const int before = messages;
        expectWholeOneFloatBundles(first, messages);
        return messages > before;
    }));
    // Pending bundles go with a replaced sender, so not all arrive; none can
    // arrive twice.
    EXPECT_GT(messages, 0);
    EXPECT_LE(messages, sent.load() + 1);
}

} // namespace
