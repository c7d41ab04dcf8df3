// Framing, packet and sequence-stream logic of the tools, on hand-built bytes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atText.h"
#include "captureCheck.h"
#include "diagPacket.h"
#include "hdlc.h"
#include "seqStream.h"
#include "testkit.h"

using testkit::hex;
using vtools::DeframeStep;

namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) {
        out += static_cast<char>(v);
    }
    return out;
}

// Every step of a whole input, fed in pieces of `piece` bytes.
std::vector<DeframeStep> steps(const std::string& input, size_t piece) {
    vtools::Deframer deframer;
    std::vector<DeframeStep> out;
    DeframeStep step;
    for (size_t at = 0; at < input.size(); at += piece) {
        deframer.feed(input.data() + at, std::min(piece, input.size() - at));
        while (deframer.next(step)) {
            out.push_back(step);
        }
    }
    const std::string& rest = deframer.pending();
    if (!rest.empty()) {
        out.push_back(vtools::deframe(rest.data(), rest.size(), true));
    }
    return out;
}

}  // namespace

TEST(Framing, KnownWireBytes) {
    EXPECT_EQ(vtools::fcs16("123456789"), 0x906E);
    EXPECT_EQ(hex(vtools::frame(bytes({0x01, 0x02, 0x03, 0x04}))), "01 02 03 04 91 39 7E");
    EXPECT_EQ(hex(vtools::frame(bytes({0x4B, 0x05, 0x08, 0x00}))), "4B 05 08 00 01 DD 7E");
    EXPECT_EQ(hex(vtools::frame(bytes({0x7D, 0x05, 0, 0, 0, 0, 0, 0}))),
              "7D 5D 05 00 00 00 00 00 00 74 41 7E");

    // The three stop frames, as a module receives them back to back.
    const std::string stop =
        bytes({0x60, 0x00, 0x12, 0x6A, 0x7E, 0x73, 0, 0, 0, 0, 0, 0,    0,    0xDA,
               0x81, 0x7E, 0x7D, 0x5D, 0x05, 0,    0, 0, 0, 0, 0, 0x74, 0x41, 0x7E});
    const std::vector<DeframeStep> got = steps(stop, stop.size());
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(hex(got[0].packet), "60 00");
    EXPECT_EQ(hex(got[1].packet), "73 00 00 00 00 00 00 00");
    EXPECT_EQ(hex(got[2].packet), "7D 05 00 00 00 00 00 00");
    unsigned operation = 99;
    EXPECT_TRUE(vtools::logConfigOperation(got[1].packet, &operation));
    EXPECT_EQ(operation, 0u);
    for (const DeframeStep& step : got) {
        EXPECT_EQ(step.kind, DeframeStep::kFrame);
        EXPECT_TRUE(step.fcsOk) << hex(step.packet);
    }
    EXPECT_EQ(got[0].used + got[1].used + got[2].used, stop.size());
}

TEST(Framing, PiecesFlagsGarbageAndDamage) {
    // A frame whose packet and check bytes need escapes, cut at every possible place.
    const std::string escaped = vtools::frame(bytes({0x7E, 0x7D, 0x10, 0x7E}));
    ASSERT_NE(escaped.find(0x7D), std::string::npos);
    for (size_t piece = 1; piece <= escaped.size(); ++piece) {
        const std::vector<DeframeStep> got = steps(escaped, piece);
        ASSERT_EQ(got.size(), 1u) << "pieces of " << piece;
        EXPECT_TRUE(got[0].fcsOk);
        EXPECT_EQ(hex(got[0].packet), "7E 7D 10 7E");
    }

    // Runs of flags and a stray pair of bytes are outside frames; the frame after them stands.
    const std::string good = bytes({0x1D, 0x1C, 0x3B, 0x7E});
    std::vector<DeframeStep> got = steps(bytes({0x7E, 0x7E, 0x41, 0x42, 0x7E}) + good, 3);
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0].kind, DeframeStep::kJunk);
    EXPECT_EQ(got[1].kind, DeframeStep::kJunk);
    EXPECT_EQ(got[2].kind, DeframeStep::kJunk);
    EXPECT_EQ(got[2].used, 3u);
    EXPECT_EQ(got[3].kind, DeframeStep::kFrame);
    EXPECT_TRUE(got[3].fcsOk);

    // One bit off in the check sequence; an escape right before the flag.
    got = steps(bytes({0x1D, 0x1C, 0x3A, 0x7E, 0x1D, 0x1C, 0x3B, 0x7D, 0x7E}), 64);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].kind, DeframeStep::kFrame);
    EXPECT_FALSE(got[0].fcsOk);
    EXPECT_EQ(got[0].fcsReceived, 0x3A1C);
    EXPECT_FALSE(got[1].fcsOk);

    // The end of input inside a frame, and a flagless run longer than any frame.
    got = steps(good + bytes({0x4B, 0x13}), 64);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].kind, DeframeStep::kIncomplete);
    EXPECT_EQ(got[1].used, 2u);
    const std::string flood(vtools::kMaxWireFrame + 1, 'x');
    EXPECT_EQ(vtools::deframe(flood.data(), flood.size()).kind, DeframeStep::kJunk);
    EXPECT_EQ(vtools::deframe(flood.data(), 100).kind, DeframeStep::kNeedMore);
}

TEST(Packets, KindsLogCodesAndTunnel) {
    unsigned code = 0;
    const std::string log = bytes({0x10, 0x00, 0x0C, 0x00, 0x0C, 0x00, 0xC0, 0xB0, 1, 2, 3, 4});
    EXPECT_TRUE(vtools::logCode(log, &code));
    EXPECT_EQ(code, 0xB0C0u);
    EXPECT_FALSE(vtools::logCode(bytes({0x10, 0x00, 0x0C}), &code));
    EXPECT_EQ(vtools::classify(log), vtools::PacketKind::kLog);
    EXPECT_EQ(vtools::classify(bytes({0x60, 0x01})), vtools::PacketKind::kEvent);
    EXPECT_EQ(vtools::classify(bytes({0x79, 0x00})), vtools::PacketKind::kMessage);
    EXPECT_EQ(vtools::classify(bytes({0x92, 0x00})), vtools::PacketKind::kMessage);
    EXPECT_EQ(vtools::classify(bytes({0x4B, 0x13})), vtools::PacketKind::kResponse);

    // 4B C9 E8 FF, id, length 9, "AT^MDON?\r": the frame a host sends through the tunnel.
    const std::string wire = bytes({0x4B, 0xC9, 0xE8, 0xFF, 0x00, 0x09, 0x00}) + "AT^MDON?\r" +
                             bytes({0x98, 0xA7, 0x7E});
    const DeframeStep step = vtools::deframe(wire.data(), wire.size());
    ASSERT_TRUE(step.fcsOk);
    vtools::TunnelPacket tunnel;
    ASSERT_TRUE(vtools::parseTunnel(step.packet, &tunnel));
    EXPECT_EQ(tunnel.id, 0u);
    EXPECT_EQ(tunnel.text, "AT^MDON?\r");
    EXPECT_EQ(vtools::makeTunnel(0, "AT^MDON?\r"), step.packet);
    std::string shortened = step.packet;
    shortened.pop_back();
    EXPECT_FALSE(vtools::parseTunnel(shortened, &tunnel));
}

TEST(SequenceStream, ProvesLossReorderAndDamage) {
    // The bodies run through flag and escape bytes, so the stream exercises the framing.
    std::string wire;
    for (uint32_t seq = 0; seq < 64; ++seq) {
        wire += vtools::frame(vtools::simLogPacket(seq));
    }
    EXPECT_GT(wire.size(), 64 * 40u);
    EXPECT_NE(wire.find(bytes({0x7D, 0x5E})), std::string::npos);

    auto run = [](const std::vector<uint32_t>& order, int damage = -1) {
        vtools::SeqChecker checker;
        for (size_t i = 0; i < order.size(); ++i) {
            std::string packet = vtools::simLogPacket(order[i]);
            if (static_cast<int>(i) == damage) {
                packet[packet.size() - 3] ^= 0x01;
            }
            EXPECT_TRUE(checker.take(packet));
        }
        return checker.stats();
    };
    vtools::SeqStats s = run({5, 6, 7, 8});
    EXPECT_TRUE(s.whole());
    EXPECT_EQ(s.first, 5u);
    EXPECT_EQ(s.last, 8u);
    s = run({0, 1, 4, 5, 9});
    EXPECT_EQ(s.missing, 5u);
    EXPECT_EQ(s.gaps, 2u);
    s = run({0, 2, 1, 3});
    EXPECT_EQ(s.outOfOrder, 1u);
    EXPECT_EQ(s.missing, 1u);
    // A damaged packet's own number is not trusted, so it shows as missing as well.
    s = run({0, 1, 2, 3}, 2);
    EXPECT_EQ(s.corrupt, 1u);
    EXPECT_EQ(s.missing, 1u);
    // A body cut short is damage too, and other log packets are not the stream's.
    vtools::SeqChecker checker;
    std::string cut = vtools::simLogPacket(3);
    cut.resize(cut.size() - 1);
    EXPECT_TRUE(checker.take(cut));
    EXPECT_EQ(checker.stats().corrupt, 1u);
    EXPECT_FALSE(checker.take(bytes({0x10, 0x00, 0x0C, 0x00, 0x0C, 0x00, 0xC0, 0xB0})));
}

TEST(AtText, ArgumentsBase64AndRecordForms) {
    vtools::AtArgs args = vtools::splitAtArgs("\"logconfig.xml\",\"\",123,4,1,\"QUJD\"");
    ASSERT_EQ(args.values.size(), 6u);
    EXPECT_TRUE(args.wellFormed);
    EXPECT_EQ(args.values[0], "logconfig.xml");
    EXPECT_EQ(args.values[1], "");
    EXPECT_TRUE(args.quoted[1]);
    EXPECT_FALSE(args.quoted[2]);
    EXPECT_EQ(args.values[5], "QUJD");
    EXPECT_EQ(vtools::splitAtArgs("\"a,b\",c").values[0], "a,b");
    EXPECT_FALSE(vtools::splitAtArgs("\"open,1").wellFormed);
    EXPECT_FALSE(vtools::splitAtArgs("\"a\"b,1").wellFormed);

    std::string out;
    EXPECT_TRUE(vtools::base64DecodeStrict("QUJD", &out));
    EXPECT_EQ(out, "ABC");
    EXPECT_TRUE(vtools::base64DecodeStrict("QQ==", &out));
    EXPECT_EQ(out, "A");
    EXPECT_TRUE(vtools::base64DecodeStrict("", &out));
    for (const char* bad : {"QUJ", "QU=D", "Q===", "QR==", "QU J", "QUJD\r"}) {
        EXPECT_FALSE(vtools::base64DecodeStrict(bad, &out)) << bad;
    }
    EXPECT_EQ(vtools::escapeText("AT\r\n\\\x01"), "AT\\r\\n\\\\\\x01");
    EXPECT_EQ(vtools::hexBytes(bytes({0x4B, 0x0A})), "4B0A");
}

TEST(CaptureOrder, ItemsByNumberThenFileInProgress) {
    const std::vector<std::string> given = {"d/real_log.bin", "d/real_logitem_10_2024_1.bin",
                                            "other.bin", "d/real_logitem_2_2024_9.bin"};
    const std::vector<std::string> want = {"d/real_logitem_2_2024_9.bin",
                                           "d/real_logitem_10_2024_1.bin", "other.bin",
                                           "d/real_log.bin"};
    EXPECT_EQ(vtools::captureOrder(given), want);
}
