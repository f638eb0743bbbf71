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
    return BBOSCDataUtilities::dataBlockFromString(addressView());
}

size_t BBOSCAddress::packetizedSize() const {
    // A non-ASCII address goes out as the empty string.
    const std::string_view text = addressView();
    return BBOSCDataUtilities::isASCII(text) ? BBOSCDataUtilities::paddedLength(text.size()) : 4;
}

void BBOSCAddress::appendPacketizedData(BBOSCBytes& out) const {
    BBOSCDataUtilities::appendString(out, addressView());
}
