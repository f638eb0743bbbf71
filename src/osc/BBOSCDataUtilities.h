#pragma once
// Byte-level building blocks of the OSC codec: big-endian numbers, padded
// strings and blobs, and time tags. Stateless; class-level operations only.
//
// Plain C++ (no Qt): the codec is also compiled alone into the fuzz targets.
//
// Dates are seconds since 2001-01-01 00:00:00 UTC as a double (BBOSCDate).
// kDistantPast is a date before every real date; a bundle carrying it means
// "execute immediately" and is written with the immediate time tag.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using BBOSCBytes = std::vector<uint8_t>;
using BBOSCDate = double;

class BBOSCDataUtilities {
public:
    // Offset added to the seconds of a date (counted from 2001) when it is
    // written as a time tag, and subtracted when one is read. Peers of this
    // system rely on exactly this value, so it must not be "corrected" to the
    // 1900-based NTP epoch.
    static constexpr uint32_t kTimeTagOffset = 0x5C000000u;
    // 0001-01-01 00:00:00 UTC.
    static constexpr BBOSCDate kDistantPast = -63113904000.0;

    // The current time as a date.
    static BBOSCDate currentDate();

    static BBOSCBytes dataBlockFromInt(int32_t value);
    static BBOSCBytes dataBlockFromUInt(uint32_t value);
    static BBOSCBytes dataBlockFromFloat(float value);
    // ASCII bytes then 1 to 4 zero bytes; a string with a byte above 0x7F
    // cannot be sent without loss and encodes as the empty string (4 zeros).
    static BBOSCBytes dataBlockFromString(std::string_view string);
    // Big-endian count, the bytes, then 1 to 4 zero bytes over the whole.
    static BBOSCBytes dataBlockFromBlob(std::span<const uint8_t> blob);
    // A copy followed by 4 - (length mod 4) zero bytes: always 1 to 4.
    static BBOSCBytes paddedDataFromData(std::span<const uint8_t> data);

    // First 4 bytes, big-endian; 0 when fewer than 4 bytes.
    static int32_t intFromDataBlock(std::span<const uint8_t> block);
    static uint32_t uIntFromDataBlock(std::span<const uint8_t> block);
    static float floatFromDataBlock(std::span<const uint8_t> block);
    // The bytes as text with every NUL at either end removed (NULs inside
    // stay). Received bytes 0x80-0xFF have no ASCII meaning: such a block is
    // no string at all (std::nullopt), which makes the decoder drop the
    // message. The system never sends such bytes either, so what it accepts
    // is exactly what it could send back.
    static std::optional<std::string> stringFromDataBlock(std::span<const uint8_t> block);
    // The n bytes after the 4-byte count n; nothing when the block is shorter
    // than n + 4 or n is negative.
    static std::optional<BBOSCBytes> blobFromDataBlock(std::span<const uint8_t> block);

    // Time tags: 8 bytes, seconds then fraction, both big-endian.
    static BBOSCBytes ntpTimestampForImmediate();
    static BBOSCBytes ntpTimestampFromNSDate(BBOSCDate date);
    // Reads the first 8 bytes (fewer: the distant past). Seconds 0 with
    // fraction 1 is the distant past; the fraction is otherwise ignored.
    static BBOSCDate dateFromNTPTimestamp(std::span<const uint8_t> timeTag);

    // "yyyy-MM-dd HH:mm:ss +0000" in UTC, for log texts.
    static std::string dateDescription(BBOSCDate date);

    // Appending forms used by the encoders, so that a packet is written into
    // one buffer without temporaries.
    static void appendUInt(BBOSCBytes& out, uint32_t value);
    static void appendInt(BBOSCBytes& out, int32_t value) {
        appendUInt(out, static_cast<uint32_t>(value));
    }
    // Appends the padded string (see dataBlockFromString).
    static void appendString(BBOSCBytes& out, std::string_view string);
    static void appendTimeTag(BBOSCBytes& out, BBOSCDate date);
    // Length of a padded string of this many bytes: length + 1 to 4.
    static constexpr size_t paddedLength(size_t length) { return (length & ~size_t(3)) + 4; }
    static bool isASCII(std::string_view string);
};
