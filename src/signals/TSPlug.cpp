#include "signals/TSPlug.h"

#include "signals/TSCommandSignal.h"
#include "signals/TSArduinoSignal.h"
#include "signals/TSDmxSignal.h"
#include "signals/TSGeneratedSignals.h"
#include "signals/TSKeyboardSignal.h"
#include "signals/TSKorvalisSignal.h"
#include "signals/TSMidiSignal.h"
#include "signals/TSOSCSignal.h"

namespace {

const TSSignalClass* const kStoredClasses[] = {
    &TSKorvalisSignal::staticClass(), &TSKeyboardSignal::staticClass(),
    &TSAudioSignal::staticClass(),    &TSMidiSignal::staticClass(),
    &TSOSCSignal::staticClass(),      &TSDmxSignal::staticClass(),
    &TSArtnetSignal::staticClass(),   &TSArduinoSignal::staticClass(),
    &TSAnimationSignal::staticClass(), &TSCommandSignal::staticClass()};

} // namespace

const TSSignalClass* TSSignalClass::withName(const QString& name) {
    return TSPlug::signalClassWithName(name);
}

const TSSignalClass* TSPlug::signalClassWithName(const QString& name) {
    for (const TSSignalClass* cls : kStoredClasses)
        if (name == QLatin1String(cls->name))
            return cls;
    return nullptr;
}

const TSSignalClass* TSPlug::getSignalClassWithType(unsigned code) {
    switch (code) {
    case 1: return &TSKeyboardSignal::staticClass();
    case 2: return &TSAudioSignal::staticClass();
    case 3: return &TSMidiSignal::staticClass();
    case 4: return &TSOSCSignal::staticClass();
    case 5: return &TSDmxSignal::staticClass();
    case 6: return &TSArtnetSignal::staticClass();
    case 7: return nullptr;
    case 8: return &TSArduinoSignal::staticClass();
    case 9: return &TSAnimationSignal::staticClass();
    case 10: return &TSCommandSignal::staticClass();
    default: return &TSKorvalisSignal::staticClass();
    }
}

std::shared_ptr<TSPlug> TSPlug::initWithType(int code) {
    const TSSignalClass* inClass = getSignalClassWithType(static_cast<unsigned>(code));
    std::shared_ptr<TSSignal> in = inClass ? inClass->create() : nullptr;
    std::shared_ptr<TSSignal> out = inClass == &TSKorvalisSignal::staticClass()
                                        ? TSMidiSignal::staticClass().create()
                                        : TSKorvalisSignal::staticClass().create();
    return std::shared_ptr<TSPlug>(new TSPlug(std::move(in), std::move(out), true),
                                   [](TSPlug* p) { tsDeleteOnMainThread(p); });
}

std::shared_ptr<ts::Archivable> TSPlug::restoreArchived(const QString& className,
                                                        ts::KeyedUnarchiver& coder) {
    if (className == QLatin1String("TSPlug")) {
        auto in = coder.decodeObjectOfClassForKey<TSSignal>("signalIn");
        auto out = coder.decodeObjectOfClassForKey<TSSignal>("signalOut");
        const bool enabled = coder.decodeBoolForKey("enabled");
        return std::shared_ptr<TSPlug>(new TSPlug(std::move(in), std::move(out), enabled),
                                       [](TSPlug* p) { tsDeleteOnMainThread(p); });
    }
    if (const TSSignalClass* cls = signalClassWithName(className))
        return cls->restore(coder);
    return nullptr;
}

TSPlug::TSPlug(std::shared_ptr<TSSignal> in, std::shared_ptr<TSSignal> out, bool enabled)
    : in_(std::move(in)), out_(std::move(out)), enabled_(enabled) {
    if (in_)
        connect(in_.get(), &TSSignal::identityChanged, this, &TSPlug::identityChanged,
                Qt::DirectConnection);
}

TSPlug::~TSPlug() = default;

void TSPlug::setEnabled(bool enabled) {
    if (enabled_.exchange(enabled, std::memory_order_acq_rel) == enabled)
        return;
    emit enabledChanged();
    emit identityChanged();
}

int TSPlug::signalOutType() const {
    const auto out = signalOut();
    return out ? out->type() : -1;
}

void TSPlug::setSignalOutType(int code) {
    const TSSignalClass* cls = getSignalClassWithType(static_cast<unsigned>(code));
    emit signalOutAboutToChange();
    out_.store(cls ? cls->create() : nullptr);
    emit signalOutChanged();
}

void TSPlug::sendSignalWithValue(float value) {
    const std::shared_ptr<TSSignal> out = out_.load();
    if (!in_ || !out)
        return;
    out->sendWithValue(in_->normalizeValue(value));
}

void TSPlug::encodeWithCoder(ts::KeyedArchiver& coder) const {
    coder.encodeBoolForKey(enabled(), "enabled");
    coder.encodeObjectForKey(in_.get(), "signalIn");
    coder.encodeObjectForKey(signalOut().get(), "signalOut");
}
