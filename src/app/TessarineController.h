#pragma once
// The application's one controller. It holds the plug list, owns the
// managers of every wire and the OSC link to Korvalis, and is the one place
// where incoming values become plug activity: every input ends in one of its
// process operations, every output in one of its send operations.
//
// Threads:
// - The plug list, the selection, the settings and the console belong to the
//   main thread.
// - Commands, MIDI and USB DMX input call the process operations on their own
//   receive threads; everything else arrives on the main thread. Dispatch
//   reads the published DispatchIndex (an atomic shared pointer) and holds no
//   lock while plugs send, so inputs on several threads never wait for each
//   other or for the main thread.
// - Outputs are published the same way: a port replaced on the main thread
//   (a new Korvalis sender after a port change) is picked up by the next send,
//   while a send in progress finishes on the old one.
// - Console lines are always handed to the main thread without waiting.

#include "platform/AtomicSharedPtr.h"
#include "app/DispatchIndex.h"
#include "app/OutputPorts.h"
#include "app/TSPlugList.h"
#include "midi/VVMIDIManagerDelegate.h"

#include <QObject>
#include <QString>
#include <QVariant>
#include <atomic>
#include <chrono>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

class BBOSCArgument;
class BBOSCListener;
class BBOSCMessage;
class BBOSCPacket;
class BBOSCSender;
class VVMIDIManager;
class VVMIDIMessage;
class VVMIDINode;

// A key event as the key monitors deliver it, in Tessarine's own key codes
// and modifier masks.
struct TSKeyEvent {
    unsigned keyCode = 0;
    unsigned modifierFlags = 0;
    QString charactersIgnoringModifiers;
};

class TessarineController : public QObject, public VVMIDIManagerDelegate {
    Q_OBJECT
    Q_PROPERTY(int korvalisSendPort READ korvalisSendPort WRITE setKorvalisSendPort NOTIFY
                   korvalisSendPortChanged)
    Q_PROPERTY(int korvalisListenPort READ korvalisListenPort WRITE setKorvalisListenPort NOTIFY
                   korvalisListenPortChanged)
    Q_PROPERTY(int dmxMode READ dmxMode WRITE setDmxMode NOTIFY dmxModeChanged)
    Q_PROPERTY(int waitMode READ waitMode WRITE setWaitMode NOTIFY waitModeChanged)
    Q_PROPERTY(bool canUseDMX READ canUseDMX NOTIFY canUseDMXChanged)

public:
    enum WaitMode { WaitNone = 0, WaitKeyboard = 1, WaitMidi = 2 };

    // The managers the controller sends through. A wire without a manager
    // drops what is sent to it.
    struct Wiring {
        std::shared_ptr<MIDIOutputPort> midi;
        // The MIDI manager whose delegate the controller becomes (its
        // endpoint tables, learn mode and input).
        std::shared_ptr<VVMIDIManager> midiManager;
        std::shared_ptr<OSCOutputPort> osc;
        std::shared_ptr<CommandOutputPort> command;
        std::shared_ptr<ArtnetOutputPort> artnet;
        std::shared_ptr<ArduinoOutputPort> arduino;
        std::shared_ptr<DMXHardwarePort> dmxHardware;
        // Open the Korvalis sender and listener on the stored ports.
        bool korvalisLink = true;
    };

    explicit TessarineController(Wiring wiring);
    ~TessarineController() override;

    // The controller made at start-up, or nullptr before and after.
    static TessarineController* sharedController();

    TSPlugList& plugs() { return plugs_; }
    // The enabled plugs whose incoming signal is of the class or a subclass,
    // in list order: a new list, safe to take on any thread.
    std::vector<TSPlugPtr> getPlugWithSignalInClass(const TSSignalClass& cls) const;

    // Processing operations: true when at least one plug was sent a value.
    bool processKeyCodeAndModifierFlagsAndPressed(unsigned keyCode, unsigned modifierFlags,
                                                  bool pressed);
    bool processAudioLevel(float level);
    bool processMIDIMessage(const VVMIDIMessage& message);
    // The generic OSC input: a message's address and its arguments.
    bool processKorvalisOSCMessageWithAddressAndArguments(std::string_view address,
                                                          std::span<const BBOSCArgument> arguments);
    bool processCommandWithString(std::string_view command);
    bool processDMXChannelAndValue(unsigned channel, unsigned value);
    bool processArtnetChannelAndValue(unsigned channel, unsigned value);
    bool processArduinoText(const QString& fragment);
    bool processAnimations();
    bool processKorvalisOSCMessage(const BBOSCMessage& message);

    // Sending operations, called by outgoing signals on any thread.
    void sendMidiMessage(const std::shared_ptr<VVMIDIMessage>& message);
    void sendStringCommandWithValue(const QString& command, float value);
    void sendOSCMessageAtAddressWithValue(const QString& address, float value);
    void sendDMXChannelAndValue(unsigned channel, unsigned value);
    void sendArtnetChannelAndValue(unsigned channel, unsigned value);
    void sendKorvalisOSCMessage(const BBOSCMessage& message);
    void sendArduinoText(const QString& text);

    // User actions.
    // Appends a plug for the signal type code and selects it alone.
    void addMapping(int typeCode);
    // Appends a deep copy of the first selected plug, made through the archive
    // (so it starts as a restored plug does), and selects it.
    void duplicateMapping();
    // Sends 0.0 then 1.0 to the first selected plug's outgoing signal.
    void testMapping();
    void removeMapping();
    void waitForKeyboard(const TSPlugPtr& plug);
    void waitForMidi(const TSPlugPtr& plug);
    void cancelWait();
    void showConsole();
    bool consoleVisible() const { return consoleVisible_.load(std::memory_order_relaxed); }
    QString consoleText() const { return consoleText_; }
    void updateDmxMode(int mode);
    // Asks the OSC manager to tell the settings window the local address again.
    void updateLocalIP();
    // A bound numeric setting cleared in the window becomes 1111.
    void setNilValueForKey(const QString& key);

    // Key monitors: true when the event was used (it goes no further).
    bool keyDown(const TSKeyEvent& event);
    bool keyUp(const TSKeyEvent& event);

    // From the MIDI manager, on its input thread.
    void receivedMIDIFromNode(const std::vector<std::shared_ptr<VVMIDIMessage>>& messages,
                              VVMIDINode* node) override;
    // Endpoints appeared or vanished: both MIDI tables reload.
    void setupChanged() override;

    // The data of the two MIDI endpoint tables of the settings window: one
    // row per source (destination) and a last row for this program's own
    // virtual endpoint. Columns "SourcesName" and "SourcesEnabled".
    enum class MIDITable { Sources, Destinations, Other };
    int numberOfRowsInTableView(MIDITable table) const;
    std::shared_ptr<VVMIDINode> getMidiNodeForTableViewAndRow(MIDITable table, int row) const;
    QVariant tableViewObjectValueForTableColumnRow(MIDITable table, const QString& column,
                                                   int row) const;
    void tableViewSetObjectValueForTableColumnRow(MIDITable table, const QVariant& value,
                                                  const QString& column, int row);

    // From the Korvalis listener, on the main thread.
    void dispatchRawPacket(std::span<const std::uint8_t> datagram);
    void decodePacket(const BBOSCPacket& packet);

    // Start-up after the crash-report step, and quit.
    void showMainApplicationWindow();
    void restorePlugs();
    void savePlugs();
    void applicationWillTerminate();

    // Any thread: the line reaches the console on the main thread.
    void appendToConsole(const QString& text);

    int korvalisSendPort() const { return korvalisSendPort_; }
    void setKorvalisSendPort(int port);
    int korvalisListenPort() const { return korvalisListenPort_; }
    void setKorvalisListenPort(int port);
    // The bound listen port (useful when the setting asked for any free port).
    int korvalisBoundListenPort() const;
    int dmxMode() const { return dmxMode_; }
    void setDmxMode(int mode);
    int waitMode() const { return waitMode_.load(); }
    void setWaitMode(int mode);
    bool canUseDMX() const { return dmxBridge_.load() != nullptr; }
    void updateDmxBridge();

    // The console shows while visible; the headless program keeps it shown.
    void setConsoleVisible(bool visible);
    // Whether console lines are also kept as the console's text (for a text
    // view). The headless program prints each line and keeps nothing, so a
    // long show does not grow its memory line by line.
    void setConsoleRetainsText(bool retains) { consoleRetainsText_ = retains; }

    // Archive of plugs, as stored under "plugs".
    static QJsonObject archivePlugs(const std::vector<TSPlugPtr>& plugs);
    static std::vector<TSPlugPtr> unarchivePlugs(const QJsonValue& archive);

signals:
    void korvalisSendPortChanged();
    void korvalisListenPortChanged();
    void dmxModeChanged();
    void waitModeChanged();
    void canUseDMXAboutToChange();
    void canUseDMXChanged();
    void consoleLineAppended(const QString& line);
    void consoleCleared();
    void midiSetupChanged();
    // The first-start message, once; the window shows it as a sheet.
    void firstStartMessage(const QString& message, const QString& informativeText);

private:
    void rebuildDispatchIndex();
    void watchPlugs(const std::vector<TSPlugPtr>& added);
    std::shared_ptr<const DispatchIndex> index() const { return index_.load(); }
    static bool sendToAll(const DispatchIndex::Plugs& plugs, float value);
    void appendToConsoleInMainThread(const QString& text);
    void malformedKorvalisDatagram();
    void stopInputThreads();

    TSPlugList plugs_;
    ts::AtomicSharedPtr<const DispatchIndex> index_;
    ts::AtomicSharedPtr<TSPlug> learnTarget_; // first selected plug, for MIDI learn
    std::atomic<int> waitMode_{WaitNone};

    Wiring wiring_;
    ts::AtomicSharedPtr<DMXBridgePort> dmxBridge_;
    ts::AtomicSharedPtr<BBOSCSender> korvalisSender_;
    std::unique_ptr<BBOSCListener> korvalisListener_;
    int korvalisSendPort_ = 0;
    int korvalisListenPort_ = 0;
    int dmxMode_ = 0;

    std::atomic<bool> consoleVisible_{false};
    QString consoleText_;    // main thread only
    bool consoleRetainsText_ = true; // main thread only
    QString arduinoOutput_;  // main thread only; null until first used
    bool arduinoOutputMade_ = false;
    class QTimer* animationTimer_ = nullptr;
    std::vector<std::uint64_t> dmxObservers_;
    std::uint64_t malformedDatagrams_ = 0; // main thread only
    std::chrono::steady_clock::time_point lastMalformedLog_{};
};
