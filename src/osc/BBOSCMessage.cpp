#include "osc/BBOSCMessage.h"

#include <cstring>

void BBOSCMessage::attachArguments(std::vector<BBOSCArgument> arguments) {
    arguments_.reserve(arguments_.size() + arguments.size());
    for (BBOSCArgument& a : arguments)
        arguments_.push_back(std::move(a));
}

std::string BBOSCMessage::typeTagString() const {
    std::string tags;
    tags.reserve(arguments_.size() + 1);
    tags += ',';
    for (const BBOSCArgument& a : arguments_)
        tags += a.type();
    return tags;
}

BBOSCBytes BBOSCMessage::packetizedData() const {
    BBOSCBytes out;
    out.reserve(packetizedSize());
    appendPacketizedData(out);
    return out;
}

size_t BBOSCMessage::packetizedSize() const {
    // The tags are one byte each; a tag above 0x7F would make the type-tag
    // string non-ASCII, which then goes out as the empty string.
    size_t size = address_.packetizedSize();
    bool asciiTags = true;
    for (const BBOSCArgument& a : arguments_) {
        size += a.data().size();
        asciiTags = asciiTags && static_cast<unsigned char>(a.type()) <= 0x7F;
    }
    size += asciiTags ? BBOSCDataUtilities::paddedLength(arguments_.size() + 1) : 4;
    return size;
}

void BBOSCMessage::appendPacketizedData(BBOSCBytes& out) const {
    address_.appendPacketizedData(out);
    // Type-tag string written in place: "," + tags + 1 to 4 zeros.
    const size_t tagStart = out.size();
    out.resize(tagStart + BBOSCDataUtilities::paddedLength(arguments_.size() + 1), 0);
    uint8_t* tags = out.data() + tagStart;
    tags[0] = ',';
    bool asciiTags = true;
    for (size_t i = 0; i < arguments_.size(); ++i) {
        const auto tag = static_cast<uint8_t>(arguments_[i].type());
        asciiTags = asciiTags && tag <= 0x7F;
        tags[i + 1] = tag;
    }
    if (!asciiTags) {
        out.resize(tagStart);
        out.resize(tagStart + 4, 0);
    }
    for (const BBOSCArgument& a : arguments_) {
        const auto bytes = a.data();
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
}

std::string BBOSCMessage::stringRepresentation() const {
    std::string text = "MESSAGE:\naddress:" + address_.address() + "\n types:" + typeTagString();
    for (const BBOSCArgument& a : arguments_) {
        text += '\n';
        text += a.description();
    }
    return text;
}

bool BBOSCMessage::isEqualToPacket(const BBOSCPacket& other) const {
    const BBOSCMessage* m = other.asMessage();
    return m && m->address_ == address_ && m->arguments_ == arguments_;
}
