#pragma once
// The MIDI service over the ALSA sequencer.
//
// The program is the sequencer client "Tessarine". Its virtual destination is
// a writable, subscribable port ("To Tessarine"), its virtual source a
// readable, subscribable one ("From Tessarine"). The ports of other clients
// that others may subscribe to are the endpoints: readable ones are sources,
// writable ones destinations (a port can be both). deviceName is the
// sequencer client's name, name the port's, model the sound card's name for
// the ports of a card (empty for programs). The unique ID of the port at
// client:port is (client << 8 | port) + 1: never 0, the same for as long as
// the port exists, and the address is read back from it.
//
// Besides the virtual ports the client has two private ports that nobody
// else may subscribe to: one input, to which connected sources and the
// system's announce port are subscribed (an event's source address tells
// which source it came from; announcements are setup changes), and one
// output from which events are sent straight to a destination.
//
// Threads: a thread of the service ("ALSAMIDI") waits in poll() on the
// sequencer's descriptors and a wake descriptor, reads the events, turns them
// into bytes and calls the handlers; it reports setup changes. Every public
// member may be called from any thread. Received packets carry the time they
// were read (CLOCK_MONOTONIC): no sequencer queue stamps them. Packets sent
// with a timestamp go out at once.
//
// After disconnectSource() returns, a delivery already under way on the
// service thread may still finish. Destroying the service never waits for a
// handler that is running: the service thread finishes it and ends by itself.
//
// When the sequencer stops answering (the kernel module going away) the
// service logs one line, reports a setup change and from then on lists
// nothing and accepts nothing.

#include "midi/service/MIDIService.h"

#include <memory>

class ALSAMIDIEngine;

class ALSAMIDIService final : public MIDIService {
public:
    // Answers nullptr, with one log line, when the sequencer cannot be opened.
    static std::unique_ptr<ALSAMIDIService> create();
    ~ALSAMIDIService() override;
    ALSAMIDIService(const ALSAMIDIService&) = delete;
    ALSAMIDIService& operator=(const ALSAMIDIService&) = delete;

    std::string name() const override { return "alsa"; }
    std::vector<MIDIEndpointInfo> sources() override;
    std::vector<MIDIEndpointInfo> destinations() override;
    bool createVirtualDestination(const std::string& name, ReceiveHandler handler) override;
    bool createVirtualSource(const std::string& name) override;
    bool publish(const MIDIPacketList& packets) override;
    bool connectSource(std::uint32_t sourceID, ReceiveHandler handler) override;
    void disconnectSource(std::uint32_t sourceID) override;
    bool send(std::uint32_t destinationID, const MIDIPacketList& packets) override;
    void setSetupChangedHandler(SetupHandler handler) override;

    // The sequencer device checked before the sequencer is opened:
    // $TESSARINE_ALSA_SEQ_DEVICE when set, else /dev/snd/seq.
    static std::string sequencerDevicePath();

    static std::uint32_t uniqueIDForAddress(int client, int port);
    // False for IDs no address gives.
    static bool addressForUniqueID(std::uint32_t uniqueID, int& client, int& port);

private:
    explicit ALSAMIDIService(std::shared_ptr<ALSAMIDIEngine> engine);
    std::shared_ptr<ALSAMIDIEngine> engine_;
};
