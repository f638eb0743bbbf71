#include "signals/TSOSCSignal.h"

#include "app/TessarineController.h"

const TSSignalClass& TSOSCSignal::staticClass() {
    return tsSignalClassOf<TSOSCSignal>("TSOSCSignal", 4, &TSSignal::staticClass());
}

void TSOSCSignal::sendWithValue(float value) {
    if (TessarineController* controller = TessarineController::sharedController())
        controller->sendOSCMessageAtAddressWithValue(address(), scaledValue(value));
}
