// Interoperability with an independent OSC implementation: what the liblo
// tools send decodes to the same address and values, and what Tessarine
// sends is read back correctly by oscdump. Everything stays on 127.0.0.1.
#include "OSCTestSupport.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCListener.h"
#include "osc/BBOSCSender.h"
#include "support/TestSupport.h"

#include <cinttypes>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

using namespace std::chrono_literals;
using ts::test::Bytes;
using ts::test::ChildProcess;

namespace {

class OSCInteropTest : public ::testing::Test {
protected:
    void SetUp() override {
        listener = BBOSCListener::defaultListenerOnPort(0);
        ASSERT_NE(listener, nullptr);
        listener->setDelegate(recorder);
    }

    // Runs a liblo tool to completion and waits for `datagrams` datagrams.
    void runTool(const std::vector<std::string>& argv, size_t datagrams) {
        ChildProcess tool(argv);
        ASSERT_TRUE(tool.started()) << argv[0];
        EXPECT_EQ(tool.wait(10s), 0) << argv[0];
        ASSERT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() >= datagrams; }))
            << argv[0] << " sent " << recorder->datagrams.size() << " datagrams";
    }

    std::string port() const { return std::to_string(listener->portNumber()); }

    std::unique_ptr<BBOSCListener> listener;
    std::shared_ptr<ts::test::RecordingDelegate> recorder =
        std::make_shared<ts::test::RecordingDelegate>();
};

TEST_F(OSCInteropTest, OscsendMessagesDecodeToTheSameValues) {
    struct Case {
        std::vector<std::string> typesAndValues;
        std::string address;
        std::string expected; // stringRepresentation; empty: decodes to nothing
    };
    const std::vector<Case> cases = {
        {{"ifs", "3", "1.5", "hello world"},
         "/a/b",
         "MESSAGE:\naddress:/a/b\n types:,ifs\ni { 3 }\nf { 1.500000 }\ns { hello world }"},
        {{""}, "/no/arguments", "MESSAGE:\naddress:/no/arguments\n types:,"},
        // An int is read through a float: the largest one saturates.
        {{"iif", "-2147483648", "2147483647", "-0.25"},
         "/abc",
         "MESSAGE:\naddress:/abc\n types:,iif\ni { -2147483648 }\ni { 2147483647 }\nf { -0.250000 "
         "}"},
        {{"ss", "abcd", ""},
         "/korvalis/action/launchColumn/5",
         "MESSAGE:\naddress:/korvalis/action/launchColumn/5\n types:,ss\ns { abcd }\ns {  }"},
        {{"fT", "1", ""}, "/t", ""},
        {{"d", "0.5"}, "/d", ""},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const Case& c = cases[i];
        std::vector<std::string> argv = {"oscsend", "127.0.0.1", port(), c.address};
        argv.insert(argv.end(), c.typesAndValues.begin(), c.typesAndValues.end());
        if (c.typesAndValues[0] == "fT")
            argv.pop_back(); // T carries no value
        runTool(argv, i + 1);
        const auto packet = BBOSCDecoder::decodeData(recorder->datagrams[i]);
        if (c.expected.empty()) {
            EXPECT_EQ(packet, nullptr) << c.address;
            continue;
        }
        ASSERT_NE(packet, nullptr) << c.address;
        ASSERT_NE(packet->asMessage(), nullptr) << c.address;
        EXPECT_EQ(packet->asMessage()->addressString(), c.address);
        EXPECT_EQ(packet->stringRepresentation(), c.expected);
    }
}

TEST_F(OSCInteropTest, OscsendfileBundlesDecodeWithTheirElements) {
    const std::string dir = ts::test::makeTempDir("osc-interop");
    ASSERT_FALSE(dir.empty());
    // Lines without a time tag go out together as one bundle for immediate
    // execution; lines with time tags as one bundle per time tag.
    {
        std::ofstream(dir + "/immediate.txt") << "/a/b ifs 3 1.5 hi\n/c f 2.5\n";
        std::ofstream(dir + "/timed.txt") << "eeae33b4.dcb955f6 /x i 1\n"
                                             "eeae33b4.dcb955f6 /y i 2\n"
                                             "eeae33b5.00000000 /z i 3\n";
    }
    runTool({"oscsendfile", "127.0.0.1", port(), dir + "/immediate.txt"}, 1);
    const auto immediate = BBOSCDecoder::decodeData(recorder->datagrams.at(0));
    ASSERT_TRUE(immediate && immediate->asBundle());
    EXPECT_EQ(immediate->stringRepresentation(),
              "BUNDLE:\ntime: 0001-01-01 00:00:00 +0000\n---\n"
              "MESSAGE:\naddress:/a/b\n types:,ifs\ni { 3 }\nf { 1.500000 }\ns { hi }\n---\n"
              "MESSAGE:\naddress:/c\n types:,f\nf { 2.500000 }");

    runTool({"oscsendfile", "127.0.0.1", port(), dir + "/timed.txt"}, 3);
    std::vector<std::vector<int>> values;
    for (size_t i = 1; i < 3; ++i) {
        const auto packet = BBOSCDecoder::decodeData(recorder->datagrams[i]);
        ASSERT_TRUE(packet && packet->asBundle());
        EXPECT_GT(packet->asBundle()->timeStamp(), BBOSCDataUtilities::kDistantPast);
        values.emplace_back();
        for (const auto& e : packet->asBundle()->attachedObjects())
            values.back().push_back(e->asMessage()->argumentAtIndex(0).intValue());
    }
    EXPECT_EQ(values, (std::vector<std::vector<int>>{{1, 2}, {3}}));
    std::filesystem::remove_all(dir);
}

class OscdumpTest : public ::testing::Test {
protected:
    void SetUp() override {
        port = ts::test::freeUdpPort();
        dump = std::make_unique<ChildProcess>(
            std::vector<std::string>{"oscdump", "-L", std::to_string(port)});
        ASSERT_TRUE(dump->started());
        ASSERT_TRUE(ts::test::waitUntilUdpPortBound(port, 5s));
        sender = BBOSCSender::senderWithDestinationHostNamePortNumber("127.0.0.1", port);
        ASSERT_NE(sender, nullptr);
    }

    // oscdump's lines without their leading time tag.
    static std::string body(const std::string& line) { return line.substr(line.find(' ') + 1); }

    int port = 0;
    std::unique_ptr<ChildProcess> dump;
    std::unique_ptr<BBOSCSender> sender;
};

TEST_F(OscdumpTest, SentMessagesAndBundlesAreReadBack) {
    auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString("/a/b"));
    m->attachArgument(BBOSCArgument::argumentWithInt(-3));
    m->attachArgument(BBOSCArgument::argumentWithFloat(1.5f));
    m->attachArgument(BBOSCArgument::argumentWithString("abcd"));
    m->attachArgument(BBOSCArgument::argumentWithDataBlob(Bytes{1, 2, 3, 4, 5}));
    ASSERT_TRUE(sender->sendOSCPacket(*m));
    auto lines = dump->readLines(1, 5s);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(body(lines[0]), "/a/b ifsb -3 1.500000 \"abcd\" [5b 0x1 0x2 0x3 0x4 0x5]");

    // Three messages within one tick: one bundle, so one time tag for all.
    const double before = BBOSCDataUtilities::currentDate();
    for (int i = 0; i < 3; ++i) {
        auto q = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString("/q"));
        q->attachArgument(BBOSCArgument::argumentWithInt(i));
        sender->addOSCMessage(std::move(q));
    }
    const double after = BBOSCDataUtilities::currentDate();
    ts::test::spinFor(50ms);
    lines = dump->readLines(4, 5s);
    ASSERT_EQ(lines.size(), 4u);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(body(lines[size_t(1 + i)]), "/q i " + std::to_string(i));
    const std::string tag = lines[1].substr(0, lines[1].find(' '));
    EXPECT_EQ(lines[2].substr(0, lines[2].find(' ')), tag);
    EXPECT_EQ(lines[3].substr(0, lines[3].find(' ')), tag);
    // oscdump shows the seconds field as it is on the wire: whole seconds
    // since 2001 plus the system's fixed offset 0x5C000000.
    const uint32_t seconds = static_cast<uint32_t>(std::stoul(tag.substr(0, 8), nullptr, 16));
    const auto wire = [](double date) {
        return static_cast<uint32_t>(static_cast<int32_t>(date)) +
               BBOSCDataUtilities::kTimeTagOffset;
    };
    EXPECT_GE(seconds, wire(before));
    EXPECT_LE(seconds, wire(after));

    // A bundle larger than one datagram reaches the peer whole, in order.
    for (int i = 0; i < 300; ++i) {
        auto big =
            BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString("/big/element"));
        big->attachArgument(BBOSCArgument::argumentWithInt(i));
        big->attachArgument(BBOSCArgument::argumentWithString("padding padding padding"));
        sender->addOSCMessage(std::move(big));
    }
    ts::test::spinFor(50ms);
    lines = dump->readLines(4 + 300, 5s);
    ASSERT_EQ(lines.size(), 304u);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(body(lines[size_t(4 + i)]),
                  "/big/element is " + std::to_string(i) + " \"padding padding padding\"");
}

} // namespace
