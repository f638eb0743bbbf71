#pragma once
// A plug joins one incoming signal to one outgoing signal. Sending a value
// normalises it through the incoming signal and hands the result to the
// outgoing signal, which scales and sends it.
//
// Threads: the plug is edited on the main thread; receive threads may send
// through it at the same time. The outgoing signal is replaced atomically
// (a send in progress finishes on the old one); the incoming signal is fixed
// for the plug's life.

#include "platform/AtomicSharedPtr.h"
#include "signals/TSSignal.h"

#include <atomic>
#include <memory>

class TSPlug : public QObject, public ts::Archivable {
    Q_OBJECT
    Q_PROPERTY(bool enabled READ enabled WRITE setEnabled NOTIFY enabledChanged)
    Q_PROPERTY(TSSignal* signalOut READ signalOutObject NOTIFY signalOutChanged)

public:
    // A new plug for a signal type code: enabled, a fresh incoming signal of
    // that kind and a fresh outgoing signal (MIDI for a Korvalis input,
    // Korvalis otherwise). Code 7 has no class: the plug has no input.
    static std::shared_ptr<TSPlug> initWithType(int code);
    // 1 keyboard, 2 audio, 3 MIDI, 4 OSC, 5 DMX, 6 Art-Net, 7 none,
    // 8 Arduino, 9 animation, 10 command; every other code Korvalis.
    static const TSSignalClass* getSignalClassWithType(unsigned code);
    // The archive's restore: the plug of the given class name, or nullptr.
    static std::shared_ptr<ts::Archivable> restoreArchived(const QString& className,
                                                           ts::KeyedUnarchiver& coder);
    // Every signal class of the stored format, by name.
    static const TSSignalClass* signalClassWithName(const QString& name);

    TSPlug(std::shared_ptr<TSSignal> in, std::shared_ptr<TSSignal> out, bool enabled);
    ~TSPlug() override;

    bool enabled() const { return enabled_.load(std::memory_order_acquire); }
    void setEnabled(bool enabled);
    const std::shared_ptr<TSSignal>& signalIn() const { return in_; }
    std::shared_ptr<TSSignal> signalOut() const { return out_.load(); }
    TSSignal* signalOutObject() const { return out_.load().get(); }
    int signalOutType() const;
    // Replaces the outgoing signal by a fresh one of that kind, even when the
    // kind is the same (its settings start over).
    void setSignalOutType(int code);

    // signalOut sendWithValue(signalIn normalizeValue(value)); no check of
    // enabled, no clamping.
    void sendSignalWithValue(float value);

    const char* archiveClassName() const override { return "TSPlug"; }
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;

signals:
    void enabledChanged();
    void signalOutAboutToChange();
    void signalOutChanged();
    // Something dispatch matches on changed: enabled or the incoming signal's
    // identifying setting.
    void identityChanged();

private:
    std::shared_ptr<TSSignal> in_;
    ts::AtomicSharedPtr<TSSignal> out_;
    std::atomic<bool> enabled_;
};

using TSPlugPtr = std::shared_ptr<TSPlug>;
