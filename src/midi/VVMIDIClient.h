#pragma once
// The process-wide MIDI client: the one MIDI service every node and manager
// works through. Made on first use from the "midiBackend" setting ("auto" by
// default), at most once per process; a test or the program can install
// another service (the in-memory one, say) before making a manager.
//
// The client forwards the service's setup changes as the notification
// "VVMIDISetupChangedNotification" (no sender, no user information), posted
// synchronously on the thread the service reports them on.
//
// The service interface answers yes or no; where a refusal is logged with a
// numeric code, that code is kRefused.

#include "midi/service/MIDIService.h"

#include <memory>

// An endpoint as the service lists it; a uniqueID of 0 is no endpoint.
using VVMIDIEndpointRef = MIDIEndpointInfo;

class VVMIDIClient {
public:
    static constexpr long kRefused = -1;
    static constexpr const char* kSetupChangedNotification = "VVMIDISetupChangedNotification";

    // Makes the client once (later calls do nothing); answers whether one exists.
    static bool ensureClient();
    // The client's service (made on first use). Never nullptr.
    static std::shared_ptr<MIDIService> service();
    // Replaces the client's service. Nodes made before keep the service they
    // were made with; make managers after installing.
    static void installService(std::shared_ptr<MIDIService> service);
};
