#include "midi/VVMIDIClient.h"

#include "platform/Defaults.h"
#include "platform/NotificationCenter.h"

#include <mutex>

namespace {

// Guards the client's service pointer. Leaf lock: held only to read or swap it,
// never while the service is called.
std::mutex& clientMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<MIDIService>& clientService() {
    static std::shared_ptr<MIDIService> s;
    return s;
}
// Held while the client is made or replaced, so a second first use waits for
// the first instead of making a second service. Taken before clientMutex.
std::mutex& creationMutex() {
    static std::mutex m;
    return m;
}
bool clientMade = false; // guarded by creationMutex

void forwardSetupChanges(MIDIService& service) {
    service.setSetupChangedHandler([] {
        ts::Notification n;
        n.name = VVMIDIClient::kSetupChangedNotification;
        ts::NotificationCenter::defaultCenter().postNotification(n);
    });
}

} // namespace

bool VVMIDIClient::ensureClient() {
    std::lock_guard creation(creationMutex());
    if (clientMade)
        return true;
    clientMade = true;
    QString backend = ts::Defaults::standard().stringForKey(QStringLiteral("midiBackend"));
    if (backend.isEmpty())
        backend = QStringLiteral("auto");
    std::shared_ptr<MIDIService> made = createMIDIService(backend.toStdString());
    forwardSetupChanges(*made);
    std::lock_guard lock(clientMutex());
    clientService() = std::move(made);
    return true;
}

std::shared_ptr<MIDIService> VVMIDIClient::service() {
    ensureClient();
    std::lock_guard lock(clientMutex());
    return clientService();
}

void VVMIDIClient::installService(std::shared_ptr<MIDIService> service) {
    if (!service)
        service = createNoMIDIService();
    std::lock_guard creation(creationMutex());
    clientMade = true; // an installed service is the client
    forwardSetupChanges(*service);
    std::shared_ptr<MIDIService> old;
    {
        std::lock_guard lock(clientMutex());
        old.swap(clientService());
        clientService() = std::move(service);
    }
    // Nodes made with the old service keep it alive; it reports no more changes.
    if (old)
        old->setSetupChangedHandler({});
}
