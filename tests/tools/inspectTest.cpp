// The deframer and vrec-inspect's verdicts, on hand-built bytes and on captures built from
// the simulator's stream.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagPacket.h"
#include "hdlc.h"
#include "seqStream.h"
#include "testkit.h"

using testkit::hex;
using vtools::DeframeStep;

namespace {

std::string bytes(std::initializer_list<int> values) {
    return std::string(values.begin(), values.end());
}

// Every step of a whole input, fed in pieces of `piece` bytes, the rest closed at the end.
std::vector<DeframeStep> steps(const std::string& input, size_t piece) {
    vtools::Deframer deframer;
    std::vector<DeframeStep> out(1);
    for (size_t at = 0; at < input.size(); at += piece) {
        deframer.feed(input.data() + at, std::min(piece, input.size() - at));
        while (deframer.next(out.back())) {
            out.emplace_back();
        }
    }
    out.back() = vtools::deframe(deframer.pending().data(), deframer.pending().size(), true);
    if (deframer.pending().empty()) {
        out.pop_back();
    }
    return out;
}

std::string simStream(uint32_t from, uint32_t to) {
    std::string wire;
    for (uint32_t seq = from; seq < to; ++seq) {
        wire += vtools::frame(vtools::simLogPacket(seq));
    }
    return wire;
}

const std::string kInspect = testkit::builtProgram("tools/vrec-inspect");

}  // namespace

TEST(Framing, FramesFlagsGarbageAndDamage) {
    // The three stop frames back to back, as a module receives them.
    const std::string stop =
        bytes({0x60, 0x00, 0x12, 0x6A, 0x7E, 0x73, 0, 0, 0, 0, 0, 0,    0,    0xDA,
               0x81, 0x7E, 0x7D, 0x5D, 0x05, 0,    0, 0, 0, 0, 0, 0x74, 0x41, 0x7E});
    std::vector<DeframeStep> got = steps(stop, stop.size());
    ASSERT_EQ(got.size(), 3u);
    const char* packets[] = {"60 00", "73 00 00 00 00 00 00 00", "7D 05 00 00 00 00 00 00"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(hex(got[i].packet), packets[i]);
        EXPECT_TRUE(got[i].kind == DeframeStep::kFrame && got[i].fcsOk);
    }
    EXPECT_EQ(got[0].used + got[1].used + got[2].used, stop.size());
    unsigned operation = 99;
    EXPECT_TRUE(vtools::logConfigOperation(got[1].packet, &operation));
    EXPECT_EQ(operation, 0u);

    // A frame whose packet and check bytes need escapes, cut at every possible place.
    const std::string escaped = vtools::frame(bytes({0x7E, 0x7D, 0x10, 0x7E}));
    for (size_t piece = 1; piece <= escaped.size(); ++piece) {
        got = steps(escaped, piece);
        ASSERT_EQ(got.size(), 1u) << "pieces of " << piece;
        EXPECT_TRUE(got[0].fcsOk);
        EXPECT_EQ(hex(got[0].packet), "7E 7D 10 7E");
    }

    // Runs of flags and a stray pair of bytes are outside frames; the frame after them stands.
    const std::string good = bytes({0x1D, 0x1C, 0x3B, 0x7E});
    got = steps(bytes({0x7E, 0x7E, 0x41, 0x42, 0x7E}) + good, 3);
    ASSERT_EQ(got.size(), 4u);
    EXPECT_TRUE(got[0].kind == DeframeStep::kJunk && got[2].kind == DeframeStep::kJunk);
    EXPECT_EQ(got[2].used, 3u);
    EXPECT_TRUE(got[3].kind == DeframeStep::kFrame && got[3].fcsOk);
    // One bit off in the check sequence; an escape right before the flag; the end of input
    // inside a frame.
    got = steps(bytes({0x1D, 0x1C, 0x3A, 0x7E, 0x1D, 0x1C, 0x3B, 0x7D, 0x7E, 0x4B, 0x13}), 64);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(got[0].kind == DeframeStep::kFrame && !got[0].fcsOk);
    EXPECT_EQ(got[0].fcsReceived, 0x3A1C);
    EXPECT_FALSE(got[1].fcsOk);
    EXPECT_TRUE(got[2].kind == DeframeStep::kIncomplete && got[2].used == 2u);
    // A flagless run longer than any frame is given up.
    const std::string flood(vtools::kMaxWireFrame + 1, 'x');
    EXPECT_EQ(vtools::deframe(flood.data(), flood.size()).kind, DeframeStep::kJunk);
    EXPECT_EQ(vtools::deframe(flood.data(), 100).kind, DeframeStep::kNeedMore);
}

TEST(Inspect, VerdictsOnDamagedGappedAndReorderedStreams) {
    testkit::TempDir dir;
    // A body altered before framing passes the check sequence; only the stream shows it, and
    // the packet's own number is not trusted, so it shows as missing as well.
    std::string altered = vtools::simLogPacket(3);
    altered[altered.size() - 3] ^= 1;
    std::string flipped = simStream(0, 9);
    flipped[flipped.size() / 2] ^= 0x01;
    const std::string kinds = vtools::frame("\x4B\x13") + vtools::frame("\x60\x01") +
                              vtools::frame(std::string("\x79\0", 2)) + simStream(0, 2);
    const struct {
        std::string content;
        int status;
        const char* says;
    } rows[] = {
        {kinds, 0, "packets: log 2, event 1, message 1, response 1\n  log 0x1F5A: 2\n"},
        {simStream(0, 57) + simStream(58, 100), 1,
         "sequence: 99 packets, first 0, last 99, missing 1 in 1 gaps, out of order 0, damaged 0"},
        {simStream(0, 3) + simStream(4, 5) + simStream(3, 4) + simStream(5, 8), 1,
         "missing 1 in 1 gaps, out of order 1, damaged 0"},
        {simStream(0, 3) + vtools::frame(altered) + simStream(4, 6), 1,
         "first 0, last 5, missing 1 in 1 gaps, out of order 0, damaged 1"},
        {flipped, 1, "frames: 8 good, 1 bad check sequence"},
        {simStream(0, 5) + "\x7E\x7E" + simStream(5, 9), 1, "bytes outside frames: 2\n"},
    };
    std::string out;
    for (const auto& row : rows) {
        testkit::writeFile(dir.file("capture.bin"), row.content);
        EXPECT_EQ(row.status, testkit::runToEnd({kInspect, "capture.bin"}, dir.path(), &out))
            << out;
        EXPECT_NE(out.find(row.says), std::string::npos) << row.says << "\n" << out;
    }
    // A file cut at both ends mid-frame, as an item is: only --strict counts the cuts.
    testkit::writeFile(dir.file("cut.bin"), simStream(40, 400).substr(1001, 5000));
    EXPECT_EQ(0, testkit::runToEnd({kInspect, "--each", "cut.bin"}, dir.path(), &out)) << out;
    EXPECT_NE(out.find("cut frame at the start"), std::string::npos) << out;
    EXPECT_EQ(1, testkit::runToEnd({kInspect, "--strict", "cut.bin"}, dir.path(), &out)) << out;
    EXPECT_EQ(2, testkit::runToEnd({kInspect, "missing.bin"}, dir.path(), &out));
    EXPECT_EQ(2, testkit::runToEnd({kInspect}, dir.path(), &out));
}
