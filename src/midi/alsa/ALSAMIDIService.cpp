#include "midi/alsa/ALSAMIDIService.h"

#include "midi/alsa/ALSAMIDIEngine.h"

std::unique_ptr<ALSAMIDIService> ALSAMIDIService::create() {
    std::shared_ptr<ALSAMIDIEngine> engine = ALSAMIDIEngine::create();
    if (!engine)
        return nullptr;
    return std::unique_ptr<ALSAMIDIService>(new ALSAMIDIService(std::move(engine)));
}

std::unique_ptr<MIDIService> createALSAMIDIService() {
    return ALSAMIDIService::create();
}

ALSAMIDIService::ALSAMIDIService(std::shared_ptr<ALSAMIDIEngine> engine)
    : engine_(std::move(engine)) {}

ALSAMIDIService::~ALSAMIDIService() {
    engine_->stop();
}

std::vector<MIDIEndpointInfo> ALSAMIDIService::sources() {
    return engine_->sources();
}
std::vector<MIDIEndpointInfo> ALSAMIDIService::destinations() {
    return engine_->destinations();
}

bool ALSAMIDIService::createVirtualDestination(const std::string& name, ReceiveHandler handler) {
    return engine_->createVirtualDestination(name, std::move(handler));
}

bool ALSAMIDIService::createVirtualSource(const std::string& name) {
    return engine_->createVirtualSource(name);
}

bool ALSAMIDIService::publish(const MIDIPacketList& packets) {
    return engine_->publish(packets);
}

bool ALSAMIDIService::connectSource(std::uint32_t sourceID, ReceiveHandler handler) {
    return engine_->connectSource(sourceID, std::move(handler));
}

void ALSAMIDIService::disconnectSource(std::uint32_t sourceID) {
    engine_->disconnectSource(sourceID);
}

bool ALSAMIDIService::send(std::uint32_t destinationID, const MIDIPacketList& packets) {
    return engine_->send(destinationID, packets);
}

void ALSAMIDIService::setSetupChangedHandler(SetupHandler handler) {
    engine_->setSetupChangedHandler(std::move(handler));
}

std::string ALSAMIDIService::sequencerDevicePath() {
    return ALSAMIDIEngine::sequencerDevicePath();
}

std::uint32_t ALSAMIDIService::uniqueIDForAddress(int client, int port) {
    return ALSAMIDIEngine::uniqueIDForAddress(client, port);
}

bool ALSAMIDIService::addressForUniqueID(std::uint32_t uniqueID, int& client, int& port) {
    return ALSAMIDIEngine::addressForUniqueID(uniqueID, client, port);
}
