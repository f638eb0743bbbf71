#pragma once
// One MIDI endpoint, and the only place where MIDI bytes are read or written.
//
// A node is a receiver or a sender, and either wraps an endpoint that the MIDI
// service lists (a source or a destination of some device or program) or owns
// a virtual endpoint of its own, made under a given name so that other
// programs can reach Tessarine:
//   createReceiverWithEndpoint  a system source; the service connects it to the node
//   createReceiverWithName      a new virtual destination ("To Tessarine")
//   createSenderWithEndpoint    a system destination; sends to it
//   createSenderWithName        a new virtual source ("From Tessarine"); publishes on it
//
// A receiver parses each packet list the service hands it (VVMIDIInputParser)
// and gives the messages to its delegate; it also feeds its time code and beat
// clock followers. A sender lays messages out in its 1024-byte packet list and
// hands the list to the service.
//
// Threads: nodes are made and released on the main thread. handlePacketList
// runs on the service's receive thread and alone touches the parser; the
// service reaches the node through a slot whose mutex is held for the whole
// callback, so releasing a node waits for a callback in progress and none
// comes after. A delegate therefore must never wait for the main thread.
// sendMsg / sendMsgs may run on any thread and serialise on sendingLock_.
// enabled and the delegate are atomics written by the main thread.
//
// Choices where a hand-over goes wrong: after a failed send or publish the
// packet list is emptied (stale packets are never sent late with the next
// message); a batch stops at the first message without a wire form or that
// does not fit, what was laid out before it is still sent, the rest dropped.

#include "midi/VVMIDIClient.h"
#include "midi/VVMIDIInputParser.h"
#include "midi/VVMIDIMessage.h"
#include "midi/VVMIDINodeDelegate.h"
#include "midi/VVMIDIPacketList.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

class VVMIDINode;
using VVMIDINodePtr = std::shared_ptr<VVMIDINode>;

// What the service tells about an endpoint; absent values stay empty.
struct VVMIDINodeProperties {
    std::optional<std::string> name;
    std::optional<int32_t> uniqueID;
    std::optional<std::string> model;
};

class VVMIDINode {
public:
    // Each answers nullptr (after a log line) when the service refuses a step,
    // and nullptr without a line for a missing endpoint (uniqueID 0) or an
    // empty name. Nodes work through the client's current service.
    static VVMIDINodePtr createReceiverWithEndpoint(const VVMIDIEndpointRef& source);
    static VVMIDINodePtr createReceiverWithName(const std::string& name);
    static VVMIDINodePtr createSenderWithEndpoint(const VVMIDIEndpointRef& destination);
    static VVMIDINodePtr createSenderWithName(const std::string& name);
    ~VVMIDINode();
    VVMIDINode(const VVMIDINode&) = delete;
    VVMIDINode& operator=(const VVMIDINode&) = delete;

    // ---- receiving
    // The input callback: parses one packet list, feeds the clocks and delivers
    // what it parsed (unless disabled). now = host time of packets stamped 0.
    void handlePacketList(std::span<const VVMIDIPacketView> packets, uint64_t now);
    // Hands a list to the delegate when enabled and a delegate is set.
    void receivedMIDI(const VVMIDIMessageList& messages);

    // ---- sending (senders only, when enabled)
    void sendMsg(const VVMIDIMessagePtr& message);
    void sendMsgs(const VVMIDIMessageList& messages);

    // ---- fields
    bool sender() const { return sender_; }
    bool receiver() const { return !sender_; }
    bool virtualSender() const { return virtualSender_; }
    // The endpoint as the service listed it (for a virtual node, its own
    // endpoint when the service lists it, else only the name).
    const VVMIDIEndpointRef& endpointRef() const { return endpointRef_; }
    const VVMIDINodeProperties& properties() const { return properties_; }
    const std::string& name() const { return name_; }             // empty = none
    const std::string& deviceName() const { return deviceName_; } // empty = none
    // "device-name", or the name alone without a device; empty without a name.
    std::string fullName() const;
    // "<VVMIDINode: name, uniqueID>"
    std::string description() const;

    VVMIDINodeDelegate* delegate() const { return delegate_.load(); }
    void setDelegate(VVMIDINodeDelegate* d) { delegate_.store(d); }
    bool enabled() const { return enabled_.load(std::memory_order_relaxed); }
    void setEnabled(bool on) { enabled_.store(on, std::memory_order_relaxed); }

    // The gathering state of system exclusive (receive thread).
    bool processingSysex() const { return parser_.processingSysex(); }
    void setProcessingSysex(bool on) { parser_.setProcessingSysex(on); }
    int processingSysexIterationCount() const { return parser_.processingSysexIterationCount(); }
    void setProcessingSysexIterationCount(int n) { parser_.setProcessingSysexIterationCount(n); }
    const std::vector<int>& sysexArray() const { return parser_.sysexArray(); }

    // ---- the clocks (receivers; 0 for senders)
    double MTCQuarterFrameSMPTEAsDouble() const;
    double midiClockBeats() const;
    double midiClockBPM() const;
    VVMIDIInputParser& parser() { return parser_; }

    // The service's input handler: the packets of one callback.
    void handleServicePackets(const MIDIPacketList& packets);

private:
    struct ReceiverSlot;
    VVMIDINode() = default;
    void loadProperties();
    MIDIService::ReceiveHandler makeReceiveHandler();
    // Lays one message out at the end of packetList_; false when it has no
    // wire form or does not fit.
    bool appendLocked(const VVMIDIMessage& message);
    // Hands packetList_ to the service; answers its status (0 = ok).
    long handOverLocked();
    uint64_t packetTime(const VVMIDIMessage& message) const;

    // Set on the main thread while the node is made, then read-only.
    std::shared_ptr<MIDIService> service_;
    VVMIDIEndpointRef endpointRef_{};
    VVMIDINodeProperties properties_;
    std::shared_ptr<ReceiverSlot> slot_; // receivers: the link the service calls through
    bool connectedToSource_ = false;
    std::string name_;
    std::string deviceName_;
    bool sender_ = false;
    bool virtualSender_ = false;
    bool hasClocks_ = false;

    std::atomic<VVMIDINodeDelegate*> delegate_{nullptr};
    std::atomic<bool> enabled_{true};

    // Receive thread only (the followers inside lock themselves).
    VVMIDIInputParser parser_;

    // sendingLock_ guards packetList_ (a leaf lock: only the service's send
    // call runs under it, which takes no lock of ours).
    std::mutex sendingLock_;
    std::unique_ptr<VVMIDIPacketList> packetList_;
};
