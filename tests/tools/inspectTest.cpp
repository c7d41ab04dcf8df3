// The capture check and vrec-inspect, on the real DIAG stream and on built captures.

#include <gtest/gtest.h>

#include <string>

#include "captureCheck.h"
#include "hdlc.h"
#include "seqStream.h"
#include "testkit.h"

namespace {

const std::string kRealCapture = std::string(VREC_SHARED_DATA) + "/real-diag-lte.bin";

std::string inspect() {
    return testkit::builtProgram("tools/vrec-inspect");
}

vtools::CaptureCheck checkInPieces(const std::string& data, size_t piece) {
    vtools::CaptureCheck check;
    for (size_t at = 0; at < data.size(); at += piece) {
        check.feed(data.data() + at, std::min(piece, data.size() - at));
    }
    check.finish();
    return check;
}

std::string simStream(uint32_t from, uint32_t to, uint32_t skip = UINT32_MAX) {
    std::string wire;
    for (uint32_t seq = from; seq < to; ++seq) {
        if (seq != skip) {
            wire += vtools::frame(vtools::simLogPacket(seq));
        }
    }
    return wire;
}

}  // namespace

TEST(Inspect, RealCaptureIsWholeInAnyPieces) {
    if (!testkit::fileExists(kRealCapture)) {
        GTEST_SKIP() << "no " << kRealCapture << ": the shared test data is absent";
    }
    const std::string data = testkit::readFile(kRealCapture);
    ASSERT_EQ(data.size(), 524026u);
    for (size_t piece : {data.size(), size_t{2048}, size_t{7}}) {
        const vtools::CaptureCheck check = checkInPieces(data, piece);
        EXPECT_EQ(check.goodFrames, 1808u) << "pieces of " << piece;
        EXPECT_EQ(check.badFrames + check.junkBytes + check.headBytes + check.incompleteBytes, 0u);
        EXPECT_EQ(check.kinds.at(vtools::PacketKind::kLog), 1808u);
        EXPECT_EQ(check.kinds.size(), 1u);
        EXPECT_EQ(check.logCodes.size(), 12u);
        EXPECT_EQ(check.logCodes.at(0xB193), 1091u);
        EXPECT_EQ(check.logCodes.at(0xB0C0), 31u);
        EXPECT_TRUE(check.clean(true));
    }

    // One byte changed in the middle: one frame fails its check, the rest stand.
    std::string damaged = data;
    damaged[data.size() / 2] ^= 0x40;
    const vtools::CaptureCheck check = checkInPieces(damaged, 4096);
    EXPECT_EQ(check.badFrames, 1u);
    EXPECT_EQ(check.goodFrames, 1807u);
    EXPECT_FALSE(check.clean(false));

    testkit::TempDir dir;
    testkit::writeFile(dir.file("damaged.bin"), damaged);
    std::string out;
    EXPECT_EQ(testkit::runToEnd({inspect(), kRealCapture}, dir.path(), &out), 0) << out;
    EXPECT_NE(out.find("frames: 1808 good, 0 bad check sequence"), std::string::npos) << out;
    EXPECT_NE(out.find("log 0xB193: 1091"), std::string::npos) << out;
    EXPECT_NE(out.find("verdict: whole"), std::string::npos);
    EXPECT_EQ(testkit::runToEnd({inspect(), dir.file("damaged.bin")}, dir.path(), &out), 1);
    EXPECT_NE(out.find("1 frames with a bad check sequence"), std::string::npos) << out;
}

TEST(Inspect, SequenceGapsAndItemBoundaries) {
    testkit::TempDir dir;
    // A stream cut into items mid-frame, named as a capture names them, given out of order.
    const std::string whole = simStream(40, 400);
    testkit::writeFile(dir.file("real_logitem_9_x.bin"), whole.substr(0, 1001));
    testkit::writeFile(dir.file("real_logitem_10_x.bin"), whole.substr(1001, 5000));
    testkit::writeFile(dir.file("real_log.bin"), whole.substr(6001));
    std::string out;
    EXPECT_EQ(
        testkit::runToEnd({inspect(), dir.file("real_log.bin"), dir.file("real_logitem_10_x.bin"),
                           dir.file("real_logitem_9_x.bin")},
                          dir.path(), &out),
        0)
        << out;
    EXPECT_NE(out.find("sequence: 360 packets, first 40, last 399, missing 0"), std::string::npos)
        << out;
    // Checked one by one, the cuts show as a frame cut at an end, which only --strict counts.
    EXPECT_EQ(testkit::runToEnd({inspect(), "--each", dir.file("real_logitem_10_x.bin")},
                                dir.path(), &out),
              0)
        << out;
    EXPECT_NE(out.find("cut frame at the start"), std::string::npos) << out;
    EXPECT_EQ(testkit::runToEnd({inspect(), "--each", "--strict", dir.file("real_log.bin")},
                                dir.path(), &out),
              1);

    // One packet lost: a gap, and the exit status says so.
    testkit::writeFile(dir.file("gap.bin"), simStream(0, 100, 57));
    EXPECT_EQ(testkit::runToEnd({inspect(), dir.file("gap.bin")}, dir.path(), &out), 1);
    EXPECT_NE(out.find("1 sequence numbers missing in 1 gaps"), std::string::npos) << out;
    // Garbage between frames.
    testkit::writeFile(dir.file("junk.bin"), simStream(0, 5) + "\x7E\x7E" + simStream(5, 9));
    EXPECT_EQ(testkit::runToEnd({inspect(), dir.file("junk.bin")}, dir.path(), &out), 1);
    EXPECT_NE(out.find("2 bytes outside frames"), std::string::npos) << out;

    EXPECT_EQ(testkit::runToEnd({inspect(), dir.file("missing.bin")}, dir.path(), &out), 2);
    EXPECT_EQ(testkit::runToEnd({inspect()}, dir.path(), &out), 2);
}
