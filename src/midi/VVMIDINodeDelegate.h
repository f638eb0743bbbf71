#pragma once
// The receiving side of a MIDI node: what it delivers its parsed messages to
// (the MIDI manager, which passes them on to its own delegate).
//
// Both operations are optional: a delegate that overrides only receivedMIDI
// gets that one, since receivedMIDIFromNode falls back to it.
// Called on the MIDI service's receive thread, synchronously.

#include "midi/VVMIDIMessage.h"

class VVMIDINode;

class VVMIDINodeDelegate {
public:
    virtual ~VVMIDINodeDelegate() = default;
    virtual void receivedMIDIFromNode(const VVMIDIMessageList& messages, VVMIDINode* node) {
        (void)node;
        receivedMIDI(messages);
    }
    virtual void receivedMIDI(const VVMIDIMessageList& messages) { (void)messages; }
};
