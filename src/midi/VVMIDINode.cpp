#include "midi/VVMIDINode.h"

#include "midi/VVMIDIHostTime.h"
#include "platform/Log.h"

#include <map>

// The service holds a handler per connection; the handler reaches its node
// only through this slot, under its mutex, so a node being released cuts the
// link and knows that no callback is still inside it when it goes.
struct VVMIDINode::ReceiverSlot {
    std::mutex mutex;
    VVMIDINode* node = nullptr;
};

namespace {

// Which node's handler the service currently holds for each source. A rebuild
// makes the new node before the last reference to the old one may be gone;
// only the node that is still the connected one disconnects.
struct Connections {
    std::mutex mutex; // leaf lock
    std::map<std::pair<const MIDIService*, uint32_t>, const void*> current;
};
Connections& connections() {
    static Connections* c = new Connections; // outlives nodes released at exit
    return *c;
}

} // namespace

// ---- creation ---------------------------------------------------------------

MIDIService::ReceiveHandler VVMIDINode::makeReceiveHandler() {
    slot_ = std::make_shared<ReceiverSlot>();
    slot_->node = this;
    return [slot = slot_](const MIDIPacketList& packets) {
        std::lock_guard lock(slot->mutex);
        if (slot->node)
            slot->node->handleServicePackets(packets);
    };
}

VVMIDINodePtr VVMIDINode::createReceiverWithEndpoint(const VVMIDIEndpointRef& source) {
    if (source.uniqueID == 0)
        return nullptr;
    VVMIDINodePtr node(new VVMIDINode);
    node->service_ = VVMIDIClient::service();
    node->endpointRef_ = source;
    node->loadProperties();
    // The input port of other services is the connection itself here.
    if (!node->service_->connectSource(source.uniqueID, node->makeReceiveHandler())) {
        ts::logf("\t\terror %ld at MIDIPortConnectSource() A", VVMIDIClient::kRefused);
        return nullptr;
    }
    node->connectedToSource_ = true;
    std::lock_guard lock(connections().mutex);
    connections().current[{node->service_.get(), source.uniqueID}] = node->slot_.get();
    return node;
}

VVMIDINodePtr VVMIDINode::createReceiverWithName(const std::string& name) {
    if (name.empty())
        return nullptr;
    VVMIDINodePtr node(new VVMIDINode);
    node->service_ = VVMIDIClient::service();
    node->name_ = name;
    if (!node->service_->createVirtualDestination(name, node->makeReceiveHandler())) {
        ts::logf("\t\terror %ld at MIDIDestinationCreate() A", VVMIDIClient::kRefused);
        return nullptr;
    }
    for (const MIDIEndpointInfo& e : node->service_->destinations())
        if (e.own && e.name == name)
            node->endpointRef_ = e;
    node->loadProperties();
    return node;
}

VVMIDINodePtr VVMIDINode::createSenderWithEndpoint(const VVMIDIEndpointRef& destination) {
    if (destination.uniqueID == 0)
        return nullptr;
    VVMIDINodePtr node(new VVMIDINode);
    node->service_ = VVMIDIClient::service();
    node->endpointRef_ = destination;
    node->sender_ = true;
    node->loadProperties();
    node->packetList_ = std::make_unique<VVMIDIPacketList>();
    return node;
}

VVMIDINodePtr VVMIDINode::createSenderWithName(const std::string& name) {
    if (name.empty())
        return nullptr;
    VVMIDINodePtr node(new VVMIDINode);
    node->service_ = VVMIDIClient::service();
    node->name_ = name;
    if (!node->service_->createVirtualSource(name)) {
        ts::logf("\t\terror %ld at MIDISourceCreate A", VVMIDIClient::kRefused);
        return nullptr;
    }
    for (const MIDIEndpointInfo& e : node->service_->sources())
        if (e.own && e.name == name)
            node->endpointRef_ = e;
    node->sender_ = true;
    node->virtualSender_ = true;
    node->loadProperties();
    node->packetList_ = std::make_unique<VVMIDIPacketList>();
    return node;
}

VVMIDINode::~VVMIDINode() {
    if (slot_) {
        // Waits for a callback in progress; afterwards none reaches this node.
        std::lock_guard lock(slot_->mutex);
        slot_->node = nullptr;
    }
    if (connectedToSource_) {
        bool stillCurrent = false;
        {
            std::lock_guard lock(connections().mutex);
            auto it = connections().current.find({service_.get(), endpointRef_.uniqueID});
            if (it != connections().current.end() && it->second == slot_.get()) {
                connections().current.erase(it);
                stillCurrent = true;
            }
        }
        if (stillCurrent)
            service_->disconnectSource(endpointRef_.uniqueID);
    }
    // A virtual node's own endpoint lasts as long as the service.
}

void VVMIDINode::loadProperties() {
    properties_ = {};
    // Virtual nodes whose endpoint the service does not list keep the name
    // they were made with.
    if (endpointRef_.uniqueID == 0) {
        ts::logf("\t\terror %ld at MIDIObjectGetStringProperty() a", VVMIDIClient::kRefused);
        ts::logf("\t\terror %ld at MIDIObjectGetIntegerProperty() b", VVMIDIClient::kRefused);
    } else {
        name_ = endpointRef_.name;
        properties_.name = endpointRef_.name;
        // The service's IDs are unsigned; the property is the same 32 bits signed.
        properties_.uniqueID = static_cast<int32_t>(endpointRef_.uniqueID);
        if (!endpointRef_.model.empty())
            properties_.model = endpointRef_.model;
        // Virtual endpoints have no device: they are Tessarine's own.
        if (!endpointRef_.own && !endpointRef_.deviceName.empty())
            deviceName_ = endpointRef_.deviceName;
    }
    // The clock followers are the parser's own and always exist; a sender
    // simply never feeds them.
    hasClocks_ = !sender_;
}

// ---- receiving --------------------------------------------------------------

void VVMIDINode::handlePacketList(std::span<const VVMIDIPacketView> packets, uint64_t now) {
    VVMIDIMessageList delivered;
    parser_.parsePacketList(packets, now ? now : vvmidiHostTime(), delivered);
    if (!delivered.empty())
        receivedMIDI(delivered);
}

void VVMIDINode::handleServicePackets(const MIDIPacketList& packets) {
    // Most callbacks carry one or a few packets: views on the stack.
    VVMIDIPacketView small[8];
    std::vector<VVMIDIPacketView> large;
    VVMIDIPacketView* views = small;
    if (packets.size() > std::size(small)) {
        large.resize(packets.size());
        views = large.data();
    }
    for (size_t i = 0; i < packets.size(); ++i)
        views[i] = {packets[i].timestamp, packets[i].bytes.data(), packets[i].bytes.size()};
    handlePacketList({views, packets.size()}, vvmidiHostTime());
}

void VVMIDINode::receivedMIDI(const VVMIDIMessageList& messages) {
    if (!enabled())
        return;
    if (VVMIDINodeDelegate* d = delegate_.load())
        d->receivedMIDIFromNode(messages, this);
}

// ---- sending ----------------------------------------------------------------

uint64_t VVMIDINode::packetTime(const VVMIDIMessage& message) const {
    if (message.timestamp() != 0)
        return message.timestamp();
    return static_cast<uint64_t>(static_cast<double>(vvmidiHostTime()) * kVVMIDIHostTimeBaseRatio);
}

long VVMIDINode::handOverLocked() {
    MIDIPacketList out;
    for (const VVMIDIPacketView& p : packetList_->packets())
        out.push_back({p.timestamp, std::vector<uint8_t>(p.bytes, p.bytes + p.length)});
    const bool ok =
        virtualSender_ ? service_->publish(out) : service_->send(endpointRef_.uniqueID, out);
    return ok ? 0 : VVMIDIClient::kRefused;
}

bool VVMIDINode::appendLocked(const VVMIDIMessage& message) {
    const uint64_t time = packetTime(message);
    if (message.type() == VVMIDIMessage::Sysex) {
        // Only system exclusive needs a buffer of its own (element count + 2).
        const std::vector<uint8_t> bytes = message.wireForm();
        return packetList_->add(time, bytes.data(), bytes.size());
    }
    uint8_t scratch[4]; // a short message: status and up to two data bytes
    const size_t length = message.writeWireForm(scratch, sizeof scratch);
    return length != 0 && packetList_->add(time, scratch, length);
}

void VVMIDINode::sendMsg(const VVMIDIMessagePtr& message) {
    if (!enabled() || !sender_ || !message || !packetList_)
        return;
    std::lock_guard lock(sendingLock_);
    if (!appendLocked(*message)) {
        if (message->type() == VVMIDIMessage::Sysex)
            ts::logLine("\terr adding new sysex packet");
        else
            ts::logf("\t\terror adding new packet %s", "-[VVMIDINode sendMsg:]");
        return;
    }
    if (long err = handOverLocked()) {
        if (virtualSender_)
            ts::logf("\t\terr %ld at MIDIReceived A", err);
        else
            ts::logf("\t\terr %ld at MIDISend A", err);
    }
    // Also after a failed hand-over the list starts empty again: sending the
    // failed packets late, with the next message, would play old notes at the
    // wrong time. They are dropped (and logged above).
    packetList_->init();
}

void VVMIDINode::sendMsgs(const VVMIDIMessageList& messages) {
    if (!enabled() || !sender_ || messages.empty() || !packetList_)
        return;
    std::lock_guard lock(sendingLock_);
    for (const VVMIDIMessagePtr& message : messages) {
        if (message && !appendLocked(*message)) {
            // The batch ends here. What was already laid out still goes out
            // (a note-off before the bad message must not be lost); the rest
            // of the batch is dropped.
            ts::logLine("\t\terror adding new packet");
            break;
        }
    }
    if (!packetList_->empty()) {
        if (long err = handOverLocked()) {
            if (virtualSender_)
                ts::logf("\t\terr %ld at MIDIReceived A", err);
            else
                ts::logf("\t\terr %ld at MIDISend A", err);
        }
    }
    packetList_->init();
}

// ---- texts and clocks -------------------------------------------------------

std::string VVMIDINode::fullName() const {
    if (name_.empty())
        return {};
    if (deviceName_.empty())
        return name_;
    return deviceName_ + "-" + name_;
}

std::string VVMIDINode::description() const {
    const std::string id = properties_.uniqueID ? std::to_string(*properties_.uniqueID) : "(null)";
    return "<VVMIDINode: " + name_ + ", " + id + ">";
}

double VVMIDINode::MTCQuarterFrameSMPTEAsDouble() const {
    return hasClocks_ ? parser_.timeCodeClock().currentSMPTESeconds(vvmidiHostTime()) : 0.0;
}

double VVMIDINode::midiClockBeats() const {
    return hasClocks_ ? parser_.beatClock().currentBeats(vvmidiHostTime()) : 0.0;
}

double VVMIDINode::midiClockBPM() const {
    if (!hasClocks_)
        return 0.0;
    return parser_.beatClock().currentTempo() * parser_.beatClock().playRate();
}
