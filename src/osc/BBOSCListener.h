#pragma once
// Receives OSC datagrams on one UDP/IPv4 port (every local address) and hands
// each, undecoded, to its delegate on the main thread, in arrival order.
//
// One receive thread per listener, named "OSCListener", only receives into a
// 65,506-byte buffer (a longer datagram is cut), copies and queues. The
// queue towards the main thread is bounded: past kMaximumPendingDatagrams
// datagrams waiting there, new ones are dropped and counted, and a log line
// says how many at most once per second. A flood therefore cannot grow
// memory without limit while the main thread is busy.
//
// Thread ownership: create, start, stop and destroy a listener on one thread
// (the main thread in this program). setDelegate and the counters may be
// used from any thread. Destroying the listener stops it and discards the
// datagrams still queued for its delegate.

#include "osc/BBOSCListenerDelegate.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>

class BBOSCListener {
public:
    static constexpr size_t kReceiveBufferSize = 65506;
    static constexpr size_t kMaximumPendingDatagrams = 10000;

    // Not listening; no delegate.
    BBOSCListener();
    ~BBOSCListener();
    BBOSCListener(const BBOSCListener&) = delete;
    BBOSCListener& operator=(const BBOSCListener&) = delete;

    // A listener with a BBOSCDispatcher as delegate, already listening on the
    // port; nullptr when the socket cannot be made or bound (logged).
    // Callers set their own delegate right after.
    static std::unique_ptr<BBOSCListener> defaultListenerOnPort(int32_t port);

    // Makes the socket, binds it to the wildcard address at the port (0: any
    // free port, see portNumber) and starts the receive thread. Errors are
    // logged with the labels "socket" and "bind"; answers false then. A
    // listener that is already listening answers false.
    bool startListeningOnPort(int32_t port);
    // Ends the receive thread (also while it waits for a datagram) and
    // closes the socket. Datagrams already queued are still delivered.
    void stopListening();

    // -1 when not listening.
    int32_t socketDescriptor() const { return socketDescriptor_; }
    // The bound port while listening, else 0.
    int32_t portNumber() const { return portNumber_; }

    std::shared_ptr<BBOSCListenerDelegate> delegate() const;
    void setDelegate(std::shared_ptr<BBOSCListenerDelegate> delegate);

    // Datagrams dropped because the main thread was behind, since start.
    uint64_t droppedDatagramCount() const;
    // Datagrams handed to the main thread and not yet delivered.
    size_t pendingDatagramCount() const;
    // The largest pendingDatagramCount() seen since start.
    size_t maximumPendingDatagramCount() const;

private:
    struct Shared; // state shared with the receive thread and queued calls
    void listenThread();
    static void queueDatagramForMainThread(const std::shared_ptr<Shared>& shared,
                                           const uint8_t* data, size_t size);

    std::shared_ptr<Shared> shared_;
    int32_t socketDescriptor_ = -1;
    int32_t portNumber_ = 0;
    int wakeDescriptor_ = -1;
    std::thread thread_;
};
