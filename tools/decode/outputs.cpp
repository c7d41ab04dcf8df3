#include "outputs.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "diagPacket.h"

namespace vdecode {

namespace {

constexpr uint16_t kLinkIpv4 = 228;
constexpr uint16_t kLinkExportedPdu = 252;

using vtools::appendLe16;
using vtools::appendLe32;
void putBe16(std::string& out, unsigned value) {
    out += static_cast<char>((value >> 8) & 0xFF);
    out += static_cast<char>(value & 0xFF);
}

// The header of a packet from 127.0.0.1 (127.0.0.SIM) to 127.0.0.1, UDP 4729 to 4729, no
// UDP checksum, in front of `payloadSize` bytes.
void appendIpUdp(std::string& out, unsigned sim, size_t payloadSize) {
    const size_t at = out.size();
    const unsigned total = static_cast<unsigned>(20 + 8 + payloadSize);
    out += '\x45';
    out += '\0';
    putBe16(out, total);
    out.append(4, '\0');  // identification, fragment
    out += '\x40';        // time to live 64
    out += '\x11';        // UDP
    out.append(2, '\0');  // the checksum, below
    out += std::string("\x7F\x00\x00", 3);
    out += static_cast<char>(sim);
    out += std::string("\x7F\x00\x00\x01", 4);
    uint32_t sum = 0;
    for (size_t i = at; i < at + 20; i += 2) {
        sum += (static_cast<unsigned char>(out[i]) << 8) | static_cast<unsigned char>(out[i + 1]);
    }
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    out[at + 10] = static_cast<char>((~sum >> 8) & 0xFF);
    out[at + 11] = static_cast<char>(~sum & 0xFF);
    putBe16(out, kGsmtapPort);
    putBe16(out, kGsmtapPort);
    putBe16(out, static_cast<unsigned>(8 + payloadSize));
    putBe16(out, 0);
}

void padTo4(std::string& out) {
    out.append((4 - out.size() % 4) % 4, '\0');
}

// A block's total length goes at offset 4 and at its end.
void sealBlock(std::string& block) {
    padTo4(block);
    const uint32_t length = static_cast<uint32_t>(block.size() + 4);
    for (int i = 0; i < 4; ++i) {
        block[4 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
    }
    appendLe32(block, length);
}

}  // namespace

std::string utcTime(uint64_t unixMicros) {
    const time_t seconds = static_cast<time_t>(unixMicros / 1000000);
    struct tm parts {};
    gmtime_r(&seconds, &parts);
    char text[48];
    snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03u", parts.tm_year + 1900,
             parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
             static_cast<unsigned>(unixMicros % 1000000 / 1000));
    return text;
}

// ---- pcapng -------------------------------------------------------------------------------

PcapngOutput::~PcapngOutput() {
    if (file != nullptr) {
        fclose(file);
    }
}

bool PcapngOutput::put(const std::string& bytes) {
    if (fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
        failure = "write(" + path + ") failed: " + strerror(errno);
        return false;
    }
    return true;
}

void PcapngOutput::interfaceBlock(uint16_t linkType) {
    block.clear();
    appendLe32(block, 1);
    appendLe32(block, 0);
    appendLe16(block, linkType);
    appendLe16(block, 0);
    appendLe32(block, 0);  // no snapshot length
    sealBlock(block);
}

bool PcapngOutput::open(const std::string& where) {
    path = where;
    file = fopen(path.c_str(), "wbe");
    if (file == nullptr) {
        failure = "cannot create " + path + ": " + strerror(errno);
        return false;
    }
    std::string header;
    appendLe32(header, 0x0A0D0D0A);
    appendLe32(header, 0);
    appendLe32(header, 0x1A2B3C4D);
    appendLe16(header, 1);
    appendLe16(header, 0);
    header.append(8, '\xFF');  // section length unknown
    sealBlock(header);
    interfaceBlock(kLinkIpv4);
    return put(header) && put(block);
}

Output::Result PcapngOutput::write(const Record& record) {
    const bool exported = record.carrier == Record::Carrier::kExportedPdu;
    if (exported && !exportedInterface) {
        interfaceBlock(kLinkExportedPdu);
        if (!put(block)) {
            return Result::kFailed;
        }
        exportedInterface = true;
    }
    const std::string payload = exported ? record.exportedPdu() : record.gsmtap();
    block.clear();
    appendLe32(block, 6);
    appendLe32(block, 0);
    appendLe32(block, exported ? 1 : 0);
    appendLe32(block, static_cast<uint32_t>(record.unixMicros >> 32));
    appendLe32(block, static_cast<uint32_t>(record.unixMicros & 0xFFFFFFFF));
    const uint32_t size = static_cast<uint32_t>(payload.size() + (exported ? 0 : 28));
    appendLe32(block, size);
    appendLe32(block, size);
    if (!exported) {
        appendIpUdp(block, record.sim, payload.size());
    }
    block += payload;
    sealBlock(block);
    return put(block) ? Result::kWritten : Result::kFailed;
}

bool PcapngOutput::close() {
    if (file == nullptr) {
        return true;
    }
    const bool ok = fclose(file) == 0;
    file = nullptr;
    if (!ok && failure.empty()) {
        failure = "close(" + path + ") failed: " + strerror(errno);
    }
    return ok && failure.empty();
}

// ---- text ---------------------------------------------------------------------------------

Output::Result TextOutput::write(const Record& record) {
    const char* direction = record.direction == Record::Direction::kUplink     ? "UL"
                            : record.direction == Record::Direction::kDownlink ? "DL"
                                                                               : "--";
    std::string line = utcTime(record.unixMicros) + " " + direction + " " + record.technology +
                       " " + record.channel + " " + std::to_string(record.pdu.size()) + " bytes:";
    static const char kDigits[] = "0123456789ABCDEF";
    const size_t shown = record.pdu.size() < 16 ? record.pdu.size() : 16;
    for (size_t i = 0; i < shown; ++i) {
        const auto byte = static_cast<unsigned char>(record.pdu[i]);
        line += ' ';
        line += kDigits[byte >> 4];
        line += kDigits[byte & 0x0F];
    }
    if (shown < record.pdu.size()) {
        line += " ...";
    }
    line += '\n';
    return fputs(line.c_str(), to) >= 0 ? Result::kWritten : Result::kFailed;
}

Output::Result TextOutput::writeMessage(uint64_t unixMicros, const std::string& text) {
    return fprintf(to, "%s MSG %s\n", utcTime(unixMicros).c_str(), text.c_str()) >= 0
               ? Result::kWritten
               : Result::kFailed;
}

bool TextOutput::close() {
    if (fflush(to) != 0) {
        failure = std::string("writing the text failed: ") + strerror(errno);
        return false;
    }
    return true;
}

// ---- UDP ----------------------------------------------------------------------------------

UdpOutput::~UdpOutput() {
    if (fd >= 0) {
        ::close(fd);
    }
}

bool UdpOutput::open(const std::string& where) {
    std::string host = where;
    std::string port = std::to_string(kGsmtapPort);
    const size_t colon = where.rfind(':');
    if (colon != std::string::npos && where.find(':') == colon) {
        host = where.substr(0, colon);
        port = where.substr(colon + 1);
        char* end = nullptr;
        const long number = strtol(port.c_str(), &end, 10);
        if (port.empty() || *end != '\0' || number < 1 || number > 65535) {
            failure = "bad port in --udp " + where + ": give HOST or HOST:PORT, PORT 1 to 65535";
            return false;
        }
    }
    if (host.empty()) {
        failure = "no host in --udp " + where + ": give HOST or HOST:PORT";
        return false;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (status != 0 || found == nullptr) {
        failure = "cannot resolve " + host + " in --udp " + where + ": " + gai_strerror(status);
        return false;
    }
    fd = socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        memcpy(&address, found->ai_addr, found->ai_addrlen);
        addressLength = found->ai_addrlen;
    } else {
        failure = std::string("socket() failed: ") + strerror(errno);
    }
    freeaddrinfo(found);
    return fd >= 0;
}

Output::Result UdpOutput::write(const Record& record) {
    if (record.carrier != Record::Carrier::kGsmtap) {
        return Result::kNotCarried;
    }
    const std::string datagram = record.gsmtap();
    if (sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&address),
               addressLength) < 0 &&
        !reported) {
        // Nobody listening yet is no reason to stop: Wireshark may start later.
        fprintf(stderr, "vrec-decode: sending to UDP failed: %s (going on)\n", strerror(errno));
        reported = true;
    }
    return Result::kWritten;
}

}  // namespace vdecode
