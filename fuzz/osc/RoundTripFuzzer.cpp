// decode -> encode -> decode: a packet read from any datagram encodes to
// bytes that read back as the same packet, and its split datagrams carry the
// same elements in order.
//
// Exact equality holds for packets whose text survives the trip: received
// strings lose NULs at their ends (so "\0#x" can come back as "#x", which is
// a bundle marker, and a NUL inside an address may land where the reader
// looks for the end), and an empty nested bundle encodes to a zero-size
// element, which is skipped. Other packets must still encode and decode
// without fault.
#include "osc/BBOSCDecoder.h"

#include <cstdlib>

namespace {

bool survivesTheTrip(const BBOSCPacket& packet) {
    if (const BBOSCMessage* m = packet.asMessage()) {
        const std::string& a = m->addressString();
        return a.find('\0') == std::string::npos && (a.empty() || a[0] != '#');
    }
    const BBOSCBundle* b = packet.asBundle();
    if (!b || b->attachedObjects().empty())
        return false;
    for (const auto& e : b->attachedObjects())
        if (!survivesTheTrip(*e))
            return false;
    return true;
}

void check(bool condition) {
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::unique_ptr<BBOSCPacket> first = BBOSCDecoder::decodeData({data, size});
    if (!first)
        return 0;
    const BBOSCBytes encoded = first->packetizedData();
    check(encoded.size() == first->packetizedSize());
    const std::unique_ptr<BBOSCPacket> second = BBOSCDecoder::decodeData(encoded);
    if (second)
        (void)second->packetizedData();
    if (!survivesTheTrip(*first))
        return 0;

    check(second != nullptr);
    check(first->isEqualToPacket(*second));
    check(second->packetizedData() == encoded);

    // Splitting keeps every element, in order, under the same header.
    if (const BBOSCBundle* bundle = first->asBundle()) {
        size_t index = 0;
        for (const BBOSCBytes& datagram : bundle->packetizedDatas()) {
            check(datagram.size() >= 16);
            check(std::equal(datagram.begin(), datagram.begin() + 16, encoded.begin()));
            const auto part = BBOSCDecoder::decodeData(datagram);
            check(part && part->asBundle());
            const auto& elements = part->asBundle()->attachedObjects();
            check(datagram.size() <= BBOSCBundle::kMaximumDatagramSize || elements.size() == 1);
            for (const auto& e : elements) {
                check(index < bundle->attachedObjects().size());
                check(e->isEqualToPacket(*bundle->attachedObjects()[index++]));
            }
        }
        check(index == bundle->attachedObjects().size());
    }
    return 0;
}
