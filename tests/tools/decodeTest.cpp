// vrec-decode: made-up packets of every layout, the two real captures against a tally taken
// from their bytes here, Wireshark's reading of the results, and a live capture followed
// across its rotations.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "captureCheck.h"
#include "converter.h"
#include "diagPacket.h"
#include "hdlc.h"
#include "signalling.h"
#include "testkit.h"

using testkit::hex;
using vdecode::Record;
using Args = std::vector<std::string>;

namespace {

const std::string kDecode = testkit::builtProgram("tools/vrec-decode");
const std::string kData = VREC_SHARED_DATA;
// The phone's stream that ships with the project.
const std::string kExample = std::string(VREC_SOURCE_DIR) + "/examples/real-diag-lte-gsm.bin";

std::string zeros(size_t n) {
    return std::string(n, '\0');
}
void setLe(std::string& bytes, size_t at, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        bytes[at + i] = static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}

// A log packet: 0x10, pending count, both lengths, the code, a time stamp of `ticks`.
std::string logPacket(unsigned code, const std::string& payload, uint64_t ticks = 800000000) {
    std::string packet = zeros(16) + payload;
    packet[0] = 0x10;
    setLe(packet, 2, 12 + payload.size(), 2);
    setLe(packet, 4, 12 + payload.size(), 2);
    setLe(packet, 6, code, 2);
    setLe(packet, 8, ticks << 16, 8);
    return packet;
}

// 0xB0C0 of `version`, built after the header tables: header size and where the PDU number,
// the length, the EARFCN (its size) and SFN sit; 0 for no segment number.
std::string lteRrc(unsigned version, unsigned number, const std::string& message,
                   uint32_t earfcn = 1850, unsigned segment = 0, int lengthDelta = 0) {
    struct {
        unsigned from, to;
        size_t header, pdu, length, earfcn, earfcnSize, sfn, segment;
    } const kLayouts[] = {{2, 4, 13, 10, 11, 6, 2, 8, 0},
                          {5, 7, 17, 10, 15, 6, 2, 8, 0},
                          {8, 24, 19, 12, 17, 6, 4, 10, 0},
                          {25, 29, 21, 14, 19, 8, 4, 12, 0},
                          {30, 31, 24, 14, 19, 8, 4, 12, 23}};
    for (const auto& l : kLayouts) {
        if (version >= l.from && version <= l.to) {
            std::string p = zeros(l.header);
            p[0] = static_cast<char>(version);
            p[l.pdu] = static_cast<char>(number);
            setLe(p, l.length, message.size() + lengthDelta, 2);
            setLe(p, l.earfcn, earfcn, l.earfcnSize);
            setLe(p, l.sfn, (1500 << 4) | 3, 2);  // SFN 1500, subframe 3
            if (l.segment != 0) {
                p[l.segment] = static_cast<char>(segment);
            }
            return logPacket(0xB0C0, p + message);
        }
    }
    return logPacket(0xB0C0, std::string(1, static_cast<char>(version)) + zeros(30) + message);
}

// 0xB821 of `version` the same way.
std::string nrRrc(unsigned version, unsigned number, const std::string& message,
                  unsigned segment = 0) {
    size_t header = 24, pdu = 17, length = 22, seg = 0;
    if (version == 12 || version == 14) {
        header = 23, pdu = 16, length = 21;
    } else if (version >= 17) {
        header = version == 17 ? 31 : 32, pdu = 24, length = 29;
        if (version == 23 || version == 24 || version == 26 || version == 28) {
            header = 35, seg = 34;
        }
    }
    std::string p = zeros(header);
    setLe(p, 0, version, 4);
    p[pdu] = static_cast<char>(number);
    setLe(p, length, message.size(), 2);
    if (seg != 0) {
        p[seg] = static_cast<char>(segment);
    }
    return logPacket(0xB821, p + message);
}

struct Decoded {
    vdecode::Tally tally;
    std::vector<Record> records;
};
Decoded decodeAll(const std::vector<std::string>& packets) {
    Decoded out;
    vdecode::SignallingDecoder decoder(out.tally);
    for (const std::string& packet : packets) {
        decoder.decode(packet, out.records);
    }
    return out;
}
std::string skipped(const vdecode::Tally& tally) {
    std::string text;
    for (const auto& entry : tally.skipped) {
        text += entry.first + " x" + std::to_string(entry.second) + "\n";
    }
    return text;
}

const std::string kMsg("\x11\x22\x33", 3);

}  // namespace

TEST(Decoder, LteRrcOfEveryLayoutGroupAndWhatIsNotGuessed) {
    const struct {
        unsigned version, number;
        const char* channel;
        unsigned subType;
        bool uplink;
    } kCases[] = {
        {3, 8, "UL-DCCH", 3, true},       {6, 1, "BCCH-BCH", 4, false},
        {9, 8, "BCCH-BCH", 4, false},     {15, 4, "MCCH", 7, false},
        {20, 61, "UL-DCCH-NB", 17, true}, {26, 45, "BCCH-BCH-NB", 18, false},
        {27, 11, "UL-DCCH", 3, true},     {31, 3, "BCCH-DL-SCH", 5, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE("version " + std::to_string(c.version));
        const Decoded got = decodeAll({lteRrc(c.version, c.number, kMsg)});
        ASSERT_EQ(got.records.size(), 1u) << skipped(got.tally);
        const Record& r = got.records[0];
        EXPECT_STREQ(r.channel, c.channel);
        EXPECT_EQ(r.type, vdecode::kGsmtapLteRrc);
        EXPECT_EQ(r.subType, c.subType);
        EXPECT_EQ(r.direction == Record::Direction::kUplink, c.uplink);
        EXPECT_EQ(r.arfcn, 1850);
        EXPECT_EQ(r.frameNumber, 1500u & 0x3FF);
        EXPECT_EQ(hex(r.pdu), "11 22 33");
        EXPECT_EQ(r.unixMicros, 315964800000000ULL + 800000000ULL * 1250);
    }
    // The GSMTAP header of one, byte for byte: uplink bit with the ARFCN, SFN as frame number.
    EXPECT_EQ(hex(decodeAll({lteRrc(8, 8, kMsg)}).records.at(0).gsmtap()),
              "02 04 0D 00 47 3A 00 00 00 00 01 DC 03 00 00 00 11 22 33");
    // An EARFCN beyond 14 bits is left out.
    EXPECT_EQ(decodeAll({lteRrc(20, 2, kMsg, 67086)}).records.at(0).arfcn, 0);

    // Unknown versions and numbers, a message shorter than its length: skipped and counted.
    const Decoded rest =
        decodeAll({lteRrc(5, 1, kMsg), lteRrc(32, 1, kMsg), lteRrc(8, 9, kMsg), lteRrc(26, 2, kMsg),
                   lteRrc(14, 54, kMsg), lteRrc(9, 12, kMsg, 1850, 0, 1)});
    EXPECT_TRUE(rest.records.empty());
    EXPECT_EQ(rest.tally.skips(), 6u);
    const std::string reasons = skipped(rest.tally);
    EXPECT_NE(reasons.find("unknown version (0xB0C0 LTE RRC version 5) x1"), std::string::npos);
    EXPECT_NE(reasons.find("version 32) x1"), std::string::npos);
    EXPECT_NE(reasons.find("version 8, PDU number 9) x1"), std::string::npos);
    EXPECT_NE(reasons.find("version 26, PDU number 2) x1"), std::string::npos);
    EXPECT_NE(reasons.find("version 14, PDU number 54) x1"), std::string::npos) << reasons;
    EXPECT_NE(reasons.find("message shorter than its length field (0xB0C0) x1"), std::string::npos);
}

TEST(Decoder, SegmentedMessagesAreJoinedOnTheirLastPart) {
    const Decoded lte = decodeAll({lteRrc(30, 9, "AB", 1850, 1), lteRrc(30, 9, "CD", 1850, 2),
                                   lteRrc(30, 9, "EF", 1850, 7), lteRrc(30, 9, "GH", 1850, 0),
                                   lteRrc(30, 9, "IJ", 1850, 7)});
    ASSERT_EQ(lte.records.size(), 2u);
    EXPECT_EQ(lte.records[0].pdu, "ABCDEF");
    EXPECT_EQ(lte.records[1].pdu, "GH");
    EXPECT_EQ(lte.tally.skips(), 1u) << skipped(lte.tally);  // a last part on its own

    const Decoded nr = decodeAll(
        {nrRrc(24, 4, "ab", 1), nrRrc(24, 4, "cd", 7), nrRrc(24, 4, "x", 1), nrRrc(24, 4, "y", 1)});
    ASSERT_EQ(nr.records.size(), 1u);
    EXPECT_EQ(nr.records[0].pdu, "abcd");
    EXPECT_NE(skipped(nr.tally).find("without its last part"), std::string::npos);
}

TEST(Decoder, NrRrcAndFiveGsNasBecomeExportedPdus) {
    const struct {
        unsigned version, number;
        const char* dissector;  // nullptr: skipped
        Record::Direction direction;
    } kCases[] = {
        {9, 4, "nr-rrc.dl.dcch", Record::Direction::kDownlink},
        {12, 6, "nr-rrc.ul.ccch", Record::Direction::kUplink},
        {14, 31, "nr-rrc.ue_mrdc_cap", Record::Direction::kNone},
        {17, 29, "nr-rrc.radiobearerconfig", Record::Direction::kNone},
        {20, 8, "nr-rrc.ul.ccch1", Record::Direction::kUplink},
        {28, 10, "nr-rrc.ul.dcch", Record::Direction::kUplink},
        {8, 1, "nr-rrc.bcch.bch", Record::Direction::kDownlink},
        {8, 3, nullptr, Record::Direction::kNone},   // not known for the oldest versions
        {20, 5, nullptr, Record::Direction::kNone},  // MCCH: no dissector
        {26, 10, nullptr, Record::Direction::kNone},
        {10, 1, nullptr, Record::Direction::kNone},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(std::to_string(c.version) + "/" + std::to_string(c.number));
        const Decoded got = decodeAll({nrRrc(c.version, c.number, kMsg)});
        if (c.dissector == nullptr) {
            EXPECT_TRUE(got.records.empty());
            EXPECT_EQ(got.tally.skips(), 1u);
            continue;
        }
        ASSERT_EQ(got.records.size(), 1u) << skipped(got.tally);
        EXPECT_STREQ(got.records[0].dissector, c.dissector);
        EXPECT_EQ(got.records[0].direction, c.direction);
        EXPECT_EQ(got.records[0].pdu, kMsg);
    }
    // The exported-PDU tags: dissector name padded to 4 bytes, direction, end.
    EXPECT_EQ(hex(decodeAll({nrRrc(9, 4, kMsg)}).records.at(0).exportedPdu()),
              "00 0C 00 10 6E 72 2D 72 72 63 2E 64 6C 2E 64 63 63 68 00 00 "
              "00 23 00 04 00 00 00 01 00 00 00 00 11 22 33");
    // A bare RRCReconfigurationComplete goes behind the 5 bits of its UL-DCCH message.
    EXPECT_EQ(hex(decodeAll({nrRrc(26, 12, std::string("\xFF\x00", 2))}).records.at(0).pdu),
              "0F F8 00");

    // 5GS NAS: version 1, the message from offset 7; odd codes uplink, 0xB814 without.
    auto nas = [](unsigned code, unsigned version) {
        std::string payload = zeros(7) + std::string("\x7E\x00\x64\x6F", 4);
        setLe(payload, 0, version, 4);
        return logPacket(code, payload);
    };
    const Decoded fiveG =
        decodeAll({nas(0xB809, 1), nas(0xB814, 1), nas(0xB80A, 2), nas(0xB80C, 1)});
    ASSERT_EQ(fiveG.records.size(), 2u);
    EXPECT_STREQ(fiveG.records[0].dissector, "nas-5gs");
    EXPECT_EQ(fiveG.records[0].direction, Record::Direction::kUplink);
    EXPECT_EQ(hex(fiveG.records[0].pdu), "7E 00 64 6F");
    EXPECT_EQ(fiveG.records[1].direction, Record::Direction::kNone);
    EXPECT_EQ(fiveG.tally.skips(), 1u);
    EXPECT_EQ(fiveG.tally.otherPackets, 1u);  // a state report is no message
}

TEST(Decoder, TwoGThreeGAndNasLayoutsWrappersAndDamage) {
    using testkit::bytes;
    const std::string l3 = bytes({0x05, 0x08, 0x11});
    std::string wrapped = bytes({0x98, 0x01, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00}) +
                          logPacket(0xB0EB, bytes({1, 9, 5, 0}) + l3);
    std::string badLength = logPacket(0xB0ED, bytes({1, 9, 5, 0}) + l3);
    badLength[2] = 0x30;
    const Decoded got = decodeAll({
        logPacket(0x412F, bytes({0x03, 0x05, 3, 0}) + l3),                       // DL-DCCH
        logPacket(0x412F, bytes({0x81, 0x05, 3, 0, 0xCC, 0x29, 0x10, 0}) + l3),  // UARFCN 10700
        logPacket(0x412F, bytes({0x89, 0, 4, 0, 0xCC, 0x29, 0x10, 0, 0}) + l3),  // a MIB
        logPacket(0x412F, bytes({0x0B, 0, 3, 0}) + l3),                          // no channel
        logPacket(0x412F, bytes({0x03, 0, 9, 0}) + l3),                          // too short
        logPacket(0x512F, bytes({0x00, 0x0D, 3}) + l3),                          // DCCH uplink
        logPacket(0x512F, bytes({0x84, 0x1D, 3}) + l3),                          // SACCH
        logPacket(0x5B2F, bytes({2, 0x81, 0x19, 3}) + l3),                       // BCCH, SIM byte
        logPacket(0x512F, bytes({0x85, 0, 3}) + l3),                             // unhandled
        logPacket(0x713A, bytes({1, 3, 0, 0, 0}) + l3 + "zz"),
        logPacket(0x7B3A, bytes({2, 0, 3, 0, 0, 0}) + l3),
        logPacket(0x5230, bytes({1, 0x08, 3, 0}) + l3 + std::string(250, 'x')),
        logPacket(0xB0E2, bytes({1, 9, 5, 0}) + l3),
        wrapped,
        badLength,
        logPacket(0xB0EC, bytes({2, 9, 5, 0}) + l3),
    });
    const struct {
        uint8_t type, subType;
        bool uplink;
        uint16_t arfcn;
        const char* pdu;
    } kExpected[] = {
        {0x0C, 0, false, 0, "05 08 11"},
        {0x0C, 1, true, 10700, "05 08 11"},
        {0x0C, 16, false, 10700, "05 08 11"},
        {0x01, 8, true, 0, "01 03 0D 05 08 11"},
        {0x01, 0x88, false, 0, "00 00 01 03 0D 05 08 11"},
        {0x01, 1, false, 0, "05 08 11"},
        {0x02, 0, true, 0, "05 08 11"},
        {0x02, 0, false, 0, "05 08 11"},
        {0x02, 0, false, 0, "05 08 11"},
        {0x12, 0, false, 0, "05 08 11"},
        {0x12, 1, true, 0, "05 08 11"},
    };
    ASSERT_EQ(got.records.size(), std::size(kExpected)) << skipped(got.tally);
    for (size_t i = 0; i < std::size(kExpected); ++i) {
        SCOPED_TRACE(i);
        const Record& r = got.records[i];
        EXPECT_EQ(r.type, kExpected[i].type);
        EXPECT_EQ(r.subType, kExpected[i].subType);
        EXPECT_EQ(r.direction == Record::Direction::kUplink, kExpected[i].uplink);
        EXPECT_EQ(r.arfcn, kExpected[i].arfcn);
        EXPECT_EQ(hex(r.pdu), kExpected[i].pdu);
    }
    EXPECT_EQ(got.records.back().sim, 2u);  // the wrapped one
    EXPECT_EQ(got.tally.skips(), 5u) << skipped(got.tally);
    EXPECT_NE(skipped(got.tally).find("length fields disagree"), std::string::npos);
    EXPECT_NE(skipped(got.tally).find("LTE NAS version 2"), std::string::npos);
}

namespace {

// Records of a pcapng file read here: (interface link type, packet data) per block.
std::vector<std::pair<unsigned, std::string>> readPcapng(const std::string& path) {
    const std::string file = testkit::readFile(path);
    std::vector<unsigned> links;
    std::vector<std::pair<unsigned, std::string>> packets;
    for (size_t at = 0; at + 12 <= file.size();) {
        const unsigned type = vtools::readLe32(file, at);
        const unsigned length = vtools::readLe32(file, at + 4);
        if (length < 12 || at + length > file.size()) {
            ADD_FAILURE() << "bad block at " << at;
            break;
        }
        if (type == 1) {
            links.push_back(vtools::readLe16(file, at + 8));
        } else if (type == 6) {
            const unsigned link = links.at(vtools::readLe32(file, at + 8));
            packets.emplace_back(link, file.substr(at + 28, vtools::readLe32(file, at + 20)));
        }
        at += length;
    }
    return packets;
}

// tshark's fields of every packet of a file, one line each; empty if tshark is absent.
bool haveTshark() {
    return system("command -v tshark >/dev/null 2>&1") == 0;
}
std::vector<std::string> tsharkLines(const std::string& path, const Args& extra) {
    std::string out;
    Args argv = {"/bin/sh", "-c", "exec tshark -r \"$0\" \"$@\" 2>/dev/null", path};
    argv.insert(argv.end(), extra.begin(), extra.end());
    testkit::runToEnd(argv, "/", &out, nullptr, 60000);
    std::vector<std::string> lines;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

// What Wireshark marks malformed, beyond ciphered NAS (a security header of type 2 or 4).
std::vector<std::string> malformedBeyondCipheredNas(const std::string& path) {
    std::vector<std::string> bad;
    for (const std::string& line :
         tsharkLines(path, {"-Y", "_ws.malformed", "-T", "fields", "-e", "frame.number", "-e",
                            "nas_eps.security_header_type", "-e", "frame.protocols"})) {
        if (line.find("\t2\t") == std::string::npos && line.find("\t4\t") == std::string::npos) {
            bad.push_back(line);
        }
    }
    return bad;
}

}  // namespace

TEST(DecodeTool, MadeUpCaptureReadsInWiresharkAndAsText) {
    testkit::TempDir dir;
    std::string message = zeros(20);
    message[0] = 0x79;
    message[2] = 2;
    setLe(message, 4, 800000000ULL << 16, 8);
    setLe(message, 12, 321, 2);
    message += std::string("\xFE\xFF\xFF\xFF\x2A\0\0\0", 8);
    message += std::string("rssi %d dBm, state %u, tail %d%%") + '\0' + "ll1_srch.c" + '\0';
    std::string capture = vtools::frame(lteRrc(8, 6, std::string("\x36\x02\x20", 3))) +
                          vtools::frame(nrRrc(9, 4, std::string("\x00\x00", 2))) +
                          vtools::frame(nrRrc(17, 10, std::string("\x00\x00", 2))) +
                          vtools::frame(message) + vtools::frame(lteRrc(5, 1, kMsg));
    std::string fiveG = zeros(7) + std::string("\x7E\x00\x64\x6F", 4);  // 5GMM status
    setLe(fiveG, 0, 1, 4);
    capture += vtools::frame(logPacket(0xB80B, fiveG));
    std::string damaged = vtools::frame(lteRrc(8, 4, "\x40\x08"));
    damaged[3] ^= 1;
    capture += damaged;
    capture += vtools::frame(std::string("\x98\x01\x00\x00\x02\x00\x00\x00", 8) +
                             logPacket(0x713A, std::string("\0\3\0\0\0\x05\x18\x01", 8)));
    testkit::writeFile(dir.file("real_log.bin"), capture);

    std::string out;
    std::string err;
    EXPECT_EQ(1, testkit::runToEnd(
                     {kDecode, "--strict", "-o", dir.file("out.pcapng"), dir.file("real_log.bin")},
                     "/", &out, &err));
    EXPECT_NE(err.find("5 records written, 2 skipped"), std::string::npos) << err;
    EXPECT_NE(err.find("skipped damaged frame (bad check sequence): 1"), std::string::npos) << err;
    EXPECT_NE(err.find("written NR RRC RRCReconfigurationComplete: 1"), std::string::npos) << err;
    const auto packets = readPcapng(dir.file("out.pcapng"));
    ASSERT_EQ(packets.size(), 5u);
    EXPECT_EQ(packets[0].first, 228u);
    EXPECT_EQ(packets[1].first, 252u);
    EXPECT_EQ(hex(packets[4].second.substr(12, 4)), "7F 00 00 02");  // SIM 2's source

    if (haveTshark()) {
        const Args fields = {"-T", "fields", "-e", "frame.protocols"};
        const std::vector<std::string> protocols = tsharkLines(dir.file("out.pcapng"), fields);
        ASSERT_EQ(protocols.size(), 5u);
        EXPECT_TRUE(testkit::endsWith(protocols[0], "gsmtap:lte_rrc")) << protocols[0];
        EXPECT_TRUE(testkit::endsWith(protocols[1], "exported_pdu:nr-rrc")) << protocols[1];
        EXPECT_TRUE(testkit::endsWith(protocols[2], "exported_pdu:nr-rrc")) << protocols[2];
        EXPECT_NE(protocols[3].find("exported_pdu:nas-5gs"), std::string::npos) << protocols[3];
        EXPECT_NE(protocols[4].find("gsm_a.dtap"), std::string::npos) << protocols[4];
        EXPECT_EQ(malformedBeyondCipheredNas(dir.file("out.pcapng")), Args());
    } else {
        printf("[  SKIPPED ] tshark is absent (scripts/setup.sh installs it): not read back\n");
    }

    EXPECT_EQ(0, testkit::runToEnd({kDecode, "--text", "real_log.bin"}, dir.path(), &out, &err));
    EXPECT_NE(out.find("1980-01-17 13:46:40.000 DL LTE RRC DL-DCCH 3 bytes: 36 02 20\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find(" MSG rssi -2 dBm, state 42, tail %d% (ll1_srch.c:321)\n"),
              std::string::npos)
        << out;

    // Bad usage is named before anything is read.
    const struct {
        Args args;
        const char* says;
    } kBad[] = {
        {{"-o", "x.pcapng"}, "no CAPTURE file given"},
        {{"real_log.bin"}, "no output"},
        {{"--udp", "localhost:99999", "real_log.bin"}, "bad port in --udp localhost:99999"},
        {{"--follow", "real_log.bin", "--text"}, "not a directory"},
        {{"--follow", ".", "-o", "x.pcapng"}, "not to a file"},
        {{"--from-start", "--text", "real_log.bin"}, "--from-start goes with --follow"},
        {{"--text", "--speed", "real_log.bin"}, "unknown option --speed"},
    };
    for (const auto& bad : kBad) {
        Args argv = {kDecode};
        argv.insert(argv.end(), bad.args.begin(), bad.args.end());
        EXPECT_EQ(2, testkit::runToEnd(argv, dir.path(), &out, &err));
        EXPECT_NE(err.find(bad.says), std::string::npos) << err;
    }
}

namespace {

// The records a real capture must give, tallied from its bytes alone: CRC-valid frames, log
// packets by code, the version and PDU number of 0xB0C0 and the channel byte of 0x512F, as
// "GSMTAP type/sub-type/uplink".
std::map<std::string, int> tallyFromBytes(const std::string& stream) {
    std::map<std::string, int> tally;
    auto add = [&](int type, int sub, bool uplink) {
        ++tally[std::to_string(type) + "/" + std::to_string(sub) + "/" + (uplink ? "U" : "D")];
    };
    size_t from = 0;
    for (size_t flag; (flag = stream.find('\x7E', from)) != std::string::npos; from = flag + 1) {
        std::string p;
        for (size_t i = from; i < flag; ++i) {
            p += stream[i] == '\x7D' ? static_cast<char>(stream[++i] ^ 0x20) : stream[i];
        }
        if (p.size() < 3 ||
            vtools::fcs16(p.substr(0, p.size() - 2)) != vtools::readLe16(p, p.size() - 2)) {
            continue;
        }
        if (p[0] == '\x98') {
            p.erase(0, 8);
        }
        if (p.size() < 17 || p[0] != 0x10) {
            continue;
        }
        const unsigned code = vtools::readLe16(p, 6);
        const auto at = [&](size_t i) { return static_cast<unsigned char>(p[16 + i]); };
        if (code == 0xB0C0) {
            // The data holds versions 8 and 9 only: PDU numbers 1-8, 8-15 in this order.
            static const int kSub[] = {4, 5, 7, 6, 0, 1, 2, 3};
            const unsigned version = at(0);
            EXPECT_TRUE(version == 8 || version == 9) << version;
            const int channel = at(12) - (version == 9 ? 8 : 1);
            add(13, kSub[channel], channel >= 6);
        } else if ((code >= 0xB0E0 && code <= 0xB0E3) || (code >= 0xB0EA && code <= 0xB0ED)) {
            const bool plain = code == 0xB0E2 || code == 0xB0E3 || code == 0xB0EC || code == 0xB0ED;
            add(18, plain ? 0 : 1, (code & 1) != 0);  // odd codes uplink
        } else if (code == 0x512F) {
            static const int kGsmSub[] = {8, 1, 3, 2, 0x88};
            add(1, kGsmSub[at(0) & 0x7F], (at(0) & 0x80) == 0);
        } else if (code == 0x713A) {
            add(2, 0, at(0) == 1);
        } else if (code == 0x5230) {
            add(2, 0, at(0) == 0);
        }
    }
    return tally;
}

// The same view of what a pcapng file holds, from its GSMTAP headers.
std::map<std::string, int> tallyOfPcapng(const std::string& path) {
    std::map<std::string, int> tally;
    for (const auto& packet : readPcapng(path)) {
        const std::string& gsmtap = packet.second.substr(28);
        const bool uplink = (static_cast<unsigned char>(gsmtap[4]) & 0x40) != 0;
        ++tally[std::to_string(gsmtap[2]) + "/" +
                std::to_string(static_cast<unsigned char>(gsmtap[12])) + "/" +
                (uplink ? "U" : "D")];
    }
    return tally;
}

}  // namespace

TEST(DecodeTool, RealCapturesGiveOneRecordPerSignallingPacket) {
    for (const std::string& path : {kExample, kData + "/real-diag-lte.bin"}) {
        SCOPED_TRACE(path);
        if (!testkit::fileExists(path)) {
            GTEST_SKIP() << path << " is absent: the real captures are not converted";
        }
        testkit::TempDir dir;
        const std::string out = dir.file("out.pcapng");
        std::string text;
        std::string err;
        ASSERT_EQ(0, testkit::runToEnd({kDecode, "-o", out, path}, "/", &text, &err)) << err;
        const std::map<std::string, int> expected = tallyFromBytes(testkit::readFile(path));
        EXPECT_EQ(tallyOfPcapng(out), expected);
        int records = 0;
        for (const auto& entry : expected) {
            records += entry.second;
        }
        EXPECT_NE(err.find(std::to_string(records) + " records written"), std::string::npos) << err;
        if (!haveTshark()) {
            GTEST_SKIP() << "tshark is absent (scripts/setup.sh installs it): not read back";
        }
        EXPECT_EQ(tsharkLines(out, {"-T", "fields", "-e", "gsmtap.version"}).size(),
                  static_cast<size_t>(records));
        EXPECT_EQ(malformedBeyondCipheredNas(out), Args());
    }
}

namespace {

// A UDP socket on loopback that keeps every datagram it gets, in order.
class Listener {
public:
    Listener() {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        int size = 16 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        socklen_t length = sizeof(address);
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        timeval wake{0, 50000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wake, sizeof(wake));
        reader = std::thread([this] {
            std::vector<char> buffer(65536);
            while (!done) {
                const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
                if (n > 0) {
                    std::lock_guard<std::mutex> lock(mutex);
                    got.emplace_back(buffer.data(), static_cast<size_t>(n));
                }
            }
        });
    }
    ~Listener() {
        done = true;
        reader.join();
        close(fd);
    }
    std::vector<std::string> datagrams() {
        std::lock_guard<std::mutex> lock(mutex);
        return got;
    }
    unsigned port = 0;

private:
    int fd = -1;
    std::atomic<bool> done{false};
    std::mutex mutex;
    std::vector<std::string> got;
    std::thread reader;
};

// The GSMTAP datagrams of a stored capture, by the same conversion as for files.
class Collect : public vdecode::Output {
public:
    Result write(const Record& record) override {
        datagrams.push_back(record.gsmtap());
        return Result::kWritten;
    }
    std::vector<std::string> datagrams;
};

}  // namespace

TEST(DecodeTool, FollowSendsEveryRecordOnceAcrossRotations) {
    const std::string& real = kExample;
    testkit::isolateNetwork();  // vrec's stop port
    testkit::TempDir dir;
    // 2.2 MB of a real stream: two rotations at 1 MiB items.
    std::string replay;
    for (int i = 0; i < 7; ++i) {
        replay += testkit::readFile(real);
    }
    testkit::writeFile(dir.file("replay.bin"), replay);
    const std::string start("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
    const std::string stop("\x73\0\0\0\0\0\0\0", 8);
    for (const auto& file :
         {std::make_pair("startcmd.txt", start), std::make_pair("stopcmd.txt", stop)}) {
        testkit::writeFile(dir.file(file.first),
                           testkit::commandFileText(vtools::frame(file.second)));
    }

    Listener listener;
    // Started before the capture: it reads the capture from its beginning when it appears.
    testkit::BackgroundRun follow(
        {kDecode, "--follow", dir.path(), "--udp", "127.0.0.1:" + std::to_string(listener.port)},
        dir.path());
    testkit::ModemSim sim(dir.path(),
                          {"--diag", "diag", "--replay", "replay.bin", "--rate", "8000"});
    ASSERT_TRUE(sim.ready);
    testkit::BackgroundRun vrec({testkit::builtProgram("vrecCmd/vrec"), "-d", "./diag", "-c", "1"},
                                dir.path());
    ASSERT_TRUE(vrec.waitForOutput("vrec now is running in the background.", 20000));
    std::vector<std::string> files;
    auto stored = [&] {
        files.clear();
        size_t bytes = 0;
        for (const std::string& name : testkit::listDir(dir.path())) {
            if (name.compare(0, 8, "real_log") == 0) {
                files.push_back(dir.file(name));
                bytes += testkit::readFile(files.back()).size();
            }
        }
        return bytes;
    };
    // The module's answer to the start request (its status, then the mask echoed), then the
    // whole stream.
    const size_t sent =
        vtools::frame(start.substr(0, 8) + zeros(4) + start.substr(8)).size() + replay.size();
    EXPECT_TRUE(testkit::waitFor([&] { return stored() >= sent; }, 30000)) << stored();
    usleep(100 * 1000);
    EXPECT_EQ(stored(), sent);
    EXPECT_EQ(files.size(), 3u);  // two items and the file in progress

    // What the stored capture gives, read as files once the stream is over.
    Collect expected;
    vdecode::Converter converter(expected);
    for (const std::string& path : vtools::captureOrder(files)) {
        const std::string bytes = testkit::readFile(path);
        converter.feed(bytes.data(), bytes.size());
    }
    ASSERT_EQ(expected.datagrams.size(), 7 * 4852u);  // every record of every copy

    EXPECT_TRUE(testkit::waitFor(
        [&] { return listener.datagrams().size() >= expected.datagrams.size(); }, 20000));
    usleep(200 * 1000);  // nothing more may come
    const std::vector<std::string> got = listener.datagrams();
    ASSERT_EQ(got.size(), expected.datagrams.size());
    for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(hex(got[i]), hex(expected.datagrams[i])) << "datagram " << i;
    }

    // Started later with --from-start, it reads the items before the file in progress.
    Listener late;
    testkit::BackgroundRun again({kDecode, "--follow", dir.path(), "--from-start", "--udp",
                                  "127.0.0.1:" + std::to_string(late.port)},
                                 dir.path());
    EXPECT_TRUE(testkit::waitFor(
        [&] { return late.datagrams().size() >= expected.datagrams.size(); }, 20000));
    usleep(200 * 1000);
    EXPECT_TRUE(late.datagrams() == expected.datagrams) << late.datagrams().size();

    std::string out;
    testkit::runToEnd({testkit::builtProgram("vrecCmd/vrec"), "-s"}, dir.path(), &out);
    EXPECT_EQ(1, vrec.childStatus(15000));
}
