#ifndef VREC_TOOLS_SIGNALLING_H
#define VREC_TOOLS_SIGNALLING_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vdecode {

// GSMTAP version 2 packet types this decoder writes.
constexpr uint8_t kGsmtapUm = 0x01;
constexpr uint8_t kGsmtapAbis = 0x02;
constexpr uint8_t kGsmtapUmtsRrc = 0x0C;
constexpr uint8_t kGsmtapLteRrc = 0x0D;
constexpr uint8_t kGsmtapLteNas = 0x12;
constexpr uint16_t kGsmtapUplink = 0x4000;
constexpr uint16_t kGsmtapPort = 4729;

// One signalling message taken out of a DIAG log packet.
struct Record {
    enum class Carrier { kGsmtap, kExportedPdu };
    enum class Direction { kNone, kUplink, kDownlink };

    Carrier carrier = Carrier::kGsmtap;
    Direction direction = Direction::kNone;
    uint64_t unixMicros = 0;  // the packet's own time
    unsigned logCode = 0;
    unsigned sim = 1;             // 1, or the subscription of a multi-SIM wrapper
    const char* technology = "";  // "LTE RRC", "NR RRC", ...
    const char* channel = "";     // "DL-DCCH", "BCCH", "plain", ...
    // GSMTAP header fields.
    uint8_t type = 0;
    uint8_t subType = 0;
    uint16_t arfcn = 0;  // without the uplink bit
    uint32_t frameNumber = 0;
    // Exported PDU: the dissector that Wireshark is told to use.
    const char* dissector = "";
    std::string pdu;

    // The record's UDP payload: GSMTAP header and PDU (GSMTAP carrier only).
    std::string gsmtap() const;
    // The exported-PDU tags and the PDU (exported-PDU carrier only).
    std::string exportedPdu() const;
};

// What a capture held, counted as the decoder goes.
struct Tally {
    // Records by technology and channel; the names are the decoder's own literals.
    std::map<std::pair<const char*, const char*>, uint64_t> written;
    std::map<std::string, uint64_t> skipped;  // reason -> packets or frames
    uint64_t goodFrames = 0;
    uint64_t otherPackets = 0;  // valid packets that carry no signalling
    uint64_t records() const;
    uint64_t skips() const;
    // "LTE RRC DL-DCCH" -> records, in the order of the names.
    std::map<std::string, uint64_t> writtenByName() const;
    void skip(const std::string& reason) { ++skipped[reason]; }
};

// Unix time in microseconds of a DIAG time stamp (1.25 ms ticks since 1980-01-06, with a
// fraction of a tick in the low 16 bits that is left out).
uint64_t diagTimeToUnixMicros(uint64_t stamp);

// Turns CRC-valid DIAG packets into records. Keeps the parts of segmented messages between
// packets, so one decoder serves one stream.
class SignallingDecoder {
public:
    explicit SignallingDecoder(Tally& tally) : tally(tally) {}
    // Appends to `out` the records of one packet (none, one, or a joined segmented message).
    void decode(const std::string& packet, std::vector<Record>& out);

private:
    void decodeLog(const char* packet, size_t size, unsigned sim, std::vector<Record>& out);
    bool lteRrc(const char* payload, size_t size, Record& record);
    bool lteNas(const char* payload, size_t size, Record& record);
    bool nrRrc(const char* payload, size_t size, Record& record);
    bool nrNas(const char* payload, size_t size, Record& record);
    bool wcdmaRrc(const char* payload, size_t size, Record& record);
    bool gsmRr(const char* payload, size_t size, Record& record);
    bool umtsNas(const char* payload, size_t size, Record& record);
    bool gprs(const char* payload, size_t size, Record& record);
    // A segment of a longer message: false while parts are kept, true when `record` holds
    // the whole message.
    bool joinSegments(unsigned segment, Record& record);

    Tally& tally;
    std::map<unsigned, std::string> segments;  // log code -> parts so far
    std::map<unsigned, unsigned> lastSegment;
};

// The text of a 0x79 extended message packet: its format with the arguments filled in,
// then " (file:line)"; false if the packet is not one.
bool extendedMessageText(const std::string& packet, std::string* text, uint64_t* unixMicros);

}  // namespace vdecode

#endif
