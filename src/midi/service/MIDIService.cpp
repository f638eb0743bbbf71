#include "midi/service/MIDIService.h"

#include "platform/Log.h"

namespace {

class NoMIDIService final : public MIDIService {
public:
    std::string name() const override { return "none"; }
    std::vector<MIDIEndpointInfo> sources() override { return {}; }
    std::vector<MIDIEndpointInfo> destinations() override { return {}; }
    bool createVirtualDestination(const std::string&, ReceiveHandler) override { return false; }
    bool createVirtualSource(const std::string&) override { return false; }
    bool publish(const MIDIPacketList&) override { return false; }
    bool connectSource(std::uint32_t, ReceiveHandler) override { return false; }
    void disconnectSource(std::uint32_t) override {}
    bool send(std::uint32_t, const MIDIPacketList&) override { return false; }
    void setSetupChangedHandler(SetupHandler) override {}
};

} // namespace

std::unique_ptr<MIDIService> createNoMIDIService() { return std::make_unique<NoMIDIService>(); }

// Each backend built in defines its factory (and TS_WITH_<BACKEND>); each
// answers nullptr, with a log line, when its service cannot be reached.
#ifdef TS_WITH_ALSA
std::unique_ptr<MIDIService> createALSAMIDIService();
#endif
#ifdef TS_WITH_JACK
std::unique_ptr<MIDIService> createJACKMIDIService();
#endif

std::unique_ptr<MIDIService> createMIDIService(const std::string& backend) {
    const auto tryALSA = []() -> std::unique_ptr<MIDIService> {
#ifdef TS_WITH_ALSA
        return createALSAMIDIService();
#else
        return nullptr;
#endif
    };
    const auto tryJACK = []() -> std::unique_ptr<MIDIService> {
#ifdef TS_WITH_JACK
        return createJACKMIDIService();
#else
        return nullptr;
#endif
    };
    std::unique_ptr<MIDIService> service;
    if (backend == "none") {
        return createNoMIDIService();
    } else if (backend == "alsa") {
        service = tryALSA();
    } else if (backend == "jack") {
        service = tryJACK();
    } else {
        if (backend != "auto" && !backend.empty())
            ts::logf("MIDI: unknown backend \"%s\"; choosing one automatically", backend.c_str());
        service = tryALSA();
        if (!service)
            service = tryJACK();
    }
    if (!service) {
        ts::logf("MIDI: no MIDI service is available (backend \"%s\"); MIDI is off",
                 backend.empty() ? "auto" : backend.c_str());
        return createNoMIDIService();
    }
    ts::logf("MIDI: using the %s service", service->name().c_str());
    return service;
}
