#pragma once
// The working part of the JACK MIDI service (see JACKMIDIService.h for what
// the service offers): the client, its ports, the process callback and the
// service thread. It is shared between the service object and its thread,
// so that the service can go while its thread is still inside a handler that
// waits for the very thread destroying the service (a setup change waiting
// for the main thread, say); the thread then ends on its own and lets go.
//
// Threads:
// - the JACK process callback moves bytes only: what arrives on our input
//   ports goes into one lock-free ring (inRing_), what was sent comes from
//   one lock-free ring per output port. It never locks, allocates or calls a
//   handler; it wakes the service thread through an eventfd;
// - the service thread ("JACKMIDI") delivers received packet lists to the
//   handlers, notices setup changes flagged by JACK's notification callbacks
//   and reports them, and after the server went away tries every second to
//   open the client again (ports and connections are remade; MIDI resumes);
// - every public member may be called from any thread, handlers included.

#include "midi/service/MIDIService.h"

#include <jack/jack.h>
#include <jack/ringbuffer.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

class JACKMIDIEngine final : public MIDIService {
public:
    // Answers nullptr, with one log line, when no JACK server answers. Never
    // starts a server.
    static std::shared_ptr<JACKMIDIEngine> create();
    ~JACKMIDIEngine() override;
    // Ends the service thread (or leaves it to end by itself when it is
    // inside a handler) and closes the client. Called once, by the service.
    void stop();
    JACKMIDIEngine(const JACKMIDIEngine&) = delete;
    JACKMIDIEngine& operator=(const JACKMIDIEngine&) = delete;

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

    static constexpr int kMaxInputPorts = 64;  // virtual destinations + connected sources
    static constexpr int kMaxOutputPorts = 64; // virtual sources + destinations sent to

private:
    struct InputPort {
        // Read by the process callback; set under mutex_ (nullptr when none).
        std::atomic<jack_port_t*> port{nullptr};
        // Bumped under handlersMutex_ when the port changes hands, so events
        // of a former owner still in inRing_ are not delivered to the next.
        std::atomic<std::uint32_t> generation{0};
        // Under mutex_:
        bool used = false;
        bool isVirtual = false;
        std::string portName; // our port's short name
        std::uint32_t sourceID = 0;
        std::string sourceName; // full name of the connected source
        // Under handlersMutex_:
        std::shared_ptr<ReceiveHandler> handler;
    };
    struct OutputPort {
        std::atomic<jack_port_t*> port{nullptr}; // as InputPort::port
        // Made once under mutex_ before port is first set; freed by the
        // destructor. Written under mutex_ (one writer), read by the process
        // callback (one reader).
        jack_ringbuffer_t* ring = nullptr;
        // A connection takes effect at a cycle boundary after jack_connect
        // returns; the ring is drained only from this process cycle on, so
        // the first bytes sent to a new connection are not lost.
        std::atomic<std::uint64_t> firstCycle{0};
        // Under mutex_:
        bool used = false;
        bool isVirtual = false;
        std::string portName;
        std::uint32_t destinationID = 0;
        std::string destinationName;
    };

    JACKMIDIEngine() = default;

    // Opens the client, remakes the ports in use and their connections, and
    // activates it. Caller holds mutex_ (or is the constructor). quiet: no
    // log line when no server answers.
    bool openClient(bool quiet);
    void closeClient(); // caller holds mutex_
    bool registerPort(InputPort& slot);
    bool registerPort(OutputPort& slot);
    void releasePort(std::atomic<jack_port_t*>& port);
    void forgetOutput(OutputPort& slot); // caller holds mutex_; port already released
    void connectPorts();                 // caller holds mutex_: remakes missing connections
    // Waits until the process callback is no longer inside a cycle that may
    // have read a port pointer that was just cleared.
    void waitForProcessCycle();

    std::vector<MIDIEndpointInfo> listEndpoints(unsigned long flags);
    std::string findPortName(std::uint32_t uniqueID, unsigned long flags);
    std::string endpointSnapshot(); // caller holds mutex_
    template <typename Ports>
    static std::string privatePortName(const char* prefix, const Ports& ports);
    bool writePackets(OutputPort& slot, const MIDIPacketList& packets);

    void run();
    void deliverInput();
    void handleServerLoss();
    void checkSetup();
    void reportSetupChange();
    void callReceiveHandler(const ReceiveHandler& handler, const MIDIPacketList& packets);
    void wake();

    static int processCallback(jack_nframes_t frames, void* arg);
    int process(jack_nframes_t frames);
    static void shutdownCallback(jack_status_t code, const char* reason, void* arg);
    static void portRegistrationCallback(jack_port_id_t, int, void* arg);
    static void portRenameCallback(jack_port_id_t, const char*, const char*, void* arg);
    static void clientRegistrationCallback(const char*, int, void* arg);

    // Lock order: mutex_, then handlersMutex_. Neither is held while a
    // handler runs; the process callback takes neither.
    mutable std::mutex mutex_; // the client, the ports' bookkeeping, lastSnapshot_
    std::atomic<jack_client_t*> client_{nullptr}; // written under mutex_
    std::string clientName_;                      // under mutex_
    std::array<InputPort, kMaxInputPorts> inputs_;
    std::array<OutputPort, kMaxOutputPorts> outputs_;
    std::string lastSnapshot_; // endpoints last reported, under mutex_

    mutable std::mutex handlersMutex_; // leaf: InputPort::handler, setupHandler_
    SetupHandler setupHandler_;

    // Received events: written by the process callback only, read by the
    // service thread only.
    jack_ringbuffer_t* inRing_ = nullptr;
    std::atomic<std::uint64_t> droppedEvents_{0};

    // Process-cycle bookkeeping for waitForProcessCycle().
    std::atomic<bool> inCycle_{false};
    std::atomic<std::uint64_t> cycles_{0};

    // Flags raised by JACK's threads and picked up by the service thread.
    std::atomic<bool> setupFlag_{false};
    std::atomic<bool> serverGone_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> inHandler_{false};  // the service thread runs a handler
    std::atomic<bool> threadDone_{false}; // the service thread has left run()
    int wakeFd_ = -1;
    std::thread thread_;
};
