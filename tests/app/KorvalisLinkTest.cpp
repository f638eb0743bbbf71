// The controller's OSC link to Korvalis over real UDP sockets on loopback:
// datagrams in through the listener (nested bundles flattened in wire
// order), actions out through the sender, and both rebuilt on a port change.

#include "app/TessarineController.h"
#include "osc/BBOSCDecoder.h"
#include "osc/OSCTestSupport.h"
#include "platform/Defaults.h"
#include "platform/Log.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using ts::test::UdpEndpoint;

class KorvalisLink : public ::testing::Test {
protected:
    void SetUp() override {
        dir = QString::fromStdString(ts::test::makeTempDir("tessarine-link"));
        ts::Defaults::setStandardPath(dir + "/Tessarine.json");
        ts::Defaults::standard().setIntegerForKey(korvalis.port(), "korvalisSendPort");
        ts::Defaults::standard().setIntegerForKey(listenPort, "korvalisListenPort");
        auto wiring = ts::test::RecordingPorts::wiringTo(ports);
        wiring.korvalisLink = true;
        controller = std::make_unique<TessarineController>(wiring);
    }
    void TearDown() override {
        controller.reset();
        ts::Defaults::setStandardPath(QString());
    }
    TSPlugPtr korvalisToOsc(const char* suffix, const char* outAddress) {
        auto plug = TSPlug::initWithType(0);
        plug->setSignalOutType(4);
        static_cast<TSKorvalisSignal*>(plug->signalIn().get())->changeAddressSuffix(suffix);
        static_cast<TSOSCSignal*>(plug->signalOut().get())->changeAddress(outAddress);
        controller->plugs().addObject(plug);
        return plug;
    }
    static std::unique_ptr<BBOSCMessage> message(const char* address, float value) {
        auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(address));
        m->attachArgument(BBOSCArgument::argumentWithFloat(value));
        return m;
    }

    QString dir;
    UdpEndpoint korvalis;
    UdpEndpoint peer;
    int listenPort = ts::test::freeUdpPort();
    std::shared_ptr<ts::test::RecordingPorts> ports = std::make_shared<ts::test::RecordingPorts>();
    std::unique_ptr<TessarineController> controller;
};

TEST_F(KorvalisLink, NestedBundlesReachThePlugsInWireOrder) {
    korvalisToOsc("board/columnLaunched/1", "/one");
    korvalisToOsc("board/columnLaunched/2", "/two");
    korvalisToOsc("board/columnLaunched/3", "/three");
    BBOSCBundle outer(BBOSCDate{});
    outer.attachObject(message("/korvalis/board/columnLaunched/1", 1));
    auto inner = BBOSCBundle::bundleWithTimestamp(BBOSCDate{});
    inner->attachObject(message("/korvalis/board/columnLaunched/2", 1));
    inner->attachObject(message("/korvalis/board/columnLaunched/3", 1));
    outer.attachObject(std::move(inner));
    ASSERT_TRUE(peer.sendTo(listenPort, outer.packetizedData()));
    ASSERT_TRUE(ts::test::spinUntil([&] { return ports->count() == 3; }, 3000ms));
    const auto sent = ports->sent();
    EXPECT_EQ(sent[0].text, "/one");
    EXPECT_EQ(sent[1].text, "/two");
    EXPECT_EQ(sent[2].text, "/three");
}

TEST_F(KorvalisLink, MalformedDatagramsAreDroppedWithOneLogLine) {
    korvalisToOsc("layer/media/time/1", "/t");
    ts::LogCapture log;
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(peer.sendTo(listenPort, {'/', 'x', 0, 0, ',', 'f', 0}));
    ASSERT_TRUE(peer.sendTo(listenPort, message("/korvalis/layer/media/time/1", 3)->packetizedData()));
    ASSERT_TRUE(ts::test::spinUntil([&] { return ports->count() == 1; }, 3000ms));
    EXPECT_EQ(log.count("could not be decoded"), 1);
}

TEST_F(KorvalisLink, ActionsGoOutAsOneDatagramAndPortChangesRebuildTheLink) {
    auto plug = TSPlug::initWithType(4);
    static_cast<TSKorvalisSignal*>(plug->signalOut().get())->setAddressSuffix("action/launchColumn/7");
    controller->plugs().addObject(plug);
    plug->sendSignalWithValue(1.0f);
    auto datagram = korvalis.receive(2000ms);
    ASSERT_TRUE(datagram);
    auto packet = BBOSCDecoder::decodeData(*datagram);
    ASSERT_TRUE(packet && packet->asMessage());
    EXPECT_EQ(packet->asMessage()->addressString(), "/korvalis/action/launchColumn/7");
    EXPECT_EQ(packet->asMessage()->typeTagString(), ",i");
    EXPECT_EQ(packet->asMessage()->argumentAtIndex(0).intValue(), 7);

    UdpEndpoint movedKorvalis;
    controller->setKorvalisSendPort(movedKorvalis.port());
    plug->sendSignalWithValue(1.0f);
    EXPECT_TRUE(movedKorvalis.receive(2000ms));
    EXPECT_FALSE(korvalis.receive(100ms));

    // The listener moves too; the old port is free again at once.
    const int newListen = ts::test::freeUdpPort();
    controller->setKorvalisListenPort(newListen);
    EXPECT_EQ(controller->korvalisBoundListenPort(), newListen);
    korvalisToOsc("board/columnStopped/0", "/stopped");
    ASSERT_TRUE(peer.sendTo(newListen, message("/korvalis/board/columnStopped/0", 1)->packetizedData()));
    EXPECT_TRUE(ts::test::spinUntil([&] { return ports->count() == 1; }, 3000ms));
    controller->setKorvalisListenPort(listenPort);
    EXPECT_EQ(controller->korvalisBoundListenPort(), listenPort);
    EXPECT_EQ(ts::Defaults::standard().integerForKey("korvalisListenPort"), listenPort);
}

TEST_F(KorvalisLink, BusyListenPortIsLoggedAndTheProgramGoesOn) {
    UdpEndpoint squatter;
    ts::LogCapture log;
    controller->setKorvalisListenPort(squatter.port());
    EXPECT_EQ(controller->korvalisBoundListenPort(), 0);
    EXPECT_TRUE(log.contains("bind"));
    EXPECT_EQ(controller->korvalisListenPort(), squatter.port());
}

} // namespace
