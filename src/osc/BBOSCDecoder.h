#pragma once
// Turns one received datagram into packet objects. Stateless.
//
// A malformed datagram decodes to nothing, whole: no partial message, no
// partial bundle. Nothing is ever read past the end of the given bytes. Only
// a bundle element that is itself malformed (but lies within the datagram)
// is skipped while its siblings are kept.
//
// The readers take the datagram, a start offset, and answer the offset just
// past what they read through `end`; on failure they answer std::nullopt and
// leave `end` unspecified.

#include "osc/BBOSCArgument.h"
#include "osc/BBOSCBundle.h"
#include "osc/BBOSCMessage.h"

#include <memory>
#include <optional>
#include <span>

class BBOSCDecoder {
public:
    // A BBOSCMessage, a BBOSCBundle (first byte '#'), or nullptr.
    static std::unique_ptr<BBOSCPacket> decodeData(std::span<const uint8_t> data);
    static std::unique_ptr<BBOSCMessage> decodeRawMessage(std::span<const uint8_t> data);
    static std::unique_ptr<BBOSCBundle> decodeRawBundle(std::span<const uint8_t> data);

    static std::optional<BBOSCArgument>
    argumentFromDataStartingAtEndingAtOfType(std::span<const uint8_t> data, size_t start,
                                             size_t& end, char type);
    // A padded string: only the last byte of each 4-byte group is tested for
    // the terminating zero.
    static std::optional<std::string>
    stringFromDataStartingAtEndingAt(std::span<const uint8_t> data, size_t start, size_t& end);
    static std::optional<int32_t> intFromDataStartingAtEndingAt(std::span<const uint8_t> data,
                                                                size_t start, size_t& end);
    static std::optional<float> floatFromDataStartingAtEndingAt(std::span<const uint8_t> data,
                                                                size_t start, size_t& end);
    static std::optional<BBOSCBytes>
    dataBlobFromDataStartingAtEndingAt(std::span<const uint8_t> data, size_t start, size_t& end);

private:
    // Reads one argument into `argument` in place (no temporary).
    static bool readArgument(std::span<const uint8_t> data, size_t start, size_t& end, char type,
                             BBOSCArgument& argument);
};
