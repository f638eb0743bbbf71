#include "OSCTestSupport.h"

#include "platform/MainThread.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace ts::test {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

} // namespace

int freeUdpPort() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

bool waitUntilUdpPortBound(int port, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    do {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool busy = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0;
        close(fd);
        if (busy)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } while (std::chrono::steady_clock::now() < end);
    return false;
}

UdpEndpoint::UdpEndpoint() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    const int size = 4 << 20; // room for bursts; the kernel caps it
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

UdpEndpoint::~UdpEndpoint() {
    close(fd_);
}

bool UdpEndpoint::sendTo(int port, const Bytes& datagram) const {
    const sockaddr_in a = loopback(port);
    return sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&a),
                  sizeof a) == static_cast<ssize_t>(datagram.size());
}

std::optional<Bytes> UdpEndpoint::receive(std::chrono::milliseconds timeout) const {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) <= 0)
        return std::nullopt;
    Bytes buffer(70000);
    const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0)
        return std::nullopt;
    buffer.resize(static_cast<size_t>(n));
    return buffer;
}

void RecordingDelegate::dispatchRawPacket(std::span<const uint8_t> datagram) {
    if (!ts::isMainThread())
        ++offMainThread;
    datagrams.emplace_back(datagram.begin(), datagram.end());
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) == 0)
        pid_ = pid;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    out_ = fds[0];
}

ChildProcess::~ChildProcess() {
    stop();
    if (out_ >= 0)
        close(out_);
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (pid_ > 0) {
        int status = 0;
        const pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        if (std::chrono::steady_clock::now() >= end)
            return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

void ChildProcess::stop() {
    if (pid_ <= 0)
        return;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

std::vector<std::string> ChildProcess::readLines(size_t lines, std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    auto complete = [&] {
        return static_cast<size_t>(std::count(buffer_.begin(), buffer_.end(), '\n')) >= lines;
    };
    while (!complete() && out_ >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            break;
        pollfd p{out_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0)
            break;
        char chunk[4096];
        const ssize_t n = read(out_, chunk, sizeof chunk);
        if (n <= 0)
            break;
        buffer_.append(chunk, static_cast<size_t>(n));
    }
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t nl; (nl = buffer_.find('\n', start)) != std::string::npos; start = nl + 1)
        out.push_back(buffer_.substr(start, nl - start));
    return out;
}

} // namespace ts::test
