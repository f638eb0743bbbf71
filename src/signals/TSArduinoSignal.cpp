#include "signals/TSArduinoSignal.h"

#include "app/TessarineController.h"

const TSSignalClass& TSArduinoSignal::staticClass() {
    return tsSignalClassOf<TSArduinoSignal>("TSArduinoSignal", 8, &TSSignal::staticClass());
}

void TSArduinoSignal::sendWithValue(float value) {
    if (TessarineController* controller = TessarineController::sharedController())
        controller->sendArduinoText(QString::asprintf("%i\n", scaledClampedInteger(value, 1023)));
}
