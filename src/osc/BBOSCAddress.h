#pragma once
// An OSC address: opaque ASCII text such as "/korvalis/action/launchColumn/5".
// A value type, owned by value by its message.
//
// Text of up to kInlineLength characters is kept inside the address, so
// making a message, encoding it and decoding one allocate nothing for the
// address. addressView() reads it without any allocation and is the one to
// use on hot paths (matching, dispatch). address() gives a std::string made
// on first use and kept: like everything about a packet, it is not to be
// called on one address from two threads at once.

#include "osc/BBOSCDataUtilities.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

class BBOSCAddress {
public:
    static constexpr size_t kInlineLength = 40;

    BBOSCAddress() = default;
    explicit BBOSCAddress(std::string&& address) { assign(address); }
    explicit BBOSCAddress(std::string_view address) { assign(address); }
    explicit BBOSCAddress(const char* address) { assign(address ? address : ""); }

    static BBOSCAddress addressWithString(std::string_view address) {
        return BBOSCAddress(address);
    }
    // "/" + each component in order: {"a", "b"} gives "/a/b", {} gives "".
    static BBOSCAddress addressWithArray(const std::vector<std::string>& components);

    std::string_view addressView() const {
        return inline_ ? std::string_view(text_, length_) : std::string_view(string_);
    }
    const std::string& address() const {
        if (inline_) {
            string_.assign(text_, length_);
            inline_ = false;
        }
        return string_;
    }

    // The padded ASCII bytes (see BBOSCDataUtilities::dataBlockFromString).
    BBOSCBytes packetizedData() const;
    size_t packetizedSize() const;
    void appendPacketizedData(BBOSCBytes& out) const;

    bool operator==(const BBOSCAddress& other) const { return addressView() == other.addressView(); }

private:
    void assign(std::string_view address) {
        if (address.size() <= kInlineLength) {
            if (!address.empty())
                std::memcpy(text_, address.data(), address.size());
            length_ = static_cast<uint32_t>(address.size());
            inline_ = true;
        } else {
            string_.assign(address);
            inline_ = false;
        }
    }

    // The text is in text_ while inline_ is set, else in string_ (which
    // address() fills on first use).
    mutable std::string string_;
    mutable bool inline_ = true;
    uint32_t length_ = 0;
    char text_[kInlineLength];
};
