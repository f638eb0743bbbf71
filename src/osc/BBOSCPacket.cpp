#include "osc/BBOSCPacket.h"

BBOSCBytes BBOSCPacket::packetizedData() const {
    BBOSCBytes out;
    out.reserve(packetizedSize());
    appendPacketizedData(out);
    return out;
}

std::vector<BBOSCBytes> BBOSCPacket::packetizedDatas() const {
    std::vector<BBOSCBytes> out;
    out.push_back(packetizedData());
    return out;
}

std::string BBOSCPacket::stringRepresentation() const {
    return "abstract parent class: BBOSCPacket";
}

bool BBOSCPacket::isEqualToPacket(const BBOSCPacket& other) const {
    return !other.asMessage() && !other.asBundle() && !asMessage() && !asBundle();
}
