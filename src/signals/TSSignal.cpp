#include "signals/TSSignal.h"

#include "platform/MainThread.h"

#include <charconv>
#include <cmath>

float tsFloatValue(const QString& text) {
    const QByteArray bytes = text.toUtf8();
    const char* p = bytes.constData();
    const char* end = p + bytes.size();
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r'))
        ++p;
    if (p < end && *p == '+')
        ++p;
    // Only a plain decimal number counts: "inf", "nan" and hex are not what a
    // user types as a range end.
    const char* digits = (p < end && *p == '-') ? p + 1 : p;
    if (digits >= end || !((*digits >= '0' && *digits <= '9') || *digits == '.'))
        return 0.0f;
    float value = 0.0f;
    const auto result = std::from_chars(p, end, value, std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range)
        return (*p == '-') ? -HUGE_VALF : HUGE_VALF;
    if (result.ec != std::errc() || !std::isfinite(value))
        return 0.0f;
    return value;
}

int tsIntegerValue(const QString& text) {
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        negative = text[i++] == '-';
    long long value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i].unicode() - '0');
        if (value > 0x80000000LL)
            value = 0x80000000LL;
    }
    if (negative)
        return static_cast<int>(-value);
    return static_cast<int>(value > 0x7FFFFFFF ? 0x7FFFFFFF : value);
}

TSRangeEnd::TSRangeEnd(const QString& text) { set(text); }

QString TSRangeEnd::text() const {
    std::lock_guard lock(mutex_);
    return text_;
}

void TSRangeEnd::set(const QString& text) {
    std::lock_guard lock(mutex_);
    text_ = text;
    value_.store(tsFloatValue(text), std::memory_order_relaxed);
}

bool TSSignalClass::isSubclassOf(const TSSignalClass& other) const {
    for (const TSSignalClass* c = this; c; c = c->base)
        if (c == &other)
            return true;
    return false;
}

void tsDeleteOnMainThread(QObject* object) {
    if (ts::isMainThread()) {
        delete object;
        return;
    }
    ts::enqueueOnMainThread([object] { delete object; });
}

const TSSignalClass& TSSignal::staticClass() {
    return tsSignalClassOf<TSSignal>("TSSignal", -1, nullptr);
}

const TSSignalClass& TSSignal::signalClass() const { return staticClass(); }

TSSignal::TSSignal() : min_(QStringLiteral("0")), max_(QStringLiteral("100")) {}

TSSignal::TSSignal(TSRestoreTag) : min_(QString()), max_(QString()) {}

TSSignal::~TSSignal() = default;

QString TSSignal::title() const { return QStringLiteral("(unknow)"); }

void TSSignal::setRangeDefaults(const char* min, const char* max) {
    min_.set(QString::fromLatin1(min));
    max_.set(QString::fromLatin1(max));
}

void TSSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    coder.encodeTextForKey(minValue(), "minValue");
    coder.encodeTextForKey(maxValue(), "maxValue");
}

void TSSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    min_.set(coder.decodeTextForKey("minValue"));
    max_.set(coder.decodeTextForKey("maxValue"));
}

float TSSignal::scaledValue(float v) const {
    const float min = minFloat();
    return min + (maxFloat() - min) * v;
}

int TSSignal::scaledClampedInteger(float v, int upper) const {
    float s = scaledValue(v);
    s = std::fmin(s, static_cast<float>(upper));
    s = std::fmax(s, 0.0f); // a NaN scaled value, like a comparison-based clamp, ends at the upper bound
    return static_cast<int>(s);
}
