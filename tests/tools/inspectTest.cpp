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

using testkit::bytes;

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

// The frame of `packet` in the wrapper of a multi-SIM chip.
std::string wrapped(unsigned subscription, const std::string& packet) {
    std::string wrapper("\x98\x01\0\0", 4);
    vtools::appendLe32(wrapper, subscription);
    return vtools::frame(wrapper + packet);
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
    const std::string answers = vtools::frame("\x4B\x13") + vtools::frame("\x1D\x1C");
    const std::string cutHead = simStream(40, 41).substr(20);  // 44 bytes
    // An LTE RRC log packet: header with its lengths and code, time, a 2-byte payload.
    const std::string rrc("\x10\0\x0E\0\x0E\0\xC0\xB0\1\2\3\4\5\6\7\x08\xAA\xBB", 18);
    const std::string kinds = vtools::frame("\x4B\x13") + vtools::frame("\x60\x01") +
                              vtools::frame(std::string("\x79\0", 2)) + simStream(0, 2);
    const struct {
        std::string content;
        int status;
        std::string says;
    } rows[] = {
        {kinds, 0, "packets: log 2, event 1, message 1, response 1\n  log 0x1F5A: 2\n"},
        {simStream(0, 57) + simStream(58, 100), 1,
         "sequence: 99 packets, first 0, last 99, missing 1 in 1 gaps, out of order 0, damaged 0"},
        {simStream(0, 3) + simStream(4, 5) + simStream(3, 4) + simStream(5, 8), 1,
         "missing 1 in 1 gaps, out of order 1, damaged 0"},
        {simStream(0, 3) + vtools::frame(altered) + simStream(4, 6), 1,
         "first 0, last 5, missing 1 in 1 gaps, out of order 0, damaged 1"},
        {flipped, 1, "frames: 8 good, 1 bad check sequence"},
        // Back-to-back flags are empty frames, which HDLC allows and real streams hold.
        {"\x7E" + simStream(0, 5) + "\x7E\x7E" + simStream(5, 9), 0,
         "bytes outside frames: 0\nempty frames (back-to-back flags): 3\n"},
        {simStream(0, 5) + "\x7E\x41\x42\x7E" + simStream(5, 9), 1,
         "bytes outside frames: 3\nempty frames (back-to-back flags): 1\n"},
        // Where the stream begins, after the answers to the host's requests, a cut frame is
        // no damage; a second one before the stream, or one in it, is.
        {answers + cutHead + simStream(41, 50), 0, "cut frame at the start: 44 bytes\n"},
        {answers + cutHead + answers + cutHead + simStream(41, 50), 1,
         "frames: 13 good, 1 bad check sequence\nbytes outside frames: 0\ncut frame at the start: "
         "44 bytes\n"},
        {answers + simStream(39, 40) + cutHead + simStream(41, 50), 1,
         "frames: 12 good, 1 bad check sequence\n"},
        // Log packets in a multi-SIM wrapper count by their own log code; another header
        // is no wrapper.
        {wrapped(1, rrc) + wrapped(2, rrc) +
             vtools::frame(std::string("\x98\x02\0\0\1\0\0\0", 8) + rrc) +
             vtools::frame(std::string("\x98\x01\0\0\1\0\0\0\x60\x01", 10)),
         0, "packets: log 2, event 1, message 0, response 1\n  log 0xB0C0: 2\nverdict: whole\n"},
        // A stream that ends inside a frame, as a capture stopped mid-frame does.
        {simStream(0, 9).substr(0, simStream(0, 9).size() - 3), 1,
         "verdict: CUT AT THE END: the last 87 bytes are a frame that never closed, as a "
         "capture stopped or killed mid-frame leaves it (--allow-cut-end accepts it)\n"},
    };
    std::string out;
    for (const auto& row : rows) {
        SCOPED_TRACE(hex(row.content.substr(0, 40)));
        testkit::writeFile(dir.file("capture.bin"), row.content);
        EXPECT_EQ(row.status, testkit::runToEnd({kInspect, "capture.bin"}, dir.path(), &out))
            << out;
        EXPECT_NE(out.find(row.says), std::string::npos) << row.says << "\n" << out;
    }
    // A file cut at both ends mid-frame, as an item is: --allow-cut-end takes the end, and
    // --strict counts the start all the same.
    testkit::writeFile(dir.file("cut.bin"), simStream(40, 400).substr(1001, 5000));
    EXPECT_EQ(1, testkit::runToEnd({kInspect, "--each", "cut.bin"}, dir.path(), &out)) << out;
    EXPECT_EQ(
        0, testkit::runToEnd({kInspect, "--each", "--allow-cut-end", "cut.bin"}, dir.path(), &out))
        << out;
    EXPECT_NE(out.find("cut frame at the start"), std::string::npos) << out;
    EXPECT_NE(out.find("verdict: whole up to a cut at the end of "), std::string::npos) << out;
    EXPECT_EQ(1, testkit::runToEnd({kInspect, "--strict", "--allow-cut-end", "cut.bin"}, dir.path(),
                                   &out))
        << out;
    EXPECT_NE(out.find("verdict: CORRUPT: a cut frame at the start\n"), std::string::npos) << out;
    EXPECT_EQ(2, testkit::runToEnd({kInspect, "missing.bin"}, dir.path(), &out));
    EXPECT_EQ(2, testkit::runToEnd({kInspect}, dir.path(), &out));
}

// A phone's stream that begins with a cut frame, behind an answer as vrec stores it; then the
// same with every log packet wrapped as a multi-SIM chip sends it. The counts are those of an
// independent tally of the file.
TEST(Inspect, RealStreamBehindAnAnswerWrappedOrNot) {
    const std::string path = std::string(VREC_SOURCE_DIR) + "/examples/real-diag-lte-gsm.bin";
    const std::string real = testkit::readFile(path);
    std::string rewrapped;
    vtools::Deframer deframer;
    deframer.feed(real.data(), real.size());
    DeframeStep step;
    size_t offset = 0;
    unsigned count = 0;
    while (deframer.next(step)) {
        const bool log = step.kind == DeframeStep::kFrame && step.fcsOk && step.packet[0] == 0x10;
        rewrapped += log ? wrapped(1 + count++ % 2, step.packet) : real.substr(offset, step.used);
        offset += step.used;
    }
    ASSERT_EQ(real.size(), offset);
    ASSERT_EQ(5483u, count);

    testkit::TempDir dir;
    const char* const says[] = {
        "frames: 5501 good, 0 bad check sequence\nbytes outside frames: 0\n",
        "\ncut frame at the start: 45 bytes\npackets: log 5483, event 1, message 0, response 17\n",
        "  log 0x512F: 378\n",
        "  log 0x5230: 9\n",
        "  log 0x713A: 27\n",
        "  log 0xB0C0: 4343\n",
        "  log 0xB0ED: 50\n",
        "verdict: whole\n"};
    for (const std::string& stream : {real, rewrapped}) {
        testkit::writeFile(dir.file("real_log.bin"), vtools::frame("\x4B\x13") + stream);
        std::string out;
        EXPECT_EQ(0, testkit::runToEnd({kInspect, "real_log.bin"}, dir.path(), &out)) << out;
        for (const char* text : says) {
            EXPECT_NE(std::string::npos, out.find(text)) << text << "\n" << out;
        }
    }
}
