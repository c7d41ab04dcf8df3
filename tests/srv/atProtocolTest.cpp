#include <gtest/gtest.h>

#include <string>

#include "atProtocol.h"
#include "testkit.h"

TEST(AtProtocol, AnswerEndAndParsedAnswers) {
    for (const char* text : {"\r\nOK", "\r\nOKAY", "\r\nERROR", "x\r\n^MDON: 1\r\n\r\nOK\r\n"}) {
        EXPECT_TRUE(atproto::answerEnded(text)) << testkit::hex(text);
    }
    for (const char* text : {"", "OK\r\n", "\nOK", "\r\nER", "\r\nok"}) {
        EXPECT_FALSE(atproto::answerEnded(text)) << testkit::hex(text);
    }
    const char* const rows[][3] = {
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
    for (const auto& [raw, cmd, expected] : rows) {
        EXPECT_EQ(expected, atproto::parseResponse(raw, cmd)) << testkit::hex(raw);
    }
}
