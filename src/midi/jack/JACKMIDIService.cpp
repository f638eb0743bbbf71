#include "midi/jack/JACKMIDIService.h"

#include "midi/jack/JACKMIDIEngine.h"

std::unique_ptr<JACKMIDIService> JACKMIDIService::create() {
    std::shared_ptr<JACKMIDIEngine> engine = JACKMIDIEngine::create();
    if (!engine)
        return nullptr;
    return std::unique_ptr<JACKMIDIService>(new JACKMIDIService(std::move(engine)));
}

std::unique_ptr<MIDIService> createJACKMIDIService() {
    return JACKMIDIService::create();
}

JACKMIDIService::JACKMIDIService(std::shared_ptr<JACKMIDIEngine> engine)
    : engine_(std::move(engine)) {}

JACKMIDIService::~JACKMIDIService() {
    engine_->stop();
}

std::vector<MIDIEndpointInfo> JACKMIDIService::sources() {
    return engine_->sources();
}
std::vector<MIDIEndpointInfo> JACKMIDIService::destinations() {
    return engine_->destinations();
}

bool JACKMIDIService::createVirtualDestination(const std::string& name, ReceiveHandler handler) {
    return engine_->createVirtualDestination(name, std::move(handler));
}

bool JACKMIDIService::createVirtualSource(const std::string& name) {
    return engine_->createVirtualSource(name);
}

bool JACKMIDIService::publish(const MIDIPacketList& packets) {
    return engine_->publish(packets);
}

bool JACKMIDIService::connectSource(std::uint32_t sourceID, ReceiveHandler handler) {
    return engine_->connectSource(sourceID, std::move(handler));
}

void JACKMIDIService::disconnectSource(std::uint32_t sourceID) {
    engine_->disconnectSource(sourceID);
}

bool JACKMIDIService::send(std::uint32_t destinationID, const MIDIPacketList& packets) {
    return engine_->send(destinationID, packets);
}

void JACKMIDIService::setSetupChangedHandler(SetupHandler handler) {
    engine_->setSetupChangedHandler(std::move(handler));
}

std::string JACKMIDIService::clientName() const {
    return engine_->clientName();
}
bool JACKMIDIService::isConnectedToServer() const {
    return engine_->isConnectedToServer();
}

std::uint32_t JACKMIDIService::uniqueIDForPortName(std::string_view fullName) {
    return JACKMIDIEngine::uniqueIDForPortName(fullName);
}
