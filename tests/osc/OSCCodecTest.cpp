// Byte-exact tests of the OSC codec: what goes on the wire, what is read back,
// and what is refused.
#include "osc/BBOSCBundle.h"
#include "osc/BBOSCDataUtilities.h"
#include "osc/BBOSCDecoder.h"
#include "osc/BBOSCMessage.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <limits>

using namespace std::literals;

namespace {

using Bytes = std::vector<uint8_t>;

// "2F 61 00 00" -> bytes; also accepts 'text' runs for readability.
Bytes hex(std::string_view text) {
    Bytes out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
        } else if (text[i] == '\'') {
            const size_t end = text.find('\'', i + 1);
            for (size_t k = i + 1; k < end; ++k)
                out.push_back(static_cast<uint8_t>(text[k]));
            i = end + 1;
        } else {
            out.push_back(
                static_cast<uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
            i += 2;
        }
    }
    return out;
}

std::unique_ptr<BBOSCMessage> message(std::string_view address,
                                      std::vector<BBOSCArgument> args = {}) {
    auto m = BBOSCMessage::messageWithBBOSCAddress(BBOSCAddress::addressWithString(address));
    m->attachArguments(std::move(args));
    return m;
}

// A message that encodes to exactly `size` bytes (size >= 16, a multiple of 4).
std::unique_ptr<BBOSCMessage> messageOfSize(size_t size) {
    const Bytes blob(size - 16, 0xAB);
    auto m = message("/a", {BBOSCArgument::argumentWithDataBlob(blob)});
    EXPECT_EQ(m->packetizedData().size(), size);
    return m;
}

struct EncodeCase {
    const char* name;
    std::function<std::unique_ptr<BBOSCPacket>()> build;
    const char* expected;
};

TEST(OSCCodec, PacketsEncodeToExactBytes) {
    const std::vector<EncodeCase> cases = {
        {"address /a, no arguments", [] { return message("/a"); }, "2F 61 00 00 2C 00 00 00"},
        {"4-character address takes 8 bytes", [] { return message("/abc"); },
         "'/abc' 00 00 00 00 2C 00 00 00"},
        {"empty address", [] { return message(""); }, "00 00 00 00 2C 00 00 00"},
        {"float 1.0", [] { return message("/a", {BBOSCArgument::argumentWithFloat(1.0f)}); },
         "'/a' 00 00 ',f' 00 00 3F 80 00 00"},
        {"int -1", [] { return message("/a", {BBOSCArgument::argumentWithInt(-1)}); },
         "'/a' 00 00 ',i' 00 00 FF FF FF FF"},
        {"int big-endian",
         [] { return message("/a", {BBOSCArgument::argumentWithInt(0x01020304)}); },
         "'/a' 00 00 ',i' 00 00 01 02 03 04"},
        {"string padded to 4",
         [] { return message("/a", {BBOSCArgument::argumentWithString("hi")}); },
         "'/a' 00 00 ',s' 00 00 'hi' 00 00"},
        {"string of 4 gets 4 zeros",
         [] { return message("/a", {BBOSCArgument::argumentWithString("abcd")}); },
         "'/a' 00 00 ',s' 00 00 'abcd' 00 00 00 00"},
        {"non-ASCII string goes out empty",
         [] { return message("/a", {BBOSCArgument::argumentWithString("caf\xC3\xA9")}); },
         "'/a' 00 00 ',s' 00 00 00 00 00 00"},
        {"non-ASCII address goes out empty", [] { return message("/\xC3\xA9"); },
         "00 00 00 00 2C 00 00 00"},
        {"4-byte blob gets 4 zeros",
         [] {
             return message("/a", {BBOSCArgument::argumentWithDataBlob(Bytes{1, 2, 3, 4})});
         },
         "'/a' 00 00 ',b' 00 00 00 00 00 04 01 02 03 04 00 00 00 00"},
        {"5-byte blob gets 3 zeros",
         [] {
             return message("/a", {BBOSCArgument::argumentWithDataBlob(Bytes{1, 2, 3, 4, 5})});
         },
         "'/a' 00 00 ',b' 00 00 00 00 00 05 01 02 03 04 05 00 00 00"},
        {"empty blob gets 4 zeros",
         [] { return message("/a", {BBOSCArgument::argumentWithDataBlob(Bytes{})}); },
         "'/a' 00 00 ',b' 00 00 00 00 00 00 00 00 00 00"},
        {"three tags fill the group",
         [] {
             return message("/a", {BBOSCArgument::argumentWithInt(1),
                                   BBOSCArgument::argumentWithFloat(0.0f),
                                   BBOSCArgument::argumentWithString("")});
         },
         "'/a' 00 00 ',ifs' 00 00 00 00 00 00 00 01 00 00 00 00 00 00 00 00"},
        {"bundle at 2001-01-01 carries seconds 0x5C000000",
         [] {
             auto b = BBOSCBundle::bundleWithTimestamp(0.0);
             b->attachObject(message("/a"));
             return b;
         },
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00"},
        {"bundle 1.5 s later: fraction is half of 2^32",
         [] {
             auto b = BBOSCBundle::bundleWithTimestamp(1.5);
             b->attachObject(message("/a"));
             return b;
         },
         "'#bundle' 00 5C 00 00 01 80 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00"},
        {"bundle in the distant past is immediate",
         [] {
             auto b = BBOSCBundle::bundleWithTimestamp(BBOSCDataUtilities::kDistantPast);
             b->attachObject(message("/a"));
             return b;
         },
         "'#bundle' 00 00 00 00 00 00 00 00 01 00 00 00 08 2F 61 00 00 2C 00 00 00"},
        {"nested bundle is a sized element",
         [] {
             auto inner = BBOSCBundle::bundleWithTimestamp(0.0);
             inner->attachObject(message("/a"));
             auto outer = BBOSCBundle::bundleWithTimestamp(0.0);
             outer->attachObject(std::move(inner));
             return outer;
         },
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 1C "
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00"},
        {"bundle without elements encodes to nothing",
         [] { return BBOSCBundle::bundleWithTimestamp(0.0); }, ""},
    };
    for (const auto& c : cases) {
        const auto packet = c.build();
        const Bytes data = packet->packetizedData();
        EXPECT_EQ(data, hex(c.expected)) << c.name;
        EXPECT_EQ(packet->packetizedSize(), data.size()) << c.name;
    }
}

TEST(OSCCodec, BundleOfOneHundredByteMessageIs120Bytes) {
    auto b = BBOSCBundle::bundleWithTimestamp(0.0);
    b->attachObject(messageOfSize(100));
    EXPECT_EQ(b->packetizedData().size(), 120u);
}

// Splitting: every datagram starts with the same header, holds at most 4096
// bytes unless it carries a single element, and the elements arrive in order.
TEST(OSCCodec, BundleSplitsIntoDatagramsOfAtMost4096Bytes) {
    struct Case {
        const char* name;
        std::vector<size_t> elementSizes;
        std::vector<size_t> expectedDatagramSizes;
    };
    const std::vector<Case> cases = {
        {"exactly 4096 fits one datagram", {2036, 2036}, {4096}},
        {"4100 needs two", {2036, 2040}, {2056, 2060}},
        {"many small ones", std::vector<size_t>(50, 100), {16 + 39 * 104, 16 + 11 * 104}},
        {"oversized first element follows a header-only datagram", {5000, 16}, {16, 5020, 36}},
        {"oversized middle element travels alone", {16, 6000, 16}, {36, 6020, 36}},
    };
    for (const auto& c : cases) {
        auto bundle = BBOSCBundle::bundleWithTimestamp(12345.25);
        for (size_t size : c.elementSizes)
            bundle->attachObject(messageOfSize(size));
        const auto datagrams = bundle->packetizedDatas();
        std::vector<size_t> sizes;
        const Bytes whole = bundle->packetizedData();
        const Bytes header(whole.begin(), whole.begin() + 16);
        size_t elementsSeen = 0;
        for (const Bytes& d : datagrams) {
            sizes.push_back(d.size());
            ASSERT_GE(d.size(), 16u) << c.name;
            EXPECT_TRUE(std::equal(header.begin(), header.end(), d.begin())) << c.name;
            const auto decoded = BBOSCDecoder::decodeData(d);
            ASSERT_TRUE(decoded && decoded->asBundle()) << c.name;
            const auto& elements = decoded->asBundle()->attachedObjects();
            if (d.size() > BBOSCBundle::kMaximumDatagramSize) {
                EXPECT_EQ(elements.size(), 1u) << c.name;
            }
            for (const auto& e : elements) {
                ASSERT_LT(elementsSeen, c.elementSizes.size()) << c.name;
                EXPECT_EQ(e->packetizedSize(), c.elementSizes[elementsSeen++]) << c.name;
            }
        }
        EXPECT_EQ(elementsSeen, c.elementSizes.size()) << c.name;
        EXPECT_EQ(sizes, c.expectedDatagramSizes) << c.name;
    }
    EXPECT_TRUE(BBOSCBundle::bundleWithTimestamp(0.0)->packetizedDatas().empty());
    // A message is one datagram whatever its size.
    EXPECT_EQ(messageOfSize(9000)->packetizedDatas().size(), 1u);
}

struct DecodeCase {
    const char* name;
    const char* bytes;
    std::optional<std::string_view> expected; // stringRepresentation; nothing: decodes to nothing
};

TEST(OSCCodec, DatagramsDecodeOrAreDroppedWhole) {
    const std::vector<DecodeCase> cases = {
        {"empty datagram", "", std::nullopt},
        {"address without type tags", "2F 78 00 00", std::nullopt},
        {"no terminating zero in the address", "'/abc'", std::nullopt},
        {"type tags without comma", "'/x' 00 00 'i' 00 00 00 00 00 00 01", std::nullopt},
        {"empty type-tag string", "'/x' 00 00 00 00 00 00", std::nullopt},
        {"unknown tag T", "'/x' 00 00 ',T' 00 00", std::nullopt},
        {"unknown tag after good ones",
         "'/x' 00 00 ',ih' 00 00 00 00 00 01 00 00 00 00 00 00 00 02", std::nullopt},
        {"int cut short", "'/x' 00 00 ',i' 00 00 00 00 01", std::nullopt},
        {"float missing", "'/x' 00 00 ',f' 00 00", std::nullopt},
        {"string argument unterminated", "'/x' 00 00 ',s' 00 00 'abcd'", std::nullopt},
        {"blob count beyond the end", "'/x' 00 00 ',b' 00 00 00 00 00 05 01 02 03 04",
         std::nullopt},
        {"negative blob count", "'/x' 00 00 ',b' 00 00 FF FF FF FF 01 02 03 04", std::nullopt},
        {"byte 0x80 in the address", "'/x' 80 00 ',' 00 00 00", std::nullopt},
        {"byte 0xFF in a string argument", "'/x' 00 00 ',s' 00 00 'a' FF 00 00", std::nullopt},
        {"no arguments", "'/x' 00 00 ',' 00 00 00", "MESSAGE:\naddress:/x\n types:,"},
        {"zero inside a group does not end the address", "'/a' 00 'b' 00 00 00 00 ',' 00 00 00",
         "MESSAGE:\naddress:/a\0b\n types:,"sv},
        {"leading zeros of a string are dropped", "00 '/ab' 00 00 00 00 ',' 00 00 00",
         "MESSAGE:\naddress:/ab\n types:,"},
        {"four kinds of argument",
         "'/x' 00 00 ',ifsb' 00 00 00 FF FF FF FE 3F C0 00 00 'hey' 00 00 00 00 05 01 02 03 04 05 "
         "00 00 00",
         "MESSAGE:\naddress:/x\n types:,ifsb\ni { -2 }\nf { 1.500000 }\ns { hey }\nb { <01020304 "
         "05> }"},
        {"blob ending the datagram without padding", "'/x' 00 00 ',b' 00 00 00 00 00 02 AA BB",
         "MESSAGE:\naddress:/x\n types:,b\nb { <aabb> }"},
        {"trailing bytes after the arguments are ignored", "'/x' 00 00 ',' 00 00 00 01 02",
         "MESSAGE:\naddress:/x\n types:,"},
        {"bundle of 15 bytes", "'#bundle' 00 5C 00 00 00 00 00 00", std::nullopt},
        {"bundle of 16 bytes has no elements", "'#bundle' 00 5C 00 00 00 00 00 00 00",
         "BUNDLE:\ntime: 2001-01-01 00:00:00 +0000"},
        {"bundle of 17 bytes has no elements", "'#bundle' 00 5C 00 00 00 00 00 00 00 07",
         "BUNDLE:\ntime: 2001-01-01 00:00:00 +0000"},
        {"bundle of 18 bytes cannot hold a size", "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00",
         std::nullopt},
        {"element size past the end",
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 09 2F 61 00 00 2C 00 00 00", std::nullopt},
        {"negative element size", "'#bundle' 00 5C 00 00 00 00 00 00 00 FF FF FF FC 2F 61 00 00",
         std::nullopt},
        {"only the first byte marks a bundle", "'#xyz' 00 00 00 00 5C 00 00 0A 00 00 00 00",
         "BUNDLE:\ntime: 2001-01-01 00:00:10 +0000"},
        {"immediate time tag reads as the distant past",
         "'#bundle' 00 00 00 00 00 00 00 00 01 00 00 00 08 2F 61 00 00 2C 00 00 00",
         "BUNDLE:\ntime: 0001-01-01 00:00:00 +0000\n---\nMESSAGE:\naddress:/a\n types:,"},
        {"malformed element is skipped, its sibling kept",
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 04 2F 78 00 00 00 00 00 08 2F 61 00 00 2C "
         "00 00 00",
         "BUNDLE:\ntime: 2001-01-01 00:00:00 +0000\n---\nMESSAGE:\naddress:/a\n types:,"},
        {"one trailing byte after the last element ends the bundle",
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00 07",
         "BUNDLE:\ntime: 2001-01-01 00:00:00 +0000\n---\nMESSAGE:\naddress:/a\n types:,"},
        {"two trailing bytes are a size cut short",
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00 07 07",
         std::nullopt},
        {"nested bundle keeps its own elements",
         "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 1C "
         "'#bundle' 00 5C 00 00 3C 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00",
         "BUNDLE:\ntime: 2001-01-01 00:00:00 +0000\n---\nBUNDLE:\ntime: 2001-01-01 00:01:00 "
         "+0000\n---\n"
         "MESSAGE:\naddress:/a\n types:,"},
    };
    for (const auto& c : cases) {
        const Bytes data = hex(c.bytes);
        const auto packet = BBOSCDecoder::decodeData(data);
        if (!c.expected) {
            EXPECT_EQ(packet, nullptr)
                << c.name << ": " << (packet ? packet->stringRepresentation() : "");
            continue;
        }
        ASSERT_NE(packet, nullptr) << c.name;
        EXPECT_EQ(packet->stringRepresentation(), *c.expected) << c.name;
    }
}

TEST(OSCCodec, DecodedPacketsEncodeBackToTheSameBytes) {
    const char* canonical[] = {
        "'/x' 00 00 ',ifsb' 00 00 00 FF FF FF FE 3F C0 00 00 'hey' 00 00 00 00 05 01 02 03 04 05 "
        "00 00 00",
        "'#bundle' 00 5C 00 00 00 00 00 00 00 00 00 00 1C "
        "'#bundle' 00 5C 00 00 3C 00 00 00 00 00 00 00 08 2F 61 00 00 2C 00 00 00",
        "'#bundle' 00 00 00 00 00 00 00 00 01 00 00 00 08 2F 61 00 00 2C 00 00 00",
    };
    for (const char* text : canonical) {
        const Bytes data = hex(text);
        const auto packet = BBOSCDecoder::decodeData(data);
        ASSERT_NE(packet, nullptr) << text;
        EXPECT_EQ(packet->packetizedData(), data) << text;
    }
}

TEST(OSCCodec, ReadersReportWhereTheyStopped) {
    const Bytes data =
        hex("'ab' 00 00 'cdef' 00 00 00 00 00 00 00 04 01 02 03 04 00 00 00 00 00 00 00 07");
    size_t end = 0;
    EXPECT_EQ(BBOSCDecoder::stringFromDataStartingAtEndingAt(data, 0, end), "ab");
    EXPECT_EQ(end, 4u);
    EXPECT_EQ(BBOSCDecoder::stringFromDataStartingAtEndingAt(data, 4, end), "cdef");
    EXPECT_EQ(end, 12u);
    EXPECT_EQ(BBOSCDecoder::dataBlobFromDataStartingAtEndingAt(data, 12, end), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(end, 24u);
    EXPECT_EQ(BBOSCDecoder::intFromDataStartingAtEndingAt(data, 24, end), 7);
    EXPECT_EQ(end, 28u);
    EXPECT_EQ(BBOSCDecoder::intFromDataStartingAtEndingAt(data, 25, end), std::nullopt);
    EXPECT_EQ(BBOSCDecoder::intFromDataStartingAtEndingAt(data, 1000, end), std::nullopt);
    EXPECT_EQ(BBOSCDecoder::stringFromDataStartingAtEndingAt(data, 26, end), std::nullopt);
    EXPECT_EQ(BBOSCDecoder::floatFromDataStartingAtEndingAt(hex("3F 80 00 00"), 0, end), 1.0f);
    EXPECT_EQ(BBOSCDecoder::argumentFromDataStartingAtEndingAtOfType(data, 0, end, 'd'),
              std::nullopt);
}

TEST(OSCCodec, ArgumentAccessorsConvertBetweenTypes) {
    struct Case {
        const char* name;
        BBOSCArgument argument;
        float floatValue;
        int32_t intValue;
        const char* description;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<Case> cases = {
        {"int passes through single precision", BBOSCArgument::argumentWithInt(16777217),
         16777216.0f, 16777216, "i { 16777216 }"},
        {"negative int", BBOSCArgument::argumentWithInt(-7), -7.0f, -7, "i { -7 }"},
        {"float truncates toward zero", BBOSCArgument::argumentWithFloat(2.9f), 2.9f, 2,
         "f { 2.900000 }"},
        {"negative float truncates toward zero", BBOSCArgument::argumentWithFloat(-2.9f), -2.9f, -2,
         "f { -2.900000 }"},
        {"huge float saturates", BBOSCArgument::argumentWithFloat(1e20f), 1e20f, INT32_MAX,
         nullptr},
        {"huge negative float saturates", BBOSCArgument::argumentWithFloat(-1e20f), -1e20f,
         INT32_MIN, nullptr},
        {"string has no number", BBOSCArgument::argumentWithString("12"), 0.0f, 0, "s { 12 }"},
        {"blob has no number", BBOSCArgument::argumentWithDataBlob(Bytes{1}), 0.0f, 0,
         "b { <01> }"},
        {"no type", BBOSCArgument(), 0.0f, 0, "no arg value"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.argument.floatValue(), c.floatValue) << c.name;
        EXPECT_EQ(c.argument.intValue(), c.intValue) << c.name;
        if (c.description) {
            EXPECT_EQ(c.argument.description(), c.description) << c.name;
        }
    }
    EXPECT_EQ(BBOSCArgument::argumentWithFloat(nan).intValue(), 0);

    // The setters retag and replace the bytes; string and blob readers ignore the tag.
    BBOSCArgument a = BBOSCArgument::argumentWithInt(5);
    a.setStringValue("abc");
    EXPECT_EQ(a.type(), 's');
    EXPECT_EQ(Bytes(a.data().begin(), a.data().end()), hex("'abc' 00"));
    EXPECT_EQ(a.stringValue(), "abc");
    a.setDataBlobValue(Bytes{9, 8});
    EXPECT_EQ(a.type(), 'b');
    EXPECT_EQ(a.dataBlobValue(), (Bytes{9, 8}));
    a.setFloatValue(1.0f);
    EXPECT_EQ(Bytes(a.data().begin(), a.data().end()), hex("3F 80 00 00"));
    EXPECT_EQ(BBOSCArgument::argumentWithTypeAndData('b', hex("'hi' 00 00")).stringValue(), "hi");
}

TEST(OSCCodec, DataUtilitiesPadAndReadBlocks) {
    for (size_t n = 0; n < 9; ++n) {
        const Bytes padded = BBOSCDataUtilities::paddedDataFromData(Bytes(n, 0x11));
        EXPECT_EQ(padded.size(), (n / 4 + 1) * 4) << n;
        EXPECT_EQ(padded.size() - n, 4 - n % 4) << n;
        EXPECT_TRUE(
            std::all_of(padded.begin() + n, padded.end(), [](uint8_t b) { return b == 0; }));
    }
    EXPECT_EQ(BBOSCDataUtilities::dataBlockFromUInt(0xDEADBEEF), hex("DE AD BE EF"));
    EXPECT_EQ(BBOSCDataUtilities::dataBlockFromFloat(-2.0f), hex("C0 00 00 00"));
    EXPECT_EQ(BBOSCDataUtilities::uIntFromDataBlock(hex("DE AD BE EF")), 0xDEADBEEFu);
    EXPECT_EQ(BBOSCDataUtilities::intFromDataBlock(hex("FF FF FF")), 0);
    EXPECT_EQ(BBOSCDataUtilities::floatFromDataBlock(hex("3F 80")), 0.0f);
    EXPECT_EQ(BBOSCDataUtilities::stringFromDataBlock(hex("00 00 'a' 00 'b' 00")),
              std::string("a\0b", 3));
    EXPECT_EQ(BBOSCDataUtilities::stringFromDataBlock(hex("'a' C3 A9 00")), std::nullopt);
    EXPECT_EQ(BBOSCDataUtilities::blobFromDataBlock(hex("00 00 00 02 07 08 00 00")), (Bytes{7, 8}));
    EXPECT_EQ(BBOSCDataUtilities::blobFromDataBlock(hex("00 00 00 05 07 08")), std::nullopt);
    EXPECT_EQ(BBOSCDataUtilities::dataBlockFromBlob(Bytes{1, 2, 3}),
              hex("00 00 00 03 01 02 03 00"));
    EXPECT_EQ(BBOSCAddress::addressWithArray({"a", "b"}).address(), "/a/b");
    EXPECT_EQ(BBOSCAddress::addressWithArray({}).address(), "");
}

TEST(OSCCodec, TimeTagsUseTheirOwnOffset) {
    using U = BBOSCDataUtilities;
    EXPECT_EQ(U::ntpTimestampFromNSDate(0.0), hex("5C 00 00 00 00 00 00 00"));
    EXPECT_EQ(U::ntpTimestampFromNSDate(-0.5), hex("5C 00 00 00 80 00 00 00"));
    EXPECT_EQ(U::ntpTimestampFromNSDate(-1.0), hex("5B FF FF FF 00 00 00 00"));
    // Seconds wrap modulo 2^32 above 0xA3FFFFFF seconds after 2001.
    EXPECT_EQ(U::ntpTimestampFromNSDate(2147483647.0), hex("DB FF FF FF 00 00 00 00"));
    EXPECT_EQ(U::ntpTimestampForImmediate(), hex("00 00 00 00 00 00 00 01"));
    EXPECT_EQ(U::dateFromNTPTimestamp(hex("00 00 00 00 00 00 00 01")), U::kDistantPast);
    EXPECT_EQ(U::dateFromNTPTimestamp(hex("5C 00 00 01 FF FF FF FF")), 1.0);
    EXPECT_EQ(U::dateFromNTPTimestamp(hex("00 00 00 00 00 00 00 00")), -1543503872.0);
    EXPECT_EQ(U::dateFromNTPTimestamp(hex("00 00 00 00 00 00 00 02")), -1543503872.0);
    EXPECT_EQ(U::dateDescription(0.0), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(U::dateDescription(-1.0), "2000-12-31 23:59:59 +0000");
    EXPECT_EQ(U::dateDescription(U::kDistantPast), "0001-01-01 00:00:00 +0000");
    // Now is after 2020 and before 2100.
    EXPECT_GT(U::currentDate(), 19.0 * 365 * 86400);
    EXPECT_LT(U::currentDate(), 99.0 * 365 * 86400);
}

TEST(OSCCodec, TextFormsForLogs) {
    struct Plain : BBOSCPacket {};
    EXPECT_EQ(Plain().stringRepresentation(), "abstract parent class: BBOSCPacket");
    EXPECT_TRUE(Plain().packetizedData().empty());
    auto m =
        message("/a", {BBOSCArgument::argumentWithInt(1), BBOSCArgument::argumentWithFloat(1.5f),
                       BBOSCArgument::argumentWithString("hi"),
                       BBOSCArgument::argumentWithDataBlob(Bytes{1, 2, 3, 4, 5})});
    EXPECT_EQ(m->typeTagString(), ",ifsb");
    EXPECT_EQ(m->stringRepresentation(), "MESSAGE:\naddress:/a\n types:,ifsb\ni { 1 }\nf { "
                                         "1.500000 }\ns { hi }\nb { <01020304 05> }");
    auto b = BBOSCBundle::bundleWithTimestamp(86400.0 + 3661.0);
    b->attachObject(message("/a"));
    b->attachObject(nullptr);
    b->attachObject(message("/b"));
    EXPECT_EQ(b->stringRepresentation(),
              "BUNDLE:\ntime: 2001-01-02 01:01:01 +0000\n---\nMESSAGE:\naddress:/a\n "
              "types:,\n---\nMESSAGE:\naddress:/b\n types:,");
}

} // namespace

namespace {

// Messages around the storage limits (four arguments kept in the message,
// 16 bytes kept in an argument, 40 characters kept in an address) copy,
// encode and read back unchanged.
TEST(OSCCodec, MessagesRoundTripAcrossStorageLimits) {
    const std::vector<size_t> addressLengths = {0, 1, 3, 4, 39, 40, 41, 100};
    const std::vector<size_t> argumentCounts = {0, 1, 4, 5, 9};
    for (size_t addressLength : addressLengths) {
        for (size_t count : argumentCounts) {
            std::string address = "/" + std::string(addressLength ? addressLength - 1 : 0, 'a');
            if (addressLength == 0)
                address.clear();
            BBOSCMessage built{BBOSCAddress::addressWithString(address)};
            for (size_t i = 0; i < count; ++i) {
                switch (i % 4) {
                case 0:
                    built.attachArgument(BBOSCArgument::argumentWithInt(static_cast<int32_t>(i)));
                    break;
                case 1:
                    built.attachArgument(BBOSCArgument::argumentWithString(std::string(i * 3, 'x')));
                    break;
                case 2:
                    built.attachArgument(BBOSCArgument::argumentWithDataBlob(Bytes(i * 5, uint8_t(i))));
                    break;
                default:
                    built.attachArgument(BBOSCArgument::argumentWithFloat(0.25f * float(i)));
                }
            }
            const std::string what = "address of " + std::to_string(addressLength) + ", " +
                                     std::to_string(count) + " arguments";
            BBOSCMessage copy = built;
            BBOSCMessage assigned{BBOSCAddress::addressWithString("/other")};
            assigned.attachArgument(BBOSCArgument::argumentWithString(std::string(30, 'q')));
            assigned = copy;
            const Bytes bytes = built.packetizedData();
            EXPECT_EQ(bytes.size(), built.packetizedSize()) << what;
            EXPECT_EQ(copy.packetizedData(), bytes) << what;
            EXPECT_EQ(assigned.packetizedData(), bytes) << what;
            EXPECT_EQ(copy.addressString(), address) << what;
            const auto decoded = BBOSCDecoder::decodeData(bytes);
            ASSERT_NE(decoded, nullptr) << what;
            EXPECT_TRUE(decoded->isEqualToPacket(built)) << what;
            EXPECT_EQ(decoded->asMessage()->addressView(), address) << what;
            EXPECT_EQ(decoded->asMessage()->argumentCount(), count) << what;
            EXPECT_EQ(decoded->packetizedData(), bytes) << what;
        }
    }
    // Arguments moved out are left empty; moved and copied long data stays intact.
    BBOSCArgument longString = BBOSCArgument::argumentWithString(std::string(20, 'z'));
    BBOSCArgument copied = longString;
    BBOSCArgument moved = std::move(longString);
    EXPECT_EQ(moved, copied);
    EXPECT_EQ(moved.stringValue(), std::string(20, 'z'));
    copied = BBOSCArgument::argumentWithInt(3);
    EXPECT_EQ(copied.intValue(), 3);
}

} // namespace
