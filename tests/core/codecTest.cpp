#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "codec.h"
#include "console.h"
#include "dateTime.h"
#include "testkit.h"

using testkit::hex;

namespace {

std::string encode(const std::string& bytes) {
    return Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
}

unsigned short fcs(const std::string& bytes) {
    unsigned short result = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
             &result);
    return result;
}

// Payload, check sequence low byte first, closing flag: the shape of a request on the wire.
std::string frame(const std::string& payload) {
    const unsigned short crc = fcs(payload);
    return payload + static_cast<char>(crc & 0xFF) + static_cast<char>(crc >> 8) + '\x7E';
}

}  // namespace

TEST(Base64, KnownVectorsBothWays) {
    const std::vector<std::pair<std::string, std::string>> vectors = {
        {"", ""},
        {"M", "TQ=="},
        {"Ma", "TWE="},
        {"Man", "TWFu"},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {"\xFB\xFF", "+/8="},
    };
    for (const auto& [plain, text] : vectors) {
        EXPECT_EQ(encode(plain), text);
        int count = 5;  // the decoder adds to what the caller holds
        EXPECT_EQ(Base64Decode(text.data(), static_cast<int>(text.size()), &count), plain) << text;
        EXPECT_EQ(count, 5 + static_cast<int>(plain.size())) << text;
    }
}

TEST(Base64, RandomRoundTripsOverManyLengths) {
    std::mt19937 random(1234);
    for (int length = 0; length < 400; ++length) {
        std::string bytes(static_cast<size_t>(length), '\0');
        for (char& b : bytes) {
            b = static_cast<char>(random() & 0xFF);
        }
        const std::string text = encode(bytes);
        ASSERT_EQ(text.size(), static_cast<size_t>((length + 2) / 3 * 4));
        ASSERT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                         "0123456789+/="),
                  std::string::npos);
        int count = 0;
        ASSERT_EQ(Base64Decode(text.data(), static_cast<int>(text.size()), &count), bytes);
        ASSERT_EQ(count, length);
    }
}

TEST(Base64, LenientDecodingOfMalformedText) {
    // Exact-size heap copies, so that a read past the text is caught by the sanitizer.
    auto decode = [](const std::string& text, int* count) {
        std::vector<char> exact(text.begin(), text.end());
        return Base64Decode(exact.data(), static_cast<int>(exact.size()), count);
    };
    int count = 7;
    EXPECT_EQ(Base64Decode("", 0, &count), "");
    EXPECT_EQ(count, 7);

    count = 0;
    EXPECT_EQ(hex(decode("T", &count)), "4C");
    EXPECT_EQ(hex(decode("TQ", &count)), "4D");
    EXPECT_EQ(hex(decode("TWF", &count)), "4D 61");
    EXPECT_EQ(hex(decode("TWFuT", &count)), "4D 61 6E 4C");
    EXPECT_EQ(count, 1 + 1 + 2 + 4);
    // Invalid characters, and bytes above 127, count as the sextet 0.
    EXPECT_EQ(hex(decode("T*Fu", &count)), "4C 01 6E");
    EXPECT_EQ(hex(decode("\xC3\xA9\x80\xFF", &count)), "00 00 00");
    // Padding inside the text: the next group starts at the padding itself.
    EXPECT_EQ(hex(decode("TQ==TWFu", &count)), "4D 00 04 D6");
    EXPECT_EQ(hex(decode("TWE=TWFu", &count)), "4D 61 01 35 85");
}

TEST(FrameCheck, KnownAnswers) {
    EXPECT_EQ(fcs("123456789"), 0x906E);
    EXPECT_EQ(fcs(""), 0x0000);
    EXPECT_EQ(hex(frame(std::string("\x01\x02\x03\x04", 4))), "01 02 03 04 91 39 7E");
    EXPECT_EQ(hex(frame(std::string("\x4B\x05\x08\x00", 4))), "4B 05 08 00 01 DD 7E");
}

TEST(HdlcEscape, StuffsFlagAndEscapeOnly) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {"\x7E", "7D 5E"},
        {"\x7D", "7D 5D"},
        {"\x7E\x7E\x7D\x7D", "7D 5E 7D 5E 7D 5D 7D 5D"},
        {std::string("\x01\x7E\x00\x7D\x5E", 5), "01 7D 5E 00 7D 5D 5E"},
        {std::string("\x00\x11\x13\x20\x5D\x5E\x7C\x7F\xFE\xFF", 10),
         "00 11 13 20 5D 5E 7C 7F FE FF"}};
    for (const auto& [in, expected] : cases) {
        std::string text = in;
        HdlcEscape(text);
        EXPECT_EQ(hex(text), expected) << hex(in);
    }
}

TEST(TimeSuffix, NumbersRunWithoutPadding) {
    const CDateTime now;
    const std::string expected =
        "_" + std::to_string(now.Year()) + std::to_string(now.Month()) + std::to_string(now.Day()) +
        "_" + std::to_string(now.Hour()) + "_" + std::to_string(now.Minute()) + "_" +
        std::to_string(now.Second()) + "_" + std::to_string(now.Millisecond());
    EXPECT_EQ(logTimeSuffix(now), expected);
    const std::string current = logTimeSuffix();
    EXPECT_EQ(std::count(current.begin(), current.end(), '_'), 5) << current;
}

TEST(Console, LineClearWipesOneHundredColumns) {
    EXPECT_EQ(std::string(kLineClear), "\r" + std::string(100, ' ') + "\r");
}
