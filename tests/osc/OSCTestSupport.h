#pragma once
// Loopback helpers of the OSC tests: plain UDP endpoints, free ports, a
// recording listener delegate, and child processes (the liblo tools) started
// and stopped by process id.

#include "osc/BBOSCListenerDelegate.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace ts::test {

using Bytes = std::vector<uint8_t>;

// A UDP port on 127.0.0.1 that was free a moment ago.
int freeUdpPort();
// True once something is bound to the UDP port (checked by trying to bind it).
bool waitUntilUdpPortBound(int port, std::chrono::milliseconds timeout);

// A plain UDP socket bound to 127.0.0.1 on a port of its own.
class UdpEndpoint {
public:
    UdpEndpoint();
    ~UdpEndpoint();
    UdpEndpoint(const UdpEndpoint&) = delete;
    UdpEndpoint& operator=(const UdpEndpoint&) = delete;

    int port() const { return port_; }
    bool sendTo(int port, const Bytes& datagram) const;
    // The next datagram, or nothing when none comes within the timeout.
    std::optional<Bytes> receive(std::chrono::milliseconds timeout) const;

private:
    int fd_ = -1;
    int port_ = 0;
};

// Records what a listener delivers, and whether it came on the main thread.
class RecordingDelegate : public BBOSCListenerDelegate {
public:
    void dispatchRawPacket(std::span<const uint8_t> datagram) override;
    std::vector<Bytes> datagrams;
    int offMainThread = 0;
};

// A child process with its standard output on a pipe.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& argv);
    ~ChildProcess(); // stops it (SIGTERM by pid) if still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    // Waits for the process to end by itself; answers its exit status or -1.
    int wait(std::chrono::milliseconds timeout);
    void stop();
    // Reads standard output until it holds `lines` lines or the time is up.
    std::vector<std::string> readLines(size_t lines, std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffer_;
};

} // namespace ts::test
