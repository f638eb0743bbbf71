#pragma once
// Output ports that record what the controller sends, for tests that check
// what reaches each wire. Safe to use from several threads.

#include "app/OutputPorts.h"
#include "app/TessarineController.h"
#include "midi/VVMIDIMessage.h"

#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace ts::test {

struct Sent {
    std::string wire;  // "midi", "osc", "command", "artnet", "arduino", "dmx"
    std::string text;  // address, command or text
    double value = 0;  // the value sent (MIDI: second data byte)
    std::vector<int> bytes; // MIDI: type, channel, data1, data2; DMX/Art-Net: channel, value
    bool operator==(const Sent&) const = default;
};

class RecordingPorts : public MIDIOutputPort,
                       public OSCOutputPort,
                       public CommandOutputPort,
                       public ArtnetOutputPort,
                       public ArduinoOutputPort,
                       public DMXBridgePort {
public:
    void sendMsg(const std::shared_ptr<VVMIDIMessage>& m) override {
        record({"midi", "", double(m->data2()),
                {int(m->type()), int(m->channel()), int(m->data1()), int(m->data2())}});
    }
    void sendOSCMessageAtAddressWithValue(const QString& address, float value) override {
        record({"osc", address.toStdString(), value, {}});
    }
    void sendCommandWithValue(const QString& command, float value) override {
        record({"command", command.toStdString(), value, {}});
    }
    void sendValueToChannel(std::uint8_t value, unsigned channel) override {
        record({"artnet", "", double(value), {int(channel), int(value)}});
    }
    void writeString(const QString& text) override { record({"arduino", text.toStdString(), 0, {}}); }
    bool setChannelToValue(unsigned channel, std::uint8_t value) override {
        record({"dmx", "", double(value), {int(channel), int(value)}});
        return true;
    }
    bool setRX(bool) override { return true; }
    bool setTX(bool) override { return true; }

    std::vector<Sent> sent() const {
        std::lock_guard lock(mutex_);
        return sent_;
    }
    size_t count() const {
        std::lock_guard lock(mutex_);
        return sent_.size();
    }
    void clear() {
        std::lock_guard lock(mutex_);
        sent_.clear();
    }

    // Wiring that sends every wire here (the Korvalis link stays closed).
    static TessarineController::Wiring wiringTo(const std::shared_ptr<RecordingPorts>& ports) {
        TessarineController::Wiring w;
        w.midi = ports;
        w.osc = ports;
        w.command = ports;
        w.artnet = ports;
        w.arduino = ports;
        w.korvalisLink = false;
        return w;
    }

private:
    void record(Sent s) {
        std::lock_guard lock(mutex_);
        sent_.push_back(std::move(s));
    }
    mutable std::mutex mutex_;
    std::vector<Sent> sent_;
};

// A DMX hardware manager with one interface, which is the recorder.
class OneBridgeHardware : public DMXHardwarePort {
public:
    explicit OneBridgeHardware(std::shared_ptr<DMXBridgePort> bridge) : bridge_(std::move(bridge)) {}
    void autopatch() override {}
    std::vector<std::string> patchedBridgeIdentifiers() override { return {"EN000001"}; }
    std::shared_ptr<DMXBridgePort> bridgeForIdentifier(const std::string&) override { return bridge_; }
    void closeAll() override {}

private:
    std::shared_ptr<DMXBridgePort> bridge_;
};

} // namespace ts::test
