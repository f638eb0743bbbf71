#pragma once
// Plain-text commands over UDP/IPv4. One datagram is one command: its bytes
// are the command's UTF-8 text, with no length, terminator or value.
//
// Incoming: a receive thread named "CommandListener" hands every datagram,
// as text, to the controller's processCommandWithString on itself (not on
// the main thread), one datagram after the other. A datagram that is not
// valid UTF-8 is not a command: it never reaches the controller (so it can
// match no plug, not even one whose command is empty) and is counted in a
// log line, at most one line a second.
//
// Outgoing: every send opens a fresh socket, resolves the host name afresh,
// sends one datagram and closes the socket again, so a changed machine or
// port applies to the next send with nothing to rebuild.
//
// Five settings, read once at creation and written by every setter:
//   "commandSenderMachine"      text     "localhost"
//   "commandSenderPort"         integer  9757 (a stored 0 also gives 9757)
//   "commandSenderIsEnabled"    boolean  on (only when the key is absent)
//   "commandListenerPort"       integer  9756 (a stored 0 also gives 9756)
//   "commandListenerIsEnabled"  boolean  on (only when the key is absent)
// A listener setting rebuilds the listener at once (even when unchanged);
// a sender setting is used by the next send.
//
// Threads: settings, the listener's start and stop and destruction belong
// to the main thread. sendCommandWithValue may be called on any thread.

#include "app/OutputPorts.h"

#include <QObject>
#include <QString>
#include <cstdint>
#include <mutex>
#include <netinet/in.h>
#include <span>
#include <string>
#include <thread>

namespace ts {
class Defaults;
}

class CommandManager : public QObject, public CommandOutputPort {
    Q_OBJECT
    Q_PROPERTY(QString commandSenderMachine READ commandSenderMachine WRITE setCommandSenderMachine
                   NOTIFY commandSenderMachineChanged)
    Q_PROPERTY(int commandSenderPort READ commandSenderPort WRITE setCommandSenderPort NOTIFY
                   commandSenderPortChanged)
    Q_PROPERTY(bool commandSenderEnabled READ commandSenderEnabled WRITE setCommandSenderEnabled
                   NOTIFY commandSenderEnabledChanged)
    Q_PROPERTY(int commandListenerPort READ commandListenerPort WRITE setCommandListenerPort NOTIFY
                   commandListenerPortChanged)
    Q_PROPERTY(bool commandListenerEnabled READ commandListenerEnabled WRITE
                   setCommandListenerEnabled NOTIFY commandListenerEnabledChanged)
    Q_PROPERTY(bool commandListenerRunning READ commandListenerRunning NOTIFY
                   commandListenerRunningChanged)

public:
    static constexpr int kDefaultSenderPort = 9757;
    static constexpr int kDefaultListenerPort = 9756;
    // Longer datagrams are cut to this length.
    static constexpr std::size_t kReceiveBufferSize = 65506;

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

    // Reads the settings from ts::Defaults::standard(), then starts the
    // listener when receiving is enabled.
    explicit CommandManager(QObject* parent = nullptr);
    // Stops the listener.
    ~CommandManager() override;
    CommandManager(const CommandManager&) = delete;
    CommandManager& operator=(const CommandManager&) = delete;

    QString commandSenderMachine() const { return settings_.senderMachine; }
    void setCommandSenderMachine(const QString& machine);
    int commandSenderPort() const { return settings_.senderPort; }
    void setCommandSenderPort(int port);
    bool commandSenderEnabled() const { return settings_.senderEnabled; }
    void setCommandSenderEnabled(bool enabled);
    int commandListenerPort() const { return settings_.listenerPort; }
    void setCommandListenerPort(int port);
    bool commandListenerEnabled() const { return settings_.listenerEnabled; }
    void setCommandListenerEnabled(bool enabled);

    // Whether the listening socket is open (main thread).
    bool commandListenerRunning() const { return socketDescriptor_ != -1; }
    // The listening socket, -1 when none (main thread).
    int socketDescriptor() const { return socketDescriptor_; }

    // Stops, then listens on commandListenerPort when receiving is enabled.
    // Observers of commandListenerRunning are told before and after.
    void resetCommandListener();
    // Binds a UDP socket to every local address at the port and starts the
    // receive thread. Failures are logged with the labels "socket" and
    // "bind"; false then. False as well while already listening.
    bool startListeningOnPort(int port);
    // Ends the receive thread (waking it if it waits for a datagram), then
    // closes the socket.
    void stopListening();

    // Any thread. Sends the command's UTF-8 bytes as one datagram; the value
    // is not transmitted. Failures are logged, never raised.
    void sendCommandWithValue(const QString& command, float value) override;

    // A cleared numeric or boolean field of the window becomes 1111.
    void setNilValueForKey(const QString& key);

    // Well-formed UTF-8: no stray continuation bytes, no overlong forms, no
    // UTF-16 surrogates, nothing above U+10FFFF.
    static bool isValidUTF8(std::span<const std::uint8_t> bytes);

signals:
    void commandSenderMachineChanged();
    void commandSenderPortChanged();
    void commandSenderEnabledChanged();
    void commandListenerPortChanged();
    void commandListenerEnabledChanged();
    // Around every resetCommandListener, and when the receive thread ended
    // on an error.
    void commandListenerRunningAboutToChange();
    void commandListenerRunningChanged();

private:
    // What one send needs of the settings, copied under settingsLock_.
    struct Destination {
        bool enabled = false;
        std::string machine;
        int port = 0;
    };
    Destination destination() const;
    // Opens socketSenderDescriptor_ and fills destinationSenderAddress_.
    // Called with sendLock_ held.
    bool prepareSocket(const Destination& destination);
    void listenThread(int sock, int wake, std::uint64_t generation);
    void listenThreadEnded(std::uint64_t generation);

    Settings settings_; // written on the main thread; the sender part under settingsLock_

    // Guards the sender part of settings_ for sends on other threads. Leaf.
    mutable std::mutex settingsLock_;

    // Serialises sends: held from prepareSocket to the close, and guards the
    // two fields below. A send copies its destination under settingsLock_
    // before it takes this lock; inside it only the log's lock is taken.
    std::mutex sendLock_;
    int socketSenderDescriptor_ = -1;
    sockaddr_in destinationSenderAddress_{};

    // Main thread only. The receive thread gets copies of both descriptors
    // and never reads these fields; the descriptors are closed only after
    // the thread has been joined, so it can never receive on a number that
    // was closed and handed out again.
    int socketDescriptor_ = -1;
    int wakeDescriptor_ = -1;
    std::thread thread_;
    // Counts listener starts, so that the end report of an old receive
    // thread cannot stop a newer listener.
    std::uint64_t listenerGeneration_ = 0;
};
