// The generic OSC port against real peers on loopback: oscsend and
// oscsendfile feed it, oscdump and plain sockets read what it sends, and a
// real controller with OSC-in plugs shows what reached it.

#include "osc/OSCManager.h"

#include "app/TessarineController.h"
#include "io/ManagerTestSupport.h"
#include "osc/BBOSCListener.h"
#include "osc/BBOSCSender.h"
#include "platform/Log.h"
#include "signals/TSOSCSignal.h"
#include "support/RecordingPorts.h"

#include <QTemporaryFile>
#include <gtest/gtest.h>

namespace {

using ts::test::Bytes;
using ts::test::bytesOf;
using ts::test::ChildProcess;
using ts::test::freeUdpPort;
using ts::test::PrivateSettings;
using ts::test::receiveSpinning;
using ts::test::RecordingPorts;
using ts::test::runToEnd;
using ts::test::tryReceive;
using ts::test::UdpEndpoint;

// Settings pointing at free ports, so that nothing here touches 7000/7001.
struct ManagerOnFreePorts {
    explicit ManagerOnFreePorts(PrivateSettings& settings) : listenPort(freeUdpPort()) {
        settings.defaults().setIntegerForKey(listenPort, "oscListenerPort");
        settings.defaults().setIntegerForKey(receiver.port(), "oscSenderPort");
        settings.defaults().setStringForKey("127.0.0.1", "oscSenderMachine");
        manager = std::make_unique<OSCManager>();
    }
    UdpEndpoint receiver; // where the manager sends
    int listenPort;
    std::unique_ptr<OSCManager> manager;
};

// Counts a manager's notices, in the order they came.
struct Notices {
    explicit Notices(OSCManager& m) {
        const std::pair<void (OSCManager::*)(), const char*> all[] = {
            {&OSCManager::oscSenderAboutToChange, "sender?"},
            {&OSCManager::oscSenderChanged, "sender!"},
            {&OSCManager::oscListenerAboutToChange, "listener?"},
            {&OSCManager::oscListenerChanged, "listener!"},
        };
        for (const auto& [signal, name] : all)
            connections.push_back(
                QObject::connect(&m, signal, &m, [this, name = name] { seen.push_back(name); }));
    }
    ~Notices() {
        for (const auto& c : connections)
            QObject::disconnect(c);
    }
    std::vector<QMetaObject::Connection> connections;
    std::vector<std::string> seen;
};

TEST(OSCManagerSettings, AbsentKeysAndStoredZeroPortsGiveTheDefaults) {
    struct Row {
        const char* name;
        std::function<void(ts::Defaults&)> store;
        OSCManager::Settings expected;
    };
    const Row rows[] = {
        {"empty", [](ts::Defaults&) {}, {"localhost", 7001, true, 7000, true}},
        {"zero ports",
         [](ts::Defaults& d) {
             d.setIntegerForKey(0, "oscSenderPort");
             d.setIntegerForKey(0, "oscListenerPort");
         },
         {"localhost", 7001, true, 7000, true}},
        {"stored values",
         [](ts::Defaults& d) {
             d.setStringForKey("10.1.2.3", "oscSenderMachine");
             d.setIntegerForKey(9000, "oscSenderPort");
             d.setIntegerForKey(9001, "oscListenerPort");
             d.setBoolForKey(true, "oscSenderIsEnabled");
         },
         {"10.1.2.3", 9000, true, 9001, true}},
        {"stored off",
         [](ts::Defaults& d) {
             d.setBoolForKey(false, "oscSenderIsEnabled");
             d.setBoolForKey(false, "oscListenerIsEnabled");
         },
         {"localhost", 7001, false, 7000, false}},
        {"empty machine stays empty",
         [](ts::Defaults& d) { d.setStringForKey("", "oscSenderMachine"); },
         {"", 7001, true, 7000, true}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        PrivateSettings settings;
        row.store(settings.defaults());
        EXPECT_EQ(OSCManager::readSettings(settings.defaults()), row.expected);
    }
}

TEST(OSCManagerSettings, EmptySettingsListenOn7000AndSendToLocalhost7001) {
    PrivateSettings settings;
    ts::LogCapture log;
    OSCManager manager;
    EXPECT_EQ(manager.oscListenerPort(), 7000);
    EXPECT_TRUE(manager.oscListenerEnabled());
    EXPECT_EQ(manager.oscSenderMachine(), "localhost");
    EXPECT_EQ(manager.oscSenderPort(), 7001);
    EXPECT_TRUE(manager.oscSenderEnabled());
    ASSERT_NE(manager.oscSender(), nullptr);
    EXPECT_EQ(manager.oscSender()->destinationHostName(), "localhost");
    EXPECT_EQ(manager.oscSender()->portNumber(), 7001);
    // Port 7000 may be taken by another program on this machine: then the
    // bind failure was logged; otherwise the listener is on it.
    if (manager.oscListener()) {
        EXPECT_EQ(manager.oscListener()->portNumber(), 7000);
    } else {
        EXPECT_TRUE(log.contains("bind: "));
    }
}

TEST(OSCManagerSettings, EverySetterStoresRebuildsAndSurvivesARestart) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    OSCManager& manager = *m.manager;
    const int otherPort = freeUdpPort();

    struct Row {
        const char* key;
        std::function<void()> set;
        QVariant stored;
        std::vector<std::string> notices;
    };
    const Row rows[] = {
        {"oscSenderMachine",
         [&] { manager.setOscSenderMachine("localhost"); },
         "localhost",
         {"sender?", "sender!"}},
        {"oscSenderPort",
         [&] { manager.setOscSenderPort(otherPort); },
         otherPort,
         {"sender?", "sender!"}},
        // The same value again still rebuilds.
        {"oscSenderPort",
         [&] { manager.setOscSenderPort(otherPort); },
         otherPort,
         {"sender?", "sender!"}},
        {"oscSenderIsEnabled",
         [&] { manager.setOscSenderEnabled(false); },
         false,
         {"sender?", "sender!"}},
        {"oscListenerPort",
         [&] { manager.setOscListenerPort(m.listenPort); },
         m.listenPort,
         {"listener?", "listener!"}},
        {"oscListenerIsEnabled",
         [&] { manager.setOscListenerEnabled(false); },
         false,
         {"listener?", "listener!"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        Notices notices(manager);
        row.set();
        EXPECT_EQ(notices.seen, row.notices);
        settings.reopen(); // read back from the file
        EXPECT_EQ(settings.defaults().jsonForKey(row.key).toVariant(), row.stored);
    }
    EXPECT_EQ(manager.oscSender(), nullptr);
    EXPECT_EQ(manager.oscListener(), nullptr);

    // A restart keeps both off; removing the keys turns both on again.
    m.manager.reset();
    settings.reopen();
    OSCManager restarted;
    EXPECT_FALSE(restarted.oscSenderEnabled());
    EXPECT_FALSE(restarted.oscListenerEnabled());
    EXPECT_EQ(restarted.oscSender(), nullptr);
    EXPECT_EQ(restarted.oscListener(), nullptr);
    EXPECT_EQ(restarted.oscSenderPort(), otherPort);
    EXPECT_EQ(restarted.oscSenderMachine(), "localhost");

    settings.defaults().removeObjectForKey("oscSenderIsEnabled");
    settings.defaults().removeObjectForKey("oscListenerIsEnabled");
    settings.reopen();
    OSCManager again;
    EXPECT_NE(again.oscSender(), nullptr);
    ASSERT_NE(again.oscListener(), nullptr);
    EXPECT_EQ(again.oscListener()->portNumber(), m.listenPort);
}

TEST(OSCManagerSettings, ClearedFieldsBecome1111OrAreRefused) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    OSCManager& manager = *m.manager;
    // Nothing here may bind port 1111 for real.
    manager.setOscListenerEnabled(false);
    manager.setOscSenderEnabled(false);

    struct Row {
        const char* key;
        std::function<QVariant()> read;
        QVariant expected;
        bool refused;
    };
    const Row rows[] = {
        {"oscSenderPort", [&] { return QVariant(manager.oscSenderPort()); }, 1111, false},
        {"oscListenerPort", [&] { return QVariant(manager.oscListenerPort()); }, 1111, false},
        {"oscSenderEnabled", [&] { return QVariant(manager.oscSenderEnabled()); }, true, false},
        {"oscSenderMachine", [&] { return QVariant(manager.oscSenderMachine()); }, "127.0.0.1",
         true},
        {"localIP", [] { return QVariant(); }, QVariant(), true},
        {"noSuchKey", [] { return QVariant(); }, QVariant(), true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        ts::LogCapture log;
        manager.setNilValueForKey(row.key);
        EXPECT_EQ(row.read(), row.expected);
        EXPECT_EQ(log.count(std::string("Cannot set ") + row.key), row.refused ? 1 : 0);
    }
    // The cleared sender port was stored and the sender rebuilt on it.
    EXPECT_EQ(settings.defaults().integerForKey("oscSenderPort"), 1111);
    ASSERT_NE(manager.oscSender(), nullptr);
    EXPECT_EQ(manager.oscSender()->portNumber(), 1111);
    EXPECT_EQ(manager.oscListener(), nullptr);
}

TEST(OSCManagerListener, BusyPortLeavesNoListenerUntilAFreePortIsSet) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    OSCManager& manager = *m.manager;
    ASSERT_NE(manager.oscListener(), nullptr);

    UdpEndpoint busy; // another program holding a port
    {
        ts::LogCapture log;
        Notices notices(manager);
        manager.setOscListenerPort(busy.port());
        EXPECT_EQ(manager.oscListener(), nullptr);
        EXPECT_FALSE(manager.oscListenerRunning());
        EXPECT_EQ(log.count("bind: "), 1);
        EXPECT_EQ(notices.seen, (std::vector<std::string>{"listener?", "listener!"}));
    }
    // Back to a free port, then that same port again: the old socket is
    // closed before the new one binds.
    for (int i = 0; i < 2; ++i) {
        ts::LogCapture log;
        manager.setOscListenerPort(m.listenPort);
        ASSERT_NE(manager.oscListener(), nullptr);
        EXPECT_EQ(manager.oscListener()->portNumber(), m.listenPort);
        EXPECT_EQ(log.count("bind"), 0);
    }
}

// A controller whose OSC-in plugs each answer on an OSC-out address of their
// own, recorded in the order the controller was called.
class OSCManagerToController : public ::testing::Test {
protected:
    PrivateSettings settings;
    std::shared_ptr<RecordingPorts> ports = std::make_shared<RecordingPorts>();
    TessarineController controller{RecordingPorts::wiringTo(ports)};
    ManagerOnFreePorts m{settings};

    void plug(const char* inAddress, const char* outAddress) {
        auto p = TSPlug::initWithType(4);
        static_cast<TSOSCSignal*>(p->signalIn().get())->changeAddress(inAddress);
        p->setSignalOutType(4);
        auto* out = static_cast<TSOSCSignal*>(p->signalOut().get());
        out->changeAddress(outAddress);
        out->setMaxValue("1");
        controller.plugs().addObject(p);
    }
    std::vector<std::pair<std::string, double>> received(size_t count) {
        ts::test::spinUntil([&] { return ports->count() >= count; });
        ts::test::spinFor(std::chrono::milliseconds(50)); // nothing more may follow
        std::vector<std::pair<std::string, double>> out;
        for (const auto& s : ports->sent())
            out.emplace_back(s.text, s.value);
        return out;
    }
    void SetUp() override {
        plug("/a", "/outA");
        plug("/b", "/outB");
        plug("/c", "/outC");
        ASSERT_NE(m.manager->oscListener(), nullptr);
    }
    std::string port() const { return std::to_string(m.listenPort); }
};

using Received = std::vector<std::pair<std::string, double>>;

TEST_F(OSCManagerToController, OscsendMessageReachesThePlugWithItsFirstArgument) {
    ASSERT_EQ(runToEnd({"oscsend", "127.0.0.1", port(), "/b", "fsi", "0.25", "x", "7"}), 0);
    EXPECT_EQ(received(1), (Received{{"/outB", 0.25}}));
    ports->clear();
    ASSERT_EQ(runToEnd({"oscsend", "127.0.0.1", port(), "/a", "i", "1"}), 0);
    EXPECT_EQ(received(1), (Received{{"/outA", 1.0}}));
}

TEST_F(OSCManagerToController, OscsendfileBundleArrivesInWireOrder) {
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    file.write("/c f 0.75\n/a f 0.5\n/b f 0.25\n");
    file.close();
    ASSERT_EQ(runToEnd({"oscsendfile", "127.0.0.1", port(), file.fileName().toStdString()}), 0);
    EXPECT_EQ(received(3), (Received{{"/outC", 0.75}, {"/outA", 0.5}, {"/outB", 0.25}}));
}

TEST_F(OSCManagerToController, NestedBundleGivesThreeCallsDepthFirstInWireOrder) {
    // #bundle [ /c 0.75, #bundle [ /a 0.5, /b 0.25 ] ], written out by hand.
    const Bytes c = {'/', 'c', 0, 0, ',', 'f', 0, 0, 0x3F, 0x40, 0, 0};
    const Bytes a = {'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F, 0x00, 0, 0};
    const Bytes b = {'/', 'b', 0, 0, ',', 'f', 0, 0, 0x3E, 0x80, 0, 0};
    const Bytes header = {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1};
    auto sized = [](Bytes out, const Bytes& element) {
        out.insert(out.end(), {0, 0, 0, static_cast<uint8_t>(element.size())});
        out.insert(out.end(), element.begin(), element.end());
        return out;
    };
    const Bytes inner = sized(sized(header, a), b);
    const Bytes outer = sized(sized(header, c), inner);
    UdpEndpoint peer;
    ASSERT_TRUE(peer.sendTo(m.listenPort, outer));
    EXPECT_EQ(received(3), (Received{{"/outC", 0.75}, {"/outA", 0.5}, {"/outB", 0.25}}));
}

TEST_F(OSCManagerToController, UndecodableDatagramIsLoggedAndTheNextMessageStillArrives) {
    ts::LogCapture log;
    UdpEndpoint peer;
    const Bytes cutShort = {'/', 'a', 0, 0, ',', 'f', 0, 0, 0x3F};
    const Bytes shortBundle = {'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0};
    ASSERT_TRUE(peer.sendTo(m.listenPort, cutShort));
    ASSERT_TRUE(peer.sendTo(m.listenPort, shortBundle));
    ASSERT_EQ(runToEnd({"oscsend", "127.0.0.1", port(), "/c", "f", "1"}), 0);
    EXPECT_EQ(received(1), (Received{{"/outC", 1.0}}));
    EXPECT_EQ(log.count("OSC input: "), 1);
}

TEST(OSCManagerSender, OneFloatMessageLeavesInTheNextBundle) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    m.manager->sendOSCMessageAtAddressWithValue("/x", 0.5f);
    m.manager->sendOSCMessageAtAddressWithValue("/y", 1.0f);
    // Not sent at once as a bare message: it waits for the bundle.
    EXPECT_FALSE(tryReceive(m.receiver).has_value());

    const std::optional<Bytes> got = receiveSpinning(m.receiver);
    ASSERT_TRUE(got.has_value());
    ASSERT_EQ(got->size(), 16u + 2 * 16u);
    const Bytes head = bytesOf(std::string_view("#bundle\0", 8));
    EXPECT_EQ(Bytes(got->begin(), got->begin() + 8), head);
    // The time tag (bytes 8 to 15) is the moment of the first add; then each
    // element, sized, in the order sent.
    const Bytes elements = {0, 0, 0, 12, '/', 'x', 0, 0, ',', 'f', 0, 0, 0x3F, 0x00, 0, 0,
                            0, 0, 0, 12, '/', 'y', 0, 0, ',', 'f', 0, 0, 0x3F, 0x80, 0, 0};
    EXPECT_EQ(Bytes(got->begin() + 16, got->end()), elements);
    // One bundle for both, and nothing after it.
    ts::test::spinFor(std::chrono::milliseconds(50));
    EXPECT_FALSE(tryReceive(m.receiver).has_value());
}

TEST(OSCManagerSender, OscdumpReadsTheSentValue) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    const int dumpPort = freeUdpPort();
    ChildProcess dump({"oscdump", "-L", std::to_string(dumpPort)});
    ASSERT_TRUE(dump.started());
    ASSERT_TRUE(ts::test::waitUntilUdpPortBound(dumpPort, std::chrono::seconds(5)));
    m.manager->setOscSenderPort(dumpPort);

    m.manager->sendOSCMessageAtAddressWithValue("/x", 0.5f);
    std::vector<std::string> lines;
    // The event loop runs between the reads: the bundle leaves from it.
    ts::test::spinUntil(
        [&] { return !(lines = dump.readLines(1, std::chrono::milliseconds(20))).empty(); });
    ASSERT_EQ(lines.size(), 1u);
    // "<time tag> /x f 0.500000"
    EXPECT_TRUE(QString::fromStdString(lines.front()).endsWith(" /x f 0.500000")) << lines.front();
    dump.stop();
}

TEST(OSCManagerSender, NoSenderDropsSilently) {
    PrivateSettings settings;
    ManagerOnFreePorts m(settings);
    ts::LogCapture log;
    m.manager->setOscSenderMachine("h\xC3\xB4te"); // not ASCII: no sender
    EXPECT_EQ(m.manager->oscSender(), nullptr);
    log.clear();
    m.manager->sendOSCMessageAtAddressWithValue("/x", 0.5f);
    ts::test::spinFor(std::chrono::milliseconds(50));
    EXPECT_FALSE(tryReceive(m.receiver).has_value());
    EXPECT_TRUE(log.lines().empty());
}

TEST(OSCManagerLocalIP, LastWiredOrWirelessInterfaceInSystemOrder) {
    using I = OSCManager::InterfaceAddress;
    struct Row {
        std::vector<I> interfaces;
        const char* expected;
    };
    const Row rows[] = {
        {{}, "(not set)"},
        {{{"lo", "127.0.0.1"}}, "(not set)"},
        {{{"lo", "127.0.0.1"},
          {"docker0", "172.17.0.1"},
          {"veth1a2b", "169.254.3.4"},
          {"tun0", "10.8.0.2"},
          {"virbr0", "192.168.122.1"},
          {"wg0", "10.9.0.1"}},
         "(not set)"},
        {{{"lo", "127.0.0.1"}, {"eth0", "10.0.0.2"}}, "10.0.0.2"},
        {{{"enp3s0", "192.168.1.20"}, {"wlp2s0", "192.168.1.21"}, {"lo", "127.0.0.1"}},
         "192.168.1.21"},
        {{{"wlan0", "10.1.0.5"}, {"docker0", "172.17.0.1"}, {"eth1", "10.2.0.5"}}, "10.2.0.5"},
        {{{"en0", "10.3.0.1"}, {"e1000", "10.3.0.2"}}, "10.3.0.1"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.expected);
        EXPECT_EQ(OSCManager::localIPAmongInterfaces(row.interfaces), row.expected);
    }
}

} // namespace
