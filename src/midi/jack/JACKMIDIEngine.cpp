#include "midi/jack/JACKMIDIEngine.h"

#include "midi/jack/JACKMIDIEventSplitter.h"
#include "platform/Log.h"
#include "platform/ThreadName.h"

#include <jack/midiport.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace {

constexpr const char* kClientName = "Tessarine";
constexpr std::size_t kInRingBytes = 256 * 1024;
constexpr std::size_t kOutRingBytes = 32 * 1024;
constexpr auto kRetryInterval = std::chrono::seconds(1);

// One received event in the input ring, followed by its bytes.
struct InRecord {
    std::uint64_t timestamp;
    std::uint32_t generation;
    std::uint16_t port;
    std::uint16_t size;
};
static_assert(sizeof(InRecord) == 16);

std::uint64_t monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

struct Chunk {
    const void* data;
    std::size_t size;
};

// Writes the chunks as one record: the reader sees all of it or none of it.
// Lock-free, no allocation: safe in the process callback.
bool ringPut(jack_ringbuffer_t* ring, std::initializer_list<Chunk> chunks) {
    std::size_t total = 0;
    for (const Chunk& c : chunks)
        total += c.size;
    if (jack_ringbuffer_write_space(ring) < total)
        return false;
    jack_ringbuffer_data_t vec[2];
    jack_ringbuffer_get_write_vector(ring, vec);
    int seg = 0;
    std::size_t at = 0;
    for (const Chunk& c : chunks) {
        auto* from = static_cast<const char*>(c.data);
        std::size_t left = c.size;
        while (left > 0) {
            if (at == vec[seg].len) {
                ++seg;
                at = 0;
            }
            const std::size_t n = std::min(left, vec[seg].len - at);
            std::memcpy(vec[seg].buf + at, from, n);
            at += n;
            from += n;
            left -= n;
        }
    }
    jack_ringbuffer_write_advance(ring, total);
    return true;
}

// libjack reports to standard error on its own, for instance three lines for
// each attempt to reach a server that is not there; the service says what
// matters in the project log instead.
void silentJACKMessage(const char*) {}

} // namespace

// ---- creation and teardown ---------------------------------------------------

std::shared_ptr<JACKMIDIEngine> JACKMIDIEngine::create() {
    static std::once_flag silenced;
    std::call_once(silenced, [] {
        jack_set_error_function(silentJACKMessage);
        jack_set_info_function(silentJACKMessage);
    });
    std::shared_ptr<JACKMIDIEngine> service(new JACKMIDIEngine);
    service->wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    service->inRing_ = jack_ringbuffer_create(kInRingBytes);
    if (service->wakeFd_ < 0 || !service->inRing_) {
        ts::logf("MIDI: the JACK service cannot start (%s)", std::strerror(errno));
        return nullptr;
    }
    {
        std::lock_guard lock(service->mutex_);
        if (!service->openClient(false))
            return nullptr;
        service->lastSnapshot_ = service->endpointSnapshot();
    }
    // The thread shares the engine: it may outlive the service (see stop()).
    service->thread_ = std::thread([engine = service] {
        engine->run();
        engine->threadDone_.store(true);
    });
    return service;
}

void JACKMIDIEngine::stop() {
    stopping_.store(true);
    wake();
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach(); // the service is dropped from one of its handlers
    } else {
        // A handler may be waiting for this very thread: then the service
        // thread is left to finish it and end by itself.
        while (!threadDone_.load() && !inHandler_.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (threadDone_.load())
            thread_.join();
        else
            thread_.detach();
    }
    std::lock_guard lock(mutex_);
    closeClient();
}

JACKMIDIEngine::~JACKMIDIEngine() {
    {
        std::lock_guard lock(mutex_);
        closeClient();
    }
    for (OutputPort& slot : outputs_)
        if (slot.ring)
            jack_ringbuffer_free(slot.ring);
    if (inRing_)
        jack_ringbuffer_free(inRing_);
    if (wakeFd_ >= 0)
        close(wakeFd_);
}

bool JACKMIDIEngine::openClient(bool quiet) {
    if (stopping_.load())
        return false;
    jack_status_t status{};
    jack_client_t* client = jack_client_open(kClientName, JackNoStartServer, &status);
    if (!client) {
        if (!quiet)
            ts::logf("MIDI: no JACK server answers (status 0x%x)", static_cast<unsigned>(status));
        return false;
    }
    jack_set_process_callback(client, &JACKMIDIEngine::processCallback, this);
    jack_on_info_shutdown(client, &JACKMIDIEngine::shutdownCallback, this);
    jack_set_port_registration_callback(client, &JACKMIDIEngine::portRegistrationCallback, this);
    jack_set_port_rename_callback(client, &JACKMIDIEngine::portRenameCallback, this);
    jack_set_client_registration_callback(client, &JACKMIDIEngine::clientRegistrationCallback,
                                          this);
    client_.store(client);
    clientName_ = jack_get_client_name(client);
    // After a server restart the ports in use come back under their names;
    // private output ports are made again by the next send.
    for (InputPort& slot : inputs_)
        if (slot.used)
            registerPort(slot);
    for (OutputPort& slot : outputs_) {
        if (slot.used && slot.isVirtual)
            registerPort(slot);
        else if (slot.used)
            forgetOutput(slot);
    }
    if (jack_activate(client) != 0) {
        ts::logLine("MIDI: the JACK server refused to run the Tessarine client");
        closeClient();
        return false;
    }
    connectPorts();
    return true;
}

void JACKMIDIEngine::closeClient() {
    jack_client_t* client = client_.load();
    if (!client)
        return;
    // Closing deactivates first: the process callback is over when it returns.
    for (InputPort& slot : inputs_)
        slot.port.store(nullptr);
    for (OutputPort& slot : outputs_)
        slot.port.store(nullptr);
    jack_client_close(client);
    client_.store(nullptr);
    clientName_.clear();
    inCycle_.store(false);
    for (OutputPort& slot : outputs_)
        if (slot.ring)
            jack_ringbuffer_reset(slot.ring); // no reader any more
}

bool JACKMIDIEngine::registerPort(InputPort& slot) {
    jack_port_t* port = jack_port_register(client_.load(), slot.portName.c_str(),
                                           JACK_DEFAULT_MIDI_TYPE, JackPortIsInput, 0);
    if (!port) {
        ts::logf("MIDI: JACK refused the input port \"%s\"", slot.portName.c_str());
        return false;
    }
    slot.port.store(port);
    return true;
}

bool JACKMIDIEngine::registerPort(OutputPort& slot) {
    if (!slot.ring)
        slot.ring = jack_ringbuffer_create(kOutRingBytes);
    jack_port_t* port = slot.ring ? jack_port_register(client_.load(), slot.portName.c_str(),
                                                       JACK_DEFAULT_MIDI_TYPE, JackPortIsOutput, 0)
                                  : nullptr;
    if (!port) {
        ts::logf("MIDI: JACK refused the output port \"%s\"", slot.portName.c_str());
        return false;
    }
    // Published before any connection exists, so the process callback clears
    // its buffer from the first cycle anybody reads it.
    slot.port.store(port);
    return true;
}

void JACKMIDIEngine::releasePort(std::atomic<jack_port_t*>& port) {
    jack_port_t* old = port.exchange(nullptr);
    if (!old)
        return;
    waitForProcessCycle();
    if (jack_client_t* client = client_.load())
        jack_port_unregister(client, old);
}

void JACKMIDIEngine::forgetOutput(OutputPort& slot) {
    // The port is gone or was never published: the process callback no longer
    // reads the ring, which may be emptied from this side.
    if (slot.ring)
        jack_ringbuffer_reset(slot.ring);
    slot.used = false;
    slot.isVirtual = false;
    slot.portName.clear();
    slot.destinationID = 0;
    slot.destinationName.clear();
}

void JACKMIDIEngine::waitForProcessCycle() {
    // A cycle that read the old pointer began before it was cleared and is
    // still running: wait for it to end. Bounded, in case the server stopped
    // in the middle of a cycle.
    const std::uint64_t seen = cycles_.load();
    for (int i = 0; i < 4000; ++i) {
        if (!inCycle_.load() || cycles_.load() != seen)
            return;
        std::this_thread::sleep_for(std::chrono::microseconds(25));
    }
}

void JACKMIDIEngine::connectPorts() {
    jack_client_t* client = client_.load();
    if (!client)
        return;
    for (InputPort& slot : inputs_) {
        jack_port_t* port = slot.port.load();
        if (!slot.used || slot.isVirtual || !port)
            continue;
        if (!jack_port_connected_to(port, slot.sourceName.c_str()) &&
            jack_port_by_name(client, slot.sourceName.c_str()))
            jack_connect(client, slot.sourceName.c_str(), jack_port_name(port));
    }
    for (OutputPort& slot : outputs_) {
        jack_port_t* port = slot.port.load();
        if (!slot.used || slot.isVirtual || !port)
            continue;
        if (!jack_port_connected_to(port, slot.destinationName.c_str()) &&
            jack_port_by_name(client, slot.destinationName.c_str())) {
            jack_connect(client, jack_port_name(port), slot.destinationName.c_str());
            slot.firstCycle.store(cycles_.load() + 2);
        }
    }
}

// ---- endpoints ---------------------------------------------------------------

std::uint32_t JACKMIDIEngine::uniqueIDForPortName(std::string_view fullName) {
    std::uint32_t hash = 2166136261u;
    for (char c : fullName) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 16777619u;
    }
    return hash == 0 ? 1 : hash;
}

std::vector<MIDIEndpointInfo> JACKMIDIEngine::listEndpoints(unsigned long flags) {
    std::vector<MIDIEndpointInfo> endpoints;
    std::lock_guard lock(mutex_);
    jack_client_t* client = client_.load();
    if (!client || serverGone_.load())
        return endpoints;
    const char** names = jack_get_ports(client, nullptr, JACK_DEFAULT_MIDI_TYPE, flags);
    if (!names)
        return endpoints;
    const std::string ownPrefix = clientName_ + ":";
    for (const char** n = names; *n; ++n) {
        const std::string full = *n;
        const auto colon = full.find(':');
        MIDIEndpointInfo info;
        info.uniqueID = uniqueIDForPortName(full);
        info.deviceName = full.substr(0, colon == std::string::npos ? 0 : colon);
        info.name = colon == std::string::npos ? full : full.substr(colon + 1);
        if (full.rfind(ownPrefix, 0) == 0) {
            // Ours: only the virtual endpoints are endpoints.
            bool isVirtual = false;
            if (flags & JackPortIsInput) {
                for (const InputPort& slot : inputs_)
                    isVirtual |= slot.used && slot.isVirtual && slot.portName == info.name;
            } else {
                for (const OutputPort& slot : outputs_)
                    isVirtual |= slot.used && slot.isVirtual && slot.portName == info.name;
            }
            if (!isVirtual)
                continue;
            info.own = true;
        }
        endpoints.push_back(std::move(info));
    }
    jack_free(names);
    return endpoints;
}

std::vector<MIDIEndpointInfo> JACKMIDIEngine::sources() {
    return listEndpoints(JackPortIsOutput);
}

std::vector<MIDIEndpointInfo> JACKMIDIEngine::destinations() {
    return listEndpoints(JackPortIsInput);
}

template <typename Ports>
std::string JACKMIDIEngine::privatePortName(const char* prefix, const Ports& ports) {
    // The lowest number no other private port of ours carries: "in 1", "in 2"...
    for (int n = 1;; ++n) {
        const std::string name = prefix + std::to_string(n);
        if (std::none_of(ports.begin(), ports.end(), [&](const auto& slot) {
                return slot.used && !slot.isVirtual && slot.portName == name;
            }))
            return name;
    }
}

std::string JACKMIDIEngine::findPortName(std::uint32_t uniqueID, unsigned long flags) {
    jack_client_t* client = client_.load();
    std::string found;
    if (!client || uniqueID == 0)
        return found;
    const char** names = jack_get_ports(client, nullptr, JACK_DEFAULT_MIDI_TYPE, flags);
    if (!names)
        return found;
    for (const char** n = names; *n; ++n) {
        if (uniqueIDForPortName(*n) == uniqueID) {
            found = *n;
            break;
        }
    }
    jack_free(names);
    return found;
}

std::string JACKMIDIEngine::endpointSnapshot() {
    // The listed endpoints as one text, to tell a real change from the
    // coming and going of our private ports (which JACK reports too).
    std::vector<std::string> lines;
    jack_client_t* client = client_.load();
    if (!client)
        return {};
    for (const unsigned long flags : {JackPortIsOutput, JackPortIsInput}) {
        const char** names = jack_get_ports(client, nullptr, JACK_DEFAULT_MIDI_TYPE, flags);
        if (!names)
            continue;
        const std::string ownPrefix = clientName_ + ":";
        for (const char** n = names; *n; ++n) {
            std::string full = *n;
            if (full.rfind(ownPrefix, 0) == 0) {
                const std::string portName = full.substr(ownPrefix.size());
                bool isVirtual = false;
                for (const InputPort& slot : inputs_)
                    isVirtual |= slot.used && slot.isVirtual && slot.portName == portName;
                for (const OutputPort& slot : outputs_)
                    isVirtual |= slot.used && slot.isVirtual && slot.portName == portName;
                if (!isVirtual)
                    continue;
            }
            lines.push_back((flags == JackPortIsOutput ? "s " : "d ") + full);
        }
        jack_free(names);
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

// ---- virtual endpoints ---------------------------------------------------------

bool JACKMIDIEngine::createVirtualDestination(const std::string& name, ReceiveHandler handler) {
    if (name.empty())
        return false;
    std::lock_guard lock(mutex_);
    InputPort* free = nullptr;
    for (InputPort& slot : inputs_) {
        if (slot.used && slot.isVirtual && slot.portName == name) {
            std::lock_guard handlers(handlersMutex_);
            slot.handler = std::make_shared<ReceiveHandler>(std::move(handler));
            return true;
        }
        if (!slot.used && !free)
            free = &slot;
    }
    if (!free) {
        ts::logf("MIDI: no JACK input port left for \"%s\" (at most %d)", name.c_str(),
                 kMaxInputPorts);
        return false;
    }
    free->used = true;
    free->isVirtual = true;
    free->portName = name;
    {
        std::lock_guard handlers(handlersMutex_);
        free->generation.fetch_add(1);
        free->handler = std::make_shared<ReceiveHandler>(std::move(handler));
    }
    // While the server is away the port is made when it comes back.
    if (client_.load() && !serverGone_.load() && !registerPort(*free)) {
        std::lock_guard handlers(handlersMutex_);
        free->handler.reset();
        free->used = false;
        return false;
    }
    return true;
}

bool JACKMIDIEngine::createVirtualSource(const std::string& name) {
    if (name.empty())
        return false;
    std::lock_guard lock(mutex_);
    OutputPort* free = nullptr;
    for (OutputPort& slot : outputs_) {
        if (slot.used && slot.isVirtual && slot.portName == name)
            return true;
        if (!slot.used && !free)
            free = &slot;
    }
    if (!free) {
        ts::logf("MIDI: no JACK output port left for \"%s\" (at most %d)", name.c_str(),
                 kMaxOutputPorts);
        return false;
    }
    free->used = true;
    free->isVirtual = true;
    free->portName = name;
    if (client_.load() && !serverGone_.load() && !registerPort(*free)) {
        free->used = false;
        return false;
    }
    return true;
}

// ---- input from sources ------------------------------------------------------

bool JACKMIDIEngine::connectSource(std::uint32_t sourceID, ReceiveHandler handler) {
    std::lock_guard lock(mutex_);
    for (InputPort& slot : inputs_) {
        if (slot.used && !slot.isVirtual && slot.sourceID == sourceID) {
            // Connected already (a new node takes over from an old one).
            std::lock_guard handlers(handlersMutex_);
            slot.handler = std::make_shared<ReceiveHandler>(std::move(handler));
            return true;
        }
    }
    jack_client_t* client = client_.load();
    if (!client || serverGone_.load())
        return false;
    const std::string sourceName = findPortName(sourceID, JackPortIsOutput);
    if (sourceName.empty())
        return false;
    const auto free = std::find_if(inputs_.begin(), inputs_.end(),
                                   [](const InputPort& slot) { return !slot.used; });
    if (free == inputs_.end()) {
        ts::logf("MIDI: no JACK input port left for \"%s\" (at most %d)", sourceName.c_str(),
                 kMaxInputPorts);
        return false;
    }
    InputPort& slot = *free;
    slot.used = true;
    slot.isVirtual = false;
    slot.portName = privatePortName("in ", inputs_);
    slot.sourceID = sourceID;
    slot.sourceName = sourceName;
    {
        std::lock_guard handlers(handlersMutex_);
        slot.generation.fetch_add(1);
        slot.handler = std::make_shared<ReceiveHandler>(std::move(handler));
    }
    bool ok = registerPort(slot);
    if (ok) {
        const int rc = jack_connect(client, sourceName.c_str(), jack_port_name(slot.port.load()));
        ok = rc == 0 || rc == EEXIST;
        if (!ok) {
            ts::logf("MIDI: JACK cannot connect \"%s\" to Tessarine", sourceName.c_str());
            releasePort(slot.port);
        }
    }
    if (!ok) {
        std::lock_guard handlers(handlersMutex_);
        slot.handler.reset();
        slot.used = false;
    }
    return ok;
}

void JACKMIDIEngine::disconnectSource(std::uint32_t sourceID) {
    std::lock_guard lock(mutex_);
    for (InputPort& slot : inputs_) {
        if (!slot.used || slot.isVirtual || slot.sourceID != sourceID)
            continue;
        {
            std::lock_guard handlers(handlersMutex_);
            slot.generation.fetch_add(1);
            slot.handler.reset();
        }
        releasePort(slot.port);
        slot.used = false;
        slot.sourceID = 0;
        slot.sourceName.clear();
    }
}

// ---- output ------------------------------------------------------------------

bool JACKMIDIEngine::writePackets(OutputPort& slot, const MIDIPacketList& packets) {
    std::vector<std::uint8_t> bytes;
    std::vector<JACKMIDIEventSplitter::Span> events;
    for (const MIDIPacket& packet : packets) {
        JACKMIDIEventSplitter::split(packet.bytes.data(), packet.bytes.size(), bytes, events);
        for (const JACKMIDIEventSplitter::Span& event : events) {
            const auto size = static_cast<std::uint32_t>(event.length);
            if (!ringPut(slot.ring, {{&size, sizeof size}, {bytes.data() + event.offset, size}}))
                return false; // the server is not taking what we send
        }
    }
    return true;
}

bool JACKMIDIEngine::publish(const MIDIPacketList& packets) {
    std::lock_guard lock(mutex_);
    if (!client_.load() || serverGone_.load())
        return false;
    bool sent = false;
    for (OutputPort& slot : outputs_) {
        if (slot.used && slot.isVirtual && slot.port.load()) {
            if (!writePackets(slot, packets))
                return false;
            sent = true;
        }
    }
    return sent;
}

bool JACKMIDIEngine::send(std::uint32_t destinationID, const MIDIPacketList& packets) {
    std::lock_guard lock(mutex_);
    jack_client_t* client = client_.load();
    if (!client || serverGone_.load())
        return false;
    for (OutputPort& slot : outputs_)
        if (slot.used && !slot.isVirtual && slot.destinationID == destinationID)
            return slot.port.load() && writePackets(slot, packets);

    const std::string destinationName = findPortName(destinationID, JackPortIsInput);
    if (destinationName.empty())
        return false;
    const auto free = std::find_if(outputs_.begin(), outputs_.end(),
                                   [](const OutputPort& slot) { return !slot.used; });
    if (free == outputs_.end()) {
        ts::logf("MIDI: no JACK output port left for \"%s\" (at most %d)", destinationName.c_str(),
                 kMaxOutputPorts);
        return false;
    }
    OutputPort& slot = *free;
    slot.used = true;
    slot.isVirtual = false;
    slot.portName = privatePortName("out ", outputs_);
    slot.destinationID = destinationID;
    slot.destinationName = destinationName;
    if (!registerPort(slot)) {
        forgetOutput(slot);
        return false;
    }
    const int rc = jack_connect(client, jack_port_name(slot.port.load()), destinationName.c_str());
    slot.firstCycle.store(cycles_.load() + 2);
    if (rc != 0 && rc != EEXIST) {
        ts::logf("MIDI: JACK cannot connect Tessarine to \"%s\"", destinationName.c_str());
        releasePort(slot.port);
        forgetOutput(slot);
        return false;
    }
    return writePackets(slot, packets);
}

// ---- setup changes -----------------------------------------------------------

void JACKMIDIEngine::setSetupChangedHandler(SetupHandler handler) {
    std::lock_guard lock(handlersMutex_);
    setupHandler_ = std::move(handler);
}

std::string JACKMIDIEngine::clientName() const {
    std::lock_guard lock(mutex_);
    return clientName_;
}

bool JACKMIDIEngine::isConnectedToServer() const {
    return client_.load() != nullptr && !serverGone_.load();
}

void JACKMIDIEngine::reportSetupChange() {
    SetupHandler handler;
    {
        std::lock_guard lock(handlersMutex_);
        handler = setupHandler_;
    }
    if (!handler || stopping_.load())
        return;
    inHandler_.store(true);
    handler();
    inHandler_.store(false);
}

void JACKMIDIEngine::callReceiveHandler(const ReceiveHandler& handler,
                                        const MIDIPacketList& packets) {
    if (!handler || stopping_.load())
        return;
    inHandler_.store(true);
    handler(packets);
    inHandler_.store(false);
}

void JACKMIDIEngine::checkSetup() {
    bool changed = false;
    {
        std::lock_guard lock(mutex_);
        jack_client_t* client = client_.load();
        if (!client || serverGone_.load())
            return;
        // A private output port whose destination went away has no use any
        // more; the next send to it (when it is back) makes a new one.
        for (OutputPort& slot : outputs_) {
            if (!slot.used || slot.isVirtual ||
                jack_port_by_name(client, slot.destinationName.c_str()))
                continue;
            releasePort(slot.port);
            forgetOutput(slot);
        }
        // A source that came back is connected again.
        connectPorts();
        std::string snapshot = endpointSnapshot();
        if (snapshot != lastSnapshot_) {
            lastSnapshot_ = std::move(snapshot);
            changed = true;
        }
    }
    if (changed)
        reportSetupChange();
}

void JACKMIDIEngine::handleServerLoss() {
    ts::logLine("MIDI: the JACK server went away; trying to reach it again every second");
    {
        std::lock_guard lock(mutex_);
        closeClient();
        lastSnapshot_.clear();
    }
    jack_ringbuffer_reset(inRing_); // its writer, the process callback, is gone
    serverGone_.store(false);
    reportSetupChange();
}

// ---- the service thread --------------------------------------------------------

void JACKMIDIEngine::wake() {
    if (wakeFd_ < 0)
        return;
    const std::uint64_t one = 1;
    // Never blocks (EFD_NONBLOCK); a full counter already means "wake up".
    [[maybe_unused]] const ssize_t n = ::write(wakeFd_, &one, sizeof one);
}

void JACKMIDIEngine::run() {
    ts::setCurrentThreadName("JACKMIDI");
    using Clock = std::chrono::steady_clock;
    auto nextAttempt = Clock::now();
    auto lastDropLog = Clock::now() - std::chrono::hours(1);
    while (!stopping_.load()) {
        int timeout = 1000;
        if (!client_.load()) {
            const auto wait =
                std::chrono::duration_cast<std::chrono::milliseconds>(nextAttempt - Clock::now());
            timeout = static_cast<int>(std::clamp<long long>(wait.count(), 0, 1000));
        }
        pollfd pfd{wakeFd_, POLLIN, 0};
        if (::poll(&pfd, 1, timeout) > 0 && (pfd.revents & POLLIN)) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t n = ::read(wakeFd_, &count, sizeof count);
        }
        if (stopping_.load())
            break;

        deliverInput();

        if (serverGone_.load()) {
            handleServerLoss();
            nextAttempt = Clock::now() + kRetryInterval;
        }
        if (!client_.load() && Clock::now() >= nextAttempt) {
            nextAttempt = Clock::now() + kRetryInterval;
            bool back = false;
            {
                std::lock_guard lock(mutex_);
                back = openClient(true);
                if (back)
                    lastSnapshot_ = endpointSnapshot();
            }
            if (back) {
                ts::logLine("MIDI: the JACK server is back; MIDI resumes");
                reportSetupChange();
            }
        }
        if (setupFlag_.exchange(false))
            checkSetup();

        if (droppedEvents_.load() > 0 && Clock::now() - lastDropLog > std::chrono::seconds(1)) {
            lastDropLog = Clock::now();
            ts::logf("MIDI: %llu incoming JACK MIDI events were dropped (too many at once)",
                     static_cast<unsigned long long>(droppedEvents_.exchange(0)));
        }
    }
}

void JACKMIDIEngine::deliverInput() {
    MIDIPacketList list;
    int currentPort = -1;
    std::uint32_t currentGeneration = 0;
    const auto flush = [&] {
        if (list.empty())
            return;
        std::shared_ptr<ReceiveHandler> handler;
        {
            std::lock_guard lock(handlersMutex_);
            const InputPort& slot = inputs_[static_cast<std::size_t>(currentPort)];
            if (slot.generation.load() == currentGeneration)
                handler = slot.handler;
        }
        if (handler)
            callReceiveHandler(*handler, list);
        list.clear();
    };
    InRecord record{};
    while (jack_ringbuffer_read_space(inRing_) >= sizeof record) {
        jack_ringbuffer_read(inRing_, reinterpret_cast<char*>(&record), sizeof record);
        MIDIPacket packet;
        packet.timestamp = record.timestamp;
        packet.bytes.resize(record.size);
        jack_ringbuffer_read(inRing_, reinterpret_cast<char*>(packet.bytes.data()), record.size);
        if (record.port != currentPort || record.generation != currentGeneration) {
            flush();
            currentPort = record.port;
            currentGeneration = record.generation;
        }
        list.push_back(std::move(packet));
    }
    flush();
}

// ---- JACK's threads: flags and bytes only --------------------------------------

void JACKMIDIEngine::shutdownCallback(jack_status_t, const char*, void* arg) {
    auto* self = static_cast<JACKMIDIEngine*>(arg);
    self->serverGone_.store(true);
    self->wake();
}

void JACKMIDIEngine::portRegistrationCallback(jack_port_id_t, int, void* arg) {
    auto* self = static_cast<JACKMIDIEngine*>(arg);
    self->setupFlag_.store(true);
    self->wake();
}

void JACKMIDIEngine::portRenameCallback(jack_port_id_t, const char*, const char*, void* arg) {
    portRegistrationCallback(0, 0, arg);
}

void JACKMIDIEngine::clientRegistrationCallback(const char*, int, void* arg) {
    portRegistrationCallback(0, 0, arg);
}

int JACKMIDIEngine::processCallback(jack_nframes_t frames, void* arg) {
    return static_cast<JACKMIDIEngine*>(arg)->process(frames);
}

int JACKMIDIEngine::process(jack_nframes_t frames) {
    inCycle_.store(true);
    jack_client_t* client = client_.load();
    bool received = false;
    bool clocked = false;
    jack_nframes_t cycleStart = 0;
    std::int64_t offsetNs = 0; // CLOCK_MONOTONIC minus JACK's clock
    std::uint64_t nowNs = 0;

    for (std::size_t i = 0; i < inputs_.size(); ++i) {
        jack_port_t* port = inputs_[i].port.load();
        if (!port)
            continue;
        void* buffer = jack_port_get_buffer(port, frames);
        const std::uint32_t count = jack_midi_get_event_count(buffer);
        if (count == 0)
            continue;
        if (!clocked) {
            cycleStart = jack_last_frame_time(client);
            nowNs = monotonicNow();
            offsetNs = static_cast<std::int64_t>(nowNs) -
                       static_cast<std::int64_t>(jack_get_time()) * 1000;
            clocked = true;
        }
        const std::uint32_t generation = inputs_[i].generation.load(std::memory_order_relaxed);
        for (std::uint32_t e = 0; e < count; ++e) {
            jack_midi_event_t event;
            if (jack_midi_event_get(&event, buffer, e) != 0)
                continue;
            if (event.size == 0 || event.size > 0xFFFF) {
                droppedEvents_.fetch_add(1, std::memory_order_relaxed);
                continue;
            }
            const std::int64_t at =
                static_cast<std::int64_t>(jack_frames_to_time(client, cycleStart + event.time)) *
                    1000 +
                offsetNs;
            InRecord record{};
            record.timestamp =
                std::min<std::uint64_t>(at > 0 ? static_cast<std::uint64_t>(at) : 1, nowNs);
            record.generation = generation;
            record.port = static_cast<std::uint16_t>(i);
            record.size = static_cast<std::uint16_t>(event.size);
            if (ringPut(inRing_, {{&record, sizeof record}, {event.buffer, event.size}}))
                received = true;
            else
                droppedEvents_.fetch_add(1, std::memory_order_relaxed);
        }
    }

    for (OutputPort& slot : outputs_) {
        jack_port_t* port = slot.port.load();
        if (!port)
            continue;
        void* buffer = jack_port_get_buffer(port, frames);
        jack_midi_clear_buffer(buffer);
        if (cycles_.load(std::memory_order_relaxed) <
            slot.firstCycle.load(std::memory_order_relaxed))
            continue; // its connection is not in the graph yet
        jack_ringbuffer_t* ring = slot.ring;
        std::uint32_t size = 0;
        while (jack_ringbuffer_read_space(ring) >= sizeof size) {
            jack_ringbuffer_peek(ring, reinterpret_cast<char*>(&size), sizeof size);
            jack_midi_data_t* data = jack_midi_event_reserve(buffer, 0, size);
            if (!data) {
                if (jack_midi_get_event_count(buffer) > 0)
                    break; // the port's buffer is full: the rest goes next cycle
                // Larger than a whole buffer: it can never go out.
                jack_ringbuffer_read_advance(ring, sizeof size + size);
                continue;
            }
            jack_ringbuffer_read_advance(ring, sizeof size);
            jack_ringbuffer_read(ring, reinterpret_cast<char*>(data), size);
        }
    }

    cycles_.fetch_add(1);
    inCycle_.store(false);
    if (received)
        wake();
    return 0;
}
