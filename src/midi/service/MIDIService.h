#pragma once
// The MIDI service of the machine, behind one interface: the system's MIDI
// sources and destinations with their names and stable IDs, this program's
// own virtual endpoints, input from a source, output to a destination, and
// notice of endpoints appearing and vanishing. Backends: the ALSA sequencer,
// JACK (also served by PipeWire), and an in-memory one for tests.
//
// Threads: receive handlers run on a thread of the backend (never the JACK
// process callback, never the main thread); the setup handler likewise. All
// other members may be called from any thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct MIDIEndpointInfo {
    std::uint32_t uniqueID = 0; // stable for the endpoint's life; never 0
    std::string name;           // port name as the service shows it
    std::string model;          // client or device model, may be empty
    std::string deviceName;     // client or device name, may be empty
    bool own = false;           // one of this program's virtual endpoints
};

struct MIDIPacket {
    std::uint64_t timestamp = 0; // host time in ns (CLOCK_MONOTONIC); 0 = now
    std::vector<std::uint8_t> bytes;
};
using MIDIPacketList = std::vector<MIDIPacket>;

class MIDIService {
public:
    using ReceiveHandler = std::function<void(const MIDIPacketList& packets)>;
    using SetupHandler = std::function<void()>;

    virtual ~MIDIService() = default;

    // "alsa", "jack", "memory" or "none", for log lines.
    virtual std::string name() const = 0;

    virtual std::vector<MIDIEndpointInfo> sources() = 0;
    virtual std::vector<MIDIEndpointInfo> destinations() = 0;

    // This program's virtual destination: what other programs send to it
    // arrives on the handler.
    virtual bool createVirtualDestination(const std::string& name, ReceiveHandler handler) = 0;
    // This program's virtual source, published on with publish().
    virtual bool createVirtualSource(const std::string& name) = 0;
    virtual bool publish(const MIDIPacketList& packets) = 0;

    // Input from a system source; false when there is no such source.
    virtual bool connectSource(std::uint32_t sourceID, ReceiveHandler handler) = 0;
    virtual void disconnectSource(std::uint32_t sourceID) = 0;
    // Output to a system destination.
    virtual bool send(std::uint32_t destinationID, const MIDIPacketList& packets) = 0;

    // Called whenever endpoints appear or vanish (also after the service
    // itself went away or came back).
    virtual void setSetupChangedHandler(SetupHandler handler) = 0;
};

// "auto": ALSA when the sequencer opens, else JACK when a server answers,
// else none (one log line). "alsa", "jack", "none": that backend only (none
// when it cannot start, with a log line). Never nullptr.
std::unique_ptr<MIDIService> createMIDIService(const std::string& backend);

// A service with no endpoints that accepts nothing: no MIDI on this machine.
std::unique_ptr<MIDIService> createNoMIDIService();
