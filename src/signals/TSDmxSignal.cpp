#include "signals/TSDmxSignal.h"

#include "app/TessarineController.h"

const TSSignalClass& TSDmxSignal::staticClass() {
    return tsSignalClassOf<TSDmxSignal>("TSDmxSignal", 5, &TSSignal::staticClass());
}

const TSSignalClass& TSArtnetSignal::staticClass() {
    return tsSignalClassOf<TSArtnetSignal>("TSArtnetSignal", 6, &TSDmxSignal::staticClass());
}

TSDmxSignal::TSDmxSignal() : channel_(1) { setRangeDefaults("0", "255"); }

QString TSDmxSignal::title() const {
    return QStringLiteral("Channel %1").arg(static_cast<int>(dmxChannel()));
}

float TSDmxSignal::normalizeValue(float value) { return value == 127.0f ? 0.5f : value / 255.0f; }

void TSDmxSignal::sendWithValue(float value) {
    if (TessarineController* controller = TessarineController::sharedController())
        controller->sendDMXChannelAndValue(dmxChannel(), outputByte(value));
}

void TSArtnetSignal::sendWithValue(float value) {
    if (TessarineController* controller = TessarineController::sharedController())
        controller->sendArtnetChannelAndValue(dmxChannel() - 1, outputByte(value));
}

void TSDmxSignal::changeChannel(unsigned channel) {
    changeIdentity([&] { channel_.store(channel); });
}

void TSDmxSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeInt32ForKey(static_cast<std::int32_t>(dmxChannel()), "dmxChannel");
}

void TSDmxSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    channel_.store(static_cast<unsigned>(coder.decodeInt32ForKey("dmxChannel")));
}
