// Choosing what is logged: the option values, the requests they make, the answers read back.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec.h"
#include "maskAnswers.h"
#include "maskRequests.h"
#include "testkit.h"

namespace {

using testkit::hex;

using testkit::bytes;
using testkit::le32;

// An answer as a module frames it, written out here rather than by the program's framer.
std::string framed(const std::string& packet) {
    unsigned short fcs = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(packet.data()), static_cast<int>(packet.size()),
             &fcs);
    std::string wire;
    for (const char c : packet + bytes({fcs & 0xFF, fcs >> 8})) {
        if (c == 0x7E || c == 0x7D) {
            wire += '\x7D';
            wire += static_cast<char>(c ^ 0x20);
        } else {
            wire += c;
        }
    }
    return wire + '\x7E';
}

TEST(MaskRequests, ListsTakeLayersCodesAndRangesAndNameWhatIsWrong) {
    masks::Selection selection;
    std::string bad;
    ASSERT_TRUE(masks::parseLogList("signalling", &selection, &bad));
    EXPECT_EQ(35u, selection.codes.size());
    masks::Selection measured;
    ASSERT_TRUE(masks::parseLogList("measurements,lte-l2,ip", &measured, &bad));
    EXPECT_EQ(6u + 12u + 1u, measured.codes.size());
    EXPECT_EQ(1u, measured.codes.count(0xB97F));
    EXPECT_EQ(1u, measured.codes.count(0xB064));

    masks::Selection mixed;
    ASSERT_TRUE(masks::parseLogList("lte-rrc,0xB0C1-0xB0C4,0x11eb,0X1", &mixed, &bad));
    EXPECT_EQ((std::set<uint16_t>{0x0001, 0x11EB, 0xB0C0, 0xB0C1, 0xB0C2, 0xB0C3, 0xB0C4}),
              mixed.codes);
    EXPECT_EQ((std::vector<std::string>{"lte-rrc", "0xB0C1-0xB0C4", "0x11eb", "0X1"}), mixed.names);
    EXPECT_FALSE(mixed.allLogs);

    const std::pair<const char*, const char*> kBad[] = {
        {"lte-foo", "lte-foo"}, {"lte-rrc,0xG000", "0xG000"},
        {"0x10000", "0x10000"}, {"0xB0C2-0xB0C0", "0xB0C2-0xB0C0"},
        {"lte-rrc,", ""},       {"B0C0", "B0C0"},
        {"0x", "0x"},           {"0xB0C0-", "0xB0C0-"},
        {"LTE-RRC", "LTE-RRC"}};
    for (const auto& c : kBad) {
        masks::Selection refused;
        EXPECT_FALSE(masks::parseLogList(c.first, &refused, &bad)) << c.first;
        EXPECT_EQ(c.second, bad) << c.first;
    }

    uint32_t bits = 99;
    const std::pair<const char*, uint32_t> kLevels[] = {{"off", 0},       {"fatal", 0x10},
                                                        {"error", 0x18},  {"high", 0x1C},
                                                        {"medium", 0x1E}, {"low", 0x1F}};
    for (const auto& level : kLevels) {
        EXPECT_TRUE(masks::parseMsgLevel(level.first, &bits));
        EXPECT_EQ(level.second, bits) << level.first;
    }
    EXPECT_FALSE(masks::parseMsgLevel("loud", &bits));
    EXPECT_FALSE(masks::parseMsgLevel("Error", &bits));
    bool on = false;
    EXPECT_TRUE(masks::parseEvents("on", &on) && on);
    EXPECT_FALSE(masks::parseEvents("yes", &on));
}

TEST(MaskRequests, FixedRequestsAndMaskSetsWithAndWithoutTheModulesRanges) {
    EXPECT_EQ("73 00 00 00 00 00 00 00", hex(masks::logDisableAll()));
    EXPECT_EQ("73 00 00 00 01 00 00 00", hex(masks::logRetrieveRanges()));
    EXPECT_EQ("7D 05 00 00 18 00 00 00", hex(masks::messageSetAll(0x18)));
    EXPECT_EQ("60 01", hex(masks::eventReport(true)));

    masks::Selection selection;
    std::string bad;
    ASSERT_TRUE(masks::parseLogList("ip,lte-rrc,0x512F,0xB200", &selection, &bad));
    masks::Ranges ranges{};
    ranges[1] = 0x1EC;   // 0x11EB is the last item of equipment 1
    ranges[5] = 0x130;   // 0x512F is its last item
    ranges[11] = 0x1C2;  // 0xB0C0-0xB0C2 fit, 0xB200 does not
    // Whole mask sets with and without the module's ranges are checked on the wire, written
    // out from the DIAG layouts; here the last item of an equipment, and what the wire
    // cannot show cheaply.
    std::vector<uint16_t> beyond;
    const std::vector<masks::MaskSet> sets = masks::logMaskSets(selection, &ranges, &beyond);
    EXPECT_EQ(std::vector<uint16_t>{0xB200}, beyond);
    ASSERT_EQ(3u, sets.size());
    EXPECT_EQ(0x130u, sets[1].items);
    EXPECT_EQ(static_cast<char>(0x80), sets[1].request.back());  // 0x512F: bit 7 of byte 37

    // "all": every item each equipment declares; nothing without the ranges.
    masks::Selection all;
    ASSERT_TRUE(masks::parseLogList("all", &all, &bad));
    const std::vector<masks::MaskSet> every = masks::logMaskSets(all, &ranges, &beyond);
    ASSERT_EQ(3u, every.size());
    EXPECT_EQ(0x1C2u, every[2].codes);
    EXPECT_EQ(static_cast<char>(0x03), every[2].request.back());  // items 0x1C0 and 0x1C1
    EXPECT_TRUE(masks::logMaskSets(all, nullptr, &beyond).empty());
    // A module that declares more items than a code can name costs no more than 512 bytes.
    ranges[11] = 0xFFFFFFFF;
    EXPECT_EQ(16u + 512u, masks::logMaskSets(selection, &ranges, &beyond)[2].request.size());
}

TEST(MaskRequests, MaskFilesAreFramesEndingWithTheFlag) {
    std::vector<std::string> frames;
    std::string error;
    const std::string file =
        bytes({0x7E, 0x60, 0x00, 0x12, 0x6A, 0x7E, 0x1D, 0x1C, 0x3B, 0x7E, 0x7E});
    ASSERT_TRUE(masks::parseMaskFile(file, &frames, &error)) << error;
    EXPECT_EQ((std::vector<std::string>{file.substr(1, 5), file.substr(6, 4)}), frames);

    EXPECT_FALSE(masks::parseMaskFile(file + "\x60\x01", &frames, &error));
    EXPECT_NE(std::string::npos,
              error.find("last 2 bytes, from offset 11 on, do not end with 0x7E"))
        << error;
    EXPECT_FALSE(masks::parseMaskFile("", &frames, &error));
    EXPECT_FALSE(masks::parseMaskFile("\x7E\x7E", &frames, &error));
    EXPECT_NE(std::string::npos, error.find("no request")) << error;
    EXPECT_FALSE(
        masks::parseMaskFile(std::string(masks::kMaxMaskFileBytes + 1, '\x7E'), &frames, &error));
}

// The answers are found in a stream cut anywhere, among log packets, damaged frames and
// bytes that began before the watch did; once disarmed, nothing is taken.
TEST(MaskAnswers, RangesAndSetStatusesComeOutOfTheStream) {
    std::string rangesAnswer = bytes({0x73, 0, 0, 0, 1, 0, 0, 0}) + le32(0);
    for (uint32_t i = 0; i < 16; ++i) {
        rangesAnswer += le32(i == 11 ? 0x7E7D : i * 100);  // values that need escaping
    }
    const std::string setOk =
        bytes({0x73, 0, 0, 0, 3, 0, 0, 0}) + le32(0) + le32(11) + le32(8) + bytes({0x7E});
    const std::string setRefused = bytes({0x73, 0, 0, 0, 3, 0, 0, 0}) + le32(2) + le32(5) + le32(0);
    std::string damaged = framed(setRefused);
    damaged[damaged.size() - 2] ^= 1;
    const std::string stream = bytes({0x73, 0x00, 0x7E}) +  // the end of a frame begun earlier
                               framed(bytes({0x10, 0, 0x73, 0, 0xC0, 0xB0})) + damaged +
                               framed(rangesAnswer) + framed(bytes({0x73, 0, 0, 0, 0, 0, 0, 0})) +
                               framed(setOk) + framed(setRefused);
    for (const size_t piece : {size_t{1}, size_t{7}, stream.size()}) {
        SCOPED_TRACE(piece);
        MaskAnswers answers;
        answers.feed(stream.data(), stream.size());  // not armed: passed over
        answers.arm();
        for (size_t at = 0; at < stream.size(); at += piece) {
            answers.feed(stream.data() + at, std::min(piece, stream.size() - at));
        }
        masks::Ranges ranges{};
        ASSERT_TRUE(answers.waitForRanges(&ranges, 0, [] { return true; }));
        EXPECT_EQ(0x7E7Du, ranges[11]);
        EXPECT_EQ(1500u, ranges[15]);
        EXPECT_TRUE(answers.waitForSetAnswers(2, 0, [] { return true; }));
        using Answer = std::pair<uint32_t, uint32_t>;
        EXPECT_EQ((std::vector<Answer>{{11, 0}, {5, 2}}), answers.setAnswers());
        answers.disarm();
        answers.feed(stream.data(), stream.size());
        EXPECT_EQ(2u, answers.setAnswers().size());
    }
    MaskAnswers silent;
    silent.arm();
    masks::Ranges ranges{};
    EXPECT_FALSE(silent.waitForRanges(&ranges, 40, [] { return true; }));
}

}  // namespace
