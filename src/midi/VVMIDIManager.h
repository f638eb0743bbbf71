#pragma once
// Tessarine's one point of contact with the MIDI service: one receiving node
// per MIDI source and one sending node per MIDI destination, in the service's
// order, plus a virtual destination and a virtual source of its own under
// which other programs reach Tessarine. The lists are rebuilt from nothing on
// every setup change (new nodes start enabled; keep choices across a rebuild
// with createSnapshot / loadSnapshot). Received lists go to the delegate;
// sendMsg sends to every destination at once.
//
// Threads:
// - sourceArray / destArray are changed on the main thread only (the two load
//   operations move there and wait); every other access goes through their
//   read/write locks: rebuilding takes the write lock per change; sending,
//   snapshots, look-ups and name lists hold the read lock. Lock order: a
//   thread holds at most one of the two list locks at a time, except
//   loadMIDIInputSources, which reads destArray while holding neither.
// - A setup change arrives on whichever thread the service reports it on; the
//   lists are rebuilt on the main thread and the delegate's setupChanged is
//   then called on the reporting thread.
// - Received messages pass through to the delegate synchronously on the
//   service's receive thread.
// - sendMsg / sendMsgs may be called from any thread.
//
// Make managers with create(): the virtual endpoint names are virtual
// functions, so the set-up that uses them runs after construction.

#include "midi/MutLockArray.h"
#include "midi/VVMIDIManagerDelegate.h"
#include "midi/VVMIDINode.h"
#include "midi/VVMIDINodeDelegate.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

class VVMIDIManager : public VVMIDINodeDelegate {
public:
    using NodeArray = MutLockArray<VVMIDINode>;
    // "fullSrc" / "fullDst" (written) and "src" / "dst" (also accepted), each a
    // map of node full names (or names) to their enabled flags.
    using Snapshot = std::map<std::string, std::map<std::string, bool>>;

    static std::unique_ptr<VVMIDIManager> create();
    ~VVMIDIManager() override;
    VVMIDIManager(const VVMIDIManager&) = delete;
    VVMIDIManager& operator=(const VVMIDIManager&) = delete;

    // Called once by create(): empty lists, the setup-change observer, the
    // virtual nodes, the first setupChanged.
    void generalInit();
    void createVirtualNodes();
    // Rebuilds both lists (nothing when a virtual node is missing), then tells
    // the delegate.
    void setupChanged();
    void loadMIDIInputSources();
    void loadMIDIOutputDestinations();

    // From the nodes (receive thread): on to the delegate.
    void receivedMIDIFromNode(const VVMIDIMessageList& messages, VVMIDINode* node) override;
    void receivedMIDI(const VVMIDIMessageList& messages) override;

    // Every enabled destination node in list order, then the virtual source.
    void sendMsg(const VVMIDIMessagePtr& message);
    void sendMsgs(const VVMIDIMessageList& messages);

    Snapshot createSnapshot();
    void loadSnapshot(const Snapshot& snapshot);

    // The endpoint names of the virtual destination and source.
    virtual std::string receivingNodeName() const { return "To Korvalis"; }
    virtual std::string sendingNodeName() const { return "From Korvalis"; }

    NodeArray& sourceArray() { return sourceArray_; }
    NodeArray& destArray() { return destArray_; }
    VVMIDINodePtr virtualSource() const { return virtualSource_; }
    VVMIDINodePtr virtualDest() const { return virtualDest_; }
    VVMIDIManagerDelegate* delegate() const { return delegate_.load(); }
    void setDelegate(VVMIDIManagerDelegate* d) { delegate_.store(d); }

    // The first node in list order whose field equals the text; nullptr for
    // an empty text or no match.
    VVMIDINodePtr findDestNodeNamed(const std::string& name);
    VVMIDINodePtr findDestNodeWithFullName(const std::string& fullName);
    VVMIDINodePtr findDestNodeWithModelName(const std::string& model);
    VVMIDINodePtr findDestNodeWithDeviceName(const std::string& device);
    VVMIDINodePtr findSourceNodeNamed(const std::string& name);
    VVMIDINodePtr findSourceNodeWithFullName(const std::string& fullName);
    VVMIDINodePtr findSourceNodeWithModelName(const std::string& model);
    VVMIDINodePtr findSourceNodeWithDeviceName(const std::string& device);

    // Name lists in list order, skipping nodes without the field.
    std::vector<std::string> destNodeNameArray();
    std::vector<std::string> destNodeFullNameArray();
    std::vector<std::string> sourceNodeNameArray();
    std::vector<std::string> sourceNodeFullNameArray();
    // Device names of the sources, each once, at its first place.
    std::vector<std::string> deviceNameArray();

protected:
    VVMIDIManager() = default;
    // The node kinds this manager makes; a point for subclasses to change.
    virtual VVMIDINodePtr createReceivingNodeWithEndpoint(const VVMIDIEndpointRef& source);
    virtual VVMIDINodePtr createSendingNodeWithEndpoint(const VVMIDIEndpointRef& destination);
    virtual VVMIDINodePtr createReceivingNodeWithName(const std::string& name);
    virtual VVMIDINodePtr createSendingNodeWithName(const std::string& name);

private:
    static void rebuildAndTell(VVMIDIManager* manager, const std::shared_ptr<bool>& alive);

    std::shared_ptr<MIDIService> service_; // the client's service when made
    NodeArray sourceArray_;
    NodeArray destArray_;
    // Made once in generalInit and kept for the manager's life.
    VVMIDINodePtr virtualSource_; // receives what others send to our destination
    VVMIDINodePtr virtualDest_;   // publishes on our source
    std::atomic<VVMIDIManagerDelegate*> delegate_{nullptr};
    uint64_t observerToken_ = 0;
    // Main thread only: cleared by the destructor, so a setup change already
    // queued to the main thread finds the manager gone and does nothing.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// The manager whose virtual endpoints carry Tessarine's names.
class KVVVMIDIManager : public VVMIDIManager {
public:
    static std::unique_ptr<KVVVMIDIManager> create();
    std::string receivingNodeName() const override { return "To Tessarine"; }
    std::string sendingNodeName() const override { return "From Tessarine"; }

protected:
    KVVVMIDIManager() = default;
};
