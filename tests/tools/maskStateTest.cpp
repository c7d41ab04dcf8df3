// The simulator's masks: what it answers to the mask requests and what it lets into the
// stream, before and after the host disables all logs.
#include <gtest/gtest.h>

#include "diagPacket.h"
#include "maskState.h"
#include "testkit.h"

namespace {

using vtools::MaskState;

using testkit::le32;

std::string logPacket(unsigned code) {
    std::string packet("\x10\x00\x0C\x00\x0C\x00", 6);
    vtools::appendLe16(packet, code);
    return packet + std::string(8, '\0');
}

std::string setRequest(unsigned equipment, unsigned items, const std::string& mask) {
    return std::string("\x73\0\0\0\x03\0\0\0", 8) + le32(equipment) + le32(items) + mask;
}

TEST(MaskState, AnswersKeepsMasksAndFiltersOnlyOnceAllWereDisabled) {
    MaskState::Ranges ranges{};
    ranges[11] = 0xC2;  // items 0 to 0xC1
    MaskState masks(ranges);
    std::string answer;
    std::string note;
    // Before: everything passes, as it did for the built-in table.
    EXPECT_TRUE(masks.take(setRequest(11, 8, "\x01"), &answer, &note));
    EXPECT_EQ(setRequest(11, 8, "\x01").insert(8, le32(0)), answer);
    EXPECT_FALSE(masks.selective());
    EXPECT_TRUE(masks.passes(logPacket(0x1F5A)));

    EXPECT_TRUE(masks.take(std::string("\x73\0\0\0\0\0\0\0", 8), &answer, &note));
    EXPECT_TRUE(masks.selective());
    EXPECT_FALSE(masks.anyEnabled());
    EXPECT_TRUE(masks.take(std::string("\x73\0\0\0\x01\0\0\0", 8), &answer, &note));
    ASSERT_EQ(8u + 4u + 64u, answer.size());
    EXPECT_EQ(0xC2u, vtools::readLe32(answer, 12 + 4 * 11));

    // 0xB0C0 and 0xB0C1 in a mask of 0xC2 items; a bit beyond the range is refused whole.
    std::string mask(0xC2 / 8 + 1, '\0');
    mask[0x18] = 0x03;
    EXPECT_TRUE(masks.take(setRequest(11, 0xC2, mask), &answer, &note));
    EXPECT_EQ(0u, vtools::readLe32(answer, 8));
    mask[0x18] = 0x07;
    EXPECT_TRUE(masks.take(setRequest(11, 0xC3, mask), &answer, &note));
    EXPECT_EQ(2u, vtools::readLe32(answer, 8)) << note;
    EXPECT_TRUE(masks.take(setRequest(4, 8, "\x01"), &answer, &note));
    EXPECT_EQ(1u, vtools::readLe32(answer, 8)) << "equipment without items";
    EXPECT_TRUE(masks.take(setRequest(11, 0xC2, ""), &answer, &note));
    EXPECT_EQ(2u, vtools::readLe32(answer, 8)) << "mask shorter than its items";

    EXPECT_TRUE(masks.passes(logPacket(0xB0C0)));
    EXPECT_TRUE(masks.passes(logPacket(0xB0C1)));
    EXPECT_FALSE(masks.passes(logPacket(0xB0C2)));
    EXPECT_FALSE(masks.passes(logPacket(0x1F5A)));
    unsigned code = 0;
    const std::vector<unsigned> codes = {0xB0C2, 0xB0C1, 0x1F5A};
    EXPECT_TRUE(masks.nextCode(codes, &code));
    EXPECT_EQ(0xB0C1u, code);

    // Messages by level, events by the report switch.
    std::string message(20, '\0');
    message[0] = 0x79;
    message[16] = 0x08;  // error
    EXPECT_FALSE(masks.passes(message));
    EXPECT_TRUE(masks.take(std::string("\x7D\x05\0\0", 4) + le32(0x18), &answer, &note));
    EXPECT_TRUE(masks.passes(message));
    message[16] = 0x01;  // low
    EXPECT_FALSE(masks.passes(message));
    EXPECT_FALSE(masks.passes(std::string("\x60\x05\0\0", 4)));
    masks.take(std::string("\x60\x01", 2), &answer, &note);
    EXPECT_TRUE(masks.passes(std::string("\x60\x05\0\0", 4)));
    EXPECT_TRUE(masks.passes(std::string("\x4B\x13\0\0", 4))) << "answers always pass";

    masks.reset();
    EXPECT_FALSE(masks.selective());
    EXPECT_TRUE(masks.passes(logPacket(0xB0C2)));
}

TEST(MaskState, CodeListsAndRanges) {
    std::vector<unsigned> codes;
    EXPECT_TRUE(vtools::parseLogCodes("0xB0C0-0xB0C2,0x11eb", &codes));
    EXPECT_EQ((std::vector<unsigned>{0xB0C0, 0xB0C1, 0xB0C2, 0x11EB}), codes);
    for (const char* bad : {"", "B0C0", "0xB0C2-0xB0C0", "0x10000", "0x-1", "0xB0C0,"}) {
        EXPECT_FALSE(vtools::parseLogCodes(bad, &codes)) << bad;
    }
    MaskState::Ranges ranges{};
    EXPECT_TRUE(vtools::parseLogRanges("0,1,2,3,4,5,6,7,8,9,10,0x9A0,12,13,14,4096", &ranges));
    EXPECT_EQ(0x9A0u, ranges[11]);
    EXPECT_FALSE(vtools::parseLogRanges("0,1,2", &ranges));
    EXPECT_FALSE(vtools::parseLogRanges("0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,4097", &ranges));
}

}  // namespace
