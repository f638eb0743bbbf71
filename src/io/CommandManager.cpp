#include "io/CommandManager.h"

#include "app/TessarineController.h"
#include "platform/Defaults.h"
#include "platform/Log.h"
#include "platform/NilValue.h"
#include "platform/ThreadName.h"

#include <QMetaObject>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

const char* const kSenderMachineKey = "commandSenderMachine";
const char* const kSenderPortKey = "commandSenderPort";
const char* const kSenderEnabledKey = "commandSenderIsEnabled";
const char* const kListenerPortKey = "commandListenerPort";
const char* const kListenerEnabledKey = "commandListenerIsEnabled";
const char* const kDefaultSenderMachine = "localhost";

// Datagrams taken in one go before the wake descriptor is looked at again,
// so that a flood cannot delay a stop.
constexpr int kDrainBatch = 64;

int portOrDefault(const ts::Defaults& defaults, const char* key, int fallback) {
    const std::int64_t stored = defaults.integerForKey(key);
    return stored == 0 ? fallback : static_cast<int>(stored);
}

bool flagOrOn(const ts::Defaults& defaults, const char* key) {
    return defaults.hasKey(key) ? defaults.boolForKey(key) : true;
}

// A system call's failure in the usual "label: reason" form; the log writes
// it to standard error as well.
void logSystemError(const char* label, int error) {
    ts::logf("%s: %s", label, std::strerror(error));
}

bool isASCII(const std::string& text) {
    for (unsigned char c : text)
        if (c > 0x7F)
            return false;
    return true;
}

} // namespace

CommandManager::Settings CommandManager::readSettings(const ts::Defaults& defaults) {
    Settings s;
    s.senderMachine = defaults.hasKey(kSenderMachineKey) ? defaults.stringForKey(kSenderMachineKey)
                                                         : QString(kDefaultSenderMachine);
    s.senderPort = portOrDefault(defaults, kSenderPortKey, kDefaultSenderPort);
    s.senderEnabled = flagOrOn(defaults, kSenderEnabledKey);
    s.listenerPort = portOrDefault(defaults, kListenerPortKey, kDefaultListenerPort);
    s.listenerEnabled = flagOrOn(defaults, kListenerEnabledKey);
    return s;
}

CommandManager::CommandManager(QObject* parent) : QObject(parent) {
    settings_ = readSettings(ts::Defaults::standard());
    resetCommandListener();
}

CommandManager::~CommandManager() {
    stopListening();
}

// --- settings ---------------------------------------------------------------

void CommandManager::setCommandSenderMachine(const QString& machine) {
    {
        std::lock_guard lock(settingsLock_);
        settings_.senderMachine = machine;
    }
    emit commandSenderMachineChanged();
    ts::Defaults::standard().setStringForKey(machine, kSenderMachineKey);
}

void CommandManager::setCommandSenderPort(int port) {
    {
        std::lock_guard lock(settingsLock_);
        settings_.senderPort = port;
    }
    emit commandSenderPortChanged();
    ts::Defaults::standard().setIntegerForKey(port, kSenderPortKey);
}

void CommandManager::setCommandSenderEnabled(bool enabled) {
    {
        std::lock_guard lock(settingsLock_);
        settings_.senderEnabled = enabled;
    }
    emit commandSenderEnabledChanged();
    ts::Defaults::standard().setBoolForKey(enabled, kSenderEnabledKey);
}

void CommandManager::setCommandListenerPort(int port) {
    settings_.listenerPort = port;
    emit commandListenerPortChanged();
    ts::Defaults::standard().setIntegerForKey(port, kListenerPortKey);
    resetCommandListener();
}

void CommandManager::setCommandListenerEnabled(bool enabled) {
    settings_.listenerEnabled = enabled;
    emit commandListenerEnabledChanged();
    ts::Defaults::standard().setBoolForKey(enabled, kListenerEnabledKey);
    resetCommandListener();
}

void CommandManager::setNilValueForKey(const QString& key) {
    ts::setNilValueForKey(*this, key);
}

// --- sending ----------------------------------------------------------------

CommandManager::Destination CommandManager::destination() const {
    std::lock_guard lock(settingsLock_);
    return {settings_.senderEnabled, settings_.senderMachine.toStdString(), settings_.senderPort};
}

bool CommandManager::prepareSocket(const Destination& destination) {
    socketSenderDescriptor_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socketSenderDescriptor_ < 0) {
        logSystemError("socket", errno);
        return false;
    }
    // A port the datagram cannot carry is refused here rather than cut to
    // 16 bits into some other port.
    if (destination.port < 0 || destination.port > 65535)
        return false;
    // The resolver takes ASCII names only (an international name must be
    // given in its ASCII form).
    if (destination.machine.empty() || !isASCII(destination.machine))
        return false;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(destination.machine.c_str(), nullptr, &hints, &result) != 0 || !result) {
        if (result)
            freeaddrinfo(result);
        return false;
    }
    std::memcpy(&destinationSenderAddress_, result->ai_addr, sizeof destinationSenderAddress_);
    freeaddrinfo(result);
    destinationSenderAddress_.sin_family = AF_INET;
    destinationSenderAddress_.sin_port = htons(static_cast<std::uint16_t>(destination.port));
    return true;
}

void CommandManager::sendCommandWithValue(const QString& command, float value) {
    (void)value; // only the text goes on the wire
    const Destination target = destination();
    if (!target.enabled)
        return;
    const QByteArray bytes = command.toUtf8();

    // Concurrent sends each have their own socket but share the two fields
    // below, so one send at a time, from preparation to close.
    std::lock_guard lock(sendLock_);
    if (!prepareSocket(target)) {
        if (socketSenderDescriptor_ >= 0)
            close(socketSenderDescriptor_);
        socketSenderDescriptor_ = -1;
        ts::logf("Cannot initialize socket to send string '%s'", bytes.constData());
        return;
    }
    const ssize_t sent =
        sendto(socketSenderDescriptor_, bytes.constData(), static_cast<size_t>(bytes.size()), 0,
               reinterpret_cast<const sockaddr*>(&destinationSenderAddress_),
               sizeof destinationSenderAddress_);
    if (sent < 0) {
        logSystemError("sendto", errno);
        ts::logf("Error while sending string '%s'", bytes.constData());
    }
    close(socketSenderDescriptor_);
    socketSenderDescriptor_ = -1;
}

// --- listening --------------------------------------------------------------

void CommandManager::resetCommandListener() {
    emit commandListenerRunningAboutToChange();
    stopListening();
    if (settings_.listenerEnabled && !startListeningOnPort(settings_.listenerPort))
        stopListening();
    emit commandListenerRunningChanged();
}

bool CommandManager::startListeningOnPort(int port) {
    if (thread_.joinable())
        return false;
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        logSystemError("socket", errno);
        return false;
    }
    if (port < 0 || port > 65535) {
        ts::logf("bind: UDP port %d is out of range", port);
        close(sock);
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        ts::logf("bind: %s (UDP port %d)", std::strerror(error), port);
        close(sock);
        return false;
    }
    // close() does not wake a thread blocked on the socket: the thread waits
    // on this descriptor as well, and stopListening signals it.
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        logSystemError("socket", errno);
        close(sock);
        return false;
    }
    socketDescriptor_ = sock;
    wakeDescriptor_ = wake;
    const std::uint64_t generation = ++listenerGeneration_;
    try {
        thread_ = std::thread(&CommandManager::listenThread, this, sock, wake, generation);
    } catch (const std::exception& e) {
        ts::logf("error with listen thread %s", e.what());
        close(sock);
        close(wake);
        socketDescriptor_ = -1;
        wakeDescriptor_ = -1;
        return false;
    }
    return true;
}

void CommandManager::stopListening() {
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id()) {
            // Settings belong to the main thread; a stop from the receive
            // thread itself could only wait for itself.
            ts::logLine("command listener: cannot be stopped from its own thread");
            return;
        }
        const std::uint64_t one = 1;
        while (write(wakeDescriptor_, &one, sizeof one) < 0 && errno == EINTR) {
        }
        // The thread never waits for the main thread, so this join is short:
        // at most the command being processed finishes first.
        thread_.join();
    }
    if (socketDescriptor_ >= 0)
        close(socketDescriptor_);
    if (wakeDescriptor_ >= 0)
        close(wakeDescriptor_);
    socketDescriptor_ = -1;
    wakeDescriptor_ = -1;
}

// Runs on the receive thread with its own copies of the descriptors, which
// stay open until the thread has been joined.
void CommandManager::listenThread(int sock, int wake, std::uint64_t generation) {
    ts::setCurrentThreadName("CommandListener");
    std::uint64_t invalid = 0;
    auto lastInvalidLog = std::chrono::steady_clock::now() - std::chrono::seconds(1);
    auto reportInvalid = [&] {
        ts::logf("command listener: %llu datagram(s) that are not valid UTF-8 were ignored",
                 static_cast<unsigned long long>(invalid));
        invalid = 0;
        lastInvalidLog = std::chrono::steady_clock::now();
    };
    bool failed = false;
    try {
        std::vector<std::uint8_t> buffer(kReceiveBufferSize);
        pollfd fds[2] = {{sock, POLLIN, 0}, {wake, POLLIN, 0}};
        for (bool running = true; running;) {
            int timeout = -1;
            if (invalid > 0) {
                const auto due =
                    lastInvalidLog + std::chrono::seconds(1) - std::chrono::steady_clock::now();
                if (due <= std::chrono::steady_clock::duration::zero())
                    reportInvalid();
                else
                    timeout =
                        static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(due).count());
            }
            const int ready = poll(fds, 2, timeout);
            if (ready < 0) {
                if (errno == EINTR)
                    continue;
                ts::logf("error with listen thread %s", std::strerror(errno));
                failed = true;
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
                    failed = true;
                    running = false;
                    break;
                }
                const std::span<const std::uint8_t> bytes(buffer.data(), static_cast<size_t>(n));
                if (!isValidUTF8(bytes)) {
                    ++invalid;
                    if (std::chrono::steady_clock::now() - lastInvalidLog >=
                        std::chrono::seconds(1))
                        reportInvalid();
                    continue;
                }
                // On this thread, before the next datagram is taken.
                if (TessarineController* controller = TessarineController::sharedController())
                    controller->processCommandWithString(std::string_view(
                        reinterpret_cast<const char*>(bytes.data()), bytes.size()));
            }
        }
    } catch (const std::exception& e) {
        ts::logf("error with listen thread %s", e.what());
        failed = true;
    } catch (...) {
        ts::logLine("error with listen thread (unknown exception)");
        failed = true;
    }
    if (invalid > 0)
        reportInvalid();
    if (failed) {
        // Tell the main thread, so that commandListenerRunning reads no
        // again; dropped with the manager if it is gone by then.
        QMetaObject::invokeMethod(
            this, [this, generation] { listenThreadEnded(generation); }, Qt::QueuedConnection);
    }
}

void CommandManager::listenThreadEnded(std::uint64_t generation) {
    if (generation != listenerGeneration_ || socketDescriptor_ == -1)
        return;
    emit commandListenerRunningAboutToChange();
    stopListening();
    emit commandListenerRunningChanged();
}

// --- text -------------------------------------------------------------------

bool CommandManager::isValidUTF8(std::span<const std::uint8_t> bytes) {
    std::size_t i = 0;
    const std::size_t n = bytes.size();
    while (i < n) {
        const std::uint8_t lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        std::uint32_t code;
        std::uint32_t minimum;
        if ((lead & 0xE0) == 0xC0) {
            length = 2, code = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, code = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, code = lead & 0x07, minimum = 0x10000;
        } else {
            return false; // a continuation byte, or 0xF8 and above
        }
        if (n - i < length)
            return false;
        for (std::size_t k = 1; k < length; ++k) {
            const std::uint8_t next = bytes[i + k];
            if ((next & 0xC0) != 0x80)
                return false;
            code = (code << 6) | (next & 0x3F);
        }
        if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}
