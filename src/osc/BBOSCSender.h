#pragma once
// Sends OSC packets over UDP/IPv4 to one destination, resolved once when the
// sender is made (a change of host or port means a new sender).
//
// sendOSCPacket sends at once, one datagram per element of the packet's
// packetizedDatas(). addOSCMessage collects messages into the main bundle,
// which a 10 ms QTimer on the creating thread's event loop (the main thread)
// flushes; the bundle's time stamp is the moment its first message came.
//
// Thread ownership: made and destroyed on the main thread. addOSCMessage may
// be called from any thread; sendOSCPacket too (it reads only the socket and
// destination, which never change after creation).

#include "osc/BBOSCBundle.h"
#include "osc/BBOSCMessage.h"

#include <memory>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <string_view>

class QTimer;

class BBOSCSender {
public:
    static constexpr int kFlushIntervalMs = 10;

    // nullptr (logged) when the socket cannot be made ("socket") or the host
    // name is not ASCII or does not resolve to an IPv4 address.
    static std::unique_ptr<BBOSCSender>
    senderWithDestinationHostNamePortNumber(std::string_view hostName, int32_t portNumber);
    ~BBOSCSender();
    BBOSCSender(const BBOSCSender&) = delete;
    BBOSCSender& operator=(const BBOSCSender&) = delete;

    // Sends every datagram of the packet in order; stops at the first failed
    // send ("sendto" logged) and answers false. True when all went out or the
    // packet produced none.
    bool sendOSCPacket(const BBOSCPacket& packet);
    // Adds to the main bundle (made on the first add after a flush).
    void addOSCMessage(std::unique_ptr<BBOSCMessage> message);
    void addOSCMessage(const BBOSCMessage& message);
    // The timer's action: sends the main bundle, if any, then drops it (also
    // when a send failed).
    void sendMainBundle();

    int32_t socketDescriptor() const { return socketDescriptor_; }
    int32_t portNumber() const { return portNumber_; }
    const std::string& destinationHostName() const { return destinationHostName_; }
    const sockaddr_in& destinationAddress() const { return destinationAddress_; }

private:
    BBOSCSender(std::string hostName, int32_t portNumber);
    bool prepareSocket();

    // Fixed after creation; read by any thread.
    int socketDescriptor_ = -1;
    int32_t portNumber_;
    std::string destinationHostName_;
    sockaddr_in destinationAddress_{};

    // Guards mainBundle_ for the whole of addOSCMessage and sendMainBundle.
    // Leaf lock apart from the log's.
    std::mutex mainBundleLock_;
    std::unique_ptr<BBOSCBundle> mainBundle_;

    // Main thread only.
    std::unique_ptr<QTimer> timer_;
};
