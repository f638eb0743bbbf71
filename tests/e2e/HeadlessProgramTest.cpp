// The headless program end to end: real datagrams in through its ports, real
// datagrams out to peers on loopback, console lines on standard output, and
// a normal quit on SIGTERM.

#include "e2e/HeadlessProgram.h"
#include "osc/BBOSCDecoder.h"
#include "osc/OSCTestSupport.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using ts::test::HeadlessProgram;
using ts::test::UdpEndpoint;

struct Received {
    std::string address;
    std::string types;
    std::vector<BBOSCArgument> arguments;
};

// Every message of a datagram, bundles flattened in wire order.
void collect(const BBOSCPacket& packet, std::vector<Received>& out) {
    if (const BBOSCMessage* m = packet.asMessage()) {
        const auto args = m->attachedObjects();
        out.push_back({m->addressString(), m->typeTagString(), {args.begin(), args.end()}});
    } else if (const BBOSCBundle* b = packet.asBundle()) {
        for (const auto& e : b->attachedObjects())
            collect(*e, out);
    }
}

std::vector<Received> receiveMessages(const UdpEndpoint& peer, std::chrono::milliseconds wait) {
    std::vector<Received> messages;
    while (auto datagram = peer.receive(wait)) {
        if (auto packet = BBOSCDecoder::decodeData(*datagram))
            collect(*packet, messages);
        wait = 150ms; // after the first, take what follows closely
    }
    return messages;
}

int oscsend(int port, const QStringList& rest) {
    return QProcess::execute("oscsend", QStringList{"127.0.0.1", QString::number(port)} + rest);
}

class Headless : public ::testing::Test {
protected:
    UdpEndpoint korvalis;   // plays Korvalis
    UdpEndpoint oscPeer;    // the generic OSC receiver
    UdpEndpoint commandPeer;
    UdpEndpoint sender;     // sends plain datagrams to the program
    int korvalisListenPort = ts::test::freeUdpPort();
    int oscListenPort = ts::test::freeUdpPort();
    int commandListenPort = ts::test::freeUdpPort();

    QJsonObject settings(const QList<QJsonObject>& plugs) {
        return QJsonObject{{"firstStart", true},
                           {"korvalisSendPort", korvalis.port()},
                           {"korvalisListenPort", korvalisListenPort},
                           {"oscSenderMachine", "127.0.0.1"},
                           {"oscSenderPort", oscPeer.port()},
                           {"oscListenerPort", oscListenPort},
                           {"commandSenderMachine", "127.0.0.1"},
                           {"commandSenderPort", commandPeer.port()},
                           {"commandListenerPort", commandListenPort},
                           {"plugs", HeadlessProgram::archive(plugs)}};
    }
    // Starts the program and waits until its three listeners are bound.
    void start(HeadlessProgram& program) {
        ASSERT_TRUE(program.start());
        for (int port : {korvalisListenPort, oscListenPort, commandListenPort})
            ASSERT_TRUE(ts::test::waitUntilUdpPortBound(port, 5000ms)) << port;
    }
    static QJsonObject osc(const char* address, const char* min = "0", const char* max = "100") {
        return HeadlessProgram::signal("TSOSCSignal", min, max, {{"address", address}});
    }
    static QJsonObject korvalisSignal(const char* suffix, const char* min = "0",
                                      const char* max = "100", const char* param = nullptr) {
        return HeadlessProgram::signal(
            "TSKorvalisSignal", min, max,
            {{"addressSuffix", suffix}, {"paramValue", param ? QJsonValue(param) : QJsonValue()}});
    }
};

TEST_F(Headless, GenericOscLaunchesAKorvalisColumnOnRisingEdges) {
    HeadlessProgram program(settings({HeadlessProgram::plug(
        osc("/go"), korvalisSignal("action/launchColumn/5"))}));
    start(program);

    struct Step {
        const char* value;
        bool sends;
    };
    const Step steps[] = {{"1.0", true}, {"0.0", false}, {"1.0", true}, {"1.0", true},
                          {"0.4", false}, {"0.6", true}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.value);
        ASSERT_EQ(oscsend(oscListenPort, {"/go", "f", step.value}), 0);
        const auto got = receiveMessages(korvalis, step.sends ? 2000ms : 300ms);
        if (!step.sends) {
            EXPECT_TRUE(got.empty());
            continue;
        }
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].address, "/korvalis/action/launchColumn/5");
        EXPECT_EQ(got[0].types, ",i");
        EXPECT_EQ(got[0].arguments[0].intValue(), 5);
    }
    EXPECT_TRUE(program.waitForOutput("OSC : '/go'    1.000000", 2000ms));
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(Headless, CommandReachesGenericOscInTheNextBundle) {
    HeadlessProgram program(settings({HeadlessProgram::plug(
        HeadlessProgram::signal("TSCommandSignal", "0", "100", {{"string", "scene1"}}),
        osc("/light", "0", "255"))}));
    start(program);
    ASSERT_TRUE(sender.sendTo(commandListenPort, {'s', 'c', 'e', 'n', 'e', '1'}));
    const auto datagram = oscPeer.receive(2000ms);
    ASSERT_TRUE(datagram);
    auto packet = BBOSCDecoder::decodeData(*datagram);
    ASSERT_TRUE(packet && packet->asBundle()) << "generic OSC leaves in a bundle";
    std::vector<Received> got;
    collect(*packet, got);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].address, "/light");
    EXPECT_EQ(got[0].types, ",f");
    EXPECT_FLOAT_EQ(got[0].arguments[0].floatValue(), 255.0f);
    EXPECT_TRUE(program.waitForOutput("Command : scene1", 2000ms));
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(Headless, KorvalisEventsDriveGenericOsc) {
    HeadlessProgram program(settings({
        HeadlessProgram::plug(korvalisSignal("layer/x/1", "-500", "500"), osc("/x", "0", "1")),
        HeadlessProgram::plug(korvalisSignal("composition/cue", "0", "100", "Intro"), osc("/cue")),
        HeadlessProgram::plug(korvalisSignal("layer/media/3/1"), osc("/media")),
    }));
    start(program);
    struct Step {
        QStringList message;
        const char* expectAddress; // nullptr: nothing
        float value;
    };
    const Step steps[] = {
        {{"/korvalis/layer/x/1", "f", "250"}, "/x", 0.75f},
        {{"/korvalis/composition/cue", "s", "Intro"}, "/cue", 100.0f},
        {{"/korvalis/composition/cue", "s", "Outro"}, nullptr, 0},
        {{"/korvalis/layer/media/3/1", "i", "0"}, nullptr, 0},
        {{"/korvalis/layer/media/3/1", "i", "1"}, "/media", 100.0f},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.message.join(' ').toStdString());
        ASSERT_EQ(oscsend(korvalisListenPort, step.message), 0);
        const auto got = receiveMessages(oscPeer, step.expectAddress ? 2000ms : 300ms);
        if (!step.expectAddress) {
            EXPECT_TRUE(got.empty());
            continue;
        }
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].address, step.expectAddress);
        EXPECT_FLOAT_EQ(got[0].arguments[0].floatValue(), step.value);
    }
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(Headless, KorvalisOutputLoopsBackIntoKorvalisInputs) {
    HeadlessProgram program(settings({
        HeadlessProgram::plug(osc("/fade"), korvalisSignal("layer/opacity/2", "0", "100")),
        HeadlessProgram::plug(korvalisSignal("layer/opacity/2", "0", "100"), osc("/echo", "0", "1")),
    }));
    start(program);
    ASSERT_EQ(oscsend(oscListenPort, {"/fade", "f", "0.25"}), 0);
    const auto toKorvalis = receiveMessages(korvalis, 2000ms);
    ASSERT_EQ(toKorvalis.size(), 1u);
    EXPECT_EQ(toKorvalis[0].address, "/korvalis/layer/opacity/2");
    EXPECT_FLOAT_EQ(toKorvalis[0].arguments[0].floatValue(), 25.0f);
    const auto echoed = receiveMessages(oscPeer, 2000ms);
    ASSERT_EQ(echoed.size(), 1u);
    EXPECT_EQ(echoed[0].address, "/echo");
    EXPECT_FLOAT_EQ(echoed[0].arguments[0].floatValue(), 0.25f);
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(Headless, NestedBundleDispatchesInWireOrder) {
    HeadlessProgram program(settings({
        HeadlessProgram::plug(osc("/a"), HeadlessProgram::signal("TSCommandSignal", "0", "1", {{"string", "A"}})),
        HeadlessProgram::plug(osc("/b"), HeadlessProgram::signal("TSCommandSignal", "0", "1", {{"string", "B"}})),
        HeadlessProgram::plug(osc("/c"), HeadlessProgram::signal("TSCommandSignal", "0", "1", {{"string", "C"}})),
    }));
    start(program);
    auto message = [](const char* address, float v) {
        auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(address));
        m->attachArgument(BBOSCArgument::argumentWithFloat(v));
        return m;
    };
    BBOSCBundle outer(BBOSCDate{});
    outer.attachObject(message("/a", 1));
    auto inner = BBOSCBundle::bundleWithTimestamp(BBOSCDate{});
    inner->attachObject(message("/b", 1));
    inner->attachObject(message("/c", 1));
    outer.attachObject(std::move(inner));
    ASSERT_TRUE(sender.sendTo(oscListenPort, outer.packetizedData()));
    std::vector<std::string> commands;
    while (auto datagram = commandPeer.receive(commands.empty() ? 2000ms : 300ms))
        commands.emplace_back(datagram->begin(), datagram->end());
    EXPECT_EQ(commands, (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_TRUE(program.waitForOutput("OSC : '/c'    1.000000", 2000ms));
    const QStringList lines = program.outputLines();
    EXPECT_LT(lines.indexOf("OSC : '/a'    1.000000"), lines.indexOf("OSC : '/b'    1.000000"));
    EXPECT_EQ(program.terminate(), 0);
}

TEST_F(Headless, BusyPortsAndBadInputLeaveItRunning) {
    UdpEndpoint squatter; // holds the port the program is told to listen on
    QJsonObject s = settings({HeadlessProgram::plug(
        HeadlessProgram::signal("TSCommandSignal", "0", "100", {{"string", "ok"}}), osc("/ok"))});
    s["oscListenerPort"] = squatter.port();
    s["oscSenderMachine"] = "no-such-host.invalid";
    HeadlessProgram program(s);
    ASSERT_TRUE(program.start());
    ASSERT_TRUE(ts::test::waitUntilUdpPortBound(commandListenPort, 5000ms));
    EXPECT_TRUE(program.waitForLog("bind", 3000ms));

    // Garbage on every port, and a command that is not UTF-8.
    for (int port : {korvalisListenPort, commandListenPort, squatter.port()}) {
        ASSERT_TRUE(sender.sendTo(port, {0xFF, 0x00, 0x2C, 0x66}));
        ASSERT_TRUE(sender.sendTo(port, {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 1}));
        ASSERT_TRUE(sender.sendTo(port, {}));
    }
    ASSERT_TRUE(sender.sendTo(commandListenPort, {0xC3, 0x28}));
    ts::test::spinFor(300ms);
    EXPECT_TRUE(program.isRunning());
    // Still serving: the command plug fires (its OSC output has no resolvable
    // host, which drops the value and is logged, not fatal).
    ASSERT_TRUE(sender.sendTo(commandListenPort, {'o', 'k'}));
    EXPECT_TRUE(program.waitForOutput("Command : ok", 2000ms));
    EXPECT_EQ(program.terminate(), 0);
    // Nothing configured was lost.
    EXPECT_EQ(program.storedSettings()["plugs"].toObject()["root"].toArray().size(), 1);
    EXPECT_EQ(program.storedSettings()["oscListenerPort"].toInt(), squatter.port());
}

TEST_F(Headless, SigtermSavesThePlugsAndExitsCleanly) {
    HeadlessProgram program(settings({
        HeadlessProgram::plug(osc("/one"), korvalisSignal("action/stopAll")),
        HeadlessProgram::plug(osc("/two"), korvalisSignal("action/fadeToBlack"), false),
    }));
    start(program);
    EXPECT_EQ(program.terminate(), 0);
    const QJsonArray root = program.storedSettings()["plugs"].toObject()["root"].toArray();
    ASSERT_EQ(root.size(), 2);
    EXPECT_EQ(root[0].toObject()["signalIn"].toObject()["address"].toString(), "/one");
    EXPECT_FALSE(root[1].toObject()["enabled"].toBool());
    EXPECT_EQ(program.storedSettings()["korvalisSendPort"].toInt(), korvalis.port());
}

TEST_F(Headless, DamagedSettingsStartWithDefaults) {
    HeadlessProgram program(QJsonObject{});
    QFile file(program.configDir() + "/Tessarine.json");
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("{\"plugs\": ");
    file.close();
    ASSERT_TRUE(program.start());
    EXPECT_TRUE(program.waitForLog("cannot be read", 3000ms));
    EXPECT_TRUE(program.waitForLog("running headless", 3000ms));
    EXPECT_TRUE(program.isRunning());
    EXPECT_EQ(program.terminate(), 0);
    EXPECT_FALSE(QDir(program.configDir()).entryList({"Tessarine.json.bad-*"}).isEmpty());
}

TEST(HeadlessOptions, WithoutADisplayItRunsHeadless) {
    const QString home = QString::fromStdString(ts::test::makeTempDir("tessarine-nodisplay"));
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", home + "/config");
    env.insert("XDG_STATE_HOME", home + "/state");
    env.remove("DISPLAY");
    env.remove("WAYLAND_DISPLAY");
    process.setProcessEnvironment(env);
    process.start(TESSARINE_BINARY, {});
    ASSERT_TRUE(process.waitForStarted(5000));
    // The first-start message is the first console output.
    ASSERT_TRUE(ts::test::spinUntil([&] {
        return process.readAllStandardOutput().contains("This is the first time you start Tessarine");
    }));
    process.terminate();
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardError().contains("no display: running headless"));
    EXPECT_TRUE(QFile::exists(home + "/config/Tessarine/Tessarine.json"));
}

TEST(HeadlessOptions, HelpAndVersion) {
    QProcess process;
    process.start(TESSARINE_BINARY, {"--version"});
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().contains(TESSARINE_VERSION));
    process.start(TESSARINE_BINARY, {"--help"});
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().contains("--headless"));
}

} // namespace
