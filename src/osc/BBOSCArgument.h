#pragma once
// One OSC argument: its type tag and its bytes exactly as they go on the
// wire (already padded). Only four types are ever written or read:
//   'i' 32-bit int, 'f' 32-bit float, 's' padded ASCII string, 'b' blob.
// The value accessors decode the bytes on every call and never fail.
//
// A value type: messages hold their arguments by value. Short data (up to
// 15 bytes: every int and float, short strings) is stored inline, so building
// or decoding an argument does not touch the heap.

#include "osc/BBOSCDataUtilities.h"

#include <span>
#include <string>
#include <string_view>

class BBOSCArgument {
public:
    // An argument of no type ("no arg value"); every accessor answers zero
    // or empty.
    BBOSCArgument() = default;

    static BBOSCArgument argumentWithInt(int32_t value);
    static BBOSCArgument argumentWithFloat(float value);
    // A string with a byte above 0x7F becomes the empty string.
    static BBOSCArgument argumentWithString(std::string_view value);
    static BBOSCArgument argumentWithDataBlob(std::span<const uint8_t> blob);
    // The decoder's way in: a tag and the wire bytes as they were received.
    static BBOSCArgument argumentWithTypeAndData(char type, std::span<const uint8_t> data);

    // Each setter sets the tag and replaces the bytes.
    void setIntValue(int32_t value);
    void setFloatValue(float value);
    void setStringValue(std::string_view value);
    void setDataBlobValue(std::span<const uint8_t> blob);

    char type() const { return type_; }
    std::span<const uint8_t> data() const {
        return {reinterpret_cast<const uint8_t*>(data_.data()), data_.size()};
    }

    // 'i': the integer as a float; 'f': the float; any other type: 0.0.
    float floatValue() const;
    // floatValue() truncated toward zero (an 'i' argument passes through
    // single precision: 16777217 reads back as 16777216). A value outside the
    // 32-bit range saturates; NaN reads as 0.
    int32_t intValue() const;
    // The bytes read as a padded string, whatever the type; "" when they do
    // not form an ASCII string.
    std::string stringValue() const;
    // The bytes read as a blob, whatever the type; empty when they do not
    // form one.
    BBOSCBytes dataBlobValue() const;

    // "i { 5 }", "f { 1.500000 }", "s { text }", "b { <01020304 05> }",
    // "no arg value".
    std::string description() const;

    bool operator==(const BBOSCArgument&) const = default;

private:
    char type_ = 0;
    // Wire bytes. std::string rather than a byte vector for its inline
    // storage of short contents.
    std::string data_;
};
