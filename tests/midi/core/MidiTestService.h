#pragma once
// The in-memory MIDI service with a few extra controls for node and manager
// tests: endpoints with model names, hand-overs that fail on demand, and a
// delegate that records what it is told.

#include "MidiTestFormat.h"
#include "midi/VVMIDIClient.h"
#include "midi/VVMIDIManagerDelegate.h"
#include "midi/memory/MemoryMIDIService.h"

#include <atomic>
#include <mutex>

namespace midi_test {

class TestService : public MemoryMIDIService {
public:
    std::atomic<int> failSends{0};
    std::atomic<int> failPublishes{0};
    std::map<std::uint32_t, std::string> models;

    std::vector<MIDIEndpointInfo> sources() override {
        return withModels(MemoryMIDIService::sources());
    }
    std::vector<MIDIEndpointInfo> destinations() override {
        return withModels(MemoryMIDIService::destinations());
    }
    bool send(std::uint32_t id, const MIDIPacketList& packets) override {
        if (failSends > 0) {
            --failSends;
            return false;
        }
        return MemoryMIDIService::send(id, packets);
    }
    bool publish(const MIDIPacketList& packets) override {
        if (failPublishes > 0) {
            --failPublishes;
            return false;
        }
        return MemoryMIDIService::publish(packets);
    }

    // Installs a fresh service as the process's MIDI client.
    static std::shared_ptr<TestService> install() {
        auto s = std::make_shared<TestService>();
        VVMIDIClient::installService(s);
        return s;
    }

private:
    std::vector<MIDIEndpointInfo> withModels(std::vector<MIDIEndpointInfo> list) {
        for (auto& e : list)
            if (auto it = models.find(e.uniqueID); it != models.end())
                e.model = it->second;
        return list;
    }
};

// One packet list as "bytes | bytes" in hex.
inline std::string packetsText(const MIDIPacketList& list) {
    std::string s;
    for (size_t i = 0; i < list.size(); ++i) {
        if (i)
            s += " | ";
        for (size_t j = 0; j < list[i].bytes.size(); ++j)
            s += (j ? " " : "") + hexByte(list[i].bytes[j]);
    }
    return s;
}

inline MIDIPacketList packets(std::initializer_list<std::vector<uint8_t>> bytes) {
    MIDIPacketList list;
    for (const auto& b : bytes)
        list.push_back({0, b});
    return list;
}

class RecordingDelegate : public VVMIDIManagerDelegate {
public:
    void receivedMIDIFromNode(const VVMIDIMessageList& messages, VVMIDINode* node) override {
        std::lock_guard lock(mutex);
        received.push_back(text(messages));
        nodes.push_back(node);
    }
    void setupChanged() override { ++setupChanges; }

    std::mutex mutex;
    std::vector<std::string> received;
    std::vector<VVMIDINode*> nodes;
    std::atomic<int> setupChanges{0};
};

} // namespace midi_test
