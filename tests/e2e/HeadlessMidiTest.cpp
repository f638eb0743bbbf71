// MIDI end to end over a real JACK server of the test's own: the headless
// program turns a note from another JACK client into a Korvalis action, and
// a Korvalis event into a control change that jack_midi_dump reads; MIDI
// learn takes the next message from JACK into the selected plug.

#include "app/StandardWiring.h"
#include "app/TessarineController.h"
#include "e2e/HeadlessProgram.h"
#include "midi/VVMIDIClient.h"
#include "midi/VVMIDIManager.h"
#include "midi/service/JackTestPeers.h"
#include "osc/BBOSCDecoder.h"
#include "platform/Defaults.h"
#include "signals/TSMidiSignal.h"
#include "support/TestSupport.h"

#include <QHostAddress>
#include <QNetworkDatagram>
#include <QUdpSocket>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using ts::test::ChildProcess;
using ts::test::HeadlessProgram;
using ts::test::JackTestServer;

// True once something holds the UDP port (it can no longer be bound here).
bool portBound(int port) {
    return ts::test::spinUntil([port] {
        QUdpSocket probe;
        return !probe.bind(QHostAddress::Any, static_cast<quint16>(port));
    });
}

int freePort() {
    QUdpSocket s;
    s.bind(QHostAddress::LocalHost, 0);
    return s.localPort();
}

class HeadlessMidi : public ::testing::Test {
protected:
    void SetUp() override {
        dir = ts::test::makeTempDir("tessarine-midi-e2e");
        server = std::make_unique<JackTestServer>("tsmidi" + std::to_string(getpid()));
        ASSERT_TRUE(server->start()) << "jackd did not come up";
        ASSERT_TRUE(korvalis.bind(QHostAddress::LocalHost, 0));
    }
    void TearDown() override {
        peers.clear();
        server.reset();
    }
    ChildProcess& startPeer(const std::vector<std::string>& argv) {
        peers.push_back(std::make_unique<ChildProcess>());
        EXPECT_TRUE(peers.back()->start(argv, dir + "/peer" + std::to_string(peers.size()) + ".txt"));
        return *peers.back();
    }
    QJsonObject settings(const QList<QJsonObject>& plugs) {
        return {{"firstStart", true},
                {"midiBackend", "jack"},
                {"korvalisSendPort", korvalis.localPort()},
                {"korvalisListenPort", korvalisListen},
                {"oscListenerPort", freePort()},
                {"commandListenerPort", freePort()},
                {"plugs", HeadlessProgram::archive(plugs)}};
    }
    // The next Korvalis datagram's address and first argument.
    std::optional<std::pair<std::string, int>> nextKorvalisAction(std::chrono::milliseconds timeout) {
        if (!ts::test::spinUntil([&] { return korvalis.hasPendingDatagrams(); }, timeout))
            return std::nullopt;
        const QByteArray d = korvalis.receiveDatagram().data();
        auto packet = BBOSCDecoder::decodeData(
            std::span(reinterpret_cast<const uint8_t*>(d.constData()), static_cast<size_t>(d.size())));
        if (!packet || !packet->asMessage() || packet->asMessage()->argumentCount() == 0)
            return std::nullopt;
        return std::make_pair(packet->asMessage()->addressString(),
                              packet->asMessage()->argumentAtIndex(0).intValue());
    }

    std::string dir;
    std::unique_ptr<JackTestServer> server;
    std::vector<std::unique_ptr<ChildProcess>> peers;
    QUdpSocket korvalis;
    int korvalisListen = freePort();
};

TEST_F(HeadlessMidi, ANoteFromAJackClientLaunchesAKorvalisColumn) {
    HeadlessProgram program(settings({HeadlessProgram::plug(
        HeadlessProgram::signal("TSMidiSignal", "0", "127", {{"midiType", 144}, {"midiChannel", 0}, {"midiNote", 60}}),
        HeadlessProgram::signal("TSKorvalisSignal", "0", "100",
                                {{"addressSuffix", "action/launchColumn/3"}, {"paramValue", QJsonValue()}}))}));
    ASSERT_TRUE(program.start());
    ASSERT_TRUE(ts::test::spinUntil([&] { return ts::test::hasPort(server->ports(), "Tessarine:To Tessarine"); }, 5000ms));
    // A client that appears later is found and listened to without any manual connection.
    startPeer({"/usr/bin/python3", "-c", ts::test::kRepeatingJackMidiSender, "tsnotes", "90", "3c", "64"});
    const auto action = nextKorvalisAction(8000ms);
    ASSERT_TRUE(action) << program.logText().toStdString();
    EXPECT_EQ(action->first, "/korvalis/action/launchColumn/3");
    EXPECT_EQ(action->second, 3);
    EXPECT_TRUE(program.waitForOutput("MIDI : channel_1, type_144, note_60, value_100", 2000ms));
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(HeadlessMidi, AKorvalisEventBecomesAControlChangeReadByJackMidiDump) {
    HeadlessProgram program(settings({HeadlessProgram::plug(
        HeadlessProgram::signal("TSKorvalisSignal", "0", "100",
                                {{"addressSuffix", "layer/opacity/1"}, {"paramValue", QJsonValue()}}),
        HeadlessProgram::signal("TSMidiSignal", "0", "127", {{"midiType", 176}, {"midiChannel", 2}, {"midiNote", 7}}))}));
    ASSERT_TRUE(program.start());
    ASSERT_TRUE(ts::test::spinUntil([&] { return ts::test::hasPort(server->ports(), "Tessarine:From Tessarine"); }, 5000ms));
    ChildProcess& dump = startPeer({"stdbuf", "-oL", "jack_midi_dump", "tsdump"});
    ASSERT_TRUE(ts::test::spinUntil([&] { return ts::test::hasPort(server->ports(), "tsdump:input"); }, 5000ms));
    ASSERT_TRUE(ts::test::jackConnect("Tessarine:From Tessarine", "tsdump:input"));
    ASSERT_TRUE(portBound(korvalisListen));
    BBOSCMessage message(BBOSCAddress::addressWithString("/korvalis/layer/opacity/1"));
    message.attachArgument(BBOSCArgument::argumentWithFloat(50.0f));
    const auto bytes = message.packetizedData();
    QUdpSocket sender;
    // 50 % of 0..100 is 0.5 of 0..127: 63 (0x3f) on controller 7, channel 3.
    EXPECT_TRUE(ts::test::spinUntil([&] {
        sender.writeDatagram(reinterpret_cast<const char*>(bytes.data()), static_cast<qint64>(bytes.size()),
                             QHostAddress::LocalHost, static_cast<quint16>(korvalisListen));
        ts::test::spinFor(100ms);
        return dump.output().find("b2 07 3f") != std::string::npos;
    }, 8000ms)) << dump.output();
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(HeadlessMidi, LearnTakesTheNextMessageFromJack) {
    const QString settingsPath = QString::fromStdString(dir) + "/Tessarine.json";
    ts::Defaults::setStandardPath(settingsPath);
    ts::Defaults::standard().setStringForKey("jack", "midiBackend");
    ts::Defaults::standard().setIntegerForKey(korvalis.localPort(), "korvalisSendPort");
    ts::Defaults::standard().setIntegerForKey(korvalisListen, "korvalisListenPort");
    ts::Defaults::standard().setIntegerForKey(freePort(), "oscListenerPort");
    ts::Defaults::standard().setIntegerForKey(freePort(), "commandListenerPort");
    VVMIDIClient::installService(createMIDIService("jack"));
    {
        TessarineController controller(standardWiring());
        controller.addMapping(3);
        const TSPlugPtr plug = controller.plugs().arrangedObjects()[0];
        controller.waitForMidi(plug);
        startPeer({"/usr/bin/python3", "-c", ts::test::kRepeatingJackMidiSender, "tslearn", "95", "2a", "10"});
        auto* midi = static_cast<TSMidiSignal*>(plug->signalIn().get());
        ASSERT_TRUE(ts::test::spinUntil([&] { return midi->midiType() == 144; }, 8000ms));
        EXPECT_EQ(midi->midiChannel(), 5u);
        EXPECT_EQ(midi->midiNote(), 0x2Au);
        EXPECT_EQ(controller.waitMode(), 0);
        peers.clear();
    }
    VVMIDIClient::installService(createNoMIDIService());
    ts::Defaults::setStandardPath(QString());
}

} // namespace
