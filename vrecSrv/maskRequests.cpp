#include "maskRequests.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "diagCommands.h"

namespace masks {

namespace {

using diagcmd::kEventReport;
using diagcmd::kExtMsgConfig;
using diagcmd::kLogConfig;
constexpr uint32_t kOpDisableAll = diagcmd::kLogDisableAll;
constexpr uint32_t kOpRetrieveRanges = diagcmd::kLogRetrieveRanges;
constexpr uint32_t kOpSetMask = diagcmd::kLogSetMask;
constexpr uint8_t kMsgOpSetAll = diagcmd::kMsgSetAll;
constexpr size_t kLogHeader = 8;  // command, 3 pad, operation
constexpr uint32_t kItemsPerEquipment = 0x1000;

std::vector<uint16_t> span(uint16_t first, uint16_t last) {
    std::vector<uint16_t> codes;
    for (uint32_t code = first; code <= last; ++code) {
        codes.push_back(static_cast<uint16_t>(code));
    }
    return codes;
}

std::vector<uint16_t> joined(std::initializer_list<std::vector<uint16_t>> parts) {
    std::vector<uint16_t> codes;
    for (const auto& part : parts) {
        codes.insert(codes.end(), part.begin(), part.end());
    }
    return codes;
}

struct Level {
    const char* name;
    uint32_t bits;
};
// Bits: 0x01 low, 0x02 medium, 0x04 high, 0x08 error, 0x10 fatal.
constexpr Level kLevels[] = {{"off", 0},     {"fatal", 0x10},  {"error", 0x18},
                             {"high", 0x1C}, {"medium", 0x1E}, {"low", 0x1F}};

const char* const kEquipmentNames[kEquipments] = {
    "0",    "1X/common", "2",   "3",      "WCDMA", "GSM",      "LBS", "UMTS",
    "TDMA", "9",         "DTV", "LTE/NR", "DSP",   "TD-SCDMA", "14",  "tools"};

void appendLe32(std::string& bytes, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes += static_cast<char>((value >> (8 * i)) & 0xFF);
    }
}

uint32_t readLe32(const std::string& bytes, size_t at) {
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = (value << 8) | static_cast<unsigned char>(bytes[at + static_cast<size_t>(i)]);
    }
    return value;
}

std::string logConfig(uint32_t operation) {
    std::string request(1, static_cast<char>(kLogConfig));
    request.append(3, '\0');
    appendLe32(request, operation);
    return request;
}

// "0x" or "0X" and one to four hexadecimal digits.
bool parseCode(const std::string& text, uint16_t* code) {
    if (text.size() < 3 || text.size() > 6 || text[0] != '0' ||
        (text[1] != 'x' && text[1] != 'X')) {
        return false;
    }
    uint32_t value = 0;
    for (size_t i = 2; i < text.size(); ++i) {
        const char c = text[i];
        uint32_t digit = 0;
        if (c >= '0' && c <= '9') {
            digit = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            digit = static_cast<uint32_t>(c - 'A' + 10);
        } else {
            return false;
        }
        value = value * 16 + digit;
    }
    *code = static_cast<uint16_t>(value);
    return true;
}

bool isLogCommand(const std::string& packet, uint32_t operation, size_t minimum) {
    return packet.size() >= minimum && static_cast<unsigned char>(packet[0]) == kLogConfig &&
           readLe32(packet, 4) == operation;
}

}  // namespace

const std::vector<Layer>& layerTable() {
    static const std::vector<Layer> kLayers = {
        {"lte-rrc", {0xB0C0, 0xB0C1, 0xB0C2}, {}},
        {"lte-nas", joined({span(0xB0E0, 0xB0E3), span(0xB0EA, 0xB0ED)}), {}},
        {"nr-rrc", {0xB821, 0xB822, 0xB823, 0xB825, 0xB826}, {}},
        {"nr-nas", {0xB800, 0xB801, 0xB808, 0xB809, 0xB80A, 0xB80B, 0xB80C, 0xB814}, {}},
        {"wcdma-rrc", {0x412F, 0x412B, 0x4127}, {}},
        {"gsm-rr", {0x512F, 0x5134}, {}},
        {"umts-nas", {0x713A}, {}},
        {"gprs", {0x5226, 0x5230, 0x51FD, 0x51FE, 0x51FF}, {}},
        {"signalling",
         {},
         {"lte-rrc", "lte-nas", "nr-rrc", "nr-nas", "wcdma-rrc", "gsm-rr", "umts-nas", "gprs"}},
        {"lte-ml1", {0xB179, 0xB17F, 0xB180, 0xB193, 0xB197}, {}},
        {"nr-ml1", {0xB97F}, {}},
        {"measurements", {}, {"lte-ml1", "nr-ml1"}},
        {"lte-l2",
         joined({span(0xB061, 0xB064),
                 {0xB081, 0xB082, 0xB091, 0xB092, 0xB0A1, 0xB0A3, 0xB0B1, 0xB0B3}}),
         {}},
        {"ip", {0x11EB}, {}},
    };
    return kLayers;
}

bool layerCodes(const std::string& name, std::set<uint16_t>* codes) {
    for (const Layer& layer : layerTable()) {
        if (name == layer.name) {
            codes->insert(layer.codes.begin(), layer.codes.end());
            for (const char* part : layer.parts) {
                layerCodes(part, codes);
            }
            return true;
        }
    }
    return false;
}

bool parseLogList(const std::string& text, Selection* selection, std::string* bad) {
    size_t from = 0;
    for (;;) {
        const size_t comma = text.find(',', from);
        const std::string item =
            text.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
        const size_t dash = item.find('-', 2);
        uint16_t first = 0;
        uint16_t last = 0;
        if (item == "all") {
            selection->allLogs = true;
        } else if (parseCode(item, &first)) {
            selection->codes.insert(first);
        } else if (item.rfind("0x", 0) == 0 && dash != std::string::npos &&
                   parseCode(item.substr(0, dash), &first) &&
                   parseCode(item.substr(dash + 1), &last) && first <= last) {
            const std::vector<uint16_t> codes = span(first, last);
            selection->codes.insert(codes.begin(), codes.end());
        } else if (!layerCodes(item, &selection->codes)) {
            *bad = item;
            return false;
        }
        selection->names.push_back(item);
        if (comma == std::string::npos) {
            break;
        }
        from = comma + 1;
    }
    selection->logsGiven = true;
    return true;
}

bool parseMsgLevel(const std::string& text, uint32_t* bits) {
    for (const Level& level : kLevels) {
        if (text == level.name) {
            *bits = level.bits;
            return true;
        }
    }
    return false;
}

bool parseEvents(const std::string& text, bool* on) {
    if (text != "on" && text != "off") {
        return false;
    }
    *on = text == "on";
    return true;
}

bool parseMaskFile(const std::string& bytes, std::vector<std::string>* frames, std::string* error) {
    frames->clear();
    if (bytes.size() > kMaxMaskFileBytes) {
        *error = "it is larger than 1 MiB";
        return false;
    }
    size_t from = 0;
    while (from < bytes.size()) {
        const size_t flag = bytes.find('\x7E', from);
        if (flag == std::string::npos) {
            char where[96];
            snprintf(where, sizeof(where),
                     "its last %zu bytes, from offset %zu on, do not end with 0x7E",
                     bytes.size() - from, from);
            *error = where;
            return false;
        }
        if (flag > from) {
            frames->push_back(bytes.substr(from, flag - from + 1));
        }
        from = flag + 1;
    }
    if (frames->empty()) {
        *error = "it holds no request ending with 0x7E";
        return false;
    }
    return true;
}

const char* equipmentName(unsigned equipment) {
    return equipment < kEquipments ? kEquipmentNames[equipment] : "?";
}

std::string logDisableAll() {
    return logConfig(kOpDisableAll);
}

std::string logRetrieveRanges() {
    return logConfig(kOpRetrieveRanges);
}

std::string messageSetAll(uint32_t levelBits) {
    std::string request;
    request += static_cast<char>(kExtMsgConfig);
    request += static_cast<char>(kMsgOpSetAll);
    request.append(2, '\0');
    appendLe32(request, levelBits);
    return request;
}

std::string eventReport(bool on) {
    std::string request(1, static_cast<char>(kEventReport));
    request += static_cast<char>(on ? 1 : 0);
    return request;
}

std::vector<MaskSet> logMaskSets(const Selection& selection, const Ranges* ranges,
                                 std::vector<uint16_t>* beyond) {
    // Wanted items per equipment, and how many items each mask covers.
    std::map<uint32_t, std::vector<uint32_t>> wanted;
    std::map<uint32_t, uint32_t> items;
    for (const uint16_t code : selection.codes) {
        const uint32_t equipment = code >> 12;
        const uint32_t item = code & 0xFFFu;
        if (ranges != nullptr && item >= (*ranges)[equipment]) {
            beyond->push_back(code);
            continue;
        }
        wanted[equipment].push_back(item);
        items[equipment] = ranges != nullptr ? std::min((*ranges)[equipment], kItemsPerEquipment)
                                             : std::max(items[equipment], item + 1);
    }
    if (selection.allLogs && ranges != nullptr) {
        for (uint32_t equipment = 0; equipment < kEquipments; ++equipment) {
            const uint32_t count = std::min((*ranges)[equipment], kItemsPerEquipment);
            if (count != 0) {
                items[equipment] = count;
                std::vector<uint32_t>& list = wanted[equipment];
                list.clear();
                for (uint32_t item = 0; item < count; ++item) {
                    list.push_back(item);
                }
            }
        }
    }
    std::vector<MaskSet> sets;
    for (const auto& entry : wanted) {
        const uint32_t count = items[entry.first];
        std::string request = logConfig(kOpSetMask);
        appendLe32(request, entry.first);
        appendLe32(request, count);
        std::string mask((count + 7) / 8, '\0');
        for (const uint32_t item : entry.second) {
            mask[item / 8] = static_cast<char>(mask[item / 8] | (1 << (item % 8)));
        }
        sets.push_back({entry.first, count, request + mask, entry.second.size()});
    }
    return sets;
}

bool parseRangesAnswer(const std::string& packet, Ranges* ranges) {
    if (!isLogCommand(packet, kOpRetrieveRanges, kLogHeader + 4 + 4 * kEquipments) ||
        readLe32(packet, kLogHeader) != 0) {
        return false;
    }
    for (unsigned i = 0; i < kEquipments; ++i) {
        (*ranges)[i] = readLe32(packet, kLogHeader + 4 + 4 * i);
    }
    return true;
}

bool parseSetAnswer(const std::string& packet, uint32_t* equipment, uint32_t* status) {
    if (!isLogCommand(packet, kOpSetMask, kLogHeader + 4)) {
        return false;
    }
    *status = readLe32(packet, kLogHeader);
    // A refusal may come without the rest.
    *equipment = packet.size() >= kLogHeader + 8 ? readLe32(packet, kLogHeader + 4) : UINT32_MAX;
    return true;
}

std::string codeText(uint16_t code) {
    char text[8];
    snprintf(text, sizeof(text), "0x%04X", code);
    return text;
}

}  // namespace masks
