#include "midi/memory/MemoryMIDIService.h"

#include <algorithm>

std::vector<MIDIEndpointInfo> MemoryMIDIService::sources() {
    std::lock_guard lock(mutex_);
    return sources_;
}

std::vector<MIDIEndpointInfo> MemoryMIDIService::destinations() {
    std::lock_guard lock(mutex_);
    return destinations_;
}

bool MemoryMIDIService::createVirtualDestination(const std::string& name, ReceiveHandler handler) {
    {
        std::lock_guard lock(mutex_);
        virtualDestination_ = std::move(handler);
        destinations_.push_back({nextID_++, name, "", "Tessarine", true});
    }
    reportSetupChange();
    return true;
}

bool MemoryMIDIService::createVirtualSource(const std::string& name) {
    {
        std::lock_guard lock(mutex_);
        virtualSource_ = true;
        sources_.push_back({nextID_++, name, "", "Tessarine", true});
    }
    reportSetupChange();
    return true;
}

bool MemoryMIDIService::publish(const MIDIPacketList& packets) {
    std::lock_guard lock(mutex_);
    if (!virtualSource_)
        return false;
    published_.push_back(packets);
    return true;
}

bool MemoryMIDIService::connectSource(std::uint32_t sourceID, ReceiveHandler handler) {
    std::lock_guard lock(mutex_);
    const bool exists = std::any_of(sources_.begin(), sources_.end(),
                                    [&](const MIDIEndpointInfo& e) { return e.uniqueID == sourceID; });
    if (exists)
        connected_[sourceID] = std::move(handler);
    return exists;
}

void MemoryMIDIService::disconnectSource(std::uint32_t sourceID) {
    std::lock_guard lock(mutex_);
    connected_.erase(sourceID);
}

bool MemoryMIDIService::send(std::uint32_t destinationID, const MIDIPacketList& packets) {
    std::lock_guard lock(mutex_);
    const bool exists =
        std::any_of(destinations_.begin(), destinations_.end(),
                    [&](const MIDIEndpointInfo& e) { return e.uniqueID == destinationID; });
    if (exists)
        sent_[destinationID].push_back(packets);
    return exists;
}

void MemoryMIDIService::setSetupChangedHandler(SetupHandler handler) {
    std::lock_guard lock(mutex_);
    setupChanged_ = std::move(handler);
}

std::uint32_t MemoryMIDIService::addSource(const std::string& name, const std::string& device) {
    std::uint32_t id;
    {
        std::lock_guard lock(mutex_);
        id = nextID_++;
        sources_.push_back({id, name, "", device, false});
    }
    reportSetupChange();
    return id;
}

std::uint32_t MemoryMIDIService::addDestination(const std::string& name, const std::string& device) {
    std::uint32_t id;
    {
        std::lock_guard lock(mutex_);
        id = nextID_++;
        destinations_.push_back({id, name, "", device, false});
    }
    reportSetupChange();
    return id;
}

void MemoryMIDIService::removeEndpoint(std::uint32_t uniqueID) {
    {
        std::lock_guard lock(mutex_);
        const auto gone = [&](const MIDIEndpointInfo& e) { return e.uniqueID == uniqueID; };
        sources_.erase(std::remove_if(sources_.begin(), sources_.end(), gone), sources_.end());
        destinations_.erase(std::remove_if(destinations_.begin(), destinations_.end(), gone),
                            destinations_.end());
        connected_.erase(uniqueID);
    }
    reportSetupChange();
}

bool MemoryMIDIService::injectFromSource(std::uint32_t sourceID, const MIDIPacketList& packets) {
    ReceiveHandler handler;
    {
        std::lock_guard lock(mutex_);
        auto it = connected_.find(sourceID);
        if (it == connected_.end())
            return false;
        handler = it->second;
    }
    handler(packets);
    return true;
}

bool MemoryMIDIService::injectToVirtualDestination(const MIDIPacketList& packets) {
    ReceiveHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = virtualDestination_;
    }
    if (!handler)
        return false;
    handler(packets);
    return true;
}

std::vector<MIDIPacketList> MemoryMIDIService::sentTo(std::uint32_t destinationID) const {
    std::lock_guard lock(mutex_);
    auto it = sent_.find(destinationID);
    return it == sent_.end() ? std::vector<MIDIPacketList>{} : it->second;
}

std::vector<MIDIPacketList> MemoryMIDIService::published() const {
    std::lock_guard lock(mutex_);
    return published_;
}

bool MemoryMIDIService::isConnected(std::uint32_t sourceID) const {
    std::lock_guard lock(mutex_);
    return connected_.count(sourceID) > 0;
}

void MemoryMIDIService::reportSetupChange() {
    SetupHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = setupChanged_;
    }
    if (handler)
        handler();
}
