#pragma once
// Loopback peers for the tests of the UDP managers: a free port, a socket
// that sends and receives plain datagrams, a private settings file, and an
// external program (the OSC tools) stopped by its process id.

#include "platform/Defaults.h"
#include "support/TestSupport.h"

#include <QProcess>
#include <QString>
#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <netinet/in.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace ts::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesOf(std::string_view text) {
    return Bytes(text.begin(), text.end());
}

// A UDP port that nothing uses at the moment (the kernel's choice, so tests
// running side by side do not collide).
inline int freeUdpPort() {
    const int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t length = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &length);
    close(s);
    return ntohs(a.sin_port);
}

// A UDP socket on 127.0.0.1 at a port of the kernel's choice (or the given
// one: a way to keep a port busy).
class UdpPeer {
public:
    explicit UdpPeer(int port = 0) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(port == 0 ? INADDR_LOOPBACK : INADDR_ANY);
        a.sin_port = htons(static_cast<std::uint16_t>(port));
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        socklen_t length = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &length);
        port_ = ntohs(a.sin_port);
    }
    ~UdpPeer() { close(fd_); }
    UdpPeer(const UdpPeer&) = delete;
    UdpPeer& operator=(const UdpPeer&) = delete;

    bool bound() const { return bound_; }
    int port() const { return port_; }

    bool sendTo(int port, const Bytes& bytes) const {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<std::uint16_t>(port));
        return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&a),
                      sizeof a) == static_cast<ssize_t>(bytes.size());
    }

    // A datagram already waiting, without blocking.
    std::optional<Bytes> tryReceive() const {
        Bytes buffer(70000);
        const ssize_t n = recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 0)
            return std::nullopt;
        buffer.resize(static_cast<size_t>(n));
        return buffer;
    }

    // Waits for a datagram while the main thread's event loop runs (the
    // OSC sender flushes from it).
    std::optional<Bytes>
    receive(std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
        std::optional<Bytes> got;
        spinUntil([&] { return (got = tryReceive()).has_value(); }, timeout);
        return got;
    }

private:
    int fd_ = -1;
    int port_ = 0;
    bool bound_ = false;
};

// Points the settings store at a fresh empty file for the test's life.
class PrivateSettings {
public:
    PrivateSettings() {
        dir_ = makeTempDir("tessarine-settings");
        ts::Defaults::setStandardPath(QString::fromStdString(dir_ + "/Tessarine.json"));
    }
    ~PrivateSettings() { std::system(("rm -rf '" + dir_ + "'").c_str()); }
    ts::Defaults& defaults() { return ts::Defaults::standard(); }
    // Makes the next standard() read the file again, as a restart would.
    void reopen() {
        ts::Defaults::setStandardPath(QString::fromStdString(dir_ + "/Tessarine.json"));
    }

private:
    std::string dir_;
};

// An external program on loopback, stopped by its process id.
class PeerProcess {
public:
    PeerProcess(const QString& program, const QStringList& arguments) {
        process_.setProgram(program);
        process_.setArguments(arguments);
        process_.start();
        started_ = process_.waitForStarted(5000);
    }
    ~PeerProcess() { stop(); }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    bool started() const { return started_; }

    // Runs a program to its end; its exit status (-1 when it did not run).
    static int run(const QString& program, const QStringList& arguments) {
        QProcess p;
        p.start(program, arguments);
        if (!p.waitForStarted(5000) || !p.waitForFinished(10000))
            return -1;
        return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    }

    // The complete lines written to standard output so far.
    QStringList lines() {
        process_.waitForReadyRead(0);
        buffer_ += QString::fromUtf8(process_.readAllStandardOutput());
        QStringList all = buffer_.split('\n');
        all.removeLast(); // the unfinished line, if any
        return all;
    }

    void stop() {
        if (!started_ || process_.state() == QProcess::NotRunning)
            return;
        ::kill(static_cast<pid_t>(process_.processId()), SIGTERM);
        if (!process_.waitForFinished(5000)) {
            ::kill(static_cast<pid_t>(process_.processId()), SIGKILL);
            process_.waitForFinished(5000);
        }
    }

private:
    QProcess process_;
    QString buffer_;
    bool started_ = false;
};

} // namespace ts::test
