#include "hdlc.h"

#include <cstring>

#include "codec.h"

namespace vtools {

unsigned short fcs16(const std::string& bytes) {
    unsigned short result = 0;
    Crc16Fcs(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()),
             &result);
    return result;
}

std::string frame(const std::string& packet) {
    const unsigned short fcs = fcs16(packet);
    std::string wire = packet;
    wire += static_cast<char>(fcs & 0xFF);
    wire += static_cast<char>(fcs >> 8);
    HdlcEscape(wire);
    wire += static_cast<char>(kFlag);
    return wire;
}

DeframeStep deframe(const char* data, size_t size, bool atEnd) {
    DeframeStep step;
    const void* hit = size == 0 ? nullptr : memchr(data, kFlag, size);
    if (hit == nullptr) {
        if (size > 0 && (atEnd || size > kMaxWireFrame)) {
            step.kind = atEnd ? DeframeStep::kIncomplete : DeframeStep::kJunk;
            step.used = size;
            step.packet.assign(data, size);
        }
        return step;
    }
    const size_t flagAt = static_cast<size_t>(static_cast<const char*>(hit) - data);
    step.used = flagAt + 1;

    std::string plain;
    plain.reserve(flagAt);
    bool brokenEscape = false;
    for (size_t i = 0; i < flagAt; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        if (byte != kEscape) {
            plain += static_cast<char>(byte);
        } else if (i + 1 < flagAt) {
            plain += static_cast<char>(static_cast<unsigned char>(data[++i]) ^ 0x20);
        } else {
            // An escape right before the flag is an aborted frame.
            brokenEscape = true;
        }
    }
    // A packet has at least its command code; with the check sequence that is 3 bytes.
    if (plain.size() < 3) {
        step.kind = DeframeStep::kJunk;
        step.packet.assign(data, step.used);
        return step;
    }
    step.kind = DeframeStep::kFrame;
    step.fcsReceived =
        static_cast<unsigned short>(static_cast<unsigned char>(plain[plain.size() - 2]) |
                                    (static_cast<unsigned char>(plain[plain.size() - 1]) << 8));
    plain.resize(plain.size() - 2);
    step.fcsOk = !brokenEscape && fcs16(plain) == step.fcsReceived;
    step.packet.swap(plain);
    return step;
}

bool Deframer::next(DeframeStep& step) {
    step = deframe(buffer.data(), buffer.size());
    if (step.kind == DeframeStep::kNeedMore) {
        return false;
    }
    buffer.erase(0, step.used);
    return true;
}

}  // namespace vtools
