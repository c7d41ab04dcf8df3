// Framing, packet and sequence-stream logic of the tools, on hand-built bytes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atText.h"
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

TEST(Packets, KindsAndLogCodes) {
    const std::string log = bytes({0x10, 0x00, 0x0C, 0x00, 0x0C, 0x00, 0xC0, 0xB0, 1, 2, 3, 4});
    unsigned code = 0;
    EXPECT_TRUE(vtools::logCode(log, &code));
    EXPECT_EQ(code, 0xB0C0u);
    EXPECT_FALSE(vtools::logCode(bytes({0x10, 0x00, 0x0C}), &code));
    using Kind = vtools::PacketKind;
    for (const auto& [packet, kind] :
         {std::make_pair(log, Kind::kLog), std::make_pair(bytes({0x60, 1}), Kind::kEvent),
          std::make_pair(bytes({0x79, 0}), Kind::kMessage),
          std::make_pair(bytes({0x92, 0}), Kind::kMessage),
          std::make_pair(bytes({0x4B, 0x13}), Kind::kResponse)}) {
        EXPECT_EQ(vtools::classify(packet), kind) << hex(packet);
    }
}

TEST(SequenceStream, ProvesLossReorderAndDamage) {
    // The bodies run through flag and escape bytes, so the stream exercises the framing.
    std::string wire;
    for (uint32_t seq = 0; seq < 64; ++seq) {
        wire += vtools::frame(vtools::simLogPacket(seq));
    }
    EXPECT_NE(wire.find(bytes({0x7D, 0x5E})), std::string::npos);

    auto run = [](const std::vector<uint32_t>& order, int damage = -1) {
        vtools::SeqChecker checker;
        for (size_t i = 0; i < order.size(); ++i) {
            std::string packet = vtools::simLogPacket(order[i]);
            packet[packet.size() - 3] ^= static_cast<int>(i) == damage ? 1 : 0;
            EXPECT_TRUE(checker.take(packet));
        }
        const vtools::SeqStats s = checker.stats();
        return std::vector<uint64_t>{s.first, s.last, s.missing, s.gaps, s.outOfOrder, s.corrupt};
    };
    EXPECT_EQ(run({5, 6, 7, 8}), (std::vector<uint64_t>{5, 8, 0, 0, 0, 0}));
    EXPECT_EQ(run({0, 1, 4, 5, 9}), (std::vector<uint64_t>{0, 9, 5, 2, 0, 0}));
    EXPECT_EQ(run({0, 2, 1, 3}), (std::vector<uint64_t>{0, 3, 1, 1, 1, 0}));
    // A damaged packet's own number is not trusted, so it shows as missing as well.
    EXPECT_EQ(run({0, 1, 2, 3}, 2), (std::vector<uint64_t>{0, 3, 1, 1, 0, 1}));
    // A body cut short is damage too, and other log packets are not the stream's.
    vtools::SeqChecker checker;
    const std::string cut = vtools::simLogPacket(3);
    EXPECT_TRUE(checker.take(cut.substr(0, cut.size() - 1)));
    EXPECT_EQ(checker.stats().corrupt, 1u);
    EXPECT_FALSE(checker.take(bytes({0x10, 0x00, 0x0C, 0x00, 0x0C, 0x00, 0xC0, 0xB0})));
}

TEST(AtText, ArgumentsAndStrictBase64) {
    vtools::AtArgs args = vtools::splitAtArgs("\"logconfig.xml\",\"\",123,\"a,b\",\"QUJD\"");
    EXPECT_TRUE(args.wellFormed);
    EXPECT_EQ(args.values, (std::vector<std::string>{"logconfig.xml", "", "123", "a,b", "QUJD"}));
    EXPECT_EQ(args.quoted, (std::vector<bool>{true, true, false, true, true}));
    EXPECT_FALSE(vtools::splitAtArgs("\"open,1").wellFormed);
    EXPECT_FALSE(vtools::splitAtArgs("\"a\"b,1").wellFormed);

    std::string out;
    for (const auto& [text, plain] :
         {std::make_pair("QUJD", "ABC"), std::make_pair("QQ==", "A"), std::make_pair("", "")}) {
        EXPECT_TRUE(vtools::base64DecodeStrict(text, &out) && out == plain) << text;
    }
    for (const char* bad : {"QUJ", "QU=D", "Q===", "QR==", "QU J", "QUJD\r"}) {
        EXPECT_FALSE(vtools::base64DecodeStrict(bad, &out)) << bad;
    }
}
