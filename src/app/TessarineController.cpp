#include "app/TessarineController.h"

#include "dmx/LODMXResponse.h"
#include "io/CommandManager.h"
#include "midi/VVMIDIManager.h"
#include "midi/VVMIDIMessage.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCListener.h"
#include "osc/BBOSCListenerDelegate.h"
#include "osc/BBOSCSender.h"
#include "osc/OSCManager.h"
#include "platform/Defaults.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/NilValue.h"
#include "platform/NotificationCenter.h"
#include "signals/TSCommandSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSGeneratedSignals.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"

#include <QJsonObject>
#include <QMetaProperty>
#include <QTimer>
#include <chrono>

namespace {

std::atomic<TessarineController*> sharedInstance{nullptr};

constexpr int kDefaultKorvalisSendPort = 5000;
constexpr int kDefaultKorvalisListenPort = 5001;
const char* const kKorvalisHost = "127.0.0.1"; // Korvalis always runs on this machine

// The Korvalis listener hands datagrams to the controller through this.
class KorvalisLinkDelegate final : public BBOSCListenerDelegate {
public:
    explicit KorvalisLinkDelegate(TessarineController* controller) : controller_(controller) {}
    void dispatchRawPacket(std::span<const std::uint8_t> datagram) override {
        controller_->dispatchRawPacket(datagram);
    }

private:
    TessarineController* controller_;
};

QString text(std::string_view s) { return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size())); }

} // namespace

TessarineController* TessarineController::sharedController() { return sharedInstance.load(); }

TessarineController::TessarineController(Wiring wiring) : wiring_(std::move(wiring)) {
    index_.store(std::make_shared<const DispatchIndex>());
    connect(&plugs_, &TSPlugList::plugsAdded, this, &TessarineController::watchPlugs);
    connect(&plugs_, &TSPlugList::plugsRemoved, this, [this](const std::vector<TSPlugPtr>& gone) {
        for (const TSPlugPtr& plug : gone)
            disconnect(plug.get(), &TSPlug::identityChanged, this, nullptr);
    });
    connect(&plugs_, &TSPlugList::contentChanged, this, &TessarineController::rebuildDispatchIndex);
    connect(&plugs_, &TSPlugList::selectionChanged, this,
            [this] { learnTarget_.store(plugs_.firstSelectedObject()); });

    if (wiring_.midiManager)
        wiring_.midiManager->setDelegate(this);

    ts::Defaults& defaults = ts::Defaults::standard();
    setDmxMode(static_cast<int>(defaults.integerForKey("dmxMode")));

    ts::NotificationCenter& center = ts::NotificationCenter::defaultCenter();
    dmxObservers_.push_back(center.addObserver(
        "LODMXDidReceiveChannelValueNotification", nullptr, [this](const ts::Notification& n) {
            if (const auto* response = n.info<LODMXResponse>("response"))
                processDMXChannelAndValue(response->channel, response->value & 0xFF);
        }));
    dmxObservers_.push_back(center.addObserver("LODMXDebugNotification", nullptr,
                                               [](const ts::Notification&) {}));
    dmxObservers_.push_back(center.addObserver(
        "LODMXDidErrorNotification", nullptr, [](const ts::Notification& n) {
            const QString* detail = n.info<QString>("detail");
            ts::logf("ERROR : %s", detail ? qPrintable(*detail) : "(null)");
        }));
    updateDmxBridge();

    animationTimer_ = new QTimer(this);
    animationTimer_->setTimerType(Qt::PreciseTimer);
    // 1/60 s, to the millisecond the timer offers.
    animationTimer_->setInterval(16);
    connect(animationTimer_, &QTimer::timeout, this, [this] { processAnimations(); });
    animationTimer_->start();

    if (wiring_.korvalisLink) {
        int sendPort = static_cast<int>(defaults.integerForKey("korvalisSendPort"));
        int listenPort = static_cast<int>(defaults.integerForKey("korvalisListenPort"));
        setKorvalisSendPort(sendPort == 0 ? kDefaultKorvalisSendPort : sendPort);
        setKorvalisListenPort(listenPort == 0 ? kDefaultKorvalisListenPort : listenPort);
    }

    sharedInstance.store(this);
}

TessarineController::~TessarineController() {
    stopInputThreads();
    TessarineController* self = this;
    sharedInstance.compare_exchange_strong(self, nullptr);
    for (auto token : dmxObservers_)
        ts::NotificationCenter::defaultCenter().removeObserver(token);
    if (wiring_.dmxHardware)
        wiring_.dmxHardware->closeAll();
    if (korvalisListener_)
        korvalisListener_->stopListening();
}

// --- the plug list and its index -------------------------------------------

void TessarineController::watchPlugs(const std::vector<TSPlugPtr>& added) {
    for (const TSPlugPtr& plug : added) {
        // A plug listed twice is watched once.
        disconnect(plug.get(), &TSPlug::identityChanged, this, nullptr);
        connect(plug.get(), &TSPlug::identityChanged, this, [this] {
            // Identifying settings change on the main thread; a change made
            // elsewhere is indexed there too.
            ts::performOnMainThread([this] { rebuildDispatchIndex(); });
        }, Qt::DirectConnection);
    }
}

void TessarineController::rebuildDispatchIndex() {
    index_.store(std::make_shared<const DispatchIndex>(plugs_.arrangedObjects()));
}

std::vector<TSPlugPtr> TessarineController::getPlugWithSignalInClass(const TSSignalClass& cls) const {
    return index()->plugsWithSignalInClass(cls);
}

bool TessarineController::sendToAll(const DispatchIndex::Plugs& plugs, float value) {
    for (const TSPlugPtr& plug : plugs)
        plug->sendSignalWithValue(value);
    return !plugs.empty();
}

// --- processing operations --------------------------------------------------

bool TessarineController::processKeyCodeAndModifierFlagsAndPressed(unsigned keyCode,
                                                                   unsigned modifierFlags,
                                                                   bool pressed) {
    const auto snapshot = index();
    const auto& matches = snapshot->keyboard(keyCode, modifierFlags);
    for (const TSPlugPtr& plug : matches) {
        auto* key = static_cast<TSKeyboardSignal*>(plug->signalIn().get());
        plug->sendSignalWithValue(key->valueForKeyEvent(pressed));
    }
    return !matches.empty();
}

bool TessarineController::processAudioLevel(float level) {
    const float value = std::max(std::min(level / 10.0f, 1.0f), 0.0f);
    return sendToAll(index()->audio(), value);
}

bool TessarineController::processMIDIMessage(const VVMIDIMessage& message) {
    const unsigned type = message.type();
    const unsigned channel = message.channel();
    const unsigned note = message.data1();
    const unsigned value = message.data2();
    const auto snapshot = index();
    const auto& matches = snapshot->midi(type, channel, note);
    for (const TSPlugPtr& plug : matches) {
        plug->sendSignalWithValue(static_cast<float>(value));
        if (type == 144) // a note output of this input ends at once
            plug->sendSignalWithValue(0.0f);
    }
    if (consoleVisible())
        appendToConsole(QString::asprintf("MIDI : channel_%i, type_%i, note_%i, value_%i",
                                          static_cast<int>(channel) + 1, static_cast<int>(type),
                                          static_cast<int>(note), static_cast<int>(value)));
    return !matches.empty();
}

bool TessarineController::processKorvalisOSCMessageWithAddressAndArguments(
    std::string_view address, std::span<const BBOSCArgument> arguments) {
    const float value = arguments.empty() ? 1.0f : arguments.front().floatValue();
    const bool handled = sendToAll(index()->osc(address), value);
    if (consoleVisible())
        appendToConsole(QString("OSC : '%1'    %2")
                            .arg(text(address))
                            .arg(QString::asprintf("%f", static_cast<double>(value))));
    return handled;
}

bool TessarineController::processCommandWithString(std::string_view command) {
    const bool handled = sendToAll(index()->command(command), 1.0f);
    if (consoleVisible())
        appendToConsole("Command : " + text(command));
    return handled;
}

bool TessarineController::processDMXChannelAndValue(unsigned channel, unsigned value) {
    const bool handled = sendToAll(index()->dmx(channel), static_cast<float>(value));
    if (consoleVisible())
        appendToConsole(QString::asprintf("DMX : channel_%i, value_%i", static_cast<int>(channel),
                                          static_cast<int>(value)));
    return handled;
}

bool TessarineController::processArtnetChannelAndValue(unsigned channel, unsigned value) {
    const bool handled = sendToAll(index()->artnet(channel), static_cast<float>(value));
    if (consoleVisible())
        appendToConsole(QString::asprintf("ARTNET : channel_%i, value_%i",
                                          static_cast<int>(channel), static_cast<int>(value)));
    return handled;
}

bool TessarineController::processArduinoText(const QString& fragment) {
    if (!arduinoOutputMade_) {
        arduinoOutput_ = QString("");
        arduinoOutputMade_ = true;
    }
    arduinoOutput_ += fragment;
    const QStringList pieces = arduinoOutput_.split('\n');
    if (pieces.size() < 2)
        return false;
    // Only the first complete line counts; lines after it in the same
    // fragment are dropped, and the unfinished rest waits for more text.
    const int number = tsIntegerValue(pieces.first());
    arduinoOutput_ = pieces.last();
    const bool handled = sendToAll(index()->arduino(), static_cast<float>(number));
    if (consoleVisible())
        appendToConsole(QString::asprintf("ARDUINO : '%i'", number));
    return handled;
}

bool TessarineController::processAnimations() { return sendToAll(index()->animation(), 1.0f); }

bool TessarineController::processKorvalisOSCMessage(const BBOSCMessage& message) {
    if (message.argumentCount() == 0)
        return false;
    const std::string& address = message.addressString();
    const BBOSCArgument& first = message.argumentAtIndex(0);
    const bool isCue = address.starts_with("/korvalis/composition/cue");
    const bool isMedia = address.starts_with("/korvalis/layer/media/");
    const auto snapshot = index();
    bool handled = false;
    for (const TSPlugPtr& plug : snapshot->korvalis(address)) {
        if (isCue) {
            const QString name = static_cast<TSKorvalisSignal*>(plug->signalIn().get())->paramValue();
            if (name.isNull() || name.toStdString() != first.stringValue())
                continue;
        }
        if (isMedia && !(first.floatValue() > 0.0f))
            continue; // a media start is reported with a positive value only
        plug->sendSignalWithValue(first.floatValue());
        handled = true;
    }
    return handled;
}

// --- sending operations -----------------------------------------------------

void TessarineController::sendMidiMessage(const std::shared_ptr<VVMIDIMessage>& message) {
    if (wiring_.midi)
        wiring_.midi->sendMsg(message);
}

void TessarineController::sendStringCommandWithValue(const QString& command, float value) {
    if (wiring_.command)
        wiring_.command->sendCommandWithValue(command, value);
}

void TessarineController::sendOSCMessageAtAddressWithValue(const QString& address, float value) {
    if (wiring_.osc)
        wiring_.osc->sendOSCMessageAtAddressWithValue(address, value);
}

void TessarineController::sendDMXChannelAndValue(unsigned channel, unsigned value) {
    if (const auto bridge = dmxBridge_.load())
        bridge->setChannelToValue(channel, static_cast<std::uint8_t>(value));
}

void TessarineController::sendArtnetChannelAndValue(unsigned channel, unsigned value) {
    if (wiring_.artnet)
        wiring_.artnet->sendValueToChannel(static_cast<std::uint8_t>(value), channel);
}

void TessarineController::sendKorvalisOSCMessage(const BBOSCMessage& message) {
    if (const auto sender = korvalisSender_.load())
        sender->sendOSCPacket(message);
}

void TessarineController::sendArduinoText(const QString& text) {
    if (wiring_.arduino)
        wiring_.arduino->writeString(text);
}

// --- user actions -----------------------------------------------------------

void TessarineController::addMapping(int typeCode) {
    const TSPlugPtr plug = TSPlug::initWithType(typeCode);
    plugs_.addObject(plug);
    plugs_.setSelectedObjects({plug});
}

void TessarineController::duplicateMapping() {
    const TSPlugPtr original = plugs_.firstSelectedObject();
    if (!original)
        return;
    const std::vector<TSPlugPtr> copies = unarchivePlugs(archivePlugs({original}));
    if (copies.empty())
        return;
    plugs_.addObject(copies.front());
    plugs_.setSelectedObjects({copies.front()});
}

void TessarineController::testMapping() {
    const TSPlugPtr plug = plugs_.firstSelectedObject();
    if (!plug)
        return;
    if (const auto out = plug->signalOut()) {
        out->sendWithValue(0.0f);
        out->sendWithValue(1.0f);
    }
}

void TessarineController::removeMapping() { plugs_.removeObjects(plugs_.selectedObjects()); }

void TessarineController::waitForKeyboard(const TSPlugPtr& plug) {
    plugs_.setSelectedObjects({plug});
    setWaitMode(WaitKeyboard);
}

void TessarineController::waitForMidi(const TSPlugPtr& plug) {
    plugs_.setSelectedObjects({plug});
    setWaitMode(WaitMidi);
}

void TessarineController::cancelWait() { setWaitMode(WaitNone); }

void TessarineController::setWaitMode(int mode) {
    waitMode_.store(mode);
    ts::performOnMainThread([this] { emit waitModeChanged(); });
}

void TessarineController::showConsole() { setConsoleVisible(!consoleVisible()); }

void TessarineController::setConsoleVisible(bool visible) {
    if (consoleVisible_.exchange(visible) == visible)
        return;
    if (!visible) {
        consoleText_ = QString("");
        emit consoleCleared();
    }
}

void TessarineController::appendToConsole(const QString& text) {
    ts::performOnMainThread([this, text] { appendToConsoleInMainThread(text); });
}

void TessarineController::appendToConsoleInMainThread(const QString& text) {
    // A line queued just before the console was hidden is not shown.
    if (!consoleVisible())
        return;
    if (consoleRetainsText_) {
        consoleText_ += text;
        consoleText_ += '\n';
    }
    emit consoleLineAppended(text);
}

void TessarineController::updateDmxMode(int mode) {
    setDmxMode(mode);
    updateDmxBridge();
}

void TessarineController::setNilValueForKey(const QString& key) { ts::setNilValueForKey(*this, key); }

void TessarineController::updateLocalIP() {
    if (auto* osc = dynamic_cast<OSCManager*>(wiring_.osc.get()))
        osc->updateLocalIP();
}

// --- keys -------------------------------------------------------------------

bool TessarineController::keyDown(const TSKeyEvent& event) {
    const unsigned code = event.keyCode & 0xFFFF;
    if (waitMode() == WaitKeyboard) {
        const TSPlugPtr plug = plugs_.firstSelectedObject();
        auto* key = plug ? dynamic_cast<TSKeyboardSignal*>(plug->signalIn().get()) : nullptr;
        setWaitMode(WaitNone);
        if (key) {
            key->changeCharactersAndKeyCodeAndModifierFlags(event.charactersIgnoringModifiers, code,
                                                            event.modifierFlags);
            return true;
        }
        // The selection was cleared (or is not a key plug) while waiting:
        // there is nothing to learn into, so the key counts as a normal one.
        ts::logLine("key learn: no keyboard plug is selected; the key was processed normally");
    }
    return processKeyCodeAndModifierFlagsAndPressed(code, event.modifierFlags, true);
}

bool TessarineController::keyUp(const TSKeyEvent& event) {
    return processKeyCodeAndModifierFlagsAndPressed(event.keyCode & 0xFFFF, event.modifierFlags,
                                                    false);
}

// --- MIDI -------------------------------------------------------------------

void TessarineController::receivedMIDIFromNode(
    const std::vector<std::shared_ptr<VVMIDIMessage>>& messages, VVMIDINode*) {
    if (waitMode() == WaitMidi) {
        const TSPlugPtr plug = learnTarget_.load();
        int expected = WaitMidi;
        if (plug && waitMode_.compare_exchange_strong(expected, WaitNone)) {
            ts::performOnMainThread([this] { emit waitModeChanged(); });
            if (messages.empty() || !messages.front())
                return;
            const VVMIDIMessage& m = *messages.front();
            const unsigned type = m.type() & 0xFF;
            const unsigned channel = m.channel() & 0xFF;
            const unsigned note = m.data1() & 0xFF;
            // The plug's settings belong to the main thread: learn there.
            ts::performOnMainThread([plug, type, channel, note] {
                if (auto* midi = dynamic_cast<TSMidiSignal*>(plug->signalIn().get()))
                    midi->changeTypeAndChannelAndNote(type, channel, note);
                else
                    ts::logLine("MIDI learn: the selected plug's input is not a MIDI signal");
            });
            return;
        }
    }
    for (const auto& message : messages)
        if (message)
            processMIDIMessage(*message);
}

void TessarineController::setupChanged() {
    ts::performOnMainThread([this] { emit midiSetupChanged(); });
}

int TessarineController::numberOfRowsInTableView(MIDITable table) const {
    const auto& manager = wiring_.midiManager;
    switch (table) {
    case MIDITable::Sources: return manager ? static_cast<int>(manager->sourceArray().lockCount()) + 1 : 1;
    case MIDITable::Destinations: return manager ? static_cast<int>(manager->destArray().lockCount()) + 1 : 1;
    case MIDITable::Other: break;
    }
    return 0;
}

std::shared_ptr<VVMIDINode> TessarineController::getMidiNodeForTableViewAndRow(MIDITable table,
                                                                               int row) const {
    const auto& manager = wiring_.midiManager;
    if (!manager || table == MIDITable::Other || row < 0)
        return nullptr;
    auto& list = table == MIDITable::Sources ? manager->sourceArray() : manager->destArray();
    if (row < list.lockCount())
        return list.lockObjectAtIndex(row);
    // The extra last row: the program's own endpoint.
    return table == MIDITable::Sources ? manager->virtualSource() : manager->virtualDest();
}

QVariant TessarineController::tableViewObjectValueForTableColumnRow(MIDITable table,
                                                                    const QString& column,
                                                                    int row) const {
    const auto node = getMidiNodeForTableViewAndRow(table, row);
    if (!node)
        return {};
    if (column == QLatin1String("SourcesName"))
        return QString::fromStdString(node->name());
    if (column == QLatin1String("SourcesEnabled"))
        return node->enabled() ? 1 : 0;
    return {};
}

void TessarineController::tableViewSetObjectValueForTableColumnRow(MIDITable table,
                                                                   const QVariant& value,
                                                                   const QString& column, int row) {
    if (column != QLatin1String("SourcesEnabled"))
        return;
    if (const auto node = getMidiNodeForTableViewAndRow(table, row))
        node->setEnabled(value.toInt() == 1);
}

// --- the Korvalis link ------------------------------------------------------

void TessarineController::dispatchRawPacket(std::span<const std::uint8_t> datagram) {
    if (const auto packet = BBOSCDecoder::decodeData(datagram))
        decodePacket(*packet);
    else
        malformedKorvalisDatagram();
}

void TessarineController::malformedKorvalisDatagram() {
    // One line a second at most, however fast a broken peer sends.
    ++malformedDatagrams_;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastMalformedLog_ < std::chrono::seconds(1))
        return;
    lastMalformedLog_ = now;
    ts::logf("Korvalis link: %llu datagram(s) could not be decoded and were dropped",
             static_cast<unsigned long long>(malformedDatagrams_));
    malformedDatagrams_ = 0;
}

void TessarineController::decodePacket(const BBOSCPacket& packet) {
    if (const BBOSCMessage* message = packet.asMessage()) {
        processKorvalisOSCMessage(*message);
    } else if (const BBOSCBundle* bundle = packet.asBundle()) {
        for (const auto& element : bundle->attachedObjects())
            if (element)
                decodePacket(*element);
    }
}

void TessarineController::setKorvalisSendPort(int port) {
    korvalisSendPort_ = port;
    ts::Defaults::standard().setIntegerForKey(port, "korvalisSendPort");
    std::unique_ptr<BBOSCSender> sender =
        BBOSCSender::senderWithDestinationHostNamePortNumber(kKorvalisHost, port);
    korvalisSender_.store(std::shared_ptr<BBOSCSender>(
        sender.release(), [](BBOSCSender* s) { ts::performOnMainThread([s] { delete s; }); }));
    emit korvalisSendPortChanged();
}

void TessarineController::setKorvalisListenPort(int port) {
    korvalisListenPort_ = port;
    ts::Defaults::standard().setIntegerForKey(port, "korvalisListenPort");
    if (korvalisListener_)
        korvalisListener_->stopListening();
    korvalisListener_ = BBOSCListener::defaultListenerOnPort(port);
    if (korvalisListener_)
        korvalisListener_->setDelegate(std::make_shared<KorvalisLinkDelegate>(this));
    emit korvalisListenPortChanged();
}

int TessarineController::korvalisBoundListenPort() const {
    return korvalisListener_ ? korvalisListener_->portNumber() : 0;
}

// --- DMX --------------------------------------------------------------------

void TessarineController::setDmxMode(int mode) {
    if (mode == dmxMode_ && ts::Defaults::standard().hasKey("dmxMode"))
        return;
    dmxMode_ = mode;
    ts::Defaults::standard().setIntegerForKey(mode, "dmxMode");
    emit dmxModeChanged();
}

void TessarineController::updateDmxBridge() {
    emit canUseDMXAboutToChange();
    dmxBridge_.store(nullptr);
    if (wiring_.dmxHardware) {
        wiring_.dmxHardware->autopatch();
        const std::vector<std::string> ids = wiring_.dmxHardware->patchedBridgeIdentifiers();
        if (!ids.empty()) {
            if (auto bridge = wiring_.dmxHardware->bridgeForIdentifier(ids.front())) {
                dmxBridge_.store(bridge);
                if (dmxMode_ != 0)
                    bridge->setRX(true);
                else
                    bridge->setTX(true);
            }
        }
    }
    emit canUseDMXChanged();
}

// --- start-up, persistence, quit -------------------------------------------

void TessarineController::showMainApplicationWindow() {
    ts::Defaults& defaults = ts::Defaults::standard();
    if (!defaults.boolForKey("firstStart")) {
        emit firstStartMessage(
            "This is the first time you start Tessarine",
            "\nPlease click on 'Settings' and check that the connection with Korvalis is "
            "correct.\n\n\nTessarine automatically saves and loads your configuration.");
        defaults.setBoolForKey(true, "firstStart");
    }
    restorePlugs();
}

QJsonObject TessarineController::archivePlugs(const std::vector<TSPlugPtr>& plugs) {
    std::vector<const ts::Archivable*> roots;
    for (const TSPlugPtr& plug : plugs)
        roots.push_back(plug.get());
    return ts::KeyedArchiver::archivedRootObjects(roots);
}

std::vector<TSPlugPtr> TessarineController::unarchivePlugs(const QJsonValue& archive) {
    std::vector<TSPlugPtr> plugs;
    const auto objects = ts::KeyedUnarchiver::unarchiveRootObjects(archive, &TSPlug::restoreArchived);
    if (!objects)
        return plugs;
    for (const auto& object : *objects) {
        if (auto plug = std::dynamic_pointer_cast<TSPlug>(object))
            plugs.push_back(std::move(plug));
        else
            ts::logf("archive: a %s in the plug list was skipped", object->archiveClassName());
    }
    return plugs;
}

void TessarineController::restorePlugs() {
    const QJsonValue stored = ts::Defaults::standard().jsonForKey("plugs");
    plugs_.addObjects(unarchivePlugs(stored));
}

void TessarineController::savePlugs() {
    ts::Defaults::standard().setJsonForKey(archivePlugs(plugs_.arrangedObjects()), "plugs");
}

void TessarineController::applicationWillTerminate() {
    stopInputThreads();
    savePlugs();
}

// Inputs that call in on threads of their own stop first, so nothing arrives
// while the list is stored or the controller goes away. The managers stay
// (other threads may still be sending through them) and are released with
// the controller.
void TessarineController::stopInputThreads() {
    if (wiring_.midiManager)
        wiring_.midiManager->setDelegate(nullptr);
    if (auto* command = dynamic_cast<CommandManager*>(wiring_.command.get()))
        command->stopListening();
}
