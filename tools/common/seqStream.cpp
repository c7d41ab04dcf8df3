#include "seqStream.h"

#include "diagPacket.h"

namespace vtools {

namespace {

const char kMagic[] = "VSIM";
constexpr size_t kMagicAt = 16;  // behind command, more, length and the 12-byte log header
constexpr size_t kBodyAt = kMagicAt + 8;

}  // namespace

size_t simBodyLength(uint32_t seq) {
    return 8 + (seq * 37u) % 121u;
}

unsigned char simBodyByte(uint32_t seq, size_t index) {
    return static_cast<unsigned char>(seq * 131u + index * 29u + (seq >> 8) * 7u + (seq >> 16));
}

std::string simLogPacket(uint32_t seq) {
    const size_t body = simBodyLength(seq);
    const unsigned itemLength = static_cast<unsigned>(12 + 8 + body);
    std::string packet;
    packet.reserve(4 + itemLength);
    packet += static_cast<char>(kCmdLog);
    packet += '\0';
    appendLe16(packet, itemLength);
    appendLe16(packet, itemLength);
    appendLe16(packet, kSimLogCode);
    appendLe32(packet, seq);  // time stamp: the stream needs none, a rising value will do
    appendLe32(packet, 0);
    packet.append(kMagic, 4);
    appendLe32(packet, seq);
    for (size_t i = 0; i < body; ++i) {
        packet += static_cast<char>(simBodyByte(seq, i));
    }
    return packet;
}

bool SeqChecker::take(const std::string& packet) {
    unsigned code = 0;
    if (!logCode(packet, &code) || code != kSimLogCode || packet.size() < kBodyAt ||
        packet.compare(kMagicAt, 4, kMagic) != 0) {
        return false;
    }
    ++counts.packets;
    const uint32_t seq = readLe32(packet, kMagicAt + 4);
    const size_t body = packet.size() - kBodyAt;
    bool intact = body == simBodyLength(seq) && readLe16(packet, 2) == packet.size() - 4 &&
                  readLe16(packet, 4) == packet.size() - 4;
    for (size_t i = 0; intact && i < body; ++i) {
        intact = static_cast<unsigned char>(packet[kBodyAt + i]) == simBodyByte(seq, i);
    }
    if (!intact) {
        // The sequence number itself may be what was hit: leave the count where it is.
        ++counts.corrupt;
        return true;
    }
    if (counts.packets - counts.corrupt == 1) {
        counts.first = seq;
        counts.last = seq;
    } else if (seq > expected) {
        ++counts.gaps;
        counts.missing += seq - expected;
    } else if (seq < expected) {
        ++counts.outOfOrder;
        return true;
    }
    counts.last = seq;
    expected = seq + 1;
    return true;
}

}  // namespace vtools
