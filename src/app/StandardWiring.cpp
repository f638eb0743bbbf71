#include "app/StandardWiring.h"

#include "io/CommandManager.h"
#include "midi/VVMIDIManager.h"
#include "osc/OSCManager.h"

namespace {

// MIDI output goes to every destination through the manager.
class MIDIManagerOutput final : public MIDIOutputPort {
public:
    explicit MIDIManagerOutput(std::shared_ptr<VVMIDIManager> manager) : manager_(std::move(manager)) {}
    void sendMsg(const std::shared_ptr<VVMIDIMessage>& message) override { manager_->sendMsg(message); }

private:
    std::shared_ptr<VVMIDIManager> manager_;
};

} // namespace

TessarineController::Wiring standardWiring() {
    TessarineController::Wiring wiring;
    wiring.midiManager = KVVVMIDIManager::create();
    wiring.midi = std::make_shared<MIDIManagerOutput>(wiring.midiManager);
    wiring.osc = std::make_shared<OSCManager>();
    wiring.command = std::make_shared<CommandManager>();
    wiring.korvalisLink = true;
    return wiring;
}
