#pragma once
// The MIDI service over a JACK server (jackd, or PipeWire's JACK).
//
// The program is the JACK client "Tessarine". Its virtual destination is an
// input port ("To Tessarine"), its virtual source an output port ("From
// Tessarine"). Every other JACK MIDI output port is a source, every other
// JACK MIDI input port a destination; the endpoint's deviceName is the JACK
// client ("system", "a2j", ...), its name the port's short name, its model
// empty (JACK knows none). The unique ID is a 32-bit hash of the full port
// name "client:port", never 0: the same port keeps its ID while it lives,
// when it comes back after its program restarts, and across a restart of the
// server, which port UUIDs do not (the server hands them out again).
//
// Connecting a source registers one private input port of ours per source
// ("in <n>") and connects the source to it, so every event is known to come
// from that source. Sending to a destination registers one private output
// port per destination ("out <n>") on the first send and connects it; it goes
// when its destination goes. These private ports are never listed as
// endpoints, and their coming and going is not a setup change.
//
// Received packets arrive on the service's own thread ("JACKMIDI"), one
// packet per JACK event, all events of one port in one process cycle in one
// list. Their timestamps: the event's frame is turned into JACK's microsecond
// clock with JACK's own frame/time estimate, then moved onto CLOCK_MONOTONIC
// by the difference between the two clocks read in the same process cycle;
// the result is within about a period of when the event reached the server.
// Sent packets are cut into one JACK event per message and go out in the next
// process cycle, whatever their timestamp.
//
// When the server goes away: one log line, a setup change (nothing is listed
// any more; sends, publishing and connecting answer false), and every second
// a quiet attempt to reach it again. When it is back: one log line, the
// client, the virtual ports and the connections to sources are made again
// (the handlers given before still receive), and a setup change.
//
// After disconnectSource() returns, a delivery already under way on the
// service thread may still finish. Destroying the service never waits for a
// handler that is running: the service thread finishes it and ends by itself.

#include "midi/service/MIDIService.h"

#include <memory>
#include <string_view>

class JACKMIDIEngine;

class JACKMIDIService final : public MIDIService {
public:
    // Answers nullptr, with one log line, when no JACK server answers. Never
    // starts a server.
    static std::unique_ptr<JACKMIDIService> create();
    ~JACKMIDIService() override;
    JACKMIDIService(const JACKMIDIService&) = delete;
    JACKMIDIService& operator=(const JACKMIDIService&) = delete;

    std::string name() const override { return "jack"; }
    std::vector<MIDIEndpointInfo> sources() override;
    std::vector<MIDIEndpointInfo> destinations() override;
    bool createVirtualDestination(const std::string& name, ReceiveHandler handler) override;
    bool createVirtualSource(const std::string& name) override;
    bool publish(const MIDIPacketList& packets) override;
    bool connectSource(std::uint32_t sourceID, ReceiveHandler handler) override;
    void disconnectSource(std::uint32_t sourceID) override;
    bool send(std::uint32_t destinationID, const MIDIPacketList& packets) override;
    void setSetupChangedHandler(SetupHandler handler) override;

    // The JACK client name the server gave us ("Tessarine" unless another
    // client holds it); empty while the server is away.
    std::string clientName() const;
    // False while the server is away.
    bool isConnectedToServer() const;

    // The endpoint ID of a full port name ("client:port"): FNV-1a, 0 mapped to 1.
    static std::uint32_t uniqueIDForPortName(std::string_view fullName);

private:
    explicit JACKMIDIService(std::shared_ptr<JACKMIDIEngine> engine);
    std::shared_ptr<JACKMIDIEngine> engine_;
};
