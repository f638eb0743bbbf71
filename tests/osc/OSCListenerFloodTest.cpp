// A flood of datagrams while the main thread is busy: what waits for the
// main thread stays bounded, the drops are counted and reported, and the
// listener serves normally once the main thread is back.
#include "OSCTestSupport.h"
#include "osc/BBOSCListener.h"
#include "platform/Log.h"
#include "support/TestSupport.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

using namespace std::chrono_literals;
using ts::test::Bytes;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

long residentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

Bytes numbered(uint32_t i, size_t size) {
    Bytes b(size, 0x5A);
    for (int k = 0; k < 4; ++k)
        b[static_cast<size_t>(k)] = static_cast<uint8_t>(i >> (24 - 8 * k));
    return b;
}

uint64_t reportedDrops(const ts::LogCapture& log, int& lines) {
    // "... dropped <n> datagrams: the main thread is behind ..."
    uint64_t sum = 0;
    lines = 0;
    for (const std::string& line : log.lines()) {
        const size_t at = line.find(" dropped ");
        if (at == std::string::npos ||
            line.find(" datagrams: the main thread is behind") == std::string::npos)
            continue;
        sum += std::strtoull(line.c_str() + at + 9, nullptr, 10);
        ++lines;
    }
    return sum;
}

TEST(OSCListenerFlood, QueueStaysBoundedAndDropsAreReported) {
    constexpr uint32_t kFlood = 200000;
    constexpr size_t kSize = 512;
    const size_t bound = BBOSCListener::kMaximumPendingDatagrams;

    auto listener = BBOSCListener::defaultListenerOnPort(0);
    ASSERT_NE(listener, nullptr);
    auto recorder = std::make_shared<ts::test::RecordingDelegate>();
    listener->setDelegate(recorder);
    ts::test::UdpEndpoint peer;
    ts::LogCapture log;
    const long rssBefore = residentKiB();
    const auto start = std::chrono::steady_clock::now();

    // The main thread sends and never runs its event loop meanwhile. It keeps
    // at most a few dozen datagrams in flight, so the kernel's socket buffer
    // never overflows and every loss is the listener's own.
    auto seen = [&] { return listener->pendingDatagramCount() + listener->droppedDatagramCount(); };
    for (uint32_t i = 0; i < kFlood; ++i) {
        ASSERT_TRUE(peer.sendTo(listener->portNumber(), numbered(i, kSize)));
        if (i % 32 == 31) {
            const auto deadline = std::chrono::steady_clock::now() + 10s;
            while (seen() + 32 < i + 1 && std::chrono::steady_clock::now() < deadline)
                std::this_thread::yield();
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (seen() < kFlood && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();

    EXPECT_EQ(recorder->datagrams.size(), 0u);
    EXPECT_EQ(listener->maximumPendingDatagramCount(), bound);
    EXPECT_EQ(listener->pendingDatagramCount(), bound);
    EXPECT_EQ(listener->droppedDatagramCount(), kFlood - bound);
    const long rssGrowth = residentKiB() - rssBefore;
    // Unbounded, 200,000 queued copies of 512 bytes would be well over 100 MB.
    if (!kSanitized) {
        EXPECT_LT(rssGrowth, 48 * 1024) << "KiB";
    }

    // Every drop is reported, in lines at most one second apart.
    int lines = 0;
    EXPECT_TRUE(ts::test::spinUntil(
        [&] { return reportedDrops(log, lines) == listener->droppedDatagramCount(); }, 5s));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(lines, 1);
    EXPECT_LE(lines, static_cast<int>(seconds) + 1) << seconds << " s";

    // The main thread is back: the queued datagrams arrive, in order, then
    // new ones are served as usual.
    ASSERT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == bound; }, 30s));
    for (uint32_t i = 0; i < bound; ++i)
        ASSERT_EQ(recorder->datagrams[i], numbered(i, kSize)) << i;
    recorder->datagrams.clear();
    for (uint32_t i = 0; i < 100; ++i)
        peer.sendTo(listener->portNumber(), numbered(kFlood + i, 16));
    ASSERT_TRUE(ts::test::spinUntil([&] { return recorder->datagrams.size() == 100; }));
    for (uint32_t i = 0; i < 100; ++i)
        EXPECT_EQ(recorder->datagrams[i], numbered(kFlood + i, 16));
    EXPECT_EQ(listener->droppedDatagramCount(), kFlood - bound);
    EXPECT_EQ(listener->pendingDatagramCount(), 0u);
}

} // namespace
