// UDP text commands on loopback: the exact datagrams sent, the failure
// texts, and received datagrams reaching a real controller on the
// "CommandListener" thread, one call per datagram, in order.

#include "io/CommandManager.h"

#include "app/TessarineController.h"
#include "io/ManagerTestSupport.h"
#include "platform/Log.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"

#include <QMetaObject>
#include <atomic>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdexcept>
#include <thread>

namespace {

using ts::test::Bytes;
using ts::test::bytesOf;
using ts::test::freeUdpPort;
using ts::test::PrivateSettings;
using ts::test::receiveSpinning;
using ts::test::RecordingPorts;
using ts::test::tryReceive;
using ts::test::UdpEndpoint;

// Records, with each OSC output, the name of the thread that sent it; the
// address "/boom" throws, as a faulty output could.
class ThreadRecordingPorts : public RecordingPorts {
public:
    void sendOSCMessageAtAddressWithValue(const QString& address, float value) override {
        if (address == "/boom")
            throw std::runtime_error("boom");
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        {
            std::lock_guard lock(mutex_);
            threads_.emplace_back(name);
        }
        RecordingPorts::sendOSCMessageAtAddressWithValue(address, value);
    }
    std::vector<std::string> threads() const {
        std::lock_guard lock(mutex_);
        return threads_;
    }
    std::vector<std::string> addresses() const {
        std::vector<std::string> out;
        for (const auto& s : sent())
            out.push_back(s.text);
        return out;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> threads_;
};

// Settings pointing at free ports: the manager listens on listenPort and
// sends to receiver.
class CommandManagerTest : public ::testing::Test {
protected:
    PrivateSettings settings;
    UdpEndpoint receiver;
    int listenPort = freeUdpPort();
    std::shared_ptr<ThreadRecordingPorts> ports = std::make_shared<ThreadRecordingPorts>();
    std::unique_ptr<TessarineController> controller;
    std::unique_ptr<CommandManager> manager;

    void SetUp() override {
        settings.defaults().setIntegerForKey(listenPort, "commandListenerPort");
        settings.defaults().setIntegerForKey(receiver.port(), "commandSenderPort");
        settings.defaults().setStringForKey("127.0.0.1", "commandSenderMachine");
        controller = std::make_unique<TessarineController>(RecordingPorts::wiringTo(ports));
        manager = std::make_unique<CommandManager>();
    }
    void TearDown() override {
        manager.reset(); // the receive thread ends before the controller goes
        controller.reset();
    }
    // A plug from the command to an OSC output at outAddress.
    void plug(const QString& command, const char* outAddress) {
        auto p = TSPlug::initWithType(10);
        static_cast<TSCommandSignal*>(p->signalIn().get())->changeString(command);
        p->setSignalOutType(4);
        static_cast<TSOSCSignal*>(p->signalOut().get())->changeAddress(outAddress);
        controller->plugs().addObject(p);
    }
    std::vector<std::string> outputsAfter(size_t count) {
        ts::test::spinUntil([&] { return ports->count() >= count; });
        ts::test::spinFor(std::chrono::milliseconds(50)); // nothing more may follow
        return ports->addresses();
    }
};

using Strings = std::vector<std::string>;

TEST(CommandManagerSettings, AbsentKeysAndStoredZeroPortsGiveTheDefaults) {
    struct Row {
        const char* name;
        std::function<void(ts::Defaults&)> store;
        CommandManager::Settings expected;
    };
    const Row rows[] = {
        {"empty", [](ts::Defaults&) {}, {"localhost", 9757, true, 9756, true}},
        {"zero ports",
         [](ts::Defaults& d) {
             d.setIntegerForKey(0, "commandSenderPort");
             d.setIntegerForKey(0, "commandListenerPort");
         },
         {"localhost", 9757, true, 9756, true}},
        {"stored values",
         [](ts::Defaults& d) {
             d.setStringForKey("stage-pc", "commandSenderMachine");
             d.setIntegerForKey(4000, "commandSenderPort");
             d.setIntegerForKey(4001, "commandListenerPort");
         },
         {"stage-pc", 4000, true, 4001, true}},
        {"stored off",
         [](ts::Defaults& d) {
             d.setBoolForKey(false, "commandSenderIsEnabled");
             d.setBoolForKey(false, "commandListenerIsEnabled");
         },
         {"localhost", 9757, false, 9756, false}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        PrivateSettings settings;
        row.store(settings.defaults());
        EXPECT_EQ(CommandManager::readSettings(settings.defaults()), row.expected);
    }
}

TEST(CommandManagerSettings, EmptySettingsListenOn9756AndSendToLocalhost9757) {
    PrivateSettings settings;
    ts::LogCapture log;
    CommandManager manager;
    EXPECT_EQ(manager.commandListenerPort(), 9756);
    EXPECT_TRUE(manager.commandListenerEnabled());
    EXPECT_EQ(manager.commandSenderMachine(), "localhost");
    EXPECT_EQ(manager.commandSenderPort(), 9757);
    EXPECT_TRUE(manager.commandSenderEnabled());
    // 9756 may be taken by another program here: then the bind failure was
    // logged; otherwise the manager holds it.
    if (manager.commandListenerRunning()) {
        EXPECT_TRUE(ts::test::waitUntilUdpPortBound(9756, std::chrono::milliseconds(0)));
    } else {
        EXPECT_TRUE(log.contains("bind: "));
    }
}

TEST_F(CommandManagerTest, ExactBytesOnTheWireWhateverTheValue) {
    struct Row {
        QString command;
        Bytes wire;
    };
    const Row rows[] = {
        {"scene1", {0x73, 0x63, 0x65, 0x6E, 0x65, 0x31}},
        {"GO\n", {0x47, 0x4F, 0x0A}},
        {QString::fromUtf8("d\xC3\xA9"
                           "but"),
         {0x64, 0xC3, 0xA9, 0x62, 0x75, 0x74}},
        {"", {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.command.toStdString());
        manager->sendCommandWithValue(row.command, 0.73f);
        const std::optional<Bytes> got = receiveSpinning(receiver);
        ASSERT_TRUE(got.has_value());
        EXPECT_EQ(*got, row.wire);
    }
}

TEST_F(CommandManagerTest, AChangedDestinationAppliesToTheNextSend) {
    UdpEndpoint other;
    manager->setCommandSenderPort(other.port());
    manager->sendCommandWithValue("one", 1.0f);
    EXPECT_EQ(receiveSpinning(other), bytesOf("one"));
    manager->setCommandSenderMachine("localhost");
    manager->setCommandSenderPort(receiver.port());
    manager->sendCommandWithValue("two", 1.0f);
    EXPECT_EQ(receiveSpinning(receiver), bytesOf("two"));
    EXPECT_FALSE(tryReceive(other).has_value());
}

TEST_F(CommandManagerTest, DisabledSendsNothingAndLogsNothing) {
    manager->setCommandSenderEnabled(false);
    ts::LogCapture log;
    manager->sendCommandWithValue("scene1", 1.0f);
    // A send is synchronous: had anything gone out it would be waiting now.
    ts::test::spinFor(std::chrono::milliseconds(50));
    EXPECT_FALSE(tryReceive(receiver).has_value());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(CommandManagerTest, FailureTextsOfTheSender) {
    const std::string oversize(65508, 'x'); // one byte above what UDP/IPv4 carries
    struct Row {
        const char* name;
        QString machine;
        int port; // -1: the receiver's
        QString command;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        {"host name not ASCII",
         QString::fromUtf8("h\xC3\xB4te"),
         -1,
         "a",
         {"Cannot initialize socket to send string 'a'"}},
        {"port out of range",
         "127.0.0.1",
         70000,
         "b",
         {"Cannot initialize socket to send string 'b'"}},
        {"port 0 refused by the system",
         "127.0.0.1",
         0,
         "c",
         {"sendto: Invalid argument", "Error while sending string 'c'"}},
        {"datagram too long",
         "127.0.0.1",
         -1,
         QString::fromStdString(oversize),
         {"sendto: Message too long", "Error while sending string '" + oversize + "'"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        manager->setCommandSenderMachine(row.machine);
        manager->setCommandSenderPort(row.port < 0 ? receiver.port() : row.port);
        ts::LogCapture log;
        manager->sendCommandWithValue(row.command, 1.0f);
        EXPECT_EQ(log.lines(), row.lines);
    }
    EXPECT_FALSE(tryReceive(receiver).has_value());
    // And the next good send goes out as usual.
    manager->setCommandSenderMachine("127.0.0.1");
    manager->setCommandSenderPort(receiver.port());
    manager->sendCommandWithValue("ok", 1.0f);
    EXPECT_EQ(receiveSpinning(receiver), bytesOf("ok"));
}

TEST_F(CommandManagerTest, DatagramsReachTheControllerOnTheListenerThreadOneCallEach) {
    plug("GO", "/go2");
    plug("GO\n", "/go3");
    plug("a", "/a");
    plug("b", "/b");
    ASSERT_TRUE(manager->commandListenerRunning());
    UdpEndpoint peer;
    // The line feed is part of the command: only the three-character plug.
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("GO\n")));
    EXPECT_EQ(outputsAfter(1), (Strings{"/go3"}));
    // Two datagrams, two calls, in order.
    ports->clear();
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("a")));
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("b")));
    EXPECT_EQ(outputsAfter(2), (Strings{"/a", "/b"}));
    EXPECT_EQ(ports->threads(), (Strings{"CommandListener", "CommandListener", "CommandListener"}));
}

TEST_F(CommandManagerTest, InvalidUTF8ReachesNoPlugAndIsLogged) {
    plug("", "/empty");
    plug("a", "/a");
    ts::LogCapture log;
    UdpEndpoint peer;
    const Bytes invalid[] = {{0xFF, 0xFE}, {0xC0, 0x80}, {0xED, 0xA0, 0x80}, {'a', 0xC3}};
    for (const Bytes& bytes : invalid)
        ASSERT_TRUE(peer.sendTo(listenPort, bytes));
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("a")));
    // An empty datagram is a command, the empty one.
    ASSERT_TRUE(peer.sendTo(listenPort, {}));
    EXPECT_EQ(outputsAfter(2), (Strings{"/a", "/empty"}));
    ASSERT_TRUE(ts::test::spinUntil([&] { return log.contains("not valid UTF-8"); }));
}

TEST(CommandManagerText, Utf8Validation) {
    struct Row {
        Bytes bytes;
        bool valid;
    };
    const Row rows[] = {
        {{}, true},
        {bytesOf("scene1"), true},
        {{0x00}, true},
        {{0xC3, 0xA9}, true},                    // é
        {{0xE2, 0x82, 0xAC}, true},              // €
        {{0xF0, 0x9F, 0x8E, 0xAC}, true},        // U+1F3AC
        {{0xF4, 0x8F, 0xBF, 0xBF}, true},        // U+10FFFF
        {{0x80}, false},                         // continuation alone
        {{0xC3}, false},                         // cut short
        {{0xE2, 0x82}, false},                   // cut short
        {{0xC3, 0x41}, false},                   // not a continuation
        {{0xC0, 0xAF}, false},                   // overlong '/'
        {{0xE0, 0x80, 0xAF}, false},             // overlong '/'
        {{0xF0, 0x80, 0x80, 0xAF}, false},       // overlong '/'
        {{0xED, 0xA0, 0x80}, false},             // surrogate U+D800
        {{0xF4, 0x90, 0x80, 0x80}, false},       // above U+10FFFF
        {{0xF8, 0x88, 0x80, 0x80, 0x80}, false}, // five-byte form
        {{0xFF}, false},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(CommandManager::isValidUTF8(rows[i].bytes), rows[i].valid);
    }
}

TEST_F(CommandManagerTest, ListenerRebuildsAndReportsWhetherItRuns) {
    plug("a", "/a");
    std::vector<std::string> notices;
    QObject::connect(
        manager.get(), &CommandManager::commandListenerRunningAboutToChange, manager.get(),
        [&] { notices.push_back(manager->commandListenerRunning() ? "before:on" : "before:off"); });
    QObject::connect(
        manager.get(), &CommandManager::commandListenerRunningChanged, manager.get(),
        [&] { notices.push_back(manager->commandListenerRunning() ? "after:on" : "after:off"); });
    UdpEndpoint busy; // another program holding a port
    const int other = freeUdpPort();

    struct Row {
        const char* name;
        std::function<void()> change;
        bool running;
        int bindLines;
        int port; // where a command now arrives; 0: none expected
    };
    const Row rows[] = {
        {"same port again", [&] { manager->setCommandListenerPort(listenPort); }, true, 0,
         listenPort},
        {"busy port", [&] { manager->setCommandListenerPort(busy.port()); }, false, 1, 0},
        {"free port", [&] { manager->setCommandListenerPort(other); }, true, 0, other},
        {"out of range", [&] { manager->setCommandListenerPort(70000); }, false, 1, 0},
        {"first port", [&] { manager->setCommandListenerPort(listenPort); }, true, 0, listenPort},
        {"disabled", [&] { manager->setCommandListenerEnabled(false); }, false, 0, 0},
        {"enabled", [&] { manager->setCommandListenerEnabled(true); }, true, 0, listenPort},
    };
    UdpEndpoint peer;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ts::LogCapture log;
        const bool wasRunning = manager->commandListenerRunning();
        notices.clear();
        row.change();
        EXPECT_EQ(manager->commandListenerRunning(), row.running);
        EXPECT_EQ(log.count("bind: "), row.bindLines);
        const Strings expected = {wasRunning ? "before:on" : "before:off",
                                  row.running ? "after:on" : "after:off"};
        EXPECT_EQ(notices, expected);
        if (row.port != 0) {
            ports->clear();
            ASSERT_TRUE(peer.sendTo(row.port, bytesOf("a")));
            EXPECT_EQ(outputsAfter(1), (Strings{"/a"}));
        }
    }
    // The settings were stored as they were set.
    settings.reopen();
    EXPECT_EQ(settings.defaults().integerForKey("commandListenerPort"), listenPort);
    EXPECT_TRUE(settings.defaults().boolForKey("commandListenerIsEnabled"));
}

TEST_F(CommandManagerTest, AnExceptionInTheLoopEndsTheThreadAndIsReported) {
    plug("boom", "/boom");
    plug("a", "/a");
    ts::LogCapture log;
    UdpEndpoint peer;
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("boom")));
    ASSERT_TRUE(ts::test::spinUntil([&] { return !manager->commandListenerRunning(); }));
    EXPECT_EQ(log.count("error with listen thread boom"), 1);
    // Setting the port again starts it once more.
    manager->setCommandListenerPort(listenPort);
    ASSERT_TRUE(manager->commandListenerRunning());
    ASSERT_TRUE(peer.sendTo(listenPort, bytesOf("a")));
    EXPECT_EQ(outputsAfter(1), (Strings{"/a"}));
}

TEST_F(CommandManagerTest, SettingsPersistAndClearedFieldsBecome1111) {
    manager->setCommandListenerEnabled(false); // nothing here may bind 1111
    manager->setCommandSenderEnabled(false);
    struct Row {
        const char* key;
        std::function<QVariant()> read;
        QVariant expected;
        bool refused;
    };
    const Row rows[] = {
        {"commandSenderPort", [&] { return QVariant(manager->commandSenderPort()); }, 1111, false},
        {"commandListenerPort", [&] { return QVariant(manager->commandListenerPort()); }, 1111,
         false},
        {"commandSenderEnabled", [&] { return QVariant(manager->commandSenderEnabled()); }, true,
         false},
        {"commandSenderMachine", [&] { return QVariant(manager->commandSenderMachine()); },
         "127.0.0.1", true},
        {"commandListenerRunning", [] { return QVariant(); }, QVariant(), true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        ts::LogCapture log;
        manager->setNilValueForKey(row.key);
        EXPECT_EQ(row.read(), row.expected);
        EXPECT_EQ(log.count(std::string("Cannot set ") + row.key), row.refused ? 1 : 0);
    }
    EXPECT_FALSE(manager->commandListenerRunning());

    // A restart reads back what was set.
    manager.reset();
    settings.reopen();
    CommandManager restarted;
    EXPECT_EQ(restarted.commandSenderPort(), 1111);
    EXPECT_EQ(restarted.commandListenerPort(), 1111);
    EXPECT_TRUE(restarted.commandSenderEnabled());
    EXPECT_FALSE(restarted.commandListenerEnabled());
    EXPECT_FALSE(restarted.commandListenerRunning());
}

TEST_F(CommandManagerTest, ConcurrentSendsEachLeaveWholeAndInThreadOrder) {
    // Few enough small datagrams for the receiving socket's buffer to hold
    // them all until they are read.
    constexpr int kThreads = 4;
    constexpr int kPerThread = 50;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
                manager->sendCommandWithValue(QString("t%1-%2").arg(t).arg(i), 1.0f);
        });
    for (auto& s : senders)
        s.join();
    std::vector<std::string> got;
    while (auto d = tryReceive(receiver))
        got.emplace_back(d->begin(), d->end());

    ASSERT_EQ(got.size(), size_t(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const std::string& command : got) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(command.c_str(), "t%d-%d", &t, &i), 2) << command;
        ASSERT_TRUE(t >= 0 && t < kThreads) << command;
        EXPECT_EQ(i, next[t]) << command;
        next[t] = i + 1;
    }
}

TEST_F(CommandManagerTest, RebindingTheSamePortUnderAFloodNeverLosesTheListener) {
    plug("a", "/a");
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        UdpEndpoint peer;
        while (!stop.load())
            peer.sendTo(listenPort, bytesOf("a"));
    });
    for (int round = 0; round < 100; ++round) {
        manager->setCommandListenerPort(listenPort);
        ASSERT_TRUE(manager->commandListenerRunning()) << round;
    }
    stop.store(true);
    flood.join();
    EXPECT_GT(ports->count(), 0u);
}

} // namespace
