#pragma once
// An OSC address: opaque ASCII text such as "/korvalis/action/launchColumn/5".
// A value type, owned by value by its message.

#include "osc/BBOSCDataUtilities.h"

#include <string>
#include <string_view>
#include <vector>

class BBOSCAddress {
public:
    BBOSCAddress() = default;
    explicit BBOSCAddress(std::string address) : address_(std::move(address)) {}

    static BBOSCAddress addressWithString(std::string_view address) {
        return BBOSCAddress(std::string(address));
    }
    // "/" + each component in order: {"a", "b"} gives "/a/b", {} gives "".
    static BBOSCAddress addressWithArray(const std::vector<std::string>& components);

    const std::string& address() const { return address_; }

    // The padded ASCII bytes (see BBOSCDataUtilities::dataBlockFromString).
    BBOSCBytes packetizedData() const;
    size_t packetizedSize() const;
    void appendPacketizedData(BBOSCBytes& out) const;

    bool operator==(const BBOSCAddress&) const = default;

private:
    std::string address_;
};
