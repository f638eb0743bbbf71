#include "osc/BBOSCDecoder.h"

#include <bit>
#include <cstring>

namespace {

uint32_t readUInt(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Where a padded string starting at some offset lies.
struct PaddedString {
    size_t first; // the text without the NULs at either end: [first, last)
    size_t last;
    size_t next; // just past the zero that ended it
};

// Finds the end of a padded string: the first 4-byte group whose last byte
// is zero. Only that byte of each group is looked at, so a zero elsewhere in
// a group does not end the string. Fails when the data ends first or the
// text holds a byte above 0x7F (such text has no meaning as ASCII, and the
// system could never send it back: the message is dropped).
bool readPaddedString(std::span<const uint8_t> data, size_t start, PaddedString& out) {
    const size_t length = data.size();
    if (start > length || length - start < 4)
        return false;
    const uint8_t* d = data.data();
    // A group at a time: its last byte ends the string when zero, and every
    // byte is gathered for the ASCII check.
    size_t group = start;
    uint32_t high = 0;
    for (;;) {
        uint32_t word;
        std::memcpy(&word, d + group, 4);
        high |= word;
        if (d[group + 3] == 0)
            break;
        group += 4;
        if (length - group < 4)
            return false;
    }
    if (high & 0x80808080u)
        return false;
    // Earlier groups end in a non-zero byte, so trailing NULs lie in the
    // last group only.
    size_t last = group + 3;
    while (last > group && d[last - 1] == 0)
        --last;
    size_t first = start;
    while (first < last && d[first] == 0)
        ++first;
    out = {first, last, group + 4};
    return true;
}

std::string_view textOf(std::span<const uint8_t> data, const PaddedString& s) {
    return {reinterpret_cast<const char*>(data.data()) + s.first, s.last - s.first};
}

// A blob at `start`: its count and where its bytes begin. Fails when the
// count is negative or larger than what remains.
bool readBlob(std::span<const uint8_t> data, size_t start, size_t& count, size_t& bytesAt) {
    const size_t length = data.size();
    if (start > length || length - start < 4)
        return false;
    const auto n = static_cast<int32_t>(readUInt(data.data() + start));
    if (n < 0 || static_cast<size_t>(n) > length - start - 4)
        return false;
    count = static_cast<size_t>(n);
    bytesAt = start + 4;
    return true;
}

} // namespace

std::unique_ptr<BBOSCPacket> BBOSCDecoder::decodeData(std::span<const uint8_t> data) {
    if (data.empty())
        return nullptr;
    if (data[0] == '#')
        return decodeRawBundle(data);
    return decodeRawMessage(data);
}

std::optional<std::string>
BBOSCDecoder::stringFromDataStartingAtEndingAt(std::span<const uint8_t> data, size_t start,
                                               size_t& end) {
    PaddedString text;
    if (!readPaddedString(data, start, text))
        return std::nullopt;
    end = text.next;
    return std::string(textOf(data, text));
}

std::optional<int32_t> BBOSCDecoder::intFromDataStartingAtEndingAt(std::span<const uint8_t> data,
                                                                   size_t start, size_t& end) {
    if (start > data.size() || data.size() - start < 4)
        return std::nullopt;
    end = start + 4;
    return static_cast<int32_t>(readUInt(data.data() + start));
}

std::optional<float> BBOSCDecoder::floatFromDataStartingAtEndingAt(std::span<const uint8_t> data,
                                                                   size_t start, size_t& end) {
    const auto bits = intFromDataStartingAtEndingAt(data, start, end);
    if (!bits)
        return std::nullopt;
    return std::bit_cast<float>(*bits);
}

std::optional<BBOSCBytes>
BBOSCDecoder::dataBlobFromDataStartingAtEndingAt(std::span<const uint8_t> data, size_t start,
                                                 size_t& end) {
    size_t count = 0, at = 0;
    if (!readBlob(data, start, count, at))
        return std::nullopt;
    // Padding of 1 to 4 bytes follows the blob. A blob that ends the datagram
    // without its padding is still accepted: nothing after it is read.
    end = at + BBOSCDataUtilities::paddedLength(count);
    return BBOSCBytes(data.begin() + at, data.begin() + at + count);
}

bool BBOSCDecoder::readArgument(std::span<const uint8_t> data, size_t start, size_t& end, char type,
                                BBOSCArgument& argument) {
    // Arguments keep their wire bytes, so reading one is a bounds check and
    // one copy.
    const size_t length = data.size();
    switch (type) {
    case 'i':
    case 'f':
        if (start > length || length - start < 4)
            return false;
        argument.assignFromWire(type, data.data() + start, 4, length - start);
        end = start + 4;
        return true;
    case 's': {
        PaddedString text;
        if (!readPaddedString(data, start, text))
            return false;
        argument.assignFromWire('s', data.data() + start, static_cast<uint32_t>(text.next - start),
                                length - start);
        end = text.next;
        return true;
    }
    case 'b': {
        size_t count = 0, at = 0;
        if (!readBlob(data, start, count, at))
            return false;
        // Kept with zero padding even when the datagram's padding was
        // missing (blob at the very end) or not zero.
        argument.setDataBlobValue(data.subspan(at, count));
        end = at + BBOSCDataUtilities::paddedLength(count);
        return true;
    }
    default:
        return false;
    }
}

std::optional<BBOSCArgument>
BBOSCDecoder::argumentFromDataStartingAtEndingAtOfType(std::span<const uint8_t> data, size_t start,
                                                       size_t& end, char type) {
    BBOSCArgument argument;
    if (!readArgument(data, start, end, type, argument))
        return std::nullopt;
    return argument;
}

std::unique_ptr<BBOSCMessage> BBOSCDecoder::decodeRawMessage(std::span<const uint8_t> data) {
    PaddedString address, tags;
    if (!readPaddedString(data, 0, address) || !readPaddedString(data, address.next, tags))
        return nullptr;
    const std::string_view tagText = textOf(data, tags);
    if (tagText.empty() || tagText[0] != ',')
        return nullptr;

    std::unique_ptr<BBOSCMessage> message(
        new BBOSCMessage(BBOSCMessage::InPlace{}, textOf(data, address)));
    const size_t count = tagText.size() - 1;
    message->reserveArguments(count);
    // Arguments are built straight into the message's storage; count_
    // follows each one so that an early return releases what was built.
    BBOSCArgument* arguments = message->arguments_;
    const uint8_t* d = data.data();
    const size_t length = data.size();
    size_t offset = tags.next;
    for (size_t i = 0; i < count; ++i) {
        const char tag = tagText[i + 1];
        switch (tag) {
        case 'i':
        case 'f':
            if (offset > length || length - offset < 4)
                return nullptr;
            new (&arguments[i])
                BBOSCArgument(BBOSCArgument::Wire{}, tag, d + offset, 4, length - offset);
            offset += 4;
            break;
        case 's': {
            PaddedString text;
            if (!readPaddedString(data, offset, text))
                return nullptr;
            new (&arguments[i])
                BBOSCArgument(BBOSCArgument::Wire{}, 's', d + offset,
                              static_cast<uint32_t>(text.next - offset), length - offset);
            offset = text.next;
            break;
        }
        case 'b': {
            size_t blobSize = 0, at = 0;
            if (!readBlob(data, offset, blobSize, at))
                return nullptr;
            const size_t end = at + BBOSCDataUtilities::paddedLength(blobSize);
            // With its zero padding present the blob is kept as it came, in
            // one copy; otherwise it is padded anew.
            bool padded = end <= length;
            for (size_t k = at + blobSize; padded && k < end; ++k)
                padded = d[k] == 0;
            if (padded) {
                new (&arguments[i])
                    BBOSCArgument(BBOSCArgument::Wire{}, 'b', d + offset,
                                  static_cast<uint32_t>(end - offset), length - offset);
            } else {
                new (&arguments[i]) BBOSCArgument();
                arguments[i].setDataBlobValue(data.subspan(at, blobSize));
            }
            offset = end;
            break;
        }
        default: {
            size_t end = 0;
            BBOSCArgument* argument = new (&arguments[i]) BBOSCArgument();
            message->count_ = static_cast<uint32_t>(i + 1);
            if (!readArgument(data, offset, end, tag, *argument))
                return nullptr;
            offset = end;
            break;
        }
        }
        message->count_ = static_cast<uint32_t>(i + 1);
    }
    return message;
}

std::unique_ptr<BBOSCBundle> BBOSCDecoder::decodeRawBundle(std::span<const uint8_t> data) {
    const size_t length = data.size();
    if (length < 16)
        return nullptr;
    auto bundle =
        std::make_unique<BBOSCBundle>(BBOSCDataUtilities::dateFromNTPTimestamp(data.subspan(8, 8)));
    if (length < 18)
        return bundle;
    // The sizes alone first: a size that runs past the end drops the whole
    // datagram before anything is decoded, and the count sizes the list.
    size_t count = 0;
    size_t offset = 16;
    do {
        if (length - offset < 4)
            return nullptr;
        const auto n = static_cast<int32_t>(readUInt(data.data() + offset));
        if (n < 0 || static_cast<size_t>(n) > length - offset - 4)
            return nullptr;
        offset += 4 + static_cast<size_t>(n);
        ++count;
    } while (offset < length - 1);

    bundle->elements_.reserve(count);
    offset = 16;
    for (size_t i = 0; i < count; ++i) {
        const size_t n = readUInt(data.data() + offset);
        // Nested bundles decode through the same entry, to any depth; an
        // element that is malformed within its own bounds is skipped.
        bundle->attachObject(decodeData(data.subspan(offset + 4, n)));
        offset += 4 + n;
    }
    return bundle;
}
