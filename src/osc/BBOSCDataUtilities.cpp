#include "osc/BBOSCDataUtilities.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

// Seconds between 1970-01-01 and 2001-01-01, both UTC.
constexpr double kUnixToReferenceDate = 978307200.0;

uint32_t readUInt(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Civil date of a day count since 1970-01-01 (proleptic Gregorian); kept
// here rather than relying on gmtime so dates far from 1970 print too.
void civilFromDays(int64_t days, int64_t& year, unsigned& month, unsigned& day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(days - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    day = doy - (153 * mp + 2) / 5 + 1;
    month = mp < 10 ? mp + 3 : mp - 9;
    year = static_cast<int64_t>(yoe) + era * 400 + (month <= 2 ? 1 : 0);
}

} // namespace

BBOSCDate BBOSCDataUtilities::currentDate() {
    using namespace std::chrono;
    const double unix = duration<double>(system_clock::now().time_since_epoch()).count();
    return unix - kUnixToReferenceDate;
}

void BBOSCDataUtilities::appendUInt(BBOSCBytes& out, uint32_t value) {
    const uint8_t bytes[4] = {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8),
                              uint8_t(value)};
    out.insert(out.end(), bytes, bytes + 4);
}

bool BBOSCDataUtilities::isASCII(std::string_view string) {
    // No early exit: the loop stays simple enough to be vectorised.
    unsigned char high = 0;
    for (char c : string)
        high |= static_cast<unsigned char>(c);
    return high <= 0x7F;
}

void BBOSCDataUtilities::appendString(BBOSCBytes& out, std::string_view string) {
    if (!isASCII(string))
        string = {};
    const size_t start = out.size();
    out.resize(start + paddedLength(string.size()), 0);
    if (!string.empty())
        std::memcpy(out.data() + start, string.data(), string.size());
}

BBOSCBytes BBOSCDataUtilities::dataBlockFromInt(int32_t value) {
    BBOSCBytes out;
    out.reserve(4);
    appendInt(out, value);
    return out;
}

BBOSCBytes BBOSCDataUtilities::dataBlockFromUInt(uint32_t value) {
    BBOSCBytes out;
    out.reserve(4);
    appendUInt(out, value);
    return out;
}

BBOSCBytes BBOSCDataUtilities::dataBlockFromFloat(float value) {
    return dataBlockFromUInt(std::bit_cast<uint32_t>(value));
}

BBOSCBytes BBOSCDataUtilities::dataBlockFromString(std::string_view string) {
    BBOSCBytes out;
    appendString(out, string);
    return out;
}

BBOSCBytes BBOSCDataUtilities::dataBlockFromBlob(std::span<const uint8_t> blob) {
    // Count + bytes, then padding over the whole; the count is 4 bytes so the
    // padding depends on the blob's own length only.
    BBOSCBytes out;
    out.reserve(4 + paddedLength(blob.size()));
    appendInt(out, static_cast<int32_t>(blob.size()));
    out.insert(out.end(), blob.begin(), blob.end());
    out.resize(4 + paddedLength(blob.size()), 0);
    return out;
}

BBOSCBytes BBOSCDataUtilities::paddedDataFromData(std::span<const uint8_t> data) {
    BBOSCBytes out;
    out.reserve(paddedLength(data.size()));
    out.assign(data.begin(), data.end());
    out.resize(paddedLength(data.size()), 0);
    return out;
}

int32_t BBOSCDataUtilities::intFromDataBlock(std::span<const uint8_t> block) {
    return static_cast<int32_t>(uIntFromDataBlock(block));
}

uint32_t BBOSCDataUtilities::uIntFromDataBlock(std::span<const uint8_t> block) {
    return block.size() < 4 ? 0 : readUInt(block.data());
}

float BBOSCDataUtilities::floatFromDataBlock(std::span<const uint8_t> block) {
    return block.size() < 4 ? 0.0f : std::bit_cast<float>(readUInt(block.data()));
}

std::optional<std::string> BBOSCDataUtilities::stringFromDataBlock(std::span<const uint8_t> block) {
    size_t first = 0;
    size_t last = block.size();
    while (first < last && block[first] == 0)
        ++first;
    while (last > first && block[last - 1] == 0)
        --last;
    for (size_t i = first; i < last; ++i)
        if (block[i] > 0x7F)
            return std::nullopt;
    return std::string(reinterpret_cast<const char*>(block.data()) + first, last - first);
}

std::optional<BBOSCBytes> BBOSCDataUtilities::blobFromDataBlock(std::span<const uint8_t> block) {
    const int32_t n = intFromDataBlock(block);
    if (block.size() < 4 || n < 0 || block.size() - 4 < static_cast<size_t>(n))
        return std::nullopt;
    return BBOSCBytes(block.begin() + 4, block.begin() + 4 + n);
}

BBOSCBytes BBOSCDataUtilities::ntpTimestampForImmediate() {
    BBOSCBytes out;
    out.reserve(8);
    appendUInt(out, 0);
    appendUInt(out, 1);
    return out;
}

void BBOSCDataUtilities::appendTimeTag(BBOSCBytes& out, BBOSCDate date) {
    // The distant past stands for "immediately"; so does anything not a
    // number. Other dates outside what 32 bits of seconds can hold are
    // clamped rather than wrapped into an unrelated time.
    if (std::isnan(date) || date <= kDistantPast) {
        appendUInt(out, 0);
        appendUInt(out, 1);
        return;
    }
    constexpr double lo = -2147483648.0, hi = 2147483647.0;
    const double t = std::clamp(date, lo, hi);
    const int32_t s = static_cast<int32_t>(t); // truncation toward zero
    const uint32_t seconds = static_cast<uint32_t>(s) + kTimeTagOffset;
    // (t - s) lies in (-1, 1); a negative fraction wraps as its low 32 bits.
    const double fraction = std::trunc((t - s) * 4294967296.0);
    const uint32_t fractionBits =
        static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(fraction)));
    appendUInt(out, seconds);
    appendUInt(out, fractionBits);
}

BBOSCBytes BBOSCDataUtilities::ntpTimestampFromNSDate(BBOSCDate date) {
    BBOSCBytes out;
    out.reserve(8);
    appendTimeTag(out, date);
    return out;
}

BBOSCDate BBOSCDataUtilities::dateFromNTPTimestamp(std::span<const uint8_t> timeTag) {
    if (timeTag.size() < 8)
        return kDistantPast;
    const uint32_t seconds = readUInt(timeTag.data());
    const uint32_t fraction = readUInt(timeTag.data() + 4);
    if (seconds == 0 && fraction == 1)
        return kDistantPast;
    return static_cast<double>(static_cast<int32_t>(seconds - kTimeTagOffset));
}

std::string BBOSCDataUtilities::dateDescription(BBOSCDate date) {
    if (std::isnan(date) || date <= kDistantPast)
        date = kDistantPast;
    if (date > 1e15)
        date = 1e15;
    const int64_t unix = static_cast<int64_t>(std::floor(date + kUnixToReferenceDate));
    int64_t days = unix / 86400;
    int64_t rest = unix % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    int64_t year;
    unsigned month, day;
    civilFromDays(days, year, month, day);
    char text[64];
    std::snprintf(text, sizeof text, "%04" PRId64 "-%02u-%02u %02d:%02d:%02d +0000", year, month,
                  day, int(rest / 3600), int(rest / 60 % 60), int(rest % 60));
    return text;
}
