#pragma once
// What the MIDI manager tells its delegate (the application controller):
// every list of messages a node received, and that the node lists were
// rebuilt after a change of the MIDI setup.
//
// receivedMIDIFromNode runs on the MIDI service's receive thread;
// setupChanged on whichever thread reported the setup change, after both node
// lists were rebuilt on the main thread. Every operation is optional;
// receivedMIDIFromNode falls back to receivedMIDI.

#include "midi/VVMIDINodeDelegate.h"

class VVMIDIManagerDelegate : public VVMIDINodeDelegate {
public:
    virtual void setupChanged() {}
};
