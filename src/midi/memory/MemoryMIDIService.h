#pragma once
// A MIDI service held in memory, for tests that need exact control: they add
// and remove endpoints, inject packets from a source or into the virtual
// destination (delivered on the calling thread), and read what was sent and
// published.

#include "midi/service/MIDIService.h"

#include <map>
#include <mutex>

class MemoryMIDIService : public MIDIService {
public:
    std::string name() const override { return "memory"; }
    std::vector<MIDIEndpointInfo> sources() override;
    std::vector<MIDIEndpointInfo> destinations() override;
    bool createVirtualDestination(const std::string& name, ReceiveHandler handler) override;
    bool createVirtualSource(const std::string& name) override;
    bool publish(const MIDIPacketList& packets) override;
    bool connectSource(std::uint32_t sourceID, ReceiveHandler handler) override;
    void disconnectSource(std::uint32_t sourceID) override;
    bool send(std::uint32_t destinationID, const MIDIPacketList& packets) override;
    void setSetupChangedHandler(SetupHandler handler) override;

    // Test controls. Adding or removing an endpoint reports a setup change.
    std::uint32_t addSource(const std::string& name, const std::string& device = {});
    std::uint32_t addDestination(const std::string& name, const std::string& device = {});
    void removeEndpoint(std::uint32_t uniqueID);
    // Delivers to the handler connected to that source; false when none is.
    bool injectFromSource(std::uint32_t sourceID, const MIDIPacketList& packets);
    // Delivers to the virtual destination's handler; false when there is none.
    bool injectToVirtualDestination(const MIDIPacketList& packets);
    std::vector<MIDIPacketList> sentTo(std::uint32_t destinationID) const;
    std::vector<MIDIPacketList> published() const;
    bool isConnected(std::uint32_t sourceID) const;

private:
    void reportSetupChange();

    mutable std::mutex mutex_; // guards everything below; never held while a handler runs
    std::uint32_t nextID_ = 1000;
    std::vector<MIDIEndpointInfo> sources_, destinations_;
    std::map<std::uint32_t, ReceiveHandler> connected_;
    ReceiveHandler virtualDestination_;
    bool virtualSource_ = false;
    std::map<std::uint32_t, std::vector<MIDIPacketList>> sent_;
    std::vector<MIDIPacketList> published_;
    SetupHandler setupChanged_;
};
