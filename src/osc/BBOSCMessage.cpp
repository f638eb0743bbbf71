#include "osc/BBOSCMessage.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TS_OSC_RECYCLE_MESSAGES 0 // let the sanitizers see every allocation
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TS_OSC_RECYCLE_MESSAGES 0
#else
#define TS_OSC_RECYCLE_MESSAGES 1
#endif
#else
#define TS_OSC_RECYCLE_MESSAGES 1
#endif

#if TS_OSC_RECYCLE_MESSAGES
// Freed message blocks of this thread, handed out again before the global
// allocator is asked. Blocks come from and go back to ::operator new, so a
// message made on one thread may be freed on another.
struct MessageBlockCache {
    static constexpr size_t kCapacity = 256;
    void* blocks[kCapacity];
    size_t count = 0;
    ~MessageBlockCache() {
        while (count > 0)
            ::operator delete(blocks[--count]);
    }
};
thread_local MessageBlockCache messageBlocks;
#endif

} // namespace

void* BBOSCMessage::operator new(size_t size) {
#if TS_OSC_RECYCLE_MESSAGES
    MessageBlockCache& cache = messageBlocks;
    if (size == sizeof(BBOSCMessage) && cache.count > 0)
        return cache.blocks[--cache.count];
#endif
    return ::operator new(size);
}

void BBOSCMessage::operator delete(void* block, [[maybe_unused]] size_t size) noexcept {
#if TS_OSC_RECYCLE_MESSAGES
    MessageBlockCache& cache = messageBlocks;
    if (size == sizeof(BBOSCMessage) && cache.count < MessageBlockCache::kCapacity) {
        cache.blocks[cache.count++] = block;
        return;
    }
#endif
    ::operator delete(block);
}

BBOSCMessage::BBOSCMessage(const BBOSCMessage& other)
    : BBOSCPacket(other), address_(other.address_) {
    reserveArguments(other.count_);
    for (const BBOSCArgument& a : other.attachedObjects())
        appendArgument() = a;
}

BBOSCMessage& BBOSCMessage::operator=(const BBOSCMessage& other) {
    if (this != &other) {
        address_ = other.address_;
        clearArguments();
        reserveArguments(other.count_);
        for (const BBOSCArgument& a : other.attachedObjects())
            appendArgument() = a;
    }
    return *this;
}

BBOSCMessage::~BBOSCMessage() {
    clearArguments();
    if (arguments_ != reinterpret_cast<BBOSCArgument*>(inlineArguments_))
        ::operator delete(arguments_);
}

void BBOSCMessage::clearArguments() {
    for (uint32_t i = 0; i < count_; ++i)
        arguments_[i].~BBOSCArgument();
    count_ = 0;
}

void BBOSCMessage::growArguments(size_t count) {
    auto* grown = static_cast<BBOSCArgument*>(::operator new(count * sizeof(BBOSCArgument)));
    for (uint32_t i = 0; i < count_; ++i) {
        new (&grown[i]) BBOSCArgument(std::move(arguments_[i]));
        arguments_[i].~BBOSCArgument();
    }
    if (arguments_ != reinterpret_cast<BBOSCArgument*>(inlineArguments_))
        ::operator delete(arguments_);
    arguments_ = grown;
    capacity_ = static_cast<uint32_t>(count);
}

void BBOSCMessage::attachArguments(std::vector<BBOSCArgument> arguments) {
    reserveArguments(count_ + arguments.size());
    for (BBOSCArgument& a : arguments)
        attachArgument(std::move(a));
}

std::string BBOSCMessage::typeTagString() const {
    std::string tags;
    tags.reserve(count_ + 1);
    tags += ',';
    for (const BBOSCArgument& a : attachedObjects())
        tags += a.type();
    return tags;
}

BBOSCBytes BBOSCMessage::packetizedData() const {
    BBOSCBytes out;
    appendPacketizedData(out);
    return out;
}

bool BBOSCMessage::hasASCIITags() const {
    // A tag above 0x7F makes the type-tag string non-ASCII, and such a
    // string goes out as the empty string.
    unsigned char high = 0;
    for (uint32_t i = 0; i < count_; ++i)
        high |= static_cast<unsigned char>(arguments_[i].type());
    return high <= 0x7F;
}

size_t BBOSCMessage::packetizedSize() const {
    size_t size = address_.packetizedSize();
    for (uint32_t i = 0; i < count_; ++i)
        size += arguments_[i].data().size();
    return size + (hasASCIITags() ? BBOSCDataUtilities::paddedLength(count_ + 1) : 4);
}

void BBOSCMessage::appendPacketizedData(BBOSCBytes& out) const {
    const size_t start = out.size();
    const bool asciiTags = hasASCIITags();
    const std::string_view address = address_.addressView();
    const bool asciiAddress = BBOSCDataUtilities::isASCII(address);
    const size_t addressSize = asciiAddress ? BBOSCDataUtilities::paddedLength(address.size()) : 4;
    const size_t tagsSize = asciiTags ? BBOSCDataUtilities::paddedLength(count_ + 1) : 4;
    size_t argumentsSize = 0;
    size_t largest = 0;
    for (uint32_t i = 0; i < count_; ++i) {
        const size_t n = arguments_[i].data().size();
        argumentsSize += n;
        largest = std::max(largest, n);
    }
    // Short arguments are copied into a zero-filled stretch with the rest
    // (the zeros are the padding of the address and the tags); long ones
    // (blobs) are appended so that their bytes are written once, not zeroed
    // first.
    constexpr size_t kLong = 64;
    const size_t headerSize = addressSize + tagsSize;
    out.reserve(start + headerSize + argumentsSize);
    out.resize(start + headerSize + (largest <= kLong ? argumentsSize : 0));
    uint8_t* p = out.data() + start;
    if (asciiAddress && !address.empty())
        std::memcpy(p, address.data(), address.size());
    p += addressSize;
    if (asciiTags) {
        p[0] = ',';
        for (uint32_t i = 0; i < count_; ++i)
            p[i + 1] = static_cast<uint8_t>(arguments_[i].type());
    }
    p += tagsSize;
    for (uint32_t i = 0; i < count_; ++i) {
        const auto bytes = arguments_[i].data();
        if (largest > kLong) {
            out.insert(out.end(), bytes.begin(), bytes.end());
        } else if (bytes.size() == 4) {
            std::memcpy(p, bytes.data(), 4);
            p += 4;
        } else if (!bytes.empty()) {
            std::memcpy(p, bytes.data(), bytes.size());
            p += bytes.size();
        }
    }
}

std::string BBOSCMessage::stringRepresentation() const {
    std::string text = "MESSAGE:\naddress:";
    text += address_.addressView();
    text += "\n types:";
    text += typeTagString();
    for (const BBOSCArgument& a : attachedObjects()) {
        text += '\n';
        text += a.description();
    }
    return text;
}

bool BBOSCMessage::isEqualToPacket(const BBOSCPacket& other) const {
    const BBOSCMessage* m = other.asMessage();
    return m && m->address_ == address_ &&
           std::ranges::equal(m->attachedObjects(), attachedObjects());
}
