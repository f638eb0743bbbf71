// The JACK backend against a real jackd (dummy driver) and the JACK tools:
// jack_lsp, jack_connect, jack_midi_dump, jack_midiseq, and python3-rtmidi
// speaking JACK.

#include "JackTestPeers.h"

#include "midi/jack/JACKMIDIService.h"
#include "midi/service/MIDIService.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

using namespace std::chrono_literals;
using ts::test::ChildProcess;
using ts::test::hasPort;
using ts::test::jackConnect;
using ts::test::JackTestServer;
using ts::test::spinUntil;

namespace {

// What a receive handler got, and whether it ran on a thread of the service.
struct Recorder {
    std::mutex mutex;
    std::vector<MIDIPacket> packets;
    std::atomic<int> calls{0};
    std::atomic<bool> onMainThread{false};

    MIDIService::ReceiveHandler handler() {
        return [this](const MIDIPacketList& list) {
            if (ts::isMainThread())
                onMainThread = true;
            std::lock_guard lock(mutex);
            packets.insert(packets.end(), list.begin(), list.end());
            ++calls;
        };
    }
    bool received(const std::vector<std::uint8_t>& bytes) {
        std::lock_guard lock(mutex);
        for (const MIDIPacket& p : packets)
            if (p.bytes == bytes)
                return true;
        return false;
    }
    std::uint64_t lastTimestamp() {
        std::lock_guard lock(mutex);
        return packets.empty() ? 0 : packets.back().timestamp;
    }
    void clear() {
        std::lock_guard lock(mutex);
        packets.clear();
    }
};

std::uint64_t monotonicNs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<std::uint64_t>(t.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(t.tv_nsec);
}

const MIDIEndpointInfo* findEndpoint(const std::vector<MIDIEndpointInfo>& list,
                                     const std::string& device, const std::string& name) {
    for (const MIDIEndpointInfo& e : list)
        if (e.deviceName == device && e.name == name)
            return &e;
    return nullptr;
}

class JACKMIDIServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        static int counter = 0;
        server_ = std::make_unique<JackTestServer>("tsmidi" + std::to_string(getpid()) + "_" +
                                                   std::to_string(++counter));
        ASSERT_TRUE(server_->start()) << "jackd did not come up";
        dir_ = ts::test::makeTempDir("jackmidi");
    }
    void TearDown() override {
        service_.reset();
        for (auto& peer : peers_)
            peer->stop(SIGTERM);
        peers_.clear();
        server_.reset(); // stops jackd by its pid
    }

    // The service with its two virtual endpoints, as the MIDI manager makes them.
    void makeService() {
        service_ = JACKMIDIService::create();
        ASSERT_NE(service_, nullptr);
        service_->setSetupChangedHandler([this] { ++setupChanges_; });
        ASSERT_TRUE(service_->createVirtualDestination("To Tessarine", toTessarine_.handler()));
        ASSERT_TRUE(service_->createVirtualSource("From Tessarine"));
    }

    ChildProcess& startPeer(const std::vector<std::string>& argv) {
        peers_.push_back(std::make_unique<ChildProcess>());
        const std::string log = dir_ + "/peer" + std::to_string(peers_.size()) + ".txt";
        EXPECT_TRUE(peers_.back()->start(argv, log));
        return *peers_.back();
    }
    ChildProcess& startRtMidiSender(const std::string& client, std::vector<std::string> bytes) {
        std::vector<std::string> argv{"/usr/bin/python3", "-c", ts::test::kRepeatingJackMidiSender, client};
        argv.insert(argv.end(), bytes.begin(), bytes.end());
        return startPeer(argv);
    }
    bool waitForPort(const std::string& fullName, std::chrono::milliseconds timeout = 5000ms) {
        return spinUntil([&] { return hasPort(server_->ports(), fullName); }, timeout);
    }

    std::unique_ptr<JackTestServer> server_;
    std::string dir_;
    std::unique_ptr<JACKMIDIService> service_;
    std::vector<std::unique_ptr<ChildProcess>> peers_;
    Recorder toTessarine_;
    std::atomic<int> setupChanges_{0};
};

TEST_F(JACKMIDIServiceTest, OwnPortsAppearInJackLspAndAreListedAsOwnEndpoints) {
    makeService();
    const auto ports = server_->ports();
    EXPECT_TRUE(hasPort(ports, "Tessarine:To Tessarine"));
    EXPECT_TRUE(hasPort(ports, "Tessarine:From Tessarine"));
    EXPECT_EQ(service_->clientName(), "Tessarine");

    const auto sources = service_->sources();
    const auto destinations = service_->destinations();
    const MIDIEndpointInfo* from = findEndpoint(sources, "Tessarine", "From Tessarine");
    const MIDIEndpointInfo* to = findEndpoint(destinations, "Tessarine", "To Tessarine");
    ASSERT_NE(from, nullptr);
    ASSERT_NE(to, nullptr);
    EXPECT_TRUE(from->own);
    EXPECT_TRUE(to->own);
    EXPECT_NE(from->uniqueID, 0u);
    EXPECT_NE(from->uniqueID, to->uniqueID);
    // Each side lists only its own direction.
    EXPECT_EQ(findEndpoint(sources, "Tessarine", "To Tessarine"), nullptr);
    EXPECT_EQ(findEndpoint(destinations, "Tessarine", "From Tessarine"), nullptr);
    // Making the same virtual endpoint again adds no second port.
    EXPECT_TRUE(service_->createVirtualSource("From Tessarine"));
    EXPECT_EQ(service_->sources().size(), sources.size());
}

TEST_F(JACKMIDIServiceTest, NoteFromRtMidiReachesVirtualDestinationAndConnectedSource) {
    makeService();
    startRtMidiSender("tsnote", {"90", "3c", "64"});
    ASSERT_TRUE(waitForPort("tsnote:out"));

    // Through the virtual destination, connected from outside.
    ASSERT_TRUE(jackConnect("tsnote:out", "Tessarine:To Tessarine"));
    ASSERT_TRUE(spinUntil([&] { return toTessarine_.received({0x90, 0x3C, 0x64}); }));
    EXPECT_FALSE(toTessarine_.onMainThread);
    const std::uint64_t now = monotonicNs();
    const std::uint64_t stamp = toTessarine_.lastTimestamp();
    EXPECT_GT(stamp, 0u);
    EXPECT_LE(stamp, now);
    EXPECT_LT(now - stamp, 2'000'000'000ull) << "timestamp not on the monotonic clock";

    // Through a connection the service makes to the source.
    ASSERT_TRUE(spinUntil([&] { return findEndpoint(service_->sources(), "tsnote", "out"); }));
    const std::uint32_t id = findEndpoint(service_->sources(), "tsnote", "out")->uniqueID;
    EXPECT_EQ(id, JACKMIDIService::uniqueIDForPortName("tsnote:out"));
    const int changesBefore = setupChanges_;
    Recorder fromSource;
    ASSERT_TRUE(service_->connectSource(id, fromSource.handler()));
    ASSERT_TRUE(spinUntil([&] { return fromSource.received({0x90, 0x3C, 0x64}); }));
    // The private port that carries the connection is no endpoint, and its
    // arrival is no setup change.
    EXPECT_TRUE(hasPort(server_->ports(), "Tessarine:in 1"));
    EXPECT_EQ(findEndpoint(service_->destinations(), "Tessarine", "in 1"), nullptr);
    ts::test::spinFor(300ms);
    EXPECT_EQ(setupChanges_, changesBefore);

    // Connecting again hands the source to the new handler, on the same port.
    Recorder second;
    ASSERT_TRUE(service_->connectSource(id, second.handler()));
    ASSERT_TRUE(spinUntil([&] { return second.received({0x90, 0x3C, 0x64}); }));
    EXPECT_FALSE(hasPort(server_->ports(), "Tessarine:in 2"));

    service_->disconnectSource(id);
    EXPECT_FALSE(hasPort(server_->ports(), "Tessarine:in 1"));
    second.clear();
    ts::test::spinFor(200ms);
    EXPECT_FALSE(second.received({0x90, 0x3C, 0x64}));
    EXPECT_FALSE(service_->connectSource(12345, fromSource.handler())) << "no such source";
}

TEST_F(JACKMIDIServiceTest, PublishedAndSentMessagesAreReadByJackMidiDump) {
    makeService();
    ChildProcess& dump = startPeer({"stdbuf", "-oL", "jack_midi_dump", "tsdump"});
    ASSERT_TRUE(waitForPort("tsdump:input"));
    ASSERT_TRUE(jackConnect("Tessarine:From Tessarine", "tsdump:input"));
    // A connection takes effect at a cycle boundary after jack_connect
    // returns: probe with active sensing until the dump hears us.
    ASSERT_TRUE(spinUntil([&] {
        service_->publish({{0, {0xFE}}});
        ts::test::spinFor(20ms);
        return dump.output().find(": fe") != std::string::npos;
    })) << dump.output();

    // One packet with two messages and a clock byte inside the second: the
    // dump must see three events, each starting with its status byte.
    ASSERT_TRUE(
        service_->publish({{0, {0x90, 0x3C, 0x40}}, {0, {0xB0, 0x07, 0xF8, 0x64, 0xC2, 0x05}}}));
    ASSERT_TRUE(spinUntil([&] { return dump.output().find("c2 05") != std::string::npos; }))
        << dump.output();
    const std::string published = dump.output();
    const auto at = [&](const char* text) { return published.find(text); };
    EXPECT_NE(at("90 3c 40"), std::string::npos) << published;
    EXPECT_NE(at(": f8"), std::string::npos) << published;
    EXPECT_NE(at("b0 07 64"), std::string::npos) << published;
    EXPECT_LT(at("90 3c 40"), at("b0 07 64"));
    EXPECT_LT(at(": f8"), at("b0 07 64")) << "clock goes ahead of the message it interrupted";

    // Sending to the dump's port as a destination: a private port of ours is
    // made and connected to it, and is not listed.
    const auto destinations = service_->destinations();
    const MIDIEndpointInfo* destination = findEndpoint(destinations, "tsdump", "input");
    ASSERT_NE(destination, nullptr);
    EXPECT_FALSE(destination->own);
    ASSERT_TRUE(service_->send(destination->uniqueID, {{0, {0x80, 0x3C, 0x00}}}));
    ASSERT_TRUE(spinUntil([&] { return dump.output().find("80 3c 00") != std::string::npos; }))
        << dump.output();
    ASSERT_TRUE(service_->send(destination->uniqueID, {{0, {0xF0, 0x7E, 0x7F, 0x06, 0x01, 0xF7}}}));
    ASSERT_TRUE(spinUntil([&] {
        return dump.output().find("f0 7e 7f 06 01 f7") != std::string::npos;
    })) << dump.output();
    EXPECT_TRUE(hasPort(server_->ports(), "Tessarine:out 1"));
    EXPECT_EQ(findEndpoint(service_->sources(), "Tessarine", "out 1"), nullptr);
    EXPECT_FALSE(service_->send(12345, {{0, {0x80, 0x3C, 0x00}}})) << "no such destination";

    // When the destination goes away, so does the private port.
    dump.stop(SIGTERM);
    EXPECT_TRUE(spinUntil([&] { return !hasPort(server_->ports(), "Tessarine:out 1"); }));
}

TEST_F(JACKMIDIServiceTest, ClientAppearingLaterIsASetupChangeAndASource) {
    makeService();
    ASSERT_TRUE(spinUntil([&] { return setupChanges_ > 0; })) << "own ports are endpoints too";
    ts::test::spinFor(200ms);
    const int before = setupChanges_;
    EXPECT_EQ(findEndpoint(service_->sources(), "tsseq", "out"), nullptr);

    // A sequencer looping middle C every half second.
    ChildProcess& seq = startPeer({"jack_midiseq", "tsseq", "24000", "0", "60", "8000"});
    ASSERT_TRUE(spinUntil([&] { return setupChanges_ > before; }));
    ASSERT_TRUE(spinUntil([&] { return findEndpoint(service_->sources(), "tsseq", "out"); }));
    const MIDIEndpointInfo source = *findEndpoint(service_->sources(), "tsseq", "out");
    EXPECT_FALSE(source.own);

    Recorder notes;
    ASSERT_TRUE(service_->connectSource(source.uniqueID, notes.handler()));
    ASSERT_TRUE(spinUntil([&] {
        std::lock_guard lock(notes.mutex);
        for (const MIDIPacket& p : notes.packets)
            if (p.bytes.size() == 3 && (p.bytes[0] & 0xF0) == 0x90 && p.bytes[1] == 60)
                return true;
        return false;
    }));

    // Its going away is a setup change too, and it is no longer listed.
    const int whileRunning = setupChanges_;
    seq.stop(SIGTERM);
    EXPECT_TRUE(spinUntil([&] { return setupChanges_ > whileRunning; }));
    EXPECT_EQ(findEndpoint(service_->sources(), "tsseq", "out"), nullptr);
}

TEST_F(JACKMIDIServiceTest, ServerLossDoesNotCrashAndMIDIResumesWhenItIsBack) {
    ts::LogCapture log;
    makeService();
    const MIDIEndpointInfo ownSource =
        *findEndpoint(service_->sources(), "Tessarine", "From Tessarine");
    // A source connected before the loss.
    ChildProcess& firstSender = startRtMidiSender("tsnote", {"92", "30", "10"});
    ASSERT_TRUE(waitForPort("tsnote:out"));
    ASSERT_TRUE(spinUntil([&] { return findEndpoint(service_->sources(), "tsnote", "out"); }));
    Recorder fromSource;
    ASSERT_TRUE(service_->connectSource(JACKMIDIService::uniqueIDForPortName("tsnote:out"),
                                        fromSource.handler()));
    ASSERT_TRUE(spinUntil([&] { return fromSource.received({0x92, 0x30, 0x10}); }));
    ts::test::spinFor(200ms);
    const int before = setupChanges_;

    server_->kill(SIGKILL);
    firstSender.stop(SIGKILL);
    ASSERT_TRUE(spinUntil([&] { return !service_->isConnectedToServer(); }));
    ASSERT_TRUE(spinUntil([&] { return log.contains("MIDI: the JACK server went away"); }));
    EXPECT_TRUE(spinUntil([&] { return setupChanges_ > before; }));
    // Everything answers, with nothing.
    EXPECT_TRUE(service_->sources().empty());
    EXPECT_TRUE(service_->destinations().empty());
    EXPECT_FALSE(service_->publish({{0, {0x90, 0x3C, 0x40}}}));
    EXPECT_FALSE(service_->send(ownSource.uniqueID, {{0, {0x90, 0x3C, 0x40}}}));
    EXPECT_FALSE(service_->connectSource(ownSource.uniqueID, [](const MIDIPacketList&) {}));
    ts::test::spinFor(1200ms); // at least one attempt to reach the server fails quietly
    EXPECT_FALSE(service_->isConnectedToServer());

    const int whileAway = setupChanges_;
    ASSERT_TRUE(server_->start());
    ASSERT_TRUE(spinUntil([&] { return service_->isConnectedToServer(); }, 5000ms));
    EXPECT_TRUE(spinUntil([&] { return setupChanges_ > whileAway; }));
    EXPECT_EQ(log.count("MIDI: the JACK server went away"), 1);
    EXPECT_EQ(log.count("MIDI: the JACK server is back"), 1);
    ASSERT_TRUE(waitForPort("Tessarine:To Tessarine"));
    EXPECT_TRUE(waitForPort("Tessarine:From Tessarine"));
    const auto sourcesAgain = service_->sources();
    const MIDIEndpointInfo* again = findEndpoint(sourcesAgain, "Tessarine", "From Tessarine");
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->uniqueID, ownSource.uniqueID) << "IDs survive a server restart";

    // A note gets through again, to the handler given before the loss.
    toTessarine_.clear();
    startRtMidiSender("tsagain", {"91", "40", "7f"});
    ASSERT_TRUE(waitForPort("tsagain:out"));
    ASSERT_TRUE(jackConnect("tsagain:out", "Tessarine:To Tessarine"));
    EXPECT_TRUE(spinUntil([&] { return toTessarine_.received({0x91, 0x40, 0x7F}); }));
    EXPECT_TRUE(service_->publish({{0, {0x90, 0x3C, 0x40}}}));

    // The source connected before the loss is connected again when it is
    // back, to the same handler, without a new connectSource.
    fromSource.clear();
    startRtMidiSender("tsnote", {"92", "31", "11"});
    EXPECT_TRUE(spinUntil([&] { return fromSource.received({0x92, 0x31, 0x11}); }));
    EXPECT_TRUE(hasPort(server_->ports(), "Tessarine:in 1"));
}

TEST_F(JACKMIDIServiceTest, DestroyingTheServiceDoesNotWaitForAHandlerWaitingForTheCaller) {
    // The MIDI manager rebuilds its lists on the main thread from the setup
    // handler and waits for that; the service may meanwhile be dropped on the
    // main thread (a new service installed).
    makeService();
    ts::test::spinFor(300ms); // the reports of our own ports are over
    std::atomic<bool> waiting{false};
    auto finished = std::make_shared<std::atomic<bool>>(false);
    service_->setSetupChangedHandler([&waiting, finished] {
        if (waiting.exchange(true))
            return;
        ts::performOnMainThreadAndWait([] {});
        finished->store(true);
    });
    startPeer({"jack_midiseq", "tslate", "24000", "0", "60", "8000"});
    // Not spinning: the main thread is busy elsewhere when the change comes.
    for (int i = 0; i < 500 && !waiting; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(waiting);
    service_.reset(); // must return although the handler waits for this thread
    EXPECT_FALSE(hasPort(server_->ports(), "Tessarine:To Tessarine")) << "client closed";
    EXPECT_TRUE(spinUntil([&] { return finished->load(); }))
        << "the handler ends once the main thread runs";
}

TEST(JACKMIDIServiceNoServer, JackBackendWithoutServerIsTheNoneServiceWithOneLine) {
    setenv("JACK_DEFAULT_SERVER", ("tsabsent" + std::to_string(getpid())).c_str(), 1);
    ts::LogCapture log;
    EXPECT_EQ(JACKMIDIService::create(), nullptr);
    EXPECT_EQ(log.count("MIDI: no JACK server answers"), 1);
    log.clear();
    const auto service = createMIDIService("jack");
    ASSERT_NE(service, nullptr);
    EXPECT_EQ(service->name(), "none");
    EXPECT_EQ(log.count("MIDI: no JACK server answers"), 1);
    EXPECT_EQ(log.count("MIDI is off"), 1);
    EXPECT_EQ(log.lines().size(), 2u) << "the backend's reason and the choice, nothing more";
}

} // namespace
