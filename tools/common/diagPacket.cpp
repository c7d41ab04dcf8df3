#include "diagPacket.h"

namespace vtools {

unsigned readLe16(const std::string& bytes, size_t at) {
    return static_cast<unsigned char>(bytes[at]) |
           (static_cast<unsigned>(static_cast<unsigned char>(bytes[at + 1])) << 8);
}

unsigned readLe32(const std::string& bytes, size_t at) {
    return readLe16(bytes, at) | (readLe16(bytes, at + 2) << 16);
}

void appendLe16(std::string& bytes, unsigned value) {
    bytes += static_cast<char>(value & 0xFF);
    bytes += static_cast<char>((value >> 8) & 0xFF);
}

void appendLe32(std::string& bytes, unsigned value) {
    appendLe16(bytes, value & 0xFFFF);
    appendLe16(bytes, value >> 16);
}

size_t packetStart(const std::string& packet) {
    const bool wrapped =
        packet.size() > kSubscriptionHeader && packet.compare(0, 4, "\x98\x01\x00\x00", 4) == 0;
    return wrapped ? kSubscriptionHeader : 0;
}

PacketKind classify(const std::string& packet) {
    if (packet.empty()) {
        return PacketKind::kResponse;
    }
    switch (static_cast<unsigned char>(packet[packetStart(packet)])) {
        case kCmdLog:
            return PacketKind::kLog;
        case kCmdEventReport:
            return PacketKind::kEvent;
        case 0x1F:  // legacy message
        case 0x79:  // extended message
        case 0x92:  // extended message with hashed strings
        case 0x99:  // the same, fourth form
            return PacketKind::kMessage;
        default:
            return PacketKind::kResponse;
    }
}

const char* kindName(PacketKind kind) {
    switch (kind) {
        case PacketKind::kLog:
            return "log";
        case PacketKind::kEvent:
            return "event";
        case PacketKind::kMessage:
            return "message";
        case PacketKind::kResponse:
            break;
    }
    return "response";
}

bool logCode(const std::string& packet, unsigned* code) {
    const size_t start = packetStart(packet);
    if (packet.size() < start + 8 || static_cast<unsigned char>(packet[start]) != kCmdLog) {
        return false;
    }
    *code = readLe16(packet, start + 6);
    return true;
}

bool logConfigOperation(const std::string& packet, unsigned* operation) {
    if (packet.size() < 8 || static_cast<unsigned char>(packet[0]) != kCmdLogConfig) {
        return false;
    }
    *operation = readLe32(packet, 4);
    return true;
}

bool isTunnel(const std::string& packet) {
    return packet.size() >= 4 && packet.compare(0, 4, "\x4B\xC9\xE8\xFF") == 0;
}

bool parseTunnel(const std::string& packet, TunnelPacket* out) {
    if (!isTunnel(packet) || packet.size() < 7) {
        return false;
    }
    out->id = static_cast<unsigned char>(packet[4]);
    out->declaredLength = readLe16(packet, 5);
    out->text = packet.substr(7);
    return out->declaredLength == out->text.size();
}

std::string makeTunnel(unsigned id, const std::string& text) {
    std::string packet("\x4B\xC9\xE8\xFF", 4);
    packet += static_cast<char>(id & 0xFF);
    appendLe16(packet, static_cast<unsigned>(text.size()));
    return packet + text;
}

}  // namespace vtools
