#include <gtest/gtest.h>

#include <string>

#include "atProtocol.h"
#include "testkit.h"

namespace {

TEST(AtProtocol, AnswerEndsAtOkOrErrorAnywhere) {
    for (const char* text : {"\r\nOK", "\r\nOKAY", "\r\nERROR", "x\r\n^MDON: 1\r\n\r\nOK\r\n"}) {
        EXPECT_TRUE(atproto::answerEnded(text)) << testkit::hex(text);
    }
    for (const char* text : {"", "OK\r\n", "\nOK", "\r\nER", "\r\nok"}) {
        EXPECT_FALSE(atproto::answerEnded(text)) << testkit::hex(text);
    }
}

TEST(AtProtocol, ParsedAnswers) {
    struct Row {
        const char* raw;
        const char* cmd;
        const char* expected;
    };
    const Row rows[] = {
        {"\r\n^MDON: 1\r\n\r\nOK\r\n", "AT^MDON?\r", " 1"},  // the blank stays
        {"AT^MDSL=1\r\r\n\r\nOK\r\n", "AT^MDSL=1\r", "OK"},  // echo and a bare OK
        {"AT^MDON?\r\r\n^MDON: 2\r\n\r\nOK\r\n", "AT^MDON?\r", " 2"},
        {"\r\n^RSFR: 1,2,3\r\n\r\nOKAY", "AT^RSFR=?\r", " 1,2,3"},
        {"\r\n^BOOT:1,0\r\n\r\n^MDSTORAGE: 0,1\r\n\r\nOK\r\n", "AT^MDSTORAGE?\r", " 0,1"},
        // An earlier line with the same prefix, but before the echo.
        {"\r\n^MDON: 9\r\nAT^MDON?\r\r\n^MDON: 1\r\n\r\nOK", "AT^MDON?\r", " 1"},
        {"\r\n^RSFR: 4\r\nmore\r\n\r\nOK\r\n", "AT^RSFR=1\r", " 4"},  // first line only
        {"\r\n^MDON: 1\r\n\r\nOK\r\n\r\n^MDON: 2\r\n\r\nOK", "AT^MDON?\r", " 1"},
        {"\r\n^MDON:\r\n\r\nOK\r\n", "AT^MDON?\r", ""},  // nothing behind the prefix
        {"\r\nERROR\r\n", "AT^MDON?\r", ""},
        {"\r\n^MDON: 1\r\n", "AT^MDON?\r", ""},  // ran out of time before the OK
        {"", "AT^MDON?\r", ""}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.expected, atproto::parseResponse(row.raw, row.cmd)) << testkit::hex(row.raw);
    }
}

TEST(AtProtocol, TunnelFramesOnTheWire) {
    const std::pair<std::string, const char*> rows[] = {
        {"AT^MDON?\r", "4B C9 E8 FF 00 09 00 41 54 5E 4D 44 4F 4E 3F 0D 98 A7 7E"},
        // Outside the list: the id of ^MDON.
        {"at+trace=1\r\n", "4B C9 E8 FF 00 0C 00 61 74 2B 74 72 61 63 65 3D 31 0D 0A 18 B5 7E"},
        {"AT^MDSTORAGE?\r",
         "4B C9 E8 FF 02 0E 00 41 54 5E 4D 44 53 54 4F 52 41 47 45 3F 0D 03 38 7E"},
        // The check sequence FA 7D is escaped like the rest.
        {"AT^MDSL=43\r", "4B C9 E8 FF 01 0B 00 41 54 5E 4D 44 53 4C 3D 34 33 0D FA 7D 5D 7E"}};
    for (const auto& row : rows) {
        std::string cmd = row.first;
        ASSERT_TRUE(atproto::packTunnelFrame(cmd, atproto::tunnelCommandIds()));
        EXPECT_EQ(row.second, testkit::hex(cmd)) << row.first;
    }

    // 125 bytes: the length byte 0x7D travels escaped, the check sequence is that of 0x7D.
    const std::string text = "AT^RSFW=" + std::string(116, 'A') + "\r";
    ASSERT_EQ(125u, text.size());
    std::string frame = text;
    ASSERT_TRUE(atproto::packTunnelFrame(frame, atproto::tunnelCommandIds()));
    EXPECT_EQ("4B C9 E8 FF 05 7D 5D 00 " + testkit::hex(text) + " 4A B2 7E", testkit::hex(frame));

    std::string empty;
    EXPECT_FALSE(atproto::packTunnelFrame(empty, atproto::tunnelCommandIds()));
    EXPECT_EQ("", empty);
}

}  // namespace
