#ifndef VREC_SRV_MASKREQUESTS_H
#define VREC_SRV_MASKREQUESTS_H

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

// Choosing what a Qualcomm module logs: log codes by layer or number, the level of its
// extended messages, its event reports, and the DIAG requests that say so. Bytes in,
// requests or decisions out; nothing here touches a port or a file.
namespace masks {

// A named group of log codes, or of other layers.
struct Layer {
    const char* name;
    std::vector<uint16_t> codes;
    std::vector<const char*> parts;  // layers whose codes it takes too
};
const std::vector<Layer>& layerTable();
// The codes of a layer, its parts' included; false for an unknown name.
bool layerCodes(const std::string& name, std::set<uint16_t>* codes);

// What the user asked to be logged. Each part is given or not; a selection with none of
// them leaves the start set as it always was.
struct Selection {
    bool logsGiven = false;
    bool allLogs = false;            // "all": every item the module declares
    std::set<uint16_t> codes;        // the wanted log codes
    std::vector<std::string> names;  // the list as given, for the terminal
    bool msgsGiven = false;
    uint32_t msgLevelBits = 0;  // extended message level bits for every subsystem
    std::string msgLevelName = "off";
    bool eventsGiven = false;
    bool eventsOn = false;
    bool maskFileGiven = false;
    std::vector<std::string> maskFrames;  // ready frames, each ending with 0x7E
    bool any() const { return logsGiven || msgsGiven || eventsGiven || maskFileGiven; }
};

// "lte-rrc,0xB0C0,0xB0E0-0xB0E3": layer names, codes and ranges, separated by commas.
// False with the item that is wrong in `bad`.
bool parseLogList(const std::string& text, Selection* selection, std::string* bad);
// off, fatal, error, high, medium, low; each level takes those above it.
bool parseMsgLevel(const std::string& text, uint32_t* bits);
bool parseEvents(const std::string& text, bool* on);

// A mask file: HDLC-framed requests back to back, each ending with 0x7E. A flag with
// nothing before it is no request. False with the reason in `error` for bytes that no
// flag ends, or for a file without any request.
constexpr size_t kMaxMaskFileBytes = 1 << 20;
bool parseMaskFile(const std::string& bytes, std::vector<std::string>* frames, std::string* error);

// Equipment of a log code and its item: code >> 12, code & 0xFFF.
constexpr unsigned kEquipments = 16;
using Ranges = std::array<uint32_t, kEquipments>;  // number of items per equipment
const char* equipmentName(unsigned equipment);

// The unframed requests.
std::string logDisableAll();
std::string logRetrieveRanges();
std::string messageSetAll(uint32_t levelBits);
std::string eventReport(bool on);

// One log mask set request per equipment that holds a wanted code, ascending. With the
// module's ranges, a code at or beyond its equipment's number of items is left out and
// named in `beyond`; without them (`ranges` null), each mask ends at the highest wanted
// item plus one. "all" takes every item the module declares, and nothing without ranges.
struct MaskSet {
    uint32_t equipment;
    uint32_t items;
    std::string request;
    size_t codes;  // how many wanted codes it sets
};
std::vector<MaskSet> logMaskSets(const Selection& selection, const Ranges* ranges,
                                 std::vector<uint16_t>* beyond);

// The module's answers, unframed. Retrieve ID ranges: header, status 0, 16 values.
bool parseRangesAnswer(const std::string& packet, Ranges* ranges);
// Set: header, status, equipment, number of items, mask.
bool parseSetAnswer(const std::string& packet, uint32_t* equipment, uint32_t* status);

// "0xB0C0".
std::string codeText(uint16_t code);

}  // namespace masks

#endif
