#include "signalling.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace vdecode {

namespace {

using Direction = Record::Direction;

unsigned u8(const char* p, size_t at) {
    return static_cast<unsigned char>(p[at]);
}
unsigned le16(const char* p, size_t at) {
    return u8(p, at) | (u8(p, at + 1) << 8);
}
uint32_t le32(const char* p, size_t at) {
    return le16(p, at) | (static_cast<uint32_t>(le16(p, at + 2)) << 16);
}
uint64_t le64(const char* p, size_t at) {
    return le32(p, at) | (static_cast<uint64_t>(le32(p, at + 4)) << 32);
}
void putBe16(std::string& out, unsigned value) {
    out += static_cast<char>((value >> 8) & 0xFF);
    out += static_cast<char>(value & 0xFF);
}
void putBe32(std::string& out, uint32_t value) {
    putBe16(out, value >> 16);
    putBe16(out, value & 0xFFFF);
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
    char text[160];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

// A 32-bit version field of a damaged packet may hold anything: the reasons stay few.
std::string versionReason(const char* what, uint32_t version) {
    return version < 256 ? format("unknown version (%s version %u)", what, version)
                         : format("unknown version (%s version above 255)", what);
}

// ---- LTE RRC ----------------------------------------------------------------------------

struct LteChannel {
    const char* name;
    uint8_t subType;
    bool uplink;
};
enum LteIndex {
    BCH,
    DLSCH,
    MCCH,
    PCCH,
    DLCCCH,
    DLDCCH,
    ULCCCH,
    ULDCCH,
    BCH_NB,
    DLSCH_NB,
    PCCH_NB,
    DLCCCH_NB,
    DLDCCH_NB,
    ULCCCH_NB,
    ULDCCH_NB
};
const LteChannel kLteChannels[] = {
    {"BCCH-BCH", 4, false},     {"BCCH-DL-SCH", 5, false},
    {"MCCH", 7, false},         {"PCCH", 6, false},
    {"DL-CCCH", 0, false},      {"DL-DCCH", 1, false},
    {"UL-CCCH", 2, true},       {"UL-DCCH", 3, true},
    {"BCCH-BCH-NB", 18, false}, {"BCCH-DL-SCH-NB", 20, false},
    {"PCCH-NB", 21, false},     {"DL-CCCH-NB", 14, false},
    {"DL-DCCH-NB", 15, false},  {"UL-CCCH-NB", 16, true},
    {"UL-DCCH-NB", 17, true},
};

struct PduNumber {
    unsigned number;
    int index;
};
const PduNumber kLteFirst[] = {{1, BCH},    {2, DLSCH},  {3, MCCH},   {4, PCCH},
                               {5, DLCCCH}, {6, DLDCCH}, {7, ULCCCH}, {8, ULDCCH}};
const PduNumber kLteShifted[] = {{8, BCH},     {9, DLSCH},   {10, MCCH},   {11, PCCH},
                                 {12, DLCCCH}, {13, DLDCCH}, {14, ULCCCH}, {15, ULDCCH}};
const PduNumber kLteGapped[] = {{1, BCH},        {2, DLSCH},      {4, MCCH},      {5, PCCH},
                                {6, DLCCCH},     {7, DLDCCH},     {8, ULCCCH},    {9, ULDCCH},
                                {54, BCH_NB},    {55, DLSCH_NB},  {56, PCCH_NB},  {57, DLCCCH_NB},
                                {58, DLDCCH_NB}, {59, ULCCCH_NB}, {61, ULDCCH_NB}};
const PduNumber kLteLate[] = {{1, BCH},        {3, DLSCH},      {6, MCCH},      {7, PCCH},
                              {8, DLCCCH},     {9, DLDCCH},     {10, ULCCCH},   {11, ULDCCH},
                              {45, BCH_NB},    {46, DLSCH_NB},  {47, PCCH_NB},  {48, DLCCCH_NB},
                              {49, DLDCCH_NB}, {50, ULCCCH_NB}, {52, ULDCCH_NB}};

template <size_t N>
int lookup(const PduNumber (&table)[N], unsigned number, size_t count = N) {
    for (size_t i = 0; i < count; ++i) {
        if (table[i].number == number) {
            return table[i].index;
        }
    }
    return -1;
}

constexpr int kUnknownVersion = -2;

// Channel of a PDU number in a version's numbering; -1 for an unknown number.
int lteChannel(unsigned version, unsigned number) {
    switch (version) {
        case 2:
        case 3:
        case 4:
        case 6:
        case 7:
        case 8:
        case 13:
        case 22:
            return lookup(kLteFirst, number);
        case 9:
        case 12:
            return lookup(kLteShifted, number);
        case 14:
        case 15:
        case 16:
            return lookup(kLteGapped, number, 8);  // without NB-IoT
        case 20:
        case 24:
        case 25:
            return lookup(kLteGapped, number);
        case 19:
        case 26:
        case 27:
        case 29:
        case 30:
        case 31:
            return lookup(kLteLate, number);
        default:
            return kUnknownVersion;
    }
}

// Where a version's header keeps its fields.
struct LteLayout {
    size_t header, earfcn, earfcnSize, sfn, pdu, length, segment;
};
bool lteLayout(unsigned version, LteLayout* layout) {
    if (version >= 2 && version <= 4) {
        *layout = {13, 6, 2, 8, 10, 11, 0};
    } else if (version >= 5 && version <= 7) {
        *layout = {17, 6, 2, 8, 10, 15, 0};
    } else if (version >= 8 && version <= 24) {
        *layout = {19, 6, 4, 10, 12, 17, 0};
    } else if (version >= 25 && version <= 29) {
        *layout = {21, 8, 4, 12, 14, 19, 0};
    } else if (version == 30 || version == 31) {
        *layout = {24, 8, 4, 12, 14, 19, 23};
    } else {
        return false;
    }
    return true;
}

// ---- NR RRC -----------------------------------------------------------------------------

struct NrContent {
    const char* name;
    const char* dissector;  // nullptr: Wireshark has none
    Direction direction;
};
enum NrIndex {
    NBCH,
    NDLSCH,
    NDLCCCH,
    NDLDCCH,
    NPCCH,
    NULCCCH,
    NULCCCH1,
    NULDCCH,
    NRECONF,
    NCOMPLETE,
    NRBC,
    NMRDC,
    NNRCAP,
    NMCCH
};
const NrContent kNrContents[] = {
    {"BCCH-BCH", "nr-rrc.bcch.bch", Direction::kDownlink},
    {"BCCH-DL-SCH", "nr-rrc.bcch.dl.sch", Direction::kDownlink},
    {"DL-CCCH", "nr-rrc.dl.ccch", Direction::kDownlink},
    {"DL-DCCH", "nr-rrc.dl.dcch", Direction::kDownlink},
    {"PCCH", "nr-rrc.pcch", Direction::kDownlink},
    {"UL-CCCH", "nr-rrc.ul.ccch", Direction::kUplink},
    {"UL-CCCH1", "nr-rrc.ul.ccch1", Direction::kUplink},
    {"UL-DCCH", "nr-rrc.ul.dcch", Direction::kUplink},
    {"RRCReconfiguration", "nr-rrc.rrc_reconf_msg", Direction::kDownlink},
    // Sent as an UL-DCCH message around it: see nrRrc().
    {"RRCReconfigurationComplete", "nr-rrc.ul.dcch", Direction::kUplink},
    {"RadioBearerConfig", "nr-rrc.radiobearerconfig", Direction::kNone},
    {"UE-MRDC-Capability", "nr-rrc.ue_mrdc_cap", Direction::kNone},
    {"UE-NR-Capability", "nr-rrc.ue_nr_cap", Direction::kNone},
    {"MCCH", nullptr, Direction::kDownlink},
};

int nrContent(unsigned version, unsigned number) {
    static const PduNumber kFirstTen[] = {{1, NBCH},    {2, NDLSCH},    {3, NDLCCCH},  {4, NDLDCCH},
                                          {5, NPCCH},   {6, NULCCCH},   {7, NULCCCH1}, {8, NULDCCH},
                                          {9, NRECONF}, {10, NCOMPLETE}};
    static const PduNumber kLate[] = {{1, NBCH},    {2, NDLSCH},   {3, NDLCCCH},    {4, NDLDCCH},
                                      {5, NMCCH},   {6, NPCCH},    {7, NULCCCH},    {8, NULCCCH1},
                                      {9, NULDCCH}, {10, NRECONF}, {11, NCOMPLETE}, {36, NRBC}};
    const bool early = number >= 1 && number <= 10;
    switch (version) {
        case 7:
        case 8:
            // Only these numbers are known for the two oldest versions.
            if (number == 1 || (number >= 8 && number <= 10)) {
                return lookup(kFirstTen, number);
            }
            return number == (version == 8 ? 26u : 24u) ? NRBC : -1;
        case 9:
        case 12:
            if (early) {
                return lookup(kFirstTen, number);
            }
            return number == 25 ? NRBC : number == 28 ? NMRDC : number == 29 ? NNRCAP : -1;
        case 14:
            if (early) {
                return lookup(kFirstTen, number);
            }
            return number == 28                     ? NRBC
                   : number == 31                   ? NMRDC
                   : (number == 32 || number == 33) ? NNRCAP
                                                    : -1;
        case 17:
        case 19:
        case 25:
            return early ? lookup(kFirstTen, number) : number == 29 ? NRBC : -1;
        case 20:
        case 23:
        case 24:
            return lookup(kLate, number);
        case 26:
        case 28:
            if (number == 11) {
                return NRECONF;
            }
            if (number == 12) {
                return NCOMPLETE;
            }
            if (number == 10) {
                return version == 28 ? NULDCCH : -1;
            }
            return lookup(kLate, number);
        default:
            return -1;
    }
}

struct NrLayout {
    size_t header, pdu, length, segment;
};
bool nrLayout(unsigned version, NrLayout* layout) {
    switch (version) {
        case 7:
        case 8:
        case 9:
            *layout = {24, 17, 22, 0};
            return true;
        case 12:
        case 14:
            *layout = {23, 16, 21, 0};
            return true;
        case 17:
            *layout = {31, 24, 29, 0};
            return true;
        case 19:
        case 20:
        case 25:
            *layout = {32, 24, 29, 0};
            return true;
        case 23:
        case 24:
        case 26:
        case 28:
            *layout = {35, 24, 29, 34};
            return true;
        default:
            return false;
    }
}

// A bare RRCReconfigurationComplete as the UL-DCCH message that carries it: the 5 bits
// 00001 (c1, its choice) in front, the message shifted behind them.
std::string asUlDcch(const std::string& message) {
    std::string out(message.size() + 1, '\0');
    unsigned carry = 0x01;  // the 5 bits, to land in the top of the first byte
    for (size_t i = 0; i < message.size(); ++i) {
        const auto byte = static_cast<unsigned char>(message[i]);
        out[i] = static_cast<char>(((carry << 3) | (byte >> 5)) & 0xFF);
        carry = byte & 0x1F;
    }
    out[message.size()] = static_cast<char>((carry << 3) & 0xFF);
    return out;
}

// ---- WCDMA RRC and GSM ------------------------------------------------------------------

struct UmtsChannel {
    const char* name;
    uint8_t subType;
    bool uplink;
};
// By the low 7 bits of the channel type; empty names are not channels.
const UmtsChannel kUmtsChannels[] = {
    {"UL-CCCH", 3, true},  {"UL-DCCH", 1, true},         {"DL-CCCH", 2, false},
    {"DL-DCCH", 0, false}, {"BCCH-BCH", 8, false},       {"BCCH-FACH", 7, false},
    {"PCCH", 4, false},    {"MCCH", 9, false},           {"MSCH", 10, false},
    {nullptr, 0, false},   {"SIB container", 14, false},
};

bool isUmtsSibCut(unsigned type) {
    return type == 0x09 || type == 0x89 || type == 0xF0 || type == 0xFE || type == 0xFF;
}

}  // namespace

uint64_t diagTimeToUnixMicros(uint64_t stamp) {
    return 315964800ULL * 1000000ULL + (stamp >> 16) * 1250ULL;
}

uint64_t Tally::records() const {
    uint64_t sum = 0;
    for (const auto& entry : written) {
        sum += entry.second;
    }
    return sum;
}

uint64_t Tally::skips() const {
    uint64_t sum = 0;
    for (const auto& entry : skipped) {
        sum += entry.second;
    }
    return sum;
}

std::map<std::string, uint64_t> Tally::writtenByName() const {
    std::map<std::string, uint64_t> byName;
    for (const auto& entry : written) {
        byName[std::string(entry.first.first) + " " + entry.first.second] += entry.second;
    }
    return byName;
}

std::string Record::gsmtap() const {
    std::string out;
    out.reserve(16 + pdu.size());
    out += '\x02';
    out += '\x04';
    out += static_cast<char>(type);
    out += '\0';
    putBe16(out, (arfcn & 0x3FFF) | (direction == Direction::kUplink ? kGsmtapUplink : 0));
    out += '\0';
    out += '\0';
    putBe32(out, frameNumber);
    out += static_cast<char>(subType);
    out.append(3, '\0');
    return out + pdu;
}

std::string Record::exportedPdu() const {
    std::string out;
    const size_t nameLength = strlen(dissector);
    const size_t padded = (nameLength + 4) & ~static_cast<size_t>(3);  // at least one NUL
    putBe16(out, 12);
    putBe16(out, static_cast<unsigned>(padded));
    out += dissector;
    out.append(padded - nameLength, '\0');
    if (direction != Direction::kNone) {
        putBe16(out, 35);
        putBe16(out, 4);
        putBe32(out, direction == Direction::kUplink ? 0 : 1);
    }
    putBe32(out, 0);
    return out + pdu;
}

void SignallingDecoder::decode(const std::string& packet, std::vector<Record>& out) {
    if (packet.empty()) {
        ++tally.otherPackets;
        return;
    }
    const unsigned command = u8(packet.data(), 0);
    if (command == 0x98) {
        if (packet.size() < 9 || packet.compare(1, 3, "\x01\x00\x00", 3) != 0) {
            tally.skip("multi-SIM wrapper of an unknown form (0x98)");
            return;
        }
        const uint32_t id = le32(packet.data(), 4);
        const unsigned sim = id >= 1 && id <= 254 ? id : 1;  // 0 and all ones: the first
        if (u8(packet.data(), 8) == 0x10) {
            decodeLog(packet.data() + 8, packet.size() - 8, sim, out);
        } else {
            ++tally.otherPackets;
        }
        return;
    }
    if (command == 0x10) {
        decodeLog(packet.data(), packet.size(), 1, out);
        return;
    }
    ++tally.otherPackets;
}

void SignallingDecoder::decodeLog(const char* packet, size_t size, unsigned sim,
                                  std::vector<Record>& out) {
    if (size < 16) {
        tally.skip("log packet shorter than its header");
        return;
    }
    if (le16(packet, 2) != size - 4 || le16(packet, 4) != size - 4) {
        tally.skip("log packet whose length fields disagree with its size");
        return;
    }
    Record record;
    record.logCode = le16(packet, 6);
    record.sim = sim;
    record.unixMicros = diagTimeToUnixMicros(le64(packet, 8));
    const char* payload = packet + 16;
    const size_t payloadSize = size - 16;
    bool made = false;
    const unsigned code = record.logCode;
    if (code == 0xB0C0) {
        made = lteRrc(payload, payloadSize, record);
    } else if (code == 0xB0E0 || code == 0xB0E1 || code == 0xB0E2 || code == 0xB0E3 ||
               code == 0xB0EA || code == 0xB0EB || code == 0xB0EC || code == 0xB0ED) {
        made = lteNas(payload, payloadSize, record);
    } else if (code == 0xB821) {
        made = nrRrc(payload, payloadSize, record);
    } else if (code == 0xB800 || code == 0xB801 || code == 0xB808 || code == 0xB809 ||
               code == 0xB80A || code == 0xB80B || code == 0xB814) {
        made = nrNas(payload, payloadSize, record);
    } else if (code == 0x412F) {
        made = wcdmaRrc(payload, payloadSize, record);
    } else if (code == 0x512F || code == 0x5B2F) {
        const size_t skip = code == 0x5B2F ? 1 : 0;  // the SIM id
        made = payloadSize >= skip && gsmRr(payload + skip, payloadSize - skip, record);
    } else if (code == 0x713A || code == 0x7B3A) {
        const size_t skip = code == 0x7B3A ? 1 : 0;
        made = payloadSize >= skip && umtsNas(payload + skip, payloadSize - skip, record);
    } else if (code == 0x5230) {
        made = gprs(payload, payloadSize, record);
    } else {
        ++tally.otherPackets;
        return;
    }
    if (made) {
        out.push_back(std::move(record));
    }
}

bool SignallingDecoder::joinSegments(unsigned segment, Record& record) {
    const unsigned code = record.logCode;
    std::string& kept = segments[code];
    if (segment == 0) {
        return true;
    }
    if (segment > 7) {
        tally.skip(format("segment number %u out of range (0x%04X)", segment, code));
        return false;
    }
    if (segment == 1) {
        if (!kept.empty()) {
            tally.skip(format("segmented message without its last part (0x%04X)", code));
        }
        kept = record.pdu;
        lastSegment[code] = 1;
        return false;
    }
    if (kept.empty() || segment <= lastSegment[code]) {
        tally.skip(format("segment without the parts before it (0x%04X)", code));
        kept.clear();
        return false;
    }
    kept += record.pdu;
    lastSegment[code] = segment;
    if (segment < 7) {
        return false;
    }
    record.pdu.swap(kept);
    kept.clear();
    return true;
}

bool SignallingDecoder::lteRrc(const char* p, size_t size, Record& record) {
    record.technology = "LTE RRC";
    const unsigned version = size > 0 ? u8(p, 0) : 0;
    LteLayout layout{};
    if (!lteLayout(version, &layout) || lteChannel(version, 0) == kUnknownVersion) {
        tally.skip(format("unknown version (0xB0C0 LTE RRC version %u)", version));
        return false;
    }
    if (size < layout.header) {
        tally.skip("shorter than its header (0xB0C0)");
        return false;
    }
    const unsigned number = u8(p, layout.pdu);
    const int index = lteChannel(version, number);
    if (index < 0) {
        tally.skip(format("unknown PDU number (0xB0C0 LTE RRC version %u, PDU number %u)", version,
                          number));
        return false;
    }
    const size_t length = le16(p, layout.length);
    if (size - layout.header < length) {
        tally.skip("message shorter than its length field (0xB0C0)");
        return false;
    }
    const LteChannel& channel = kLteChannels[index];
    record.channel = channel.name;
    record.type = kGsmtapLteRrc;
    record.subType = channel.subType;
    record.direction = channel.uplink ? Direction::kUplink : Direction::kDownlink;
    const uint32_t earfcn =
        layout.earfcnSize == 2 ? le16(p, layout.earfcn) : le32(p, layout.earfcn);
    record.arfcn = earfcn <= 0x3FFF ? static_cast<uint16_t>(earfcn) : 0;
    record.frameNumber = (le16(p, layout.sfn) >> 4) & 0x3FF;
    record.pdu.assign(p + layout.header, length);
    return layout.segment == 0 || joinSegments(u8(p, layout.segment), record);
}

bool SignallingDecoder::lteNas(const char* p, size_t size, Record& record) {
    record.technology = "LTE NAS";
    const unsigned code = record.logCode;
    if (size < 1 || u8(p, 0) != 1) {
        tally.skip(
            format("unknown version (0x%04X LTE NAS version %u)", code, size ? u8(p, 0) : 0));
        return false;
    }
    if (size <= 4) {
        tally.skip(format("no message behind the header (0x%04X)", code));
        return false;
    }
    const bool esm = code <= 0xB0E3;
    const bool plain = (code & 0x0F) == 0x02 || (code & 0x0F) == 0x03 || (code & 0x0F) == 0x0C ||
                       (code & 0x0F) == 0x0D;
    record.channel =
        esm ? (plain ? "ESM plain" : "ESM protected") : (plain ? "EMM plain" : "EMM protected");
    record.type = kGsmtapLteNas;
    record.subType = plain ? 0 : 1;
    record.direction = (code & 1) != 0 ? Direction::kUplink : Direction::kDownlink;
    record.pdu.assign(p + 4, size - 4);
    return true;
}

bool SignallingDecoder::nrRrc(const char* p, size_t size, Record& record) {
    record.technology = "NR RRC";
    record.carrier = Record::Carrier::kExportedPdu;
    const uint32_t version = size >= 4 ? le32(p, 0) : 0;
    NrLayout layout{};
    if (!nrLayout(version, &layout)) {
        tally.skip(versionReason("0xB821 NR RRC", version));
        return false;
    }
    if (size < layout.header) {
        tally.skip("shorter than its header (0xB821)");
        return false;
    }
    const unsigned number = u8(p, layout.pdu);
    const int index = nrContent(version, number);
    if (index < 0) {
        tally.skip(format("unknown PDU number (0xB821 NR RRC version %u, PDU number %u)", version,
                          number));
        return false;
    }
    const NrContent& content = kNrContents[index];
    if (content.dissector == nullptr) {
        tally.skip(format("no Wireshark dissector for NR %s (0xB821)", content.name));
        return false;
    }
    const size_t length = le16(p, layout.length);
    if (size - layout.header < length) {
        tally.skip("message shorter than its length field (0xB821)");
        return false;
    }
    record.channel = content.name;
    record.dissector = content.dissector;
    record.direction = content.direction;
    record.pdu.assign(p + layout.header, length);
    if (layout.segment != 0 && !joinSegments(u8(p, layout.segment), record)) {
        return false;
    }
    if (index == NCOMPLETE) {
        record.pdu = asUlDcch(record.pdu);
    }
    return true;
}

bool SignallingDecoder::nrNas(const char* p, size_t size, Record& record) {
    record.technology = "5GS NAS";
    record.carrier = Record::Carrier::kExportedPdu;
    record.dissector = "nas-5gs";
    const unsigned code = record.logCode;
    const uint32_t version = size >= 4 ? le32(p, 0) : 0;
    if (version != 1) {
        tally.skip(versionReason(format("0x%04X 5GS NAS", code).c_str(), version));
        return false;
    }
    if (size <= 7) {
        tally.skip(format("no message behind the header (0x%04X)", code));
        return false;
    }
    switch (code) {
        case 0xB800:
        case 0xB801:
            record.channel = "5GSM plain";
            break;
        case 0xB808:
        case 0xB809:
            record.channel = "protected";
            break;
        case 0xB80A:
        case 0xB80B:
            record.channel = "5GMM plain";
            break;
        default:
            record.channel = "5GMM container";
            break;
    }
    if (code != 0xB814) {
        record.direction = (code & 1) != 0 ? Direction::kUplink : Direction::kDownlink;
    }
    record.pdu.assign(p + 7, size - 7);
    return true;
}

bool SignallingDecoder::wcdmaRrc(const char* p, size_t size, Record& record) {
    record.technology = "WCDMA RRC";
    if (size < 4) {
        tally.skip("shorter than its header (0x412F)");
        return false;
    }
    const unsigned type = u8(p, 0);
    const bool withCell = type >= 0x80 && type <= 0x89;
    const size_t start = withCell ? 8 : 4;
    const size_t length = le16(p, 2);
    if (size < start || size - start < length) {
        tally.skip("message shorter than its length field (0x412F)");
        return false;
    }
    record.type = kGsmtapUmtsRrc;
    if (withCell) {
        const unsigned uarfcn = le16(p, 4);
        record.arfcn = uarfcn <= 0x3FFF ? static_cast<uint16_t>(uarfcn) : 0;
    }
    if (isUmtsSibCut(type)) {
        // One system information block cut out of the BCCH, behind its type.
        if (length < 1 || u8(p, start) != 0) {
            tally.skip(
                format("WCDMA system information block of an unknown type (0x412F, "
                       "type %u)",
                       length < 1 ? 256 : u8(p, start)));
            return false;
        }
        record.channel = "MIB";
        record.subType = 16;
        record.direction = Direction::kDownlink;
        record.pdu.assign(p + start + 1, length - 1);
        return true;
    }
    const unsigned channel = type & 0x7F;
    if (channel >= sizeof(kUmtsChannels) / sizeof(kUmtsChannels[0]) ||
        kUmtsChannels[channel].name == nullptr) {
        tally.skip(format("unknown channel (0x412F WCDMA RRC channel type 0x%02X)", type));
        return false;
    }
    const UmtsChannel& known = kUmtsChannels[channel];
    record.channel = known.name;
    record.subType = known.subType;
    record.direction = known.uplink ? Direction::kUplink : Direction::kDownlink;
    record.pdu.assign(p + start, length);
    return true;
}

bool SignallingDecoder::gsmRr(const char* p, size_t size, Record& record) {
    record.technology = "GSM RR";
    if (size < 3) {
        tally.skip(format("shorter than its header (0x%04X)", record.logCode));
        return false;
    }
    const unsigned channel = u8(p, 0);
    const size_t length = u8(p, 2);
    if (size - 3 < length) {
        tally.skip(format("message shorter than its length field (0x%04X)", record.logCode));
        return false;
    }
    record.type = kGsmtapUm;
    record.direction = (channel & 0x80) != 0 ? Direction::kDownlink : Direction::kUplink;
    std::string lapdm;  // LAPDm address, UI control and length in front of a DCCH message
    if (length <= 63) {
        lapdm = std::string("\x01\x03", 2) + static_cast<char>((length << 2) | 1);
    }
    switch (channel & 0x7F) {
        case 0:
            record.channel = "DCCH";
            record.subType = 8;  // SDCCH/8
            break;
        case 1:
            record.channel = "BCCH";
            record.subType = 1;
            break;
        case 2:
            record.channel = "RACH";
            record.subType = 3;
            break;
        case 3:
            record.channel = "CCCH";
            record.subType = 2;
            break;
        case 4:
            record.channel = "SACCH";
            record.subType = 0x88;
            lapdm.insert(0, 2, '\0');  // the SACCH L1 header
            break;
        default:
            tally.skip(
                format("unknown channel (0x%04X GSM RR channel 0x%02X)", record.logCode, channel));
            return false;
    }
    const bool dedicated = record.subType >= 8;
    if (dedicated && length > 63) {
        tally.skip(format("message too long for one LAPDm frame (0x%04X)", record.logCode));
        return false;
    }
    record.pdu = (dedicated ? lapdm : std::string()) + std::string(p + 3, length);
    return true;
}

bool SignallingDecoder::umtsNas(const char* p, size_t size, Record& record) {
    record.technology = "UMTS NAS";
    record.channel = "DTAP";
    if (size < 5) {
        tally.skip(format("shorter than its header (0x%04X)", record.logCode));
        return false;
    }
    const unsigned direction = u8(p, 0);
    const uint32_t length = le32(p, 1);
    if (direction > 1) {
        tally.skip(format("unknown direction (0x%04X direction %u)", record.logCode, direction));
        return false;
    }
    if (size - 5 < length) {
        tally.skip(format("message shorter than its length field (0x%04X)", record.logCode));
        return false;
    }
    record.type = kGsmtapAbis;
    record.direction = direction == 1 ? Direction::kUplink : Direction::kDownlink;
    record.pdu.assign(p + 5, length);
    return true;
}

bool SignallingDecoder::gprs(const char* p, size_t size, Record& record) {
    record.technology = "GPRS";
    record.channel = "GMM/SM";
    if (size < 4) {
        tally.skip("shorter than its header (0x5230)");
        return false;
    }
    const unsigned direction = u8(p, 0);
    const size_t length = le16(p, 2);
    if (direction > 1) {
        tally.skip(format("unknown direction (0x5230 direction %u)", direction));
        return false;
    }
    if (size - 4 < length) {
        tally.skip("message shorter than its length field (0x5230)");
        return false;
    }
    record.type = kGsmtapAbis;
    record.direction = direction == 0 ? Direction::kUplink : Direction::kDownlink;
    record.pdu.assign(p + 4, length);  // a stale buffer may follow the message
    return true;
}

bool extendedMessageText(const std::string& packet, std::string* text, uint64_t* unixMicros) {
    if (packet.size() < 20 || static_cast<unsigned char>(packet[0]) != 0x79) {
        return false;
    }
    const char* p = packet.data();
    const unsigned count = u8(p, 2);
    const size_t formatAt = 20 + 4 * static_cast<size_t>(count);
    if (packet.size() <= formatAt) {
        return false;
    }
    const size_t formatEnd = packet.find('\0', formatAt);
    if (formatEnd == std::string::npos) {
        return false;
    }
    const size_t fileEnd = packet.find('\0', formatEnd + 1);
    const std::string file = packet.substr(
        formatEnd + 1, fileEnd == std::string::npos ? std::string::npos : fileEnd - formatEnd - 1);
    *unixMicros = diagTimeToUnixMicros(le64(p, 4));

    // Each conversion takes the next 32-bit argument; a string argument is an address in the
    // module, so it is shown as a number.
    std::string out;
    unsigned next = 0;
    size_t i = formatAt;
    while (i < formatEnd) {
        if (p[i] != '%') {
            out += p[i++];
            continue;
        }
        size_t j = i + 1;
        std::string directive = "%";
        while (j < formatEnd && strchr("-+ #0", p[j]) != nullptr) {
            directive += p[j++];
        }
        auto digits = [&] {
            while (j < formatEnd && p[j] >= '0' && p[j] <= '9' && directive.size() < 8) {
                directive += p[j++];
            }
        };
        digits();  // width
        if (j < formatEnd && p[j] == '.') {
            directive += p[j++];
            digits();  // precision
        }
        while (j < formatEnd && strchr("hlLqjzt", p[j]) != nullptr) {
            ++j;  // every argument is 32 bits wide
        }
        if (j >= formatEnd) {
            out.append(p + i, formatEnd - i);
            break;
        }
        const char conversion = p[j++];
        if (conversion == '%') {
            out += '%';
        } else if (strchr("diuxXoc", conversion) != nullptr && next < count) {
            const uint32_t value = le32(p, 20 + 4 * next++);
            char piece[64];
            directive += conversion;
            if (conversion == 'd' || conversion == 'i') {
                snprintf(piece, sizeof(piece), directive.c_str(), static_cast<int32_t>(value));
            } else if (conversion == 'c') {
                snprintf(piece, sizeof(piece), "%c", static_cast<char>(value & 0xFF));
            } else {
                snprintf(piece, sizeof(piece), directive.c_str(), value);
            }
            out += piece;
        } else if ((conversion == 's' || conversion == 'p') && next < count) {
            char piece[16];
            snprintf(piece, sizeof(piece), "0x%08x", le32(p, 20 + 4 * next++));
            out += piece;
        } else {
            out.append(p + i, j - i);  // nothing to fill it with: left as written
        }
        i = j;
    }
    *text = out + " (" + file + ":" + std::to_string(le16(p, 12)) + ")";
    return true;
}

}  // namespace vdecode
