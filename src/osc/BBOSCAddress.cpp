#include "osc/BBOSCAddress.h"

BBOSCAddress BBOSCAddress::addressWithArray(const std::vector<std::string>& components) {
    std::string address;
    for (const std::string& c : components) {
        address += '/';
        address += c;
    }
    return BBOSCAddress(std::move(address));
}

BBOSCBytes BBOSCAddress::packetizedData() const {
    return BBOSCDataUtilities::dataBlockFromString(address_);
}

size_t BBOSCAddress::packetizedSize() const {
    // A non-ASCII address goes out as the empty string.
    return BBOSCDataUtilities::isASCII(address_) ? BBOSCDataUtilities::paddedLength(address_.size())
                                                 : 4;
}

void BBOSCAddress::appendPacketizedData(BBOSCBytes& out) const {
    BBOSCDataUtilities::appendString(out, address_);
}
