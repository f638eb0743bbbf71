// Any datagram: decoding never reads past the end, never crashes, and what
// it yields can be printed and encoded.
#include "osc/BBOSCDecoder.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::unique_ptr<BBOSCPacket> packet = BBOSCDecoder::decodeData({data, size});
    if (!packet)
        return 0;
    if (!packet->asMessage() && !packet->asBundle())
        std::abort();
    (void)packet->stringRepresentation();
    const BBOSCBytes encoded = packet->packetizedData();
    if (encoded.size() != packet->packetizedSize())
        std::abort();
    return 0;
}
