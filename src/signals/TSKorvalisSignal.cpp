#include "signals/TSKorvalisSignal.h"

#include "app/TessarineController.h"
#include "osc/BBOSCMessage.h"
#include "platform/Log.h"

#include <vector>

const TSSignalClass& TSKorvalisSignal::staticClass() {
    return tsSignalClassOf<TSKorvalisSignal>("TSKorvalisSignal", 0, &TSSignal::staticClass());
}

namespace {

int leadingInteger(const QString& text) { return tsIntegerValue(text); }

// Splits at "/"; counts from the end with fromEnd(1) the last component.
struct Components {
    explicit Components(const QString& suffix) : parts(suffix.split('/')) {}
    int count() const { return static_cast<int>(parts.size()); }
    const QString& fromEnd(int n) const { return parts[parts.size() - n]; }
    int integerFromEnd(int n) const { return leadingInteger(fromEnd(n)); }
    QStringList parts;
};

bool beginsWithAny(const QString& text, std::initializer_list<const char*> prefixes) {
    for (const char* p : prefixes)
        if (text.startsWith(QLatin1String(p)))
            return true;
    return false;
}

bool isNormalisedLayerProperty(const QString& name) {
    return name == "opacity" || name == "x" || name == "y" || name == "rotation" ||
           name == "scale" || name == "speed";
}

// Upper-case first character and lower-case rest, word by word.
QString capitalised(const QString& text) {
    QStringList words = text.split(' ');
    for (QString& w : words)
        if (!w.isEmpty())
            w = w.left(1).toUpper() + w.mid(1).toLower();
    return words.join(' ');
}

const QString kUnknown = QStringLiteral("(unknow)");

QString layerTitle(const QString& suffix, const Components& c) {
    if (c.count() < 3)
        return kUnknown;
    const int layer = c.integerFromEnd(1);
    QString name = c.fromEnd(2);
    if (name == "time") {
        name = "media's time";
    } else if (name == "speed") {
        name = "media's speed";
    } else if (name == "prevLine") {
        name = "Text's previous line";
    } else if (name == "nextLine") {
        name = "Text's next line";
    } else if (name.startsWith("param")) {
        if (suffix.startsWith("layer/media/quartz"))
            name = "Quartz " + name;
        else if (suffix.startsWith("layer/effect") && c.fromEnd(3).size() >= 7)
            name = QString("Effect %1 / %2").arg(leadingInteger(c.fromEnd(3).mid(6))).arg(name);
    }
    name = capitalised(name);
    return layer > 0 ? QString("Layer %1 / %2 changes").arg(layer).arg(name)
                     : QString("Selected layer / %1 changes").arg(name);
}

QString actionTitle(const QString& suffix, const Components& c) {
    struct Fixed {
        const char* prefix;
        const char* title;
    };
    struct Numbered {
        const char* prefix;
        const char* format;
    };
    // Prefix tests in this order: the longer names come before their prefixes.
    static const Fixed before[] = {{"action/launchPrevColumn", "Launch previous column"},
                                   {"action/launchNextColumn", "Launch next column"},
                                   {"action/launchOrStopColumnWithName", "Launch/Stop column"}};
    static const Numbered numbered[] = {{"action/launchOrStopColumn", "Launch/Stop column %1"},
                                        {"action/launchColumn", "Launch column %1"},
                                        {"action/stopColumn", "Stop column %1"},
                                        {"action/selectBoard", "Select board %1"}};
    static const Fixed after[] = {{"action/composition/startOrStop", "Composition starts/stops"},
                                  {"action/composition/start", "Composition starts"},
                                  {"action/composition/stop", "Composition stops"},
                                  {"action/stopAll", "Stop all layers"},
                                  {"action/fadeToBlack", "Fade to black"}};
    for (const Fixed& f : before)
        if (suffix.startsWith(QLatin1String(f.prefix)))
            return QString::fromLatin1(f.title);
    for (const Numbered& n : numbered)
        if (suffix.startsWith(QLatin1String(n.prefix)))
            return c.count() < 3 ? kUnknown : QString(n.format).arg(c.integerFromEnd(1));
    for (const Fixed& f : after)
        if (suffix.startsWith(QLatin1String(f.prefix)))
            return QString::fromLatin1(f.title);
    return kUnknown;
}

// Addresses whose loopback is running on this thread: a plug chain whose
// Korvalis output feeds its own input is sent to Korvalis again but not looped
// back a second time, so the recursion ends after one round.
thread_local std::vector<QString> loopbacksInProgress;

BBOSCMessage makeKorvalisMessage(const QString& address, const TSKorvalisSignal::Argument& argument) {
    BBOSCMessage message(BBOSCAddress::addressWithString(address.toStdString()));
    if (const float* f = std::get_if<float>(&argument))
        message.attachArgument(BBOSCArgument::argumentWithFloat(*f));
    else if (const std::int32_t* i = std::get_if<std::int32_t>(&argument))
        message.attachArgument(BBOSCArgument::argumentWithInt(*i));
    else
        message.attachArgument(
            BBOSCArgument::argumentWithString(std::get<QString>(argument).toStdString()));
    return message;
}
constexpr size_t kMaxLoopbackDepth = 32;

} // namespace

TSKorvalisSignal::TSKorvalisSignal() : suffix_(QStringLiteral("layer/opacity/0")) {}

void TSKorvalisSignal::setAddressSuffix(const QString& suffix) {
    suffix_.set(suffix);
    emit identityChanged();
}

void TSKorvalisSignal::changeAddressSuffix(const QString& suffix) {
    changeIdentity([&] { suffix_.set(suffix); });
}

bool TSKorvalisSignal::defaultRangeForSuffix(const QString& suffix, QString* min, QString* max) {
    struct Range {
        std::initializer_list<const char*> prefixes;
        const char* min;
        const char* max;
    };
    static const Range ranges[] = {
        {{"layer/opacity", "layer/scale", "layer/media/speed"}, "0", "100"},
        {{"layer/x", "layer/y"}, "-500", "500"},
        {{"layer/rotation"}, "0", "360"},
        {{"layer/media/quartz/param", "layer/effect"}, "0", "1"}};
    for (const Range& r : ranges)
        if (beginsWithAny(suffix, r.prefixes)) {
            *min = QString::fromLatin1(r.min);
            *max = QString::fromLatin1(r.max);
            return true;
        }
    return false;
}

float TSKorvalisSignal::normalizeValue(float value) {
    const QString suffix = addressSuffix();
    if (suffix.startsWith("layer/")) {
        const Components c(suffix);
        if (c.count() >= 3 && isNormalisedLayerProperty(c.fromEnd(2))) {
            const float min = minFloat();
            const float max = maxFloat();
            return min == max ? 1.0f : (value - min) / (max - min);
        }
        return value;
    }
    if (suffix.startsWith("composition/cue") ||
        suffix.startsWith("action/launchOrStopColumnWithName"))
        return 1.0f;
    return value;
}

bool TSKorvalisSignal::hasValueSwitched(float value) const {
    const float previous = previous_.load();
    if (previous < 0.5f && value >= 0.5f)
        return true;
    if (previous == 0.0f && value > 0.0f)
        return true;
    return value == 1.0f;
}

std::optional<TSKorvalisSignal::Argument> TSKorvalisSignal::takeArgumentForValue(float v) {
    const QString suffix = addressSuffix();
    const Components c(suffix);
    std::lock_guard lock(edgeMutex_);
    const bool switched = hasValueSwitched(v);
    std::optional<Argument> argument;
    float next = v;
    if (switched && suffix.startsWith("action/launchOrStopColumnWithName")) {
        // A launch by name without a name has nothing to launch: nothing is sent.
        const QString name = paramValue();
        if (!name.isNull())
            argument = name;
        else
            ts::logLine("Korvalis: \"Launch/Stop column\" has no column name; nothing was sent");
        previous_.store(next);
        return argument;
    }
    if (switched && c.count() >= 3 &&
        beginsWithAny(suffix, {"action/launchOrStopColumn", "action/launchColumn",
                               "action/stopColumn", "action/selectBoard"})) {
        argument = static_cast<std::int32_t>(c.integerFromEnd(1));
    } else if (beginsWithAny(suffix, {"layer/opacity", "layer/x", "layer/y", "layer/rotation",
                                      "layer/scale", "layer/media/speed",
                                      "layer/media/quartz/param", "layer/effect"})) {
        next = scaledValue(v);
        argument = next;
    } else if (suffix.startsWith("layer/media/time") || switched) {
        argument = v;
    }
    previous_.store(next);
    return argument;
}

void TSKorvalisSignal::sendWithValue(float value) {
    TessarineController* controller = TessarineController::sharedController();
    if (!controller)
        return;
    const std::optional<Argument> argument = takeArgumentForValue(value);
    if (!argument)
        return;
    const QString address = this->address();
    const BBOSCMessage message = makeKorvalisMessage(address, *argument);
    controller->sendKorvalisOSCMessage(message);
    for (const QString& running : loopbacksInProgress)
        if (running == address)
            return;
    if (loopbacksInProgress.size() >= kMaxLoopbackDepth)
        return;
    loopbacksInProgress.push_back(address);
    controller->processKorvalisOSCMessage(message);
    loopbacksInProgress.pop_back();
}

QString TSKorvalisSignal::title() const {
    const QString suffix = addressSuffix();
    const Components c(suffix);
    if (suffix.startsWith("layer/media/0")) {
        if (c.count() < 4)
            return kUnknown;
        const int layer = c.integerFromEnd(1);
        return layer > 0 ? QString("Stop layer %1").arg(layer) : QString("Stop selected layer");
    }
    if (suffix.startsWith("layer/media") &&
        !beginsWithAny(suffix, {"layer/media/time", "layer/media/speed", "layer/media/text",
                                "layer/media/quartz"})) {
        if (c.count() < 4)
            return kUnknown;
        const int layer = c.integerFromEnd(1);
        const int column = c.integerFromEnd(2);
        return layer > 0 ? QString("Media starts / Layer %1 / Column %2").arg(layer).arg(column)
                         : QString("Media starts / Selected layer / Column %1").arg(column);
    }
    if (suffix.startsWith("layer/"))
        return layerTitle(suffix, c);
    if (suffix.startsWith("board/column")) {
        if (c.count() < 3)
            return kUnknown;
        const int n = c.integerFromEnd(1);
        const QString& what = c.fromEnd(2);
        if (what == "columnLaunched")
            return n ? QString("Column %1 is launched").arg(n) : QString("Any column is launched");
        if (what == "columnStopped")
            return n ? QString("Column %1 is stopped").arg(n) : QString("Any column is stopped");
        return kUnknown;
    }
    if (suffix.startsWith("composition/cue"))
        return QStringLiteral("Cuepoint is reached");
    if (suffix.startsWith("action/"))
        return actionTitle(suffix, c);
    return kUnknown;
}

void TSKorvalisSignal::encodeWithCoder(ts::KeyedArchiver& coder) const {
    TSSignal::encodeWithCoder(coder);
    coder.encodeTextForKey(addressSuffix(), "addressSuffix");
    coder.encodeTextForKey(paramValue(), "paramValue");
}

void TSKorvalisSignal::initWithCoder(ts::KeyedUnarchiver& coder) {
    TSSignal::initWithCoder(coder);
    suffix_.set(coder.decodeTextForKey("addressSuffix"));
    param_.set(coder.decodeTextForKey("paramValue"));
}
