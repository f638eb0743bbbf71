// Listener and sender on loopback: thread hand-over, stop, errors, batching.
#include "OSCTestSupport.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCDispatcher.h"
#include "osc/BBOSCListener.h"
#include "osc/BBOSCSender.h"
#include "osc/DelegateWrapper.h"
#include "platform/Log.h"
#include "support/TestSupport.h"

#include <atomic>
#include <cmath>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;
using ts::test::Bytes;

namespace {

// Threads of this process named "OSCListener".
int listenerThreadCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + e->d_name + "/comm");
        std::string name;
        std::getline(comm, name);
        count += name == "OSCListener";
    }
    closedir(dir);
    return count;
}

// A new receive thread names itself shortly after it starts.
bool listenerThreadsBecome(int count) {
    return ts::test::spinUntil([&] { return listenerThreadCount() == count; }, 2000ms);
}

Bytes numbered(uint32_t i, size_t size = 12) {
    Bytes b(size, 0);
    for (int k = 0; k < 4; ++k)
        b[static_cast<size_t>(k)] = static_cast<uint8_t>(i >> (24 - 8 * k));
    return b;
}

std::unique_ptr<BBOSCMessage> message(const std::string& address,
                                      std::vector<BBOSCArgument> args = {}) {
    auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(address));
    m->attachArguments(std::move(args));
    return m;
}

TEST(OSCListener, DeliversOnTheMainThreadInArrivalOrder) {
    const int threadsBefore = listenerThreadCount();
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    EXPECT_GT(listener->socketDescriptor(), 0);
    EXPECT_TRUE(listenerThreadsBecome(threadsBefore + 1));
    auto recorder = std::make_shared<ts::test::RecordingDelegate>();
    listener->setDelegate(recorder);

    ts::test::UdpEndpoint peer;
    constexpr uint32_t kCount = 500;
    for (uint32_t i = 0; i < kCount; ++i) {
        ASSERT_TRUE(peer.sendTo(listener->portNumber(), numbered(i)));
        if (i % 50 == 49) // stay well inside the socket's receive buffer
            ts::test::spinFor(2ms);
    }
    ASSERT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == kCount; }));
    for (uint32_t i = 0; i < kCount; ++i)
        ASSERT_EQ(recorder->datagrams[i], numbered(i)) << i;
    EXPECT_EQ(recorder->offMainThread, 0);
    EXPECT_EQ(listener->droppedDatagramCount(), 0u);
    EXPECT_EQ(listener->pendingDatagramCount(), 0u);
}

TEST(OSCListener, SecondListenerOnABusyPortFailsWithBindError) {
    const int threadsBefore = listenerThreadCount();
    auto first = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(listenerThreadsBecome(threadsBefore + 1));
    ts::LogCapture log;
    EXPECT_EQ(BBOSCListener::defaultListenerOnPort(first->portNumber()), nullptr);
    BBOSCListener second;
    EXPECT_FALSE(second.startListeningOnPort(first->portNumber()));
    EXPECT_EQ(second.socketDescriptor(), -1);
    EXPECT_EQ(log.count("bind: Address already in use"), 2);
    ts::test::spinFor(20ms);
    EXPECT_EQ(listenerThreadCount(), threadsBefore + 1);
    EXPECT_FALSE(second.startListeningOnPort(70000));
    EXPECT_TRUE(log.contains("bind: UDP port 70000 is out of range"));
    // The first still answers.
    auto recorder = std::make_shared<ts::test::RecordingDelegate>();
    first->setDelegate(recorder);
    ts::test::UdpEndpoint peer;
    peer.sendTo(first->portNumber(), numbered(7));
    EXPECT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == 1; }));
}

TEST(OSCListener, StopEndsAThreadWaitingForADatagram) {
    const int threadsBefore = listenerThreadCount();
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    auto recorder = std::make_shared<ts::test::RecordingDelegate>();
    listener->setDelegate(recorder);
    const int port = listener->portNumber();
    std::this_thread::sleep_for(50ms); // let the thread settle into its wait
    listener->stopListening();
    EXPECT_EQ(listener->socketDescriptor(), -1);
    EXPECT_EQ(listenerThreadCount(), threadsBefore);
    ts::test::spinFor(20ms);
    EXPECT_TRUE(recorder->datagrams.empty());
    // The port is free again, and a stopped listener can start again.
    EXPECT_TRUE(listener->startListeningOnPort(port));
    ts::test::UdpEndpoint peer;
    peer.sendTo(port, numbered(1));
    EXPECT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == 1; }));
    listener->stopListening();
    listener->stopListening(); // twice is harmless
}

// The descriptor number of a stopped listener is handed out again at once;
// its former thread must not read from the new owner.
TEST(OSCListener, ReusedDescriptorNumberIsNotReadByAStoppedListener) {
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    const int oldDescriptor = listener->socketDescriptor();
    listener->stopListening();
    ts::test::UdpEndpoint reuser; // most likely gets oldDescriptor
    ts::test::UdpEndpoint peer;
    for (uint32_t i = 0; i < 20; ++i)
        peer.sendTo(reuser.port(), numbered(i));
    for (uint32_t i = 0; i < 20; ++i) {
        const auto got = reuser.receive(1000ms);
        ASSERT_TRUE(got.has_value())
            << "datagram " << i << " taken away (descriptor " << oldDescriptor << ")";
        EXPECT_EQ(*got, numbered(i));
    }
}

TEST(OSCListener, LongDatagramIsCutTo65506Bytes) {
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    auto recorder = std::make_shared<ts::test::RecordingDelegate>();
    listener->setDelegate(recorder);
    ts::test::UdpEndpoint peer;
    // 65,507 bytes is the largest UDP payload IPv4 can carry.
    Bytes big(65507);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<uint8_t>(i * 7);
    ASSERT_TRUE(peer.sendTo(listener->portNumber(), big));
    ASSERT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == 1; }));
    ASSERT_EQ(recorder->datagrams[0].size(), 65506u);
    EXPECT_TRUE(
        std::equal(recorder->datagrams[0].begin(), recorder->datagrams[0].end(), big.begin()));
}

TEST(OSCListener, DestroyedListenerDropsWhatIsStillQueued) {
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    int calls = 0;
    listener->setDelegate(
        std::make_shared<DelegateWrapper>([&](std::span<const uint8_t>) { ++calls; }));
    ts::test::UdpEndpoint peer;
    for (uint32_t i = 0; i < 10; ++i)
        peer.sendTo(listener->portNumber(), numbered(i));
    // The main thread does not run its loop here, so the datagrams stay queued.
    const auto end = std::chrono::steady_clock::now() + 5s;
    while (listener->pendingDatagramCount() < 10 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(1ms);
    ASSERT_EQ(listener->pendingDatagramCount(), 10u);
    listener.reset();
    ts::test::spinFor(50ms);
    EXPECT_EQ(calls, 0);
}

struct Counter {
    void dispatchRawPacket(std::span<const uint8_t> datagram) { total += datagram.size(); }
    size_t total = 0;
};

TEST(OSCListener, DispatcherLogsAndWrapperForwardsToAMethod) {
    ts::LogCapture log;
    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    ts::test::UdpEndpoint peer;
    auto m = message("/go", {BBOSCArgument::argumentWithFloat(0.5f)});
    peer.sendTo(listener->portNumber(), m->packetizedData());
    peer.sendTo(listener->portNumber(), Bytes{'/', 'x', 0, 0}); // does not decode: ignored
    ASSERT_TRUE(ts::test::spinUntil([&] { return log.contains("DISPATCH: "); }));
    ts::test::spinFor(20ms);
    EXPECT_EQ(log.count("DISPATCH: "), 1);
    EXPECT_TRUE(log.contains("DISPATCH: MESSAGE:\naddress:/go\n types:,f\nf { 0.500000 }"));

    Counter counter;
    listener->setDelegate(
        DelegateWrapper::wrapperWithTargetAndSelector(&counter, &Counter::dispatchRawPacket));
    peer.sendTo(listener->portNumber(), Bytes(40, 1));
    EXPECT_TRUE(ts::test::spinUntil([&] { return counter.total == 40; }));
}

class OSCSenderTest : public ::testing::Test {
protected:
    ts::test::UdpEndpoint receiver;
    std::unique_ptr<BBOSCSender> sender =
        BBOSCSender::senderWithDestinationHostNamePortNumber("127.0.0.1", receiver.port());

    std::optional<Bytes> receiveWhileSpinning(std::chrono::milliseconds timeout) {
        std::optional<Bytes> got;
        ts::test::spinUntil([&] { return (got = receiver.receive(0ms)).has_value(); }, timeout);
        return got;
    }
};

TEST_F(OSCSenderTest, ResolvesItsDestinationOnce) {
    ASSERT_NE(sender, nullptr);
    EXPECT_EQ(sender->destinationHostName(), "127.0.0.1");
    EXPECT_EQ(sender->portNumber(), receiver.port());
    EXPECT_EQ(ntohs(sender->destinationAddress().sin_port), receiver.port());
    EXPECT_EQ(ntohl(sender->destinationAddress().sin_addr.s_addr), INADDR_LOOPBACK);
    auto byName =
        BBOSCSender::senderWithDestinationHostNamePortNumber("localhost", receiver.port());
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(ntohl(byName->destinationAddress().sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST_F(OSCSenderTest, PacketsGoOutAtOnceAsTheirDatagrams) {
    ASSERT_NE(sender, nullptr);
    auto m = message("/a", {BBOSCArgument::argumentWithInt(3)});
    ASSERT_TRUE(sender->sendOSCPacket(*m));
    EXPECT_EQ(receiver.receive(1000ms), m->packetizedData()); // no event loop needed

    auto bundle = BBOSCBundle::bundleWithTimestamp(100.0);
    for (int i = 0; i < 3; ++i)
        bundle->attachObject(
            message("/b", {BBOSCArgument::argumentWithDataBlob(Bytes(2000, uint8_t(i)))}));
    ASSERT_TRUE(sender->sendOSCPacket(*bundle));
    for (const Bytes& expected : bundle->packetizedDatas())
        EXPECT_EQ(receiver.receive(1000ms), expected);
    EXPECT_FALSE(receiver.receive(30ms).has_value());
}

TEST_F(OSCSenderTest, MessagesAddedWithinATickGoOutAsOneBundle) {
    ASSERT_NE(sender, nullptr);
    const double before = BBOSCDataUtilities::currentDate();
    // No event loop runs between the adds, so no tick can fall between them.
    sender->addOSCMessage(message("/one", {BBOSCArgument::argumentWithInt(1)}));
    sender->addOSCMessage(*message("/two", {BBOSCArgument::argumentWithFloat(2.0f)}));
    sender->addOSCMessage(message("/three", {BBOSCArgument::argumentWithString("3")}));
    sender->addOSCMessage(nullptr);
    const double after = BBOSCDataUtilities::currentDate();
    const auto got = receiveWhileSpinning(2000ms);
    ASSERT_TRUE(got.has_value());
    const auto packet = BBOSCDecoder::decodeData(*got);
    ASSERT_TRUE(packet && packet->asBundle());
    const BBOSCBundle& bundle = *packet->asBundle();
    ASSERT_EQ(bundle.attachedObjects().size(), 3u);
    EXPECT_EQ(bundle.attachedObjects()[0]->asMessage()->addressString(), "/one");
    EXPECT_EQ(bundle.attachedObjects()[1]->asMessage()->argumentAtIndex(0).floatValue(), 2.0f);
    EXPECT_EQ(bundle.attachedObjects()[2]->asMessage()->argumentAtIndex(0).stringValue(), "3");
    // Read back in whole seconds: the moment of the first add.
    EXPECT_GE(bundle.timeStamp(), std::floor(before) - 1);
    EXPECT_LE(bundle.timeStamp(), after);
    // Ticks with nothing added send nothing.
    EXPECT_FALSE(receiveWhileSpinning(60ms).has_value());
    sender->addOSCMessage(message("/four"));
    const auto next = receiveWhileSpinning(2000ms);
    ASSERT_TRUE(next.has_value());
    const auto fresh = BBOSCDecoder::decodeData(*next);
    ASSERT_TRUE(fresh && fresh->asBundle());
    EXPECT_EQ(fresh->asBundle()->attachedObjects().size(), 1u);
}

TEST_F(OSCSenderTest, MessagesFromManyThreadsAllArriveInTheirOrder) {
    ASSERT_NE(sender, nullptr);
    constexpr int kThreads = 4, kPerThread = 300;
    std::atomic<int> done{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                sender->addOSCMessage(message(
                    "/t", {BBOSCArgument::argumentWithInt(t), BBOSCArgument::argumentWithInt(i)}));
                if (i % 25 == 0)
                    std::this_thread::sleep_for(1ms);
            }
            ++done;
        });
    std::vector<int> next(kThreads, 0);
    int received = 0;
    ts::test::spinUntil(
        [&] {
            while (auto d = receiver.receive(0ms)) {
                const auto packet = BBOSCDecoder::decodeData(*d);
                if (!packet || !packet->asBundle())
                    return true; // fails below
                for (const auto& e : packet->asBundle()->attachedObjects()) {
                    const BBOSCMessage* m = e->asMessage();
                    const int t = m->argumentAtIndex(0).intValue();
                    EXPECT_EQ(m->argumentAtIndex(1).intValue(), next[size_t(t)]) << "thread " << t;
                    next[size_t(t)] = m->argumentAtIndex(1).intValue() + 1;
                    ++received;
                }
            }
            return received == kThreads * kPerThread && done == kThreads;
        },
        10000ms);
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(received, kThreads * kPerThread);
}

TEST_F(OSCSenderTest, FailedSendStopsThePacketAndIsLogged) {
    ASSERT_NE(sender, nullptr);
    ts::LogCapture log;
    // A datagram above the IPv4 limit cannot be sent.
    auto bundle = BBOSCBundle::bundleWithTimestamp(0.0);
    bundle->attachObject(message("/small"));
    bundle->attachObject(message("/huge", {BBOSCArgument::argumentWithDataBlob(Bytes(70000, 1))}));
    bundle->attachObject(message("/after"));
    EXPECT_FALSE(sender->sendOSCPacket(*bundle));
    EXPECT_TRUE(log.contains("sendto: Message too long"));
    const auto first = receiver.receive(1000ms);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(BBOSCDecoder::decodeData(*first)->asBundle()->attachedObjects().size(), 1u);
    EXPECT_FALSE(receiver.receive(50ms).has_value());

    // The main bundle is dropped all the same.
    sender->addOSCMessage(message("/huge", {BBOSCArgument::argumentWithDataBlob(Bytes(70000, 1))}));
    sender->sendMainBundle();
    EXPECT_EQ(log.count("sendto: "), 2); // the header-only datagram went out, the element failed
    ts::test::spinFor(40ms);
    EXPECT_EQ(receiver.receive(0ms)->size(), 16u);
    EXPECT_FALSE(receiver.receive(20ms).has_value());
}

TEST(OSCSender, UnusableDestinationsGiveNoSender) {
    ts::LogCapture log;
    // A label longer than 63 characters is refused by the resolver itself,
    // so this fails without any name-server query leaving the machine.
    const std::string unresolvable = std::string(70, 'x') + ".invalid";
    EXPECT_EQ(BBOSCSender::senderWithDestinationHostNamePortNumber(unresolvable, 7001), nullptr);
    EXPECT_TRUE(log.contains("cannot resolve host"));
    EXPECT_EQ(BBOSCSender::senderWithDestinationHostNamePortNumber("h\xC3\xB4te", 7001), nullptr);
    EXPECT_TRUE(log.contains("is not ASCII"));
    EXPECT_EQ(BBOSCSender::senderWithDestinationHostNamePortNumber("127.0.0.1", 65536), nullptr);
}

} // namespace
