#include "maskAnswers.h"

#include <cstring>

#include "codec.h"
#include "diagCommands.h"

namespace {

constexpr char kFlag = '\x7E';
constexpr char kLogConfig = static_cast<char>(diagcmd::kLogConfig);

// The packet of an escaped frame without its flag, if its check sequence holds.
bool unframe(const std::string& wire, std::string* packet) {
    if (!HdlcUnescape(wire, packet) || packet->size() < 3) {
        return false;
    }
    const size_t body = packet->size() - 2;
    unsigned short fcs = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(packet->data()), static_cast<int>(body), &fcs);
    const bool good = static_cast<unsigned char>((*packet)[body]) == (fcs & 0xFF) &&
                      static_cast<unsigned char>((*packet)[body + 1]) == (fcs >> 8);
    packet->resize(body);
    return good;
}

}  // namespace

void MaskAnswers::arm() {
    std::lock_guard<std::mutex> guard(lock);
    rangesKnown = false;
    sets.clear();
    // The stream may stand inside a frame: that one is passed over up to its flag.
    frame.clear();
    skipping = !atFrameStart;
    watching = true;
}

void MaskAnswers::disarm() {
    watching = false;
}

void MaskAnswers::feed(const char* data, size_t size) {
    if (size == 0) {
        return;
    }
    atFrameStart.store(data[size - 1] == kFlag, std::memory_order_relaxed);
    if (!armed()) {
        return;
    }
    std::lock_guard<std::mutex> guard(lock);
    while (size > 0) {
        const char* flag = static_cast<const char*>(memchr(data, kFlag, size));
        const size_t run = flag == nullptr ? size : static_cast<size_t>(flag - data);
        if (!skipping) {
            if (frame.empty() && run > 0 && data[0] != kLogConfig) {
                skipping = true;
            } else if (frame.size() + run > kMaxFrame) {
                skipping = true;
                frame.clear();
            } else {
                frame.append(data, run);
            }
        }
        if (flag == nullptr) {
            return;
        }
        if (!skipping) {
            takeFrame();
        }
        frame.clear();
        skipping = false;
        data += run + 1;
        size -= run + 1;
    }
}

void MaskAnswers::takeFrame() {
    std::string packet;
    if (frame.empty() || !unframe(frame, &packet)) {
        return;
    }
    uint32_t equipment = 0;
    uint32_t status = 0;
    if (masks::parseRangesAnswer(packet, &ranges)) {
        rangesKnown = true;
    } else if (masks::parseSetAnswer(packet, &equipment, &status)) {
        sets.emplace_back(equipment, status);
    } else {
        return;
    }
    arrived.notify_all();
}

std::vector<std::pair<uint32_t, uint32_t>> MaskAnswers::setAnswers() {
    std::lock_guard<std::mutex> guard(lock);
    return sets;
}
