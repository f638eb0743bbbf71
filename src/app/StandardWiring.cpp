#include "app/StandardWiring.h"

#include "io/CommandManager.h"
#include "osc/OSCManager.h"

TessarineController::Wiring standardWiring() {
    TessarineController::Wiring wiring;
    wiring.osc = std::make_shared<OSCManager>();
    wiring.command = std::make_shared<CommandManager>();
    wiring.korvalisLink = true;
    return wiring;
}
