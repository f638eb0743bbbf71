#pragma once
// The managers of the running program, one per wire, as the controller takes
// them at start-up.

#include "app/TessarineController.h"

TessarineController::Wiring standardWiring();
