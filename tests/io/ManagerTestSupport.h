#pragma once
// What the tests of the UDP managers add to the loopback helpers of the OSC
// tests: a private settings file, and receiving while the main thread's
// event loop runs (the OSC sender flushes its bundle from there).

#include "osc/OSCTestSupport.h"
#include "platform/Defaults.h"
#include "support/TestSupport.h"

#include <QString>
#include <filesystem>
#include <string>
#include <string_view>

namespace ts::test {

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

// A datagram already waiting at the endpoint, without blocking.
inline std::optional<Bytes> tryReceive(const UdpEndpoint& endpoint) {
    return endpoint.receive(std::chrono::milliseconds(0));
}

// Waits for a datagram while the event loop runs.
inline std::optional<Bytes>
receiveSpinning(const UdpEndpoint& endpoint,
                std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    std::optional<Bytes> got;
    spinUntil([&] { return (got = tryReceive(endpoint)).has_value(); }, timeout);
    return got;
}

// Runs a program (one of the OSC tools) to its end: its exit status, or -1.
inline int runToEnd(const std::vector<std::string>& argv) {
    ChildProcess child(argv);
    return child.started() ? child.wait(std::chrono::seconds(10)) : -1;
}

// Points the settings store at a fresh empty file for the test's life.
class PrivateSettings {
public:
    PrivateSettings() : dir_(makeTempDir("tessarine-settings")) { reopen(); }
    ~PrivateSettings() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    PrivateSettings(const PrivateSettings&) = delete;
    PrivateSettings& operator=(const PrivateSettings&) = delete;

    // Valid until the next reopen().
    ts::Defaults& defaults() { return ts::Defaults::standard(); }
    // Makes the next standard() read the file again, as a restart would.
    void reopen() {
        ts::Defaults::setStandardPath(QString::fromStdString(dir_ + "/Tessarine.json"));
    }

private:
    std::string dir_;
};

} // namespace ts::test
