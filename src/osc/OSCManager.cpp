#include "osc/OSCManager.h"

#include "app/TessarineController.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCListener.h"
#include "osc/BBOSCSender.h"
#include "osc/DelegateWrapper.h"
#include "platform/Defaults.h"
#include "platform/Log.h"
#include "platform/NilValue.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

namespace {

const char* const kSenderMachineKey = "oscSenderMachine";
const char* const kSenderPortKey = "oscSenderPort";
const char* const kListenerPortKey = "oscListenerPort";
const char* const kSenderEnabledKey = "oscSenderIsEnabled";
const char* const kListenerEnabledKey = "oscListenerIsEnabled";
const char* const kDefaultSenderMachine = "localhost";

int portOrDefault(const ts::Defaults& defaults, const char* key, int fallback) {
    const std::int64_t stored = defaults.integerForKey(key);
    return stored == 0 ? fallback : static_cast<int>(stored);
}

bool flagOrOn(const ts::Defaults& defaults, const char* key) {
    return defaults.hasKey(key) ? defaults.boolForKey(key) : true;
}

} // namespace

OSCManager::Settings OSCManager::readSettings(const ts::Defaults& defaults) {
    Settings s;
    s.senderMachine = defaults.hasKey(kSenderMachineKey) ? defaults.stringForKey(kSenderMachineKey)
                                                         : QString(kDefaultSenderMachine);
    s.senderPort = portOrDefault(defaults, kSenderPortKey, kDefaultSenderPort);
    s.listenerPort = portOrDefault(defaults, kListenerPortKey, kDefaultListenerPort);
    s.senderEnabled = flagOrOn(defaults, kSenderEnabledKey);
    s.listenerEnabled = flagOrOn(defaults, kListenerEnabledKey);
    return s;
}

OSCManager::OSCManager(QObject* parent) : QObject(parent) {
    settings_ = readSettings(ts::Defaults::standard());
    resetOscSender();
    resetOscListener();
}

OSCManager::~OSCManager() {
    // The listener's delegate points back here: it goes first.
    if (oscListener_)
        oscListener_->stopListening();
    oscListener_.reset();
    std::unique_ptr<BBOSCSender> old;
    {
        std::lock_guard lock(senderLock_);
        old = std::move(oscSender_);
    }
}

// --- settings ---------------------------------------------------------------

void OSCManager::setOscSenderMachine(const QString& machine) {
    settings_.senderMachine = machine;
    emit oscSenderMachineChanged();
    ts::Defaults::standard().setStringForKey(machine, kSenderMachineKey);
    resetOscSender();
}

void OSCManager::setOscSenderPort(int port) {
    settings_.senderPort = port;
    emit oscSenderPortChanged();
    ts::Defaults::standard().setIntegerForKey(port, kSenderPortKey);
    resetOscSender();
}

void OSCManager::setOscSenderEnabled(bool enabled) {
    settings_.senderEnabled = enabled;
    emit oscSenderEnabledChanged();
    ts::Defaults::standard().setBoolForKey(enabled, kSenderEnabledKey);
    resetOscSender();
}

void OSCManager::setOscListenerPort(int port) {
    settings_.listenerPort = port;
    emit oscListenerPortChanged();
    ts::Defaults::standard().setIntegerForKey(port, kListenerPortKey);
    resetOscListener();
}

void OSCManager::setOscListenerEnabled(bool enabled) {
    settings_.listenerEnabled = enabled;
    emit oscListenerEnabledChanged();
    ts::Defaults::standard().setBoolForKey(enabled, kListenerEnabledKey);
    resetOscListener();
}

void OSCManager::setNilValueForKey(const QString& key) {
    ts::setNilValueForKey(*this, key);
}

// --- rebuilding -------------------------------------------------------------

void OSCManager::resetOscSender() {
    emit oscSenderAboutToChange();
    // Made before the swap and destroyed after it, both outside the lock, so
    // a send on another thread waits only for the pointer exchange.
    std::unique_ptr<BBOSCSender> fresh;
    if (settings_.senderEnabled)
        fresh = BBOSCSender::senderWithDestinationHostNamePortNumber(
            settings_.senderMachine.toStdString(), settings_.senderPort);
    {
        std::lock_guard lock(senderLock_);
        std::swap(oscSender_, fresh);
    }
    fresh.reset(); // the old sender, with any bundle it had pending
    emit oscSenderChanged();
}

void OSCManager::resetOscListener() {
    emit oscListenerAboutToChange();
    // The old socket is closed before the new one binds, so the same port
    // can be taken again.
    if (oscListener_)
        oscListener_->stopListening();
    oscListener_.reset();
    if (settings_.listenerEnabled) {
        oscListener_ = BBOSCListener::defaultListenerOnPort(settings_.listenerPort);
        if (oscListener_)
            oscListener_->setDelegate(DelegateWrapper::wrapperWithTargetAndSelector(
                this, &OSCManager::dispatchRawPacket));
    }
    emit oscListenerChanged();
}

// --- receiving --------------------------------------------------------------

void OSCManager::dispatchRawPacket(std::span<const uint8_t> datagram) {
    const std::unique_ptr<BBOSCPacket> packet = BBOSCDecoder::decodeData(datagram);
    if (!packet) {
        undecodableDatagram();
        return;
    }
    processPacket(packet.get());
}

void OSCManager::processPacket(const BBOSCPacket* packet) {
    if (!packet)
        return;
    if (const BBOSCMessage* message = packet->asMessage()) {
        // Looked up for every message: the controller may be replaced (or
        // gone at quit) while datagrams are still queued.
        if (TessarineController* controller = TessarineController::sharedController())
            controller->processKorvalisOSCMessageWithAddressAndArguments(
                message->addressString(), message->attachedObjects());
    } else if (const BBOSCBundle* bundle = packet->asBundle()) {
        for (const auto& element : bundle->attachedObjects())
            processPacket(element.get());
    }
}

void OSCManager::undecodableDatagram() {
    // One line a second at most, however fast a broken peer sends.
    ++undecodableDatagrams_;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastUndecodableLog_ < std::chrono::seconds(1))
        return;
    lastUndecodableLog_ = now;
    ts::logf("OSC input: %llu datagram(s) could not be decoded and were dropped",
             static_cast<unsigned long long>(undecodableDatagrams_));
    undecodableDatagrams_ = 0;
}

// --- sending ----------------------------------------------------------------

void OSCManager::sendOSCMessageAtAddressWithValue(const QString& address, float value) {
    auto message = BBOSCMessage::messageWithBBOSCAddress(
        BBOSCAddress::addressWithString(address.toStdString()));
    message->attachArgument(BBOSCArgument::argumentWithFloat(value));
    std::lock_guard lock(senderLock_);
    if (oscSender_)
        oscSender_->addOSCMessage(std::move(message));
}

// --- local address ----------------------------------------------------------

QString OSCManager::localIPAmongInterfaces(std::span<const InterfaceAddress> interfaces) {
    // Wired ("en..." under systemd's names, "eth..." under the kernel's) and
    // wireless ("wl...") interfaces; loopback, bridges, tunnels and
    // container links are not where a peer on the network reaches us.
    const InterfaceAddress* chosen = nullptr;
    for (const InterfaceAddress& entry : interfaces) {
        const std::string_view name = entry.name;
        if (name.starts_with("en") || name.starts_with("eth") || name.starts_with("wl"))
            chosen = &entry;
    }
    return chosen ? QString::fromStdString(chosen->address) : QStringLiteral("(not set)");
}

bool OSCManager::readInterfaceAddresses(std::vector<InterfaceAddress>& out) {
    out.clear();
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET || !entry->ifa_name)
            continue;
        char dotted[INET_ADDRSTRLEN] = {};
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        if (inet_ntop(AF_INET, &address->sin_addr, dotted, sizeof dotted))
            out.push_back({entry->ifa_name, dotted});
    }
    freeifaddrs(list);
    return true;
}

QString OSCManager::localIP() const {
    std::vector<InterfaceAddress> interfaces;
    if (!readInterfaceAddresses(interfaces))
        return QStringLiteral("(not set)");
    return localIPAmongInterfaces(interfaces);
}
