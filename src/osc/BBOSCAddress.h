#pragma once
// An OSC address: opaque ASCII text such as "/korvalis/action/launchColumn/5".
// A value type, owned by value by its message.
//
// Text of up to kInlineLength characters is kept inside the address, so
// making a message, encoding it and decoding one allocate nothing for the
// address. addressView() reads it without any allocation and is the one to
// use on hot paths (matching, dispatch). address() gives a std::string, made
// on first use (once, also when several threads ask at the same time) and
// kept.

#include "osc/BBOSCDataUtilities.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

class BBOSCAddress {
public:
    static constexpr size_t kInlineLength = 40;

    BBOSCAddress() = default;
    BBOSCAddress(const BBOSCAddress& other) { assign(other.addressView()); }
    BBOSCAddress& operator=(const BBOSCAddress& other) {
        if (this != &other)
            *this = BBOSCAddress(other.addressView());
        return *this;
    }
    BBOSCAddress& operator=(BBOSCAddress&& other) noexcept {
        // The once-flag of a used address cannot be reset: take the text
        // into a fresh object's state by hand.
        if (this != &other) {
            std::destroy_at(this);
            std::construct_at(this, std::move(other));
        }
        return *this;
    }
    BBOSCAddress(BBOSCAddress&& other) noexcept
        : string_(other.inline_ ? std::string() : std::move(other.string_)), inline_(other.inline_),
          length_(other.length_) {
        // The whole buffer in one fixed-size copy: cheaper than a copy of
        // the exact length, and the bytes past length_ are never read.
        if (inline_)
            std::memcpy(text_, other.text_, kInlineLength);
    }
    explicit BBOSCAddress(std::string&& address) { assign(address); }
    explicit BBOSCAddress(std::string_view address) { assign(address); }
    // A null pointer gives the empty address.
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
        if (inline_)
            std::call_once(stringMade_, [this] { string_.assign(text_, length_); });
        return string_;
    }

    // The padded ASCII bytes (see BBOSCDataUtilities::dataBlockFromString).
    BBOSCBytes packetizedData() const;
    size_t packetizedSize() const;
    void appendPacketizedData(BBOSCBytes& out) const;

    bool operator==(const BBOSCAddress& other) const {
        return addressView() == other.addressView();
    }

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

    // The text is in text_ when inline_ is set (and string_ is filled from it
    // the first time address() is asked), else in string_. Fixed after
    // construction but for that one fill, which stringMade_ guards.
    mutable std::string string_;
    mutable std::once_flag stringMade_;
    bool inline_ = true;
    uint32_t length_ = 0;
    char text_[kInlineLength] = {};
};
