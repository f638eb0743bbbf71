#include "signals/TSCommandSignal.h"

#include "app/TessarineController.h"

const TSSignalClass& TSCommandSignal::staticClass() {
    return tsSignalClassOf<TSCommandSignal>("TSCommandSignal", 10, &TSSignal::staticClass());
}

void TSCommandSignal::sendWithValue(float value) {
    if (TessarineController* controller = TessarineController::sharedController())
        controller->sendStringCommandWithValue(string(), scaledValue(value));
}
