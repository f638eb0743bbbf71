#pragma once
// The generic OSC port: one listener for OSC coming in from any peer, one
// sender towards one configurable host and port. Every received message goes
// to the controller's generic OSC input (bundles are flattened, depth first,
// in wire order; their time tags are not used); every outgoing OSC signal
// value leaves as a one-float message in the sender's next 10 ms bundle.
//
// Five settings, read once at creation and written by every setter:
//   "oscSenderMachine"      text     "localhost"
//   "oscSenderPort"         integer  7001 (a stored 0 also gives 7001)
//   "oscListenerPort"       integer  7000 (a stored 0 also gives 7000)
//   "oscSenderIsEnabled"    boolean  on (only when the key is absent)
//   "oscListenerIsEnabled"  boolean  on (only when the key is absent)
// Each setter stores, writes the key and rebuilds the sender or the listener
// at once, even when the value did not change. Listener and sender are
// replaced, never changed: the old listener is stopped (its port released)
// before the new one binds, and a bundle still pending in the old sender is
// dropped with it.
//
// Threads: everything runs on the main thread, except
// sendOSCMessageAtAddressWithValue, which any thread may call (a command or
// MIDI receive thread, through a plug).

#include "app/OutputPorts.h"

#include <QObject>
#include <QString>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

class BBOSCListener;
class BBOSCListenerDelegate;
class BBOSCPacket;
class BBOSCSender;
namespace ts {
class Defaults;
}

class OSCManager : public QObject, public OSCOutputPort {
    Q_OBJECT
    Q_PROPERTY(QString oscSenderMachine READ oscSenderMachine WRITE setOscSenderMachine NOTIFY
                   oscSenderMachineChanged)
    Q_PROPERTY(
        int oscSenderPort READ oscSenderPort WRITE setOscSenderPort NOTIFY oscSenderPortChanged)
    Q_PROPERTY(bool oscSenderEnabled READ oscSenderEnabled WRITE setOscSenderEnabled NOTIFY
                   oscSenderEnabledChanged)
    Q_PROPERTY(int oscListenerPort READ oscListenerPort WRITE setOscListenerPort NOTIFY
                   oscListenerPortChanged)
    Q_PROPERTY(bool oscListenerEnabled READ oscListenerEnabled WRITE setOscListenerEnabled NOTIFY
                   oscListenerEnabledChanged)
    // Whether a listener / sender exists now (the window shows it).
    Q_PROPERTY(bool oscListenerRunning READ oscListenerRunning NOTIFY oscListenerChanged)
    Q_PROPERTY(bool oscSenderReady READ oscSenderReady NOTIFY oscSenderChanged)
    Q_PROPERTY(QString localIP READ localIP NOTIFY localIPChanged)

public:
    static constexpr int kDefaultSenderPort = 7001;
    static constexpr int kDefaultListenerPort = 7000;

    // The five settings as stored, with the rules for absent keys and 0.
    struct Settings {
        QString senderMachine;
        int senderPort = 0;
        bool senderEnabled = true;
        int listenerPort = 0;
        bool listenerEnabled = true;
        bool operator==(const Settings&) const = default;
    };
    static Settings readSettings(const ts::Defaults& defaults);

    // Reads the settings from ts::Defaults::standard(), then builds the
    // sender and the listener.
    explicit OSCManager(QObject* parent = nullptr);
    ~OSCManager() override;
    OSCManager(const OSCManager&) = delete;
    OSCManager& operator=(const OSCManager&) = delete;

    QString oscSenderMachine() const { return settings_.senderMachine; }
    void setOscSenderMachine(const QString& machine);
    int oscSenderPort() const { return settings_.senderPort; }
    void setOscSenderPort(int port);
    bool oscSenderEnabled() const { return settings_.senderEnabled; }
    void setOscSenderEnabled(bool enabled);
    int oscListenerPort() const { return settings_.listenerPort; }
    void setOscListenerPort(int port);
    bool oscListenerEnabled() const { return settings_.listenerEnabled; }
    void setOscListenerEnabled(bool enabled);

    // Main thread only. nullptr when disabled or when it could not be made.
    BBOSCListener* oscListener() const { return oscListener_.get(); }
    BBOSCSender* oscSender() const { return oscSender_.get(); }
    bool oscListenerRunning() const { return oscListener_ != nullptr; }
    bool oscSenderReady() const { return oscSender_ != nullptr; }

    void resetOscSender();
    void resetOscListener();

    // The listener's delegate (main thread): decodes and processes.
    void dispatchRawPacket(std::span<const uint8_t> datagram);
    // A message goes to the controller; a bundle's elements each go through
    // here again, in order; nullptr does nothing.
    void processPacket(const BBOSCPacket* packet);

    // Any thread. One message with one float argument, added to the
    // sender's pending bundle; dropped when there is no sender.
    void sendOSCMessageAtAddressWithValue(const QString& address, float value) override;

    // The dotted IPv4 address of the last wired or wireless interface,
    // "(not set)" when there is none.
    QString localIP() const;
    void updateLocalIP() { emit localIPChanged(); }

    struct InterfaceAddress {
        std::string name;    // "eth0", "wlp2s0", "lo" ...
        std::string address; // dotted IPv4
    };
    // The rule behind localIP over a list in the system's order: the last
    // entry whose name begins with "en", "eth" or "wl".
    static QString localIPAmongInterfaces(std::span<const InterfaceAddress> interfaces);
    // The IPv4 addresses of this machine's interfaces, in the system's order;
    // false when the list cannot be read.
    static bool readInterfaceAddresses(std::vector<InterfaceAddress>& out);

    // A cleared numeric or boolean field of the window becomes 1111.
    void setNilValueForKey(const QString& key);

signals:
    void oscSenderMachineChanged();
    void oscSenderPortChanged();
    void oscSenderEnabledChanged();
    void oscListenerPortChanged();
    void oscListenerEnabledChanged();
    // Around every rebuild, also when nothing could be built.
    void oscSenderAboutToChange();
    void oscSenderChanged();
    void oscListenerAboutToChange();
    void oscListenerChanged();
    void localIPChanged();

private:
    void undecodableDatagram();

    Settings settings_; // main thread only

    // Main thread only. The listener's delegate refers to this manager
    // without owning it; the listener goes before the manager does.
    std::unique_ptr<BBOSCListener> oscListener_;

    // Guards oscSender_ against a send from another thread while the main
    // thread replaces it. Lock order: senderLock_, then the sender's own
    // bundle lock, then the log's. The sender is made and destroyed on the
    // main thread, outside this lock.
    mutable std::mutex senderLock_;
    std::unique_ptr<BBOSCSender> oscSender_;

    // Main thread only: at most one line a second about undecodable input.
    std::uint64_t undecodableDatagrams_ = 0;
    std::chrono::steady_clock::time_point lastUndecodableLog_{};
};
