#pragma once
// The wires the controller sends on, each owned by the manager of that wire.
// The controller holds them behind these small interfaces so that the engine
// runs with any set of managers (a machine without DMX hardware, tests that
// record what is sent).

#include <QString>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class VVMIDIMessage;

class MIDIOutputPort {
public:
    virtual ~MIDIOutputPort() = default;
    virtual void sendMsg(const std::shared_ptr<VVMIDIMessage>& message) = 0;
};

class CommandOutputPort {
public:
    virtual ~CommandOutputPort() = default;
    virtual void sendCommandWithValue(const QString& command, float value) = 0;
};

class OSCOutputPort {
public:
    virtual ~OSCOutputPort() = default;
    virtual void sendOSCMessageAtAddressWithValue(const QString& address, float value) = 0;
};

class ArtnetOutputPort {
public:
    virtual ~ArtnetOutputPort() = default;
    virtual void sendValueToChannel(std::uint8_t value, unsigned channel) = 0;
};

class ArduinoOutputPort {
public:
    virtual ~ArduinoOutputPort() = default;
    virtual void writeString(const QString& text) = 0;
};

// One USB DMX interface (one universe).
class DMXBridgePort {
public:
    virtual ~DMXBridgePort() = default;
    virtual bool setChannelToValue(unsigned channel, std::uint8_t value) = 0;
    virtual bool setRX(bool on) = 0;
    virtual bool setTX(bool on) = 0;
};

// The DMX hardware manager as the controller uses it.
class DMXHardwarePort {
public:
    virtual ~DMXHardwarePort() = default;
    virtual void autopatch() = 0;
    virtual std::vector<std::string> patchedBridgeIdentifiers() = 0;
    virtual std::shared_ptr<DMXBridgePort> bridgeForIdentifier(const std::string& identifier) = 0;
    virtual void closeAll() = 0;
};
