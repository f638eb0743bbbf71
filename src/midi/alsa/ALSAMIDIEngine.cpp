#include "midi/alsa/ALSAMIDIEngine.h"

#include "platform/Log.h"
#include "platform/ThreadName.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr const char* kClientName = "Tessarine";
constexpr unsigned kSubscribableRead = SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_SUBS_READ;
constexpr unsigned kSubscribableWrite = SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_SUBS_WRITE;

std::uint64_t monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

// alsa-lib writes its own errors to standard error; the service logs what
// matters instead.
void silentALSAError(const char*, int, const char*, int, const char*, ...) {}

bool isAnnouncement(const snd_seq_event_t& ev) {
    switch (ev.type) {
    case SND_SEQ_EVENT_CLIENT_START:
    case SND_SEQ_EVENT_CLIENT_EXIT:
    case SND_SEQ_EVENT_CLIENT_CHANGE:
    case SND_SEQ_EVENT_PORT_START:
    case SND_SEQ_EVENT_PORT_EXIT:
    case SND_SEQ_EVENT_PORT_CHANGE:
        return true;
    default:
        return false;
    }
}

} // namespace

// ---- addresses -----------------------------------------------------------------

std::uint32_t ALSAMIDIEngine::uniqueIDForAddress(int client, int port) {
    return ((static_cast<std::uint32_t>(client & 0xFF) << 8) |
            static_cast<std::uint32_t>(port & 0xFF)) +
           1;
}

bool ALSAMIDIEngine::addressForUniqueID(std::uint32_t uniqueID, int& client, int& port) {
    if (uniqueID == 0 || uniqueID > 0x10000)
        return false;
    client = static_cast<int>((uniqueID - 1) >> 8);
    port = static_cast<int>((uniqueID - 1) & 0xFF);
    return true;
}

std::string ALSAMIDIEngine::sequencerDevicePath() {
    const char* path = std::getenv("TESSARINE_ALSA_SEQ_DEVICE");
    return path && *path ? path : "/dev/snd/seq";
}

// ---- creation and teardown ---------------------------------------------------

std::shared_ptr<ALSAMIDIEngine> ALSAMIDIEngine::create() {
    // Try the device first: alsa-lib's own failure is a paragraph on
    // standard error, ours is one line.
    const std::string path = sequencerDevicePath();
    const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        ts::logf("MIDI: cannot open the ALSA sequencer (%s: %s)", path.c_str(),
                 std::strerror(errno));
        return nullptr;
    }
    ::close(fd);

    static std::once_flag silenced;
    std::call_once(silenced, [] { snd_lib_error_set_handler(silentALSAError); });

    std::shared_ptr<ALSAMIDIEngine> service(new ALSAMIDIEngine);
    const int rc = snd_seq_open(&service->seq_, "default", SND_SEQ_OPEN_DUPLEX, SND_SEQ_NONBLOCK);
    if (rc < 0) {
        service->seq_ = nullptr;
        ts::logf("MIDI: cannot open the ALSA sequencer (%s)", snd_strerror(rc));
        return nullptr;
    }
    snd_seq_t* seq = service->seq_;
    snd_seq_set_client_name(seq, kClientName);
    service->clientID_ = snd_seq_client_id(seq);
    // Nobody else may subscribe to the private ports; this client may.
    service->inputPort_ = snd_seq_create_simple_port(
        seq, "Tessarine input", SND_SEQ_PORT_CAP_WRITE | SND_SEQ_PORT_CAP_NO_EXPORT,
        SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    service->outputPort_ = snd_seq_create_simple_port(
        seq, "Tessarine output", SND_SEQ_PORT_CAP_READ | SND_SEQ_PORT_CAP_NO_EXPORT,
        SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    service->wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (service->clientID_ < 0 || service->inputPort_ < 0 || service->outputPort_ < 0 ||
        service->wakeFd_ < 0 || !service->encoder_.valid() || !service->decoder_.valid()) {
        ts::logLine("MIDI: the ALSA sequencer client could not be set up");
        return nullptr;
    }
    if (snd_seq_connect_from(seq, service->inputPort_, SND_SEQ_CLIENT_SYSTEM,
                             SND_SEQ_PORT_SYSTEM_ANNOUNCE) < 0)
        ts::logLine("MIDI: no ALSA announcements; devices plugged in later are not seen");
    // The thread shares the engine: it may outlive the service (see stop()).
    service->thread_ = std::thread([engine = service] {
        engine->run();
        engine->threadDone_.store(true);
    });
    return service;
}

void ALSAMIDIEngine::stop() {
    stopping_.store(true);
    wake();
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach(); // the service is dropped from one of its handlers
        return;
    }
    // A handler may be waiting for this very thread: then the service
    // thread is left to finish it and end by itself; the sequencer is closed
    // when the last of the two lets go.
    while (!threadDone_.load() && !inHandler_.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (threadDone_.load())
        thread_.join();
    else
        thread_.detach();
}

ALSAMIDIEngine::~ALSAMIDIEngine() {
    if (seq_)
        snd_seq_close(seq_);
    if (wakeFd_ >= 0)
        ::close(wakeFd_);
}

// ---- endpoints ---------------------------------------------------------------

std::vector<MIDIEndpointInfo> ALSAMIDIEngine::listEndpoints(bool wantSources) {
    std::vector<MIDIEndpointInfo> endpoints;
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return endpoints;
    const unsigned wanted = wantSources ? kSubscribableRead : kSubscribableWrite;
    snd_seq_client_info_t* clientInfo;
    snd_seq_port_info_t* portInfo;
    snd_seq_client_info_alloca(&clientInfo);
    snd_seq_port_info_alloca(&portInfo);
    snd_seq_client_info_set_client(clientInfo, -1);
    while (snd_seq_query_next_client(seq_, clientInfo) >= 0) {
        const int client = snd_seq_client_info_get_client(clientInfo);
        if (client == SND_SEQ_CLIENT_SYSTEM)
            continue; // timer and announce ports carry no MIDI
        std::string model;
        const int card = snd_seq_client_info_get_card(clientInfo);
        char* cardName = nullptr;
        if (card >= 0 && snd_card_get_name(card, &cardName) >= 0 && cardName) {
            model = cardName;
            std::free(cardName);
        }
        snd_seq_port_info_set_client(portInfo, client);
        snd_seq_port_info_set_port(portInfo, -1);
        while (snd_seq_query_next_port(seq_, portInfo) >= 0) {
            const unsigned caps = snd_seq_port_info_get_capability(portInfo);
            if ((caps & wanted) != wanted || (caps & SND_SEQ_PORT_CAP_NO_EXPORT))
                continue;
            const int port = snd_seq_port_info_get_port(portInfo);
            MIDIEndpointInfo info;
            info.uniqueID = uniqueIDForAddress(client, port);
            info.name = snd_seq_port_info_get_name(portInfo);
            info.deviceName = snd_seq_client_info_get_name(clientInfo);
            info.model = model;
            if (client == clientID_) {
                auto it = virtualPorts_.find(port);
                if (it == virtualPorts_.end() || it->second.input == wantSources)
                    continue;
                info.own = true;
            }
            endpoints.push_back(std::move(info));
        }
    }
    return endpoints;
}

std::vector<MIDIEndpointInfo> ALSAMIDIEngine::sources() {
    return listEndpoints(true);
}
std::vector<MIDIEndpointInfo> ALSAMIDIEngine::destinations() {
    return listEndpoints(false);
}

// ---- virtual endpoints ---------------------------------------------------------

bool ALSAMIDIEngine::createVirtualDestination(const std::string& name, ReceiveHandler handler) {
    if (name.empty())
        return false;
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return false;
    for (auto& [port, vp] : virtualPorts_) {
        if (vp.input && vp.name == name) {
            vp.handler = std::make_shared<ReceiveHandler>(std::move(handler));
            return true;
        }
    }
    const int port =
        snd_seq_create_simple_port(seq_, name.c_str(), kSubscribableWrite,
                                   SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    if (port < 0) {
        ts::logf("MIDI: the ALSA sequencer refused the port \"%s\" (%s)", name.c_str(),
                 snd_strerror(port));
        return false;
    }
    virtualPorts_[port] = {name, true, std::make_shared<ReceiveHandler>(std::move(handler))};
    return true;
}

bool ALSAMIDIEngine::createVirtualSource(const std::string& name) {
    if (name.empty())
        return false;
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return false;
    for (const auto& [port, vp] : virtualPorts_)
        if (!vp.input && vp.name == name)
            return true;
    const int port =
        snd_seq_create_simple_port(seq_, name.c_str(), kSubscribableRead,
                                   SND_SEQ_PORT_TYPE_MIDI_GENERIC | SND_SEQ_PORT_TYPE_APPLICATION);
    if (port < 0) {
        ts::logf("MIDI: the ALSA sequencer refused the port \"%s\" (%s)", name.c_str(),
                 snd_strerror(port));
        return false;
    }
    virtualPorts_[port] = {name, false, nullptr};
    return true;
}

// ---- input from sources --------------------------------------------------------

bool ALSAMIDIEngine::connectSource(std::uint32_t sourceID, ReceiveHandler handler) {
    int client = 0, port = 0;
    if (!addressForUniqueID(sourceID, client, port))
        return false;
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return false;
    auto existing = connected_.find(sourceID);
    if (existing != connected_.end()) {
        existing->second = std::make_shared<ReceiveHandler>(std::move(handler));
        return true;
    }
    const int rc = snd_seq_connect_from(seq_, inputPort_, client, port);
    if (rc < 0 && rc != -EBUSY) // EBUSY: subscribed already
        return false;
    connected_[sourceID] = std::make_shared<ReceiveHandler>(std::move(handler));
    return true;
}

void ALSAMIDIEngine::disconnectSource(std::uint32_t sourceID) {
    int client = 0, port = 0;
    if (!addressForUniqueID(sourceID, client, port))
        return;
    std::lock_guard lock(seqMutex_);
    if (connected_.erase(sourceID) > 0 && !dead_.load())
        snd_seq_disconnect_from(seq_, inputPort_, client, port);
}

// ---- output ------------------------------------------------------------------

bool ALSAMIDIEngine::sendEvents(const MIDIPacketList& packets, int destClient, int destPort,
                                int fromPort) {
    // Caller holds seqMutex_. destClient < 0: to the subscribers of fromPort.
    bool ok = true;
    encoder_.resetEncoder();
    for (const MIDIPacket& packet : packets) {
        encoder_.encode(packet.bytes.data(), packet.bytes.size(), [&](const snd_seq_event_t& e) {
            snd_seq_event_t ev = e;
            snd_seq_ev_set_source(&ev, fromPort);
            if (destClient < 0)
                snd_seq_ev_set_subs(&ev);
            else
                snd_seq_ev_set_dest(&ev, destClient, destPort);
            snd_seq_ev_set_direct(&ev);
            if (snd_seq_event_output_direct(seq_, &ev) < 0)
                ok = false; // the kernel's pool is full, or the port is gone
        });
    }
    return ok;
}

bool ALSAMIDIEngine::send(std::uint32_t destinationID, const MIDIPacketList& packets) {
    int client = 0, port = 0;
    if (!addressForUniqueID(destinationID, client, port))
        return false;
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return false;
    snd_seq_port_info_t* portInfo;
    snd_seq_port_info_alloca(&portInfo);
    if (snd_seq_get_any_port_info(seq_, client, port, portInfo) < 0 ||
        !(snd_seq_port_info_get_capability(portInfo) & SND_SEQ_PORT_CAP_WRITE))
        return false;
    return sendEvents(packets, client, port, outputPort_);
}

bool ALSAMIDIEngine::publish(const MIDIPacketList& packets) {
    std::lock_guard lock(seqMutex_);
    if (dead_.load())
        return false;
    bool sent = false;
    for (const auto& [port, vp] : virtualPorts_) {
        if (vp.input)
            continue;
        if (!sendEvents(packets, -1, 0, port))
            return false;
        sent = true;
    }
    return sent;
}

// ---- setup changes and the service thread --------------------------------------

void ALSAMIDIEngine::setSetupChangedHandler(SetupHandler handler) {
    std::lock_guard lock(handlersMutex_);
    setupHandler_ = std::move(handler);
}

void ALSAMIDIEngine::reportSetupChange() {
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

void ALSAMIDIEngine::callReceiveHandler(const ReceiveHandler& handler,
                                        const MIDIPacketList& packets) {
    if (!handler || stopping_.load())
        return;
    inHandler_.store(true);
    handler(packets);
    inHandler_.store(false);
}

void ALSAMIDIEngine::wake() {
    if (wakeFd_ < 0)
        return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(wakeFd_, &one, sizeof one);
}

void ALSAMIDIEngine::run() {
    ts::setCurrentThreadName("ALSAMIDI");
    std::vector<pollfd> fds;
    {
        std::lock_guard lock(seqMutex_);
        const int count = snd_seq_poll_descriptors_count(seq_, POLLIN);
        fds.resize(static_cast<std::size_t>(count > 0 ? count : 0) + 1);
        snd_seq_poll_descriptors(seq_, fds.data() + 1, static_cast<unsigned>(count), POLLIN);
    }
    fds[0] = {wakeFd_, POLLIN, 0};
    while (!stopping_.load() && !dead_.load()) {
        for (pollfd& p : fds)
            p.revents = 0;
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            break;
        if (fds[0].revents & POLLIN) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t n = ::read(wakeFd_, &count, sizeof count);
        }
        if (stopping_.load())
            break;
        readEvents();
    }
}

void ALSAMIDIEngine::readEvents() {
    // Batches in arrival order: consecutive events for one handler go to it
    // as one packet list.
    struct Batch {
        std::shared_ptr<ReceiveHandler> handler;
        MIDIPacketList packets;
    };
    std::vector<Batch> batches;
    bool setupChanged = false;
    bool overrun = false;
    int failure = 0;
    {
        std::lock_guard lock(seqMutex_);
        while (true) {
            snd_seq_event_t* ev = nullptr;
            const int rc = snd_seq_event_input(seq_, &ev);
            if (rc == -EAGAIN)
                break;
            if (rc == -EINTR)
                continue;
            if (rc == -ENOSPC) {
                overrun = true; // the kernel dropped events; go on reading
                continue;
            }
            if (rc < 0) {
                failure = rc;
                break;
            }
            if (!ev)
                continue;
            if (isAnnouncement(*ev)) {
                setupChanged = true;
                continue;
            }
            std::shared_ptr<ReceiveHandler> handler;
            if (ev->dest.port == inputPort_) {
                auto it = connected_.find(uniqueIDForAddress(ev->source.client, ev->source.port));
                if (it != connected_.end())
                    handler = it->second;
            } else {
                auto it = virtualPorts_.find(ev->dest.port);
                if (it != virtualPorts_.end() && it->second.input)
                    handler = it->second.handler;
            }
            if (!handler)
                continue;
            MIDIPacket packet;
            if (!decoder_.decode(*ev, packet.bytes))
                continue;
            packet.timestamp = monotonicNow();
            if (batches.empty() || batches.back().handler != handler)
                batches.push_back({handler, {}});
            batches.back().packets.push_back(std::move(packet));
        }
    }
    if (overrun)
        ts::logLine("MIDI: the ALSA sequencer dropped incoming events (too many at once)");
    for (Batch& batch : batches)
        callReceiveHandler(*batch.handler, batch.packets);
    if (failure < 0) {
        ts::logf("MIDI: the ALSA sequencer stopped answering (%s); MIDI is off",
                 snd_strerror(failure));
        dead_.store(true);
        setupChanged = true;
    }
    if (setupChanged)
        reportSetupChange();
}
