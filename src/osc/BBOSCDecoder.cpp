#include "osc/BBOSCDecoder.h"

#include <bit>

namespace {

uint32_t readUInt(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// Finds the end of a padded string at `start`: the first 4-byte group whose
// last byte is zero. Only that byte of each group is looked at, so a zero
// elsewhere in a group does not end the string. Answers the offset of that
// zero byte, or nothing when the data ends first.
std::optional<size_t> paddedStringEnd(std::span<const uint8_t> data, size_t start) {
    const size_t length = data.size();
    if (start > length || length - start < 4)
        return std::nullopt;
    size_t q = start + 3;
    while (data[q] != 0) {
        q += 4;
        if (q >= length)
            return std::nullopt;
    }
    return q;
}

// The string bytes start..q (both ends' NULs removed) without making a
// std::string; nothing when a byte is above 0x7F.
std::optional<std::string_view> paddedStringView(std::span<const uint8_t> data, size_t start,
                                                 size_t q) {
    size_t first = start;
    size_t last = q + 1;
    while (first < last && data[first] == 0)
        ++first;
    while (last > first && data[last - 1] == 0)
        --last;
    for (size_t i = first; i < last; ++i)
        if (data[i] > 0x7F)
            return std::nullopt;
    return std::string_view(reinterpret_cast<const char*>(data.data()) + first, last - first);
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
    const auto q = paddedStringEnd(data, start);
    if (!q)
        return std::nullopt;
    const auto view = paddedStringView(data, start, *q);
    if (!view)
        return std::nullopt;
    end = *q + 1;
    return std::string(*view);
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
    size_t afterCount = 0;
    const auto n = intFromDataStartingAtEndingAt(data, start, afterCount);
    if (!n || *n < 0 || static_cast<size_t>(*n) > data.size() - afterCount)
        return std::nullopt;
    const size_t count = static_cast<size_t>(*n);
    // Padding of 1 to 4 bytes follows the blob. A blob that ends the datagram
    // without its padding is still accepted: nothing after it is read.
    end = afterCount + BBOSCDataUtilities::paddedLength(count);
    return BBOSCBytes(data.begin() + afterCount, data.begin() + afterCount + count);
}

std::optional<BBOSCArgument>
BBOSCDecoder::argumentFromDataStartingAtEndingAtOfType(std::span<const uint8_t> data, size_t start,
                                                       size_t& end, char type) {
    // Arguments keep their wire bytes, so each reader only checks the bounds
    // here and the bytes are copied once into the argument.
    switch (type) {
    case 'i':
    case 'f':
        if (start > data.size() || data.size() - start < 4)
            return std::nullopt;
        end = start + 4;
        return BBOSCArgument::argumentWithTypeAndData(type, data.subspan(start, 4));
    case 's': {
        const auto q = paddedStringEnd(data, start);
        if (!q || !paddedStringView(data, start, *q))
            return std::nullopt;
        end = *q + 1;
        return BBOSCArgument::argumentWithTypeAndData('s', data.subspan(start, end - start));
    }
    case 'b': {
        size_t afterCount = 0;
        const auto n = intFromDataStartingAtEndingAt(data, start, afterCount);
        if (!n || *n < 0 || static_cast<size_t>(*n) > data.size() - afterCount)
            return std::nullopt;
        const size_t count = static_cast<size_t>(*n);
        end = afterCount + BBOSCDataUtilities::paddedLength(count);
        // The argument's bytes are kept canonically padded even when the
        // datagram ended right after the blob.
        BBOSCArgument a = BBOSCArgument::argumentWithDataBlob(data.subspan(afterCount, count));
        return a;
    }
    default:
        return std::nullopt;
    }
}

std::unique_ptr<BBOSCMessage> BBOSCDecoder::decodeRawMessage(std::span<const uint8_t> data) {
    const auto addressEnd = paddedStringEnd(data, 0);
    if (!addressEnd)
        return nullptr;
    const auto address = paddedStringView(data, 0, *addressEnd);
    if (!address)
        return nullptr;
    size_t offset = *addressEnd + 1;
    const auto tagsEnd = paddedStringEnd(data, offset);
    if (!tagsEnd)
        return nullptr;
    const auto tags = paddedStringView(data, offset, *tagsEnd);
    if (!tags || tags->empty() || (*tags)[0] != ',')
        return nullptr;
    offset = *tagsEnd + 1;

    auto message = std::make_unique<BBOSCMessage>(BBOSCAddress(std::string(*address)));
    message->reserveArguments(tags->size() - 1);
    for (size_t i = 1; i < tags->size(); ++i) {
        size_t next = offset;
        auto argument = argumentFromDataStartingAtEndingAtOfType(data, offset, next, (*tags)[i]);
        if (!argument)
            return nullptr;
        message->attachArgument(std::move(*argument));
        offset = next;
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
    size_t offset = 16;
    do {
        if (length - offset < 4)
            return nullptr;
        const int32_t n = static_cast<int32_t>(readUInt(data.data() + offset));
        if (n < 0 || static_cast<size_t>(n) > length - offset - 4)
            return nullptr;
        // Nested bundles decode through the same entry, to any depth; an
        // element that is malformed within its own bounds is skipped.
        bundle->attachObject(decodeData(data.subspan(offset + 4, static_cast<size_t>(n))));
        offset += 4 + static_cast<size_t>(n);
    } while (offset < length - 1);
    return bundle;
}
