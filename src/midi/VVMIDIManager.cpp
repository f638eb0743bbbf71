#include "midi/VVMIDIManager.h"

#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/NotificationCenter.h"

#include <algorithm>
#include <cstdint>
#include <set>

namespace {

constexpr const char* kSetupChangedNotification = "VVMIDISetupChangedNotification";

// Walks a node list under its read lock.
template <class Fn> void forEachNode(VVMIDIManager::NodeArray& list, Fn&& fn) {
    list.rdlock();
    for (const VVMIDINodePtr& node : list.array()) {
        if (!fn(node))
            break;
    }
    list.unlock();
}

template <class Field>
VVMIDINodePtr findNode(VVMIDIManager::NodeArray& list, const std::string& text, Field field) {
    if (text.empty())
        return nullptr;
    VVMIDINodePtr found;
    forEachNode(list, [&](const VVMIDINodePtr& node) {
        const std::optional<std::string> value = field(*node);
        if (value && *value == text) {
            found = node;
            return false;
        }
        return true;
    });
    return found;
}

template <class Field>
std::vector<std::string> nameList(VVMIDIManager::NodeArray& list, Field field, bool unique) {
    std::vector<std::string> names;
    std::set<std::string> seen;
    forEachNode(list, [&](const VVMIDINodePtr& node) {
        const std::string value = field(*node);
        if (!value.empty() && (!unique || seen.insert(value).second))
            names.push_back(value);
        return true;
    });
    return names;
}

std::optional<std::string> nameOf(const VVMIDINode& n) {
    return n.name().empty() ? std::nullopt : std::optional(n.name());
}
std::optional<std::string> fullNameOf(const VVMIDINode& n) {
    std::string f = n.fullName();
    return f.empty() ? std::nullopt : std::optional(f);
}
std::optional<std::string> modelOf(const VVMIDINode& n) {
    return n.properties().model;
}
std::optional<std::string> deviceOf(const VVMIDINode& n) {
    return n.deviceName().empty() ? std::nullopt : std::optional(n.deviceName());
}

} // namespace

std::unique_ptr<VVMIDIManager> VVMIDIManager::create() {
    std::unique_ptr<VVMIDIManager> m(new VVMIDIManager);
    m->generalInit();
    return m;
}

std::unique_ptr<KVVVMIDIManager> KVVVMIDIManager::create() {
    std::unique_ptr<KVVVMIDIManager> m(new KVVVMIDIManager);
    m->generalInit();
    return m;
}

VVMIDIManager::~VVMIDIManager() {
    *alive_ = false;
    ts::NotificationCenter::defaultCenter().removeObserver(observerToken_);
    delegate_.store(nullptr);
    // Nodes close their ports as they go; the lists empty themselves under
    // their write locks.
    sourceArray_.lockRemoveAllObjects();
    destArray_.lockRemoveAllObjects();
    virtualSource_.reset();
    virtualDest_.reset();
}

void VVMIDIManager::generalInit() {
    service_ = VVMIDIClient::service();
    observerToken_ = ts::NotificationCenter::defaultCenter().addObserver(
        kSetupChangedNotification, nullptr, [this, alive = alive_](const ts::Notification&) {
            // The manager may be going away on the main thread while a change
            // is reported elsewhere: only the main thread looks at it, and only
            // while it is alive.
            rebuildAndTell(this, alive);
        });
    createVirtualNodes();
    setupChanged();
}

void VVMIDIManager::createVirtualNodes() {
    virtualSource_ = createReceivingNodeWithName(receivingNodeName());
    if (virtualSource_)
        virtualSource_->setDelegate(this);
    virtualDest_ = createSendingNodeWithName(sendingNodeName());
    if (virtualDest_)
        virtualDest_->setDelegate(this);
}

VVMIDINodePtr VVMIDIManager::createReceivingNodeWithEndpoint(const VVMIDIEndpointRef& source) {
    return VVMIDINode::createReceiverWithEndpoint(source);
}
VVMIDINodePtr VVMIDIManager::createSendingNodeWithEndpoint(const VVMIDIEndpointRef& destination) {
    return VVMIDINode::createSenderWithEndpoint(destination);
}
VVMIDINodePtr VVMIDIManager::createReceivingNodeWithName(const std::string& name) {
    return VVMIDINode::createReceiverWithName(name);
}
VVMIDINodePtr VVMIDIManager::createSendingNodeWithName(const std::string& name) {
    return VVMIDINode::createSenderWithName(name);
}

void VVMIDIManager::setupChanged() {
    rebuildAndTell(this, alive_);
}

void VVMIDIManager::rebuildAndTell(VVMIDIManager* manager, const std::shared_ptr<bool>& alive) {
    // Everything touching the lists runs on the main thread; the delegate is
    // told on the reporting thread once both lists are rebuilt.
    VVMIDIManagerDelegate* toTell = nullptr;
    bool rebuilt = false;
    ts::performOnMainThreadAndWait([&] {
        if (!*alive || !manager->virtualSource_ || !manager->virtualDest_)
            return;
        manager->loadMIDIInputSources();
        manager->loadMIDIOutputDestinations();
        toTell = manager->delegate_.load();
        rebuilt = true;
    });
    if (rebuilt && toTell)
        toTell->setupChanged();
}

void VVMIDIManager::loadMIDIInputSources() {
    if (!ts::isMainThread()) {
        ts::performOnMainThreadAndWait([this] { loadMIDIInputSources(); });
        return;
    }
    sourceArray_.lockRemoveAllObjects();
    // Our own virtual source's ID; a value no 32-bit ID can take when unknown.
    int64_t ownSourceID = INT64_MIN;
    if (virtualDest_ && virtualDest_->properties().uniqueID)
        ownSourceID = *virtualDest_->properties().uniqueID;
    for (const VVMIDIEndpointRef& source : service_->sources()) {
        // The service marks Tessarine's own endpoints; the unique-ID test
        // below catches them too where a service does not.
        if (source.own)
            continue;
        VVMIDINodePtr node = createReceivingNodeWithEndpoint(source);
        if (!node)
            continue;
        const std::optional<int32_t> id = node->properties().uniqueID;
        if (id) {
            bool own = ownSourceID == *id;
            forEachNode(destArray_, [&](const VVMIDINodePtr& dest) {
                if (dest->properties().uniqueID == id)
                    own = true;
                return !own;
            });
            if (own)
                continue;
        }
        node->setDelegate(this);
        sourceArray_.lockAddObject(node);
    }
}

void VVMIDIManager::loadMIDIOutputDestinations() {
    if (!ts::isMainThread()) {
        ts::performOnMainThreadAndWait([this] { loadMIDIOutputDestinations(); });
        return;
    }
    destArray_.lockRemoveAllObjects();
    const std::string own = receivingNodeName();
    for (const VVMIDIEndpointRef& destination : service_->destinations()) {
        if (destination.own)
            continue;
        VVMIDINodePtr node = createSendingNodeWithEndpoint(destination);
        // Our own virtual destination, and anything named like it, would loop
        // our output back into our input.
        if (!node || node->name().find(own) != std::string::npos)
            continue;
        node->setDelegate(this);
        destArray_.lockAddObject(node);
    }
}

void VVMIDIManager::receivedMIDIFromNode(const VVMIDIMessageList& messages, VVMIDINode* node) {
    if (VVMIDIManagerDelegate* d = delegate_.load())
        d->receivedMIDIFromNode(messages, node);
}

void VVMIDIManager::receivedMIDI(const VVMIDIMessageList& messages) {
    if (VVMIDIManagerDelegate* d = delegate_.load())
        d->receivedMIDI(messages);
}

void VVMIDIManager::sendMsg(const VVMIDIMessagePtr& message) {
    if (!message)
        return;
    destArray_.lockMakeObjectsPerformSelectorWithObject(&VVMIDINode::sendMsg, message);
    if (virtualDest_)
        virtualDest_->sendMsg(message);
}

void VVMIDIManager::sendMsgs(const VVMIDIMessageList& messages) {
    if (messages.empty())
        return;
    destArray_.lockMakeObjectsPerformSelectorWithObject(&VVMIDINode::sendMsgs, messages);
    if (virtualDest_)
        virtualDest_->sendMsgs(messages);
}

VVMIDIManager::Snapshot VVMIDIManager::createSnapshot() {
    Snapshot snapshot;
    auto record = [](NodeArray& list, std::map<std::string, bool>& into) {
        forEachNode(list, [&](const VVMIDINodePtr& node) {
            const std::string full = node->fullName();
            if (!full.empty())
                into[full] = node->enabled();
            return true;
        });
    };
    record(sourceArray_, snapshot["fullSrc"]);
    record(destArray_, snapshot["fullDst"]);
    return snapshot;
}

void VVMIDIManager::loadSnapshot(const Snapshot& snapshot) {
    auto apply = [&](NodeArray& list, const char* fullKey, const char* nameKey) {
        auto full = snapshot.find(fullKey);
        const bool byFullName = full != snapshot.end();
        auto byName = snapshot.find(nameKey);
        if (!byFullName && byName == snapshot.end())
            return;
        const std::map<std::string, bool>& flags = byFullName ? full->second : byName->second;
        forEachNode(list, [&](const VVMIDINodePtr& node) {
            auto it = flags.find(byFullName ? node->fullName() : node->name());
            if (it != flags.end())
                node->setEnabled(it->second);
            return true;
        });
    };
    apply(sourceArray_, "fullSrc", "src");
    apply(destArray_, "fullDst", "dst");
}

VVMIDINodePtr VVMIDIManager::findDestNodeNamed(const std::string& t) {
    return findNode(destArray_, t, nameOf);
}
VVMIDINodePtr VVMIDIManager::findDestNodeWithFullName(const std::string& t) {
    return findNode(destArray_, t, fullNameOf);
}
VVMIDINodePtr VVMIDIManager::findDestNodeWithModelName(const std::string& t) {
    return findNode(destArray_, t, modelOf);
}
VVMIDINodePtr VVMIDIManager::findDestNodeWithDeviceName(const std::string& t) {
    return findNode(destArray_, t, deviceOf);
}
VVMIDINodePtr VVMIDIManager::findSourceNodeNamed(const std::string& t) {
    return findNode(sourceArray_, t, nameOf);
}
VVMIDINodePtr VVMIDIManager::findSourceNodeWithFullName(const std::string& t) {
    return findNode(sourceArray_, t, fullNameOf);
}
VVMIDINodePtr VVMIDIManager::findSourceNodeWithModelName(const std::string& t) {
    return findNode(sourceArray_, t, modelOf);
}
VVMIDINodePtr VVMIDIManager::findSourceNodeWithDeviceName(const std::string& t) {
    return findNode(sourceArray_, t, deviceOf);
}

std::vector<std::string> VVMIDIManager::destNodeNameArray() {
    return nameList(
        destArray_, [](const VVMIDINode& n) { return n.name(); }, false);
}
std::vector<std::string> VVMIDIManager::destNodeFullNameArray() {
    return nameList(
        destArray_, [](const VVMIDINode& n) { return n.fullName(); }, false);
}
std::vector<std::string> VVMIDIManager::sourceNodeNameArray() {
    return nameList(
        sourceArray_, [](const VVMIDINode& n) { return n.name(); }, false);
}
std::vector<std::string> VVMIDIManager::sourceNodeFullNameArray() {
    return nameList(
        sourceArray_, [](const VVMIDINode& n) { return n.fullName(); }, false);
}
std::vector<std::string> VVMIDIManager::deviceNameArray() {
    return nameList(
        sourceArray_, [](const VVMIDINode& n) { return n.deviceName(); }, true);
}
