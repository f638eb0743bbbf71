#include "platform/Log.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

std::string readLogFile() {
    std::ifstream in(ts::stateDirectory() + "/Tessarine.log");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(Log, LineReachesCaptureAndFileWithProcessTag) {
    ts::LogCapture capture;
    ts::logf("port %d is busy: %s", 5001, "bind");
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0], "port 5001 is busy: bind");
    const std::string file = readLogFile();
    const std::string tag = "Tessarine[" + std::to_string(getpid()) + "]: port 5001 is busy: bind\n";
    EXPECT_NE(file.find(tag), std::string::npos) << file;
}

TEST(Log, LongLinesAreNotCut) {
    ts::LogCapture capture;
    const std::string longText(3000, 'x');
    ts::logf("%s!", longText.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].size(), 3001u);
}

TEST(Log, LinesFromManyThreadsArriveWhole) {
    ts::setLogToStandardError(false);
    ts::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                ts::logf("thread %d line %d", t, i);
        });
    for (auto& th : threads)
        th.join();
    ts::setLogToStandardError(true);
    EXPECT_EQ(capture.lines().size(), 800u);
    EXPECT_EQ(capture.count("thread 3 line "), 200);
}

} // namespace
