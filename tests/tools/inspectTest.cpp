// The capture check and vrec-inspect, on the real DIAG stream and on built captures.
#include <gtest/gtest.h>

#include <string>

#include "captureCheck.h"
#include "hdlc.h"
#include "seqStream.h"
#include "testkit.h"

namespace {

const std::string kRealCapture = std::string(VREC_SHARED_DATA) + "/real-diag-lte.bin";

// Exit status of vrec-inspect over `args`; what it printed goes to `out`.
int inspect(const std::vector<std::string>& args, const std::string& cwd, std::string* out) {
    std::vector<std::string> argv = {testkit::builtProgram("tools/vrec-inspect")};
    argv.insert(argv.end(), args.begin(), args.end());
    return testkit::runToEnd(argv, cwd, out);
}

std::string simStream(uint32_t from, uint32_t to, uint32_t skip = UINT32_MAX) {
    std::string wire;
    for (uint32_t seq = from; seq < to; ++seq) {
        wire += seq != skip ? vtools::frame(vtools::simLogPacket(seq)) : "";
    }
    return wire;
}

}  // namespace

TEST(Inspect, RealCaptureIsWholeInAnyPiecesAndDamageShows) {
    if (!testkit::fileExists(kRealCapture)) {
        GTEST_SKIP() << "no " << kRealCapture << ": the shared test data is absent";
    }
    std::string data = testkit::readFile(kRealCapture);
    ASSERT_EQ(data.size(), 524026u);
    for (size_t piece : {data.size(), size_t{2048}, size_t{7}}) {
        vtools::CaptureCheck check;
        for (size_t at = 0; at < data.size(); at += piece) {
            check.feed(data.data() + at, std::min(piece, data.size() - at));
        }
        check.finish();
        EXPECT_EQ(check.goodFrames, 1808u) << "pieces of " << piece;
        EXPECT_EQ(check.badFrames + check.junkBytes + check.headBytes + check.incompleteBytes, 0u);
        EXPECT_EQ(check.kinds.at(vtools::PacketKind::kLog), 1808u);
        EXPECT_EQ(check.logCodes.size(), 12u);
        EXPECT_EQ(check.logCodes.at(0xB0C0), 31u);
        EXPECT_TRUE(check.clean(true));
    }
    testkit::TempDir dir;
    std::string out;
    EXPECT_EQ(inspect({kRealCapture}, dir.path(), &out), 0) << out;
    EXPECT_NE(out.find("frames: 1808 good, 0 bad check sequence"), std::string::npos) << out;
    EXPECT_NE(out.find("log 0xB193: 1091"), std::string::npos) << out;
    EXPECT_NE(out.find("verdict: whole"), std::string::npos);
    // One byte changed in the middle: one frame fails its check, the rest stand.
    data[data.size() / 2] ^= 0x40;
    testkit::writeFile(dir.file("damaged.bin"), data);
    EXPECT_EQ(inspect({dir.file("damaged.bin")}, dir.path(), &out), 1);
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
    EXPECT_EQ(inspect({"real_log.bin", "real_logitem_10_x.bin", "real_logitem_9_x.bin"}, dir.path(),
                      &out),
              0)
        << out;
    EXPECT_NE(out.find("sequence: 360 packets, first 40, last 399, missing 0"), std::string::npos)
        << out;
    // Checked one by one, the cuts show as a frame cut at an end, which only --strict counts.
    EXPECT_EQ(inspect({"--each", "real_logitem_10_x.bin"}, dir.path(), &out), 0) << out;
    EXPECT_NE(out.find("cut frame at the start"), std::string::npos) << out;
    EXPECT_EQ(inspect({"--each", "--strict", "real_log.bin"}, dir.path(), &out), 1);

    testkit::writeFile(dir.file("gap.bin"), simStream(0, 100, 57));
    EXPECT_EQ(inspect({"gap.bin"}, dir.path(), &out), 1);
    EXPECT_NE(out.find("1 sequence numbers missing in 1 gaps"), std::string::npos) << out;
    testkit::writeFile(dir.file("junk.bin"), simStream(0, 5) + "\x7E\x7E" + simStream(5, 9));
    EXPECT_EQ(inspect({"junk.bin"}, dir.path(), &out), 1);
    EXPECT_NE(out.find("2 bytes outside frames"), std::string::npos) << out;
    EXPECT_EQ(inspect({"missing.bin"}, dir.path(), &out), 2);
    EXPECT_EQ(inspect({}, dir.path(), &out), 2);
}
