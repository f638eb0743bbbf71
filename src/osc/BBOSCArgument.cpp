#include "osc/BBOSCArgument.h"

#include <bit>
#include <cmath>
#include <cstdio>

namespace {

void assignBigEndian(std::string& data, uint32_t value) {
    const char bytes[4] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
    data.assign(bytes, 4);
}

std::span<const uint8_t> bytesOf(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

} // namespace

BBOSCArgument BBOSCArgument::argumentWithInt(int32_t value) {
    BBOSCArgument a;
    a.setIntValue(value);
    return a;
}

BBOSCArgument BBOSCArgument::argumentWithFloat(float value) {
    BBOSCArgument a;
    a.setFloatValue(value);
    return a;
}

BBOSCArgument BBOSCArgument::argumentWithString(std::string_view value) {
    BBOSCArgument a;
    a.setStringValue(value);
    return a;
}

BBOSCArgument BBOSCArgument::argumentWithDataBlob(std::span<const uint8_t> blob) {
    BBOSCArgument a;
    a.setDataBlobValue(blob);
    return a;
}

BBOSCArgument BBOSCArgument::argumentWithTypeAndData(char type, std::span<const uint8_t> data) {
    BBOSCArgument a;
    a.type_ = type;
    a.data_.assign(reinterpret_cast<const char*>(data.data()), data.size());
    return a;
}

void BBOSCArgument::setIntValue(int32_t value) {
    type_ = 'i';
    assignBigEndian(data_, static_cast<uint32_t>(value));
}

void BBOSCArgument::setFloatValue(float value) {
    type_ = 'f';
    assignBigEndian(data_, std::bit_cast<uint32_t>(value));
}

void BBOSCArgument::setStringValue(std::string_view value) {
    type_ = 's';
    if (!BBOSCDataUtilities::isASCII(value))
        value = {};
    data_.assign(value.data(), value.size());
    data_.resize(BBOSCDataUtilities::paddedLength(value.size()), '\0');
}

void BBOSCArgument::setDataBlobValue(std::span<const uint8_t> blob) {
    type_ = 'b';
    const uint32_t n = static_cast<uint32_t>(blob.size());
    assignBigEndian(data_, n);
    data_.append(reinterpret_cast<const char*>(blob.data()), blob.size());
    data_.resize(4 + BBOSCDataUtilities::paddedLength(blob.size()), '\0');
}

float BBOSCArgument::floatValue() const {
    switch (type_) {
    case 'i':
        return static_cast<float>(BBOSCDataUtilities::intFromDataBlock(bytesOf(data_)));
    case 'f':
        return BBOSCDataUtilities::floatFromDataBlock(bytesOf(data_));
    default:
        return 0.0f;
    }
}

int32_t BBOSCArgument::intValue() const {
    const float f = floatValue();
    // Converting an out-of-range float to an integer is undefined; received
    // floats can be anything, so saturate instead.
    if (std::isnan(f))
        return 0;
    if (f >= 2147483648.0f)
        return INT32_MAX;
    if (f < -2147483648.0f)
        return INT32_MIN;
    return static_cast<int32_t>(f);
}

std::string BBOSCArgument::stringValue() const {
    return BBOSCDataUtilities::stringFromDataBlock(bytesOf(data_)).value_or(std::string());
}

BBOSCBytes BBOSCArgument::dataBlobValue() const {
    return BBOSCDataUtilities::blobFromDataBlock(bytesOf(data_)).value_or(BBOSCBytes());
}

std::string BBOSCArgument::description() const {
    char text[64];
    switch (type_) {
    case 'i':
        std::snprintf(text, sizeof text, "%c { %d }", type_, intValue());
        return text;
    case 'f': {
        // %f of a huge float is long; print into a string sized for it.
        const int n = std::snprintf(nullptr, 0, "%c { %f }", type_, double(floatValue()));
        std::string out(static_cast<size_t>(n) + 1, '\0');
        std::snprintf(out.data(), out.size(), "%c { %f }", type_, double(floatValue()));
        out.resize(static_cast<size_t>(n));
        return out;
    }
    case 's':
        return std::string(1, type_) + " { " + stringValue() + " }";
    case 'b': {
        // Hex in groups of four bytes: <01020304 05>
        static const char digits[] = "0123456789abcdef";
        const BBOSCBytes blob = dataBlobValue();
        std::string out = "b { <";
        for (size_t i = 0; i < blob.size(); ++i) {
            if (i > 0 && i % 4 == 0)
                out += ' ';
            out += digits[blob[i] >> 4];
            out += digits[blob[i] & 15];
        }
        out += "> }";
        return out;
    }
    default:
        return "no arg value";
    }
}
