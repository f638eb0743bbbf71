#include "osc/BBOSCSender.h"

#include "platform/Log.h"

#include <QTimer>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

BBOSCSender::BBOSCSender(std::string hostName, int32_t portNumber)
    : portNumber_(portNumber), destinationHostName_(std::move(hostName)) {}

BBOSCSender::~BBOSCSender() {
    if (timer_)
        timer_->stop();
    timer_.reset();
    if (socketDescriptor_ >= 0)
        close(socketDescriptor_);
}

std::unique_ptr<BBOSCSender>
BBOSCSender::senderWithDestinationHostNamePortNumber(std::string_view hostName,
                                                     int32_t portNumber) {
    std::unique_ptr<BBOSCSender> sender(new BBOSCSender(std::string(hostName), portNumber));
    if (!sender->prepareSocket())
        return nullptr;
    // Flushes the main bundle on the creating thread's event loop; Qt keeps
    // such timers firing while a menu is open or a control is dragged.
    sender->timer_ = std::make_unique<QTimer>();
    sender->timer_->setTimerType(Qt::PreciseTimer);
    sender->timer_->setInterval(kFlushIntervalMs);
    BBOSCSender* raw = sender.get();
    sender->timer_->callOnTimeout([raw] { raw->sendMainBundle(); });
    sender->timer_->start();
    return sender;
}

bool BBOSCSender::prepareSocket() {
    if (portNumber_ < 0 || portNumber_ > 65535) {
        ts::logf("OSC sender: port %d is out of range", portNumber_);
        return false;
    }
    if (!BBOSCDataUtilities::isASCII(destinationHostName_)) {
        ts::logf("OSC sender: host name \"%s\" is not ASCII", destinationHostName_.c_str());
        return false;
    }
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        ts::logf("socket: %s", std::strerror(errno));
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    const int status = getaddrinfo(destinationHostName_.c_str(), nullptr, &hints, &result);
    if (status != 0 || !result) {
        ts::logf("OSC sender: cannot resolve host \"%s\": %s", destinationHostName_.c_str(),
                 gai_strerror(status));
        if (result)
            freeaddrinfo(result);
        close(sock);
        return false;
    }
    std::memcpy(&destinationAddress_, result->ai_addr, sizeof destinationAddress_);
    freeaddrinfo(result);
    destinationAddress_.sin_family = AF_INET;
    destinationAddress_.sin_port = htons(static_cast<uint16_t>(portNumber_));
    std::memset(destinationAddress_.sin_zero, 0, sizeof destinationAddress_.sin_zero);
    socketDescriptor_ = sock;
    return true;
}

bool BBOSCSender::sendOSCPacket(const BBOSCPacket& packet) {
    // A message is one datagram whatever its size: skip the list.
    if (packet.asMessage()) {
        const BBOSCBytes datagram = packet.packetizedData();
        if (sendto(socketDescriptor_, datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr*>(&destinationAddress_),
                   sizeof destinationAddress_) < 0) {
            ts::logf("sendto: %s", std::strerror(errno));
            return false;
        }
        return true;
    }
    for (const BBOSCBytes& datagram : packet.packetizedDatas()) {
        if (sendto(socketDescriptor_, datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr*>(&destinationAddress_),
                   sizeof destinationAddress_) < 0) {
            ts::logf("sendto: %s", std::strerror(errno));
            return false;
        }
    }
    return true;
}

void BBOSCSender::addOSCMessage(std::unique_ptr<BBOSCMessage> message) {
    if (!message)
        return;
    std::lock_guard lock(mainBundleLock_);
    if (!mainBundle_)
        mainBundle_ = BBOSCBundle::bundleWithTimestamp(BBOSCDataUtilities::currentDate());
    mainBundle_->attachObject(std::move(message));
}

void BBOSCSender::addOSCMessage(const BBOSCMessage& message) {
    addOSCMessage(std::make_unique<BBOSCMessage>(message));
}

void BBOSCSender::sendMainBundle() {
    std::lock_guard lock(mainBundleLock_);
    if (!mainBundle_)
        return;
    sendOSCPacket(*mainBundle_);
    mainBundle_.reset();
}
