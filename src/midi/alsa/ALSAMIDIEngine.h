#pragma once
// The working part of the ALSA sequencer MIDI service (see ALSAMIDIService.h
// for what the service offers): the sequencer client, its ports and the
// service thread ("ALSAMIDI"), which waits in poll() on the sequencer's
// descriptors and a wake descriptor, reads the events, turns them into bytes
// and calls the handlers, and reports setup changes. It is shared between the
// service object and its thread, so that the service can go while its thread
// is still inside a handler that waits for the very thread destroying the
// service; the thread then ends on its own and lets go. Every public member
// may be called from any thread.

#include "midi/alsa/ALSAMIDIEventCodec.h"
#include "midi/service/MIDIService.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

class ALSAMIDIEngine final : public MIDIService {
public:
    // Answers nullptr, with one log line, when the sequencer cannot be opened.
    static std::shared_ptr<ALSAMIDIEngine> create();
    ~ALSAMIDIEngine() override;
    // Ends the service thread (or leaves it to end by itself when it is
    // inside a handler). Called once, by the service.
    void stop();
    ALSAMIDIEngine(const ALSAMIDIEngine&) = delete;
    ALSAMIDIEngine& operator=(const ALSAMIDIEngine&) = delete;

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
    struct VirtualPort {
        std::string name;
        bool input = false; // a virtual destination
        std::shared_ptr<ReceiveHandler> handler;
    };

    ALSAMIDIEngine() = default;
    std::vector<MIDIEndpointInfo> listEndpoints(bool wantSources);
    bool sendEvents(const MIDIPacketList& packets, int destClient, int destPort, int fromPort);
    void run();
    void readEvents();
    void wake();
    void reportSetupChange();
    void callReceiveHandler(const ReceiveHandler& handler, const MIDIPacketList& packets);

    // Lock order: seqMutex_, then handlersMutex_. Neither is held while a
    // handler runs. Calls on the sequencer never block (it is opened
    // non-blocking), so seqMutex_ is held only briefly.
    mutable std::mutex seqMutex_; // every call on seq_, the port and handler tables
    snd_seq_t* seq_ = nullptr;
    int clientID_ = -1;
    int inputPort_ = -1;                      // private: connected sources and announcements
    int outputPort_ = -1;                     // private: direct sends
    std::map<int, VirtualPort> virtualPorts_; // by our port number
    std::map<std::uint32_t, std::shared_ptr<ReceiveHandler>> connected_; // by source ID
    ALSAMIDIEventCodec encoder_;                                         // under seqMutex_
    std::atomic<bool> dead_{false}; // the sequencer stopped answering

    mutable std::mutex handlersMutex_; // leaf: setupHandler_
    SetupHandler setupHandler_;

    ALSAMIDIEventCodec decoder_; // the service thread's own
    std::atomic<bool> stopping_{false};
    std::atomic<bool> inHandler_{false};  // the service thread runs a handler
    std::atomic<bool> threadDone_{false}; // the service thread has left run()
    int wakeFd_ = -1;
    std::thread thread_;
};
