#include "osc/BBOSCListener.h"

#include "osc/BBOSCDispatcher.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/ThreadName.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

// State that outlives the listener object for as long as the receive thread
// or a queued delivery still refers to it.
struct BBOSCListener::Shared {
    // Guards delegate. Leaf lock: the delegate is copied out and called
    // after the lock is released.
    std::mutex delegateLock;
    std::shared_ptr<BBOSCListenerDelegate> delegate;

    // Set (on the owner's thread) when the listener is destroyed: deliveries
    // still queued are discarded.
    std::atomic<bool> discarded{false};

    // Datagrams queued to the main thread and not yet delivered: raised by
    // the receive thread, lowered by the delivery on the main thread.
    std::atomic<size_t> pending{0};
    std::atomic<size_t> maximumPending{0};
    std::atomic<uint64_t> dropped{0};
};

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDropReportInterval = std::chrono::seconds(1);
// Datagrams taken in one go before the wake descriptor is looked at again,
// so that a flood cannot delay a stop.
constexpr int kDrainBatch = 64;

} // namespace

BBOSCListener::BBOSCListener() : shared_(std::make_shared<Shared>()) {}

BBOSCListener::~BBOSCListener() {
    stopListening();
    shared_->discarded.store(true);
    std::lock_guard lock(shared_->delegateLock);
    shared_->delegate.reset();
}

std::unique_ptr<BBOSCListener> BBOSCListener::defaultListenerOnPort(int32_t port) {
    auto listener = std::make_unique<BBOSCListener>();
    listener->setDelegate(std::make_shared<BBOSCDispatcher>());
    if (!listener->startListeningOnPort(port))
        return nullptr;
    return listener;
}

std::shared_ptr<BBOSCListenerDelegate> BBOSCListener::delegate() const {
    std::lock_guard lock(shared_->delegateLock);
    return shared_->delegate;
}

void BBOSCListener::setDelegate(std::shared_ptr<BBOSCListenerDelegate> delegate) {
    std::lock_guard lock(shared_->delegateLock);
    shared_->delegate = std::move(delegate);
}

uint64_t BBOSCListener::droppedDatagramCount() const {
    return shared_->dropped.load();
}
size_t BBOSCListener::pendingDatagramCount() const {
    return shared_->pending.load();
}
size_t BBOSCListener::maximumPendingDatagramCount() const {
    return shared_->maximumPending.load();
}

bool BBOSCListener::startListeningOnPort(int32_t port) {
    if (thread_.joinable())
        return false;
    if (port < 0 || port > 65535) {
        ts::logf("bind: UDP port %d is out of range", port);
        return false;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        ts::logf("socket: %s", std::strerror(errno));
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ts::logf("bind: %s (UDP port %d)", std::strerror(errno), port);
        close(sock);
        return false;
    }
    socklen_t length = sizeof address;
    getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length);

    // close() does not wake a thread blocked on the socket, so the thread
    // waits on this descriptor as well and stopListening signals it.
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        ts::logf("socket: %s (listener wake descriptor)", std::strerror(errno));
        close(sock);
        return false;
    }

    shared_->dropped.store(0);
    shared_->maximumPending.store(shared_->pending.load());
    socketDescriptor_ = sock;
    wakeDescriptor_ = wake;
    portNumber_ = ntohs(address.sin_port);
    thread_ = std::thread(&BBOSCListener::listenThread, this);
    return true;
}

void BBOSCListener::stopListening() {
    if (!thread_.joinable())
        return;
    const uint64_t one = 1;
    while (write(wakeDescriptor_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    // The thread never waits for the main thread, so this join is short.
    // Only after it has returned are the descriptors closed: a receive
    // thread can never read a number that was closed and handed out again.
    thread_.join();
    close(socketDescriptor_);
    close(wakeDescriptor_);
    socketDescriptor_ = -1;
    wakeDescriptor_ = -1;
    portNumber_ = 0;
}

// Copies one datagram and queues its delivery. The copy is the only one
// made: it travels in the queued call and reaches the delegate as it is.
void BBOSCListener::queueDatagramForMainThread(const std::shared_ptr<Shared>& shared,
                                               const uint8_t* data, size_t size) {
    std::vector<uint8_t> bytes(data, data + size);
    ts::enqueueOnMainThread([shared, bytes = std::move(bytes)] {
        shared->pending.fetch_sub(1);
        if (shared->discarded.load())
            return;
        std::shared_ptr<BBOSCListenerDelegate> delegate;
        {
            std::lock_guard lock(shared->delegateLock);
            delegate = shared->delegate;
        }
        if (delegate)
            delegate->dispatchRawPacket(bytes);
    });
}

// Runs on the receive thread. Touches only the descriptors and the port
// (fixed until the join in stopListening) and the shared state.
void BBOSCListener::listenThread() {
    ts::setCurrentThreadName("OSCListener");
    const int sock = socketDescriptor_;
    const int wake = wakeDescriptor_;
    const int port = portNumber_;
    std::shared_ptr<Shared> shared = shared_;

    // One buffer for the thread's life; each datagram is copied out once.
    std::vector<uint8_t> buffer(kReceiveBufferSize);
    uint64_t unreported = 0;
    Clock::time_point lastReport = Clock::now() - kDropReportInterval;
    auto report = [&] {
        ts::logf("OSC listener on port %d dropped %llu datagrams: the main thread is behind (%llu "
                 "since start)",
                 port, static_cast<unsigned long long>(unreported),
                 static_cast<unsigned long long>(shared->dropped.load()));
        unreported = 0;
        lastReport = Clock::now();
    };

    pollfd fds[2] = {{sock, POLLIN, 0}, {wake, POLLIN, 0}};
    bool running = true;
    try {
        while (running) {
            int timeout = -1;
            if (unreported > 0) {
                const auto due = lastReport + kDropReportInterval - Clock::now();
                if (due <= Clock::duration::zero()) {
                    report();
                } else {
                    timeout =
                        static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(due).count());
                }
            }
            const int ready = poll(fds, 2, timeout);
            if (ready < 0) {
                if (errno == EINTR)
                    continue;
                ts::logf("error with listen thread %s", std::strerror(errno));
                break;
            }
            if (fds[1].revents != 0)
                break;
            if (ready == 0 || fds[0].revents == 0)
                continue;

            for (int i = 0; i < kDrainBatch; ++i) {
                const ssize_t n =
                    recvfrom(sock, buffer.data(), buffer.size(), MSG_DONTWAIT, nullptr, nullptr);
                if (n < 0) {
                    if (errno == EAGAIN || errno == EWOULDBLOCK)
                        break;
                    if (errno == EINTR)
                        continue;
                    ts::logf("error with listen thread %s", std::strerror(errno));
                    running = false;
                    break;
                }
                // Bounded hand-over: past the limit the datagram is dropped here
                // rather than queued, and counted for the log.
                const size_t pending = shared->pending.load(std::memory_order_relaxed);
                if (pending >= kMaximumPendingDatagrams) {
                    shared->dropped.fetch_add(1, std::memory_order_relaxed);
                    ++unreported;
                    if (Clock::now() - lastReport >= kDropReportInterval)
                        report();
                    continue;
                }
                const size_t now = shared->pending.fetch_add(1) + 1;
                size_t seen = shared->maximumPending.load(std::memory_order_relaxed);
                while (now > seen && !shared->maximumPending.compare_exchange_weak(seen, now)) {
                }
                queueDatagramForMainThread(shared, buffer.data(), static_cast<size_t>(n));
            }
        }
    } catch (const std::exception& e) {
        // Out of memory while copying a datagram, say: end this thread
        // rather than the program.
        ts::logf("error with listen thread %s", e.what());
    }
    if (unreported > 0)
        report();
}
