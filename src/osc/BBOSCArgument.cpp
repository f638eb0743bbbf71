#include "osc/BBOSCArgument.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

void writeBigEndian(uint8_t* p, uint32_t value) {
    p[0] = uint8_t(value >> 24);
    p[1] = uint8_t(value >> 16);
    p[2] = uint8_t(value >> 8);
    p[3] = uint8_t(value);
}

} // namespace

BBOSCArgument::BBOSCArgument(const BBOSCArgument& other) : type_(other.type_), size_(other.size_) {
    if (other.isInline()) {
        std::memcpy(inline_, other.inline_, kInlineSize);
    } else {
        heap_ = new uint8_t[size_];
        std::memcpy(heap_, other.heap_, size_);
    }
}

BBOSCArgument& BBOSCArgument::operator=(const BBOSCArgument& other) {
    if (this != &other) {
        uint8_t* to = resize(other.size_);
        std::memcpy(to, other.bytes(), other.size_);
        type_ = other.type_;
    }
    return *this;
}

bool BBOSCArgument::operator==(const BBOSCArgument& other) const {
    return type_ == other.type_ && size_ == other.size_ &&
           std::memcmp(bytes(), other.bytes(), size_) == 0;
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
    a.assignFromWire(type, data.data(), static_cast<uint32_t>(data.size()), data.size());
    return a;
}

void BBOSCArgument::setStringValue(std::string_view value) {
    type_ = 's';
    if (!BBOSCDataUtilities::isASCII(value))
        value = {};
    const auto size = static_cast<uint32_t>(BBOSCDataUtilities::paddedLength(value.size()));
    uint8_t* to = resize(size);
    if (!value.empty())
        std::memcpy(to, value.data(), value.size());
    std::memset(to + value.size(), 0, size - value.size());
}

void BBOSCArgument::setDataBlobValue(std::span<const uint8_t> blob) {
    type_ = 'b';
    const auto size = static_cast<uint32_t>(4 + BBOSCDataUtilities::paddedLength(blob.size()));
    uint8_t* to = resize(size);
    writeBigEndian(to, static_cast<uint32_t>(blob.size()));
    if (!blob.empty())
        std::memcpy(to + 4, blob.data(), blob.size());
    std::memset(to + 4 + blob.size(), 0, size - 4 - blob.size());
}

float BBOSCArgument::floatValue() const {
    switch (type_) {
    case 'i':
        return static_cast<float>(BBOSCDataUtilities::intFromDataBlock(data()));
    case 'f':
        return BBOSCDataUtilities::floatFromDataBlock(data());
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
    return BBOSCDataUtilities::stringFromDataBlock(data()).value_or(std::string());
}

BBOSCBytes BBOSCArgument::dataBlobValue() const {
    return BBOSCDataUtilities::blobFromDataBlock(data()).value_or(BBOSCBytes());
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
