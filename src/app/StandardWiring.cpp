#include "app/StandardWiring.h"

TessarineController::Wiring standardWiring() {
    TessarineController::Wiring wiring;
    wiring.korvalisLink = true;
    return wiring;
}
