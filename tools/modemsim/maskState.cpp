#include "maskState.h"

#include <cstdlib>

#include "diagPacket.h"

namespace vtools {

namespace {

constexpr size_t kLogHeader = 8;
constexpr unsigned char kExtMsgConfig = 0x7D;
constexpr unsigned char kExtMessage = 0x79;
// Extended message: command, time type, argument count, drop count, time (8), line, SSID,
// then the 32-bit level mask.
constexpr size_t kMessageMaskAt = 16;
enum LogStatus : uint32_t { kOk = 0, kBadEquipment = 1, kBadMask = 2 };

bool parseHex(const std::string& text, unsigned* value) {
    if (text.size() < 3 || text.size() > 6 || text[0] != '0' ||
        (text[1] != 'x' && text[1] != 'X')) {
        return false;
    }
    char* end = nullptr;
    *value = static_cast<unsigned>(strtoul(text.c_str() + 2, &end, 16));
    return *end == '\0' && text[2] != '-' && text[2] != '+';
}

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> items;
    size_t from = 0;
    for (size_t comma; (comma = text.find(',', from)) != std::string::npos; from = comma + 1) {
        items.push_back(text.substr(from, comma - from));
    }
    items.push_back(text.substr(from));
    return items;
}

}  // namespace

const MaskState::Ranges MaskState::kDefaultRanges = {0, 2042, 0,   0,    2328, 1064, 0, 2910,
                                                     0, 0,    914, 2464, 0,    519,  0, 0};

void MaskState::reset() {
    isSelective = false;
    logs = {};
    messageLevels = 0;
    events = false;
}

bool MaskState::take(const std::string& request, std::string* answer, std::string* note) {
    if (request.empty()) {
        return false;
    }
    const auto code = static_cast<unsigned char>(request[0]);
    unsigned operation = 0;
    if (logConfigOperation(request, &operation)) {
        *answer = request.substr(0, kLogHeader);
        if (operation == 0) {
            logs = {};
            isSelective = true;
            appendLe32(*answer, kOk);
            *note = "log masks all disabled";
        } else if (operation == 1 && !answersRanges) {
            answer->clear();
            *note = "log ranges asked, not answered";
        } else if (operation == 1) {
            appendLe32(*answer, kOk);
            for (const uint32_t items : ranges) {
                appendLe32(*answer, items);
            }
            *note = "log ranges asked";
        } else if (operation == 3) {
            uint32_t status = kOk;
            const std::string what = setLogMask(request, &status);
            appendLe32(*answer, status);
            *answer += request.substr(kLogHeader);
            *note = "log mask " + what + " status " + std::to_string(status);
        } else {
            return false;
        }
        return true;
    }
    if (code == kExtMsgConfig && request.size() >= 8 && request[1] == 5) {
        messageLevels = readLe32(request, 4);
        *answer = request.substr(0, 8);
        *note = "message levels " + std::to_string(messageLevels);
        return true;
    }
    if (code == kCmdEventReport && request.size() >= 2) {
        events = request[1] != 0;
        *note = events ? "events on" : "events off";
        return false;  // answered as before
    }
    return false;
}

std::string MaskState::setLogMask(const std::string& request, uint32_t* status) {
    if (request.size() < kLogHeader + 8) {
        *status = kBadMask;
        return "short";
    }
    const uint32_t equipment = readLe32(request, kLogHeader);
    const uint32_t items = readLe32(request, kLogHeader + 4);
    std::string what = "equipment " + std::to_string(equipment) + " items " + std::to_string(items);
    if (equipment >= ranges.size() || ranges[equipment] == 0) {
        *status = kBadEquipment;
        return what;
    }
    const size_t maskAt = kLogHeader + 8;
    if (items > 4096 || request.size() < maskAt + (items + 7) / 8) {
        *status = kBadMask;
        return what;
    }
    std::bitset<4096> mask;
    std::string codes;
    for (uint32_t item = 0; item < items; ++item) {
        if ((static_cast<unsigned char>(request[maskAt + item / 8]) >> (item % 8) & 1) == 0) {
            continue;
        }
        if (item >= ranges[equipment]) {
            *status = kBadMask;  // a code beyond what the module has is refused
            return what + " beyond the range of " + std::to_string(ranges[equipment]);
        }
        mask.set(item);
        if (codes.size() < 200) {
            char text[8];
            snprintf(text, sizeof(text), " %04X", (equipment << 12) | item);
            codes += text;
        }
    }
    logs[equipment] = mask;
    return what + ":" + codes;
}

bool MaskState::anyEnabled() const {
    for (const auto& mask : logs) {
        if (mask.any()) {
            return true;
        }
    }
    return messageLevels != 0 || events;
}

bool MaskState::logEnabled(unsigned code) const {
    return !isSelective || logs[(code >> 12) & 0xF].test(code & 0xFFF);
}

bool MaskState::passes(const std::string& packet) const {
    if (!isSelective) {
        return true;
    }
    const size_t start = packetStart(packet);
    unsigned code = 0;
    switch (classify(packet)) {
        case PacketKind::kLog:
            return logCode(packet, &code) && logEnabled(code);
        case PacketKind::kEvent:
            return events;
        case PacketKind::kMessage:
            if (static_cast<unsigned char>(packet[start]) == kExtMessage &&
                packet.size() >= start + kMessageMaskAt + 4) {
                return (readLe32(packet, start + kMessageMaskAt) & messageLevels) != 0;
            }
            return messageLevels != 0;
        case PacketKind::kResponse:
            break;
    }
    return true;
}

bool MaskState::nextCode(const std::vector<unsigned>& codes, unsigned* code) {
    for (size_t tried = 0; tried < codes.size(); ++tried) {
        const unsigned candidate = codes[nextIndex++ % codes.size()];
        if (logEnabled(candidate)) {
            *code = candidate;
            return true;
        }
    }
    return false;
}

bool parseLogCodes(const std::string& text, std::vector<unsigned>* codes) {
    codes->clear();
    for (const std::string& item : split(text)) {
        const size_t dash = item.find('-');
        unsigned first = 0;
        unsigned last = 0;
        if (dash == std::string::npos ? !parseHex(item, &first)
                                      : !parseHex(item.substr(0, dash), &first) ||
                                            !parseHex(item.substr(dash + 1), &last)) {
            return false;
        }
        last = dash == std::string::npos ? first : last;
        if (first > last || last > 0xFFFF) {
            return false;
        }
        for (unsigned code = first; code <= last; ++code) {
            codes->push_back(code);
        }
    }
    return true;
}

bool parseLogRanges(const std::string& text, MaskState::Ranges* ranges) {
    const std::vector<std::string> items = split(text);
    if (items.size() != ranges->size()) {
        return false;
    }
    for (size_t i = 0; i < items.size(); ++i) {
        const std::string& item = items[i];
        char* end = nullptr;
        const unsigned long value = strtoul(item.c_str(), &end, 0);
        if (item.empty() || *end != '\0' || item[0] == '-' || item[0] == '+' || value > 4096) {
            return false;
        }
        (*ranges)[i] = static_cast<uint32_t>(value);
    }
    return true;
}

}  // namespace vtools
