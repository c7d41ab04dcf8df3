#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "codec.h"
#include "testkit.h"

using testkit::hex;

namespace {

std::string encode(const std::string& bytes) {
    return Base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()));
}

// Decodes from an exact-size heap copy, so that a read past the text trips the sanitizer.
std::string decode(const std::string& text, int* count) {
    const std::vector<char> exact(text.begin(), text.end());
    return Base64Decode(exact.data(), static_cast<int>(exact.size()), count);
}

unsigned short fcs(const std::string& bytes) {
    unsigned short result = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
             &result);
    return result;
}

}  // namespace

TEST(Base64, KnownVectorsAndRandomRoundTrips) {
    // Two, one and no padding characters; the two characters above the letters and digits.
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xFF", "+/8="}};
    for (const auto& [plain, text] : vectors) {
        EXPECT_EQ(encode(plain), text);
        int count = 5;  // the decoder adds to what the caller holds
        EXPECT_EQ(decode(text, &count), plain) << text;
        EXPECT_EQ(count, 5 + static_cast<int>(plain.size())) << text;
    }
    std::mt19937 random(1234);
    for (int length = 0; length < 400; ++length) {
        std::string bytes(static_cast<size_t>(length), '\0');
        for (char& b : bytes) {
            b = static_cast<char>(random());
        }
        const std::string text = encode(bytes);
        ASSERT_EQ(text.size(), static_cast<size_t>((length + 2) / 3 * 4));
        int count = 0;
        ASSERT_EQ(decode(text, &count), bytes);
        ASSERT_EQ(count, length);
    }
}

TEST(Framing, CheckSequenceAndEscaping) {
    EXPECT_EQ(fcs("123456789"), 0x906E);
    // Payload, check sequence low byte first, flag: a request as it goes on the wire.
    for (const auto& [payload, wire] :
         {std::make_pair("\x01\x02\x03\x04", "01 02 03 04 91 39 7E"),
          std::make_pair("\x4B\x05\x08\x00", "4B 05 08 00 01 DD 7E")}) {
        const std::string bytes(payload, 4);
        const unsigned short crc = fcs(bytes);
        EXPECT_EQ(hex(bytes + char(crc & 0xFF) + char(crc >> 8) + '\x7E'), wire);
    }
    std::string text("\x7E\x7D\x01\x00\x5E\x5D\x7C\xFF", 8);  // only flag and escape change
    HdlcEscape(text);
    EXPECT_EQ(hex(text), "7D 5E 7D 5D 01 00 5E 5D 7C FF");
    std::string plain;
    EXPECT_TRUE(HdlcUnescape(text, &plain));
    EXPECT_EQ(hex(plain), "7E 7D 01 00 5E 5D 7C FF");
    EXPECT_FALSE(HdlcUnescape(std::string("\x01\x7D", 2), &plain));  // cut inside an escape
}
