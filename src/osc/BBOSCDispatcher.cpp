#include "osc/BBOSCDispatcher.h"

#include "osc/BBOSCDecoder.h"
#include "platform/Log.h"

void BBOSCDispatcher::dispatchRawPacket(std::span<const uint8_t> datagram) {
    const std::unique_ptr<BBOSCPacket> packet = BBOSCDecoder::decodeData(datagram);
    if (packet)
        ts::logLine("DISPATCH: " + packet->stringRepresentation());
}
