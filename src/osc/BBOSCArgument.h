#pragma once
// One OSC argument: its type tag and its bytes exactly as they go on the
// wire (already padded). Only four types are ever written or read:
//   'i' 32-bit int, 'f' 32-bit float, 's' padded ASCII string, 'b' blob.
// The value accessors decode the bytes on every call and never fail.
//
// A value type: messages hold their arguments by value. Short data (up to
// 16 bytes: every int and float, strings of up to 15 characters) is stored
// inside the argument, so building or decoding one does not touch the heap;
// longer data lives in one heap block of exactly its size.

#include "osc/BBOSCDataUtilities.h"

#include <bit>
#include <span>
#include <string>
#include <string_view>

class BBOSCArgument {
public:
    // An argument of no type ("no arg value"); every accessor answers zero
    // or empty.
    BBOSCArgument() = default;
    BBOSCArgument(const BBOSCArgument& other);
    // Moving copies the inline bytes or takes the heap block, whichever is
    // there.
    BBOSCArgument(BBOSCArgument&& other) noexcept : type_(other.type_), size_(other.size_) {
        __builtin_memcpy(inline_, other.inline_, kInlineSize);
        other.size_ = 0;
    }
    BBOSCArgument& operator=(const BBOSCArgument& other);
    BBOSCArgument& operator=(BBOSCArgument&& other) noexcept {
        if (this != &other) {
            release();
            type_ = other.type_;
            size_ = other.size_;
            __builtin_memcpy(inline_, other.inline_, kInlineSize);
            other.size_ = 0;
        }
        return *this;
    }
    ~BBOSCArgument() {
        if (!isInline())
            delete[] heap_;
    }

    static BBOSCArgument argumentWithInt(int32_t value) {
        BBOSCArgument a;
        a.setIntValue(value);
        return a;
    }
    static BBOSCArgument argumentWithFloat(float value) {
        BBOSCArgument a;
        a.setFloatValue(value);
        return a;
    }
    // A string with a byte above 0x7F becomes the empty string.
    static BBOSCArgument argumentWithString(std::string_view value);
    static BBOSCArgument argumentWithDataBlob(std::span<const uint8_t> blob);
    // The decoder's way in: a tag and the wire bytes as they were received.
    static BBOSCArgument argumentWithTypeAndData(char type, std::span<const uint8_t> data);

    // Each setter sets the tag and replaces the bytes.
    void setIntValue(int32_t value) {
        type_ = 'i';
        setWord(static_cast<uint32_t>(value));
    }
    void setFloatValue(float value) {
        type_ = 'f';
        setWord(std::bit_cast<uint32_t>(value));
    }
    void setStringValue(std::string_view value);
    void setDataBlobValue(std::span<const uint8_t> blob);

    char type() const { return type_; }
    std::span<const uint8_t> data() const { return {bytes(), size_}; }

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

    bool operator==(const BBOSCArgument& other) const;

private:
    friend class BBOSCDecoder;
    static constexpr uint32_t kInlineSize = 16;

    bool isInline() const { return size_ <= kInlineSize; }
    const uint8_t* bytes() const { return isInline() ? inline_ : heap_; }
    // Frees a heap block and leaves the argument with `size` writable bytes
    // (contents unspecified).
    uint8_t* resize(uint32_t size) {
        release();
        size_ = size;
        if (size <= kInlineSize)
            return inline_;
        heap_ = new uint8_t[size];
        return heap_;
    }
    // Kept inline so that a freshly made int or float argument can be built
    // straight where it is attached, with no temporary in between.
    void setWord(uint32_t value) {
        release();
        size_ = 4;
        __builtin_memset(inline_, 0, kInlineSize);
        const uint8_t bytes[4] = {uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8),
                                  uint8_t(value)};
        __builtin_memcpy(inline_, bytes, 4);
    }
    void release() {
        if (!isInline())
            delete[] heap_;
        size_ = 0;
    }
    // The decoder's copies from a datagram. `readable` is how many bytes may
    // be read from `data` (at least `size`), which lets short data be copied
    // as one fixed-size block; bytes past `size` are never looked at. The
    // constructor form builds the argument in place, with no clearing first.
    struct Wire {};
    BBOSCArgument(Wire, char type, const uint8_t* data, uint32_t size, size_t readable)
        : type_(type), size_(size), heap_(nullptr) {
        if (size <= kInlineSize && readable >= kInlineSize) {
            __builtin_memcpy(inline_, data, kInlineSize);
        } else if (size <= kInlineSize) {
            __builtin_memset(inline_, 0, kInlineSize);
            __builtin_memcpy(inline_, data, size);
        } else {
            heap_ = new uint8_t[size];
            __builtin_memcpy(heap_, data, size);
        }
    }
    void assignFromWire(char type, const uint8_t* data, uint32_t size, size_t readable) {
        type_ = type;
        if (size <= kInlineSize && readable >= kInlineSize) {
            release();
            size_ = size;
            __builtin_memcpy(inline_, data, kInlineSize);
            return;
        }
        __builtin_memcpy(resize(size), data, size);
    }

    char type_ = 0;
    uint32_t size_ = 0;
    union {
        uint8_t inline_[kInlineSize] = {};
        uint8_t* heap_;
    };
};
