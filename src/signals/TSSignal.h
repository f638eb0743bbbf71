#pragma once
// Base of every signal kind: one source or destination of values, with a
// range held as the texts the user typed. As a plug's input a signal
// normalises the raw value the controller delivers; as a plug's output it
// scales min + (max - min) * v into its range and sends through the
// controller.
//
// Threads: settings are changed on the main thread (editors, learn modes,
// restore) while inputs arriving on receive threads may send through the same
// signal, so every field is read and written atomically (texts under the
// signal's own lock, numbers as atomics). The dispatch index learns of every
// change of an identifying setting through identityChanged().

#include "platform/KeyedArchive.h"

#include <QObject>
#include <QString>
#include <atomic>
#include <memory>
#include <mutex>

class TSSignal;

// What a class is to the plug and the archive: its name (part of the stored
// format), its type code, its base, and how to make a fresh or a restored
// instance.
struct TSSignalClass {
    const char* name;
    int typeCode;
    const TSSignalClass* base;
    std::shared_ptr<TSSignal> (*create)();
    std::shared_ptr<TSSignal> (*restore)(ts::KeyedUnarchiver& coder);

    bool isSubclassOf(const TSSignalClass& other) const;
    static const TSSignalClass* withName(const QString& name);
};

// Restoring does not run the normal initialisation: fields without a key
// start at zero, false or none.
struct TSRestoreTag {};

// A text setting read and written atomically.
class TSAtomicText {
public:
    TSAtomicText() = default;
    explicit TSAtomicText(QString text) : text_(std::move(text)) {}
    QString get() const {
        std::lock_guard lock(mutex_);
        return text_;
    }
    void set(QString text) {
        std::lock_guard lock(mutex_);
        text_.swap(text);
    }

private:
    mutable std::mutex mutex_;
    QString text_;
};

// A range end: the text as typed and its value, kept together.
class TSRangeEnd {
public:
    explicit TSRangeEnd(const QString& text);
    QString text() const;
    float value() const { return value_.load(std::memory_order_relaxed); }
    void set(const QString& text);

private:
    mutable std::mutex mutex_;
    QString text_;
    std::atomic<float> value_{0.0f};
};

// The float value of a range text: its leading decimal number after blanks
// ("12.5", "-500", "50 %" give 12.5, -500, 50); text that does not begin with
// a number, and infinities or NaN, read as 0.
float tsFloatValue(const QString& text);

// The leading decimal integer of a text after blanks ("12abc" gives 12,
// "-3" gives -3), 0 without one; saturates at the 32-bit limits.
int tsIntegerValue(const QString& text);

class TSSignal : public QObject, public ts::Archivable {
    Q_OBJECT
    Q_PROPERTY(QString title READ title NOTIFY titleChanged)
    Q_PROPERTY(QString minValue READ minValue WRITE setMinValue)
    Q_PROPERTY(QString maxValue READ maxValue WRITE setMaxValue)

public:
    TSSignal();
    explicit TSSignal(TSRestoreTag);
    ~TSSignal() override;

    virtual const TSSignalClass& signalClass() const;
    static const TSSignalClass& staticClass();

    virtual int type() const { return -1; }
    bool isKorvalisSignal() const { return type() == 0; }
    virtual QString title() const;
    virtual float normalizeValue(float value) { return value; }
    virtual void sendWithValue(float) {}

    const char* archiveClassName() const override { return signalClass().name; }
    void encodeWithCoder(ts::KeyedArchiver& coder) const override;
    virtual void initWithCoder(ts::KeyedUnarchiver& coder);

    QString minValue() const { return min_.text(); }
    void setMinValue(const QString& text) { min_.set(text); }
    QString maxValue() const { return max_.text(); }
    void setMaxValue(const QString& text) { max_.set(text); }
    float minFloat() const { return min_.value(); }
    float maxFloat() const { return max_.value(); }

    // min + (max - min) * v with both ends read as floats.
    float scaledValue(float v) const;
    // The scaled value clamped to 0..upper (upper bound first) and truncated
    // toward zero.
    int scaledClampedInteger(float v, int upper) const;

signals:
    void titleAboutToChange();
    void titleChanged();
    // An identifying setting (the one inputs are matched on) changed.
    void identityChanged();

protected:
    void setRangeDefaults(const char* min, const char* max);
    // Runs store between the two announcements of a title change, then tells
    // the dispatch index.
    template <typename Store> void changeIdentity(Store&& store) {
        emit titleAboutToChange();
        store();
        emit titleChanged();
        emit identityChanged();
    }

private:
    TSRangeEnd min_;
    TSRangeEnd max_;
};

// Shared ownership for signals: a signal may still be sending on a receive
// thread while the main thread replaces it, so the last owner can be any
// thread; the object itself is always deleted on the main thread.
template <typename T, typename... Args> std::shared_ptr<T> tsMakeSignal(Args&&... args);

void tsDeleteOnMainThread(QObject* object);

template <typename T, typename... Args> std::shared_ptr<T> tsMakeSignal(Args&&... args) {
    return std::shared_ptr<T>(new T(std::forward<Args>(args)...),
                              [](T* p) { tsDeleteOnMainThread(p); });
}

// The class descriptor of a concrete signal kind.
template <typename T> const TSSignalClass& tsSignalClassOf(const char* name, int code,
                                                           const TSSignalClass* base) {
    static const TSSignalClass cls{
        name, code, base, []() -> std::shared_ptr<TSSignal> { return tsMakeSignal<T>(); },
        [](ts::KeyedUnarchiver& coder) -> std::shared_ptr<TSSignal> {
            auto signal = tsMakeSignal<T>(TSRestoreTag{});
            signal->initWithCoder(coder);
            return signal;
        }};
    return cls;
}

// Declares the class operations every concrete signal kind has.
#define TS_SIGNAL_CLASS                                                                            \
public:                                                                                            \
    static const TSSignalClass& staticClass();                                                     \
    const TSSignalClass& signalClass() const override { return staticClass(); }
