#ifndef VREC_TOOLS_DIAGPACKET_H
#define VREC_TOOLS_DIAGPACKET_H

#include <cstddef>
#include <string>

namespace vtools {

// DIAG command codes the tools look at.
constexpr unsigned char kCmdLog = 0x10;
constexpr unsigned char kCmdEventReport = 0x60;
constexpr unsigned char kCmdLogConfig = 0x73;
constexpr unsigned char kCmdSubsystem = 0x4B;

// Multi-SIM chips wrap packets: 98 01 00 00, the 32-bit subscription id, then the packet
// with its own command code. The frame's check sequence covers the wrapper.
constexpr size_t kSubscriptionHeader = 8;
// Where the packet proper begins: behind the wrapper, or at 0.
size_t packetStart(const std::string& packet);

// What a packet that a module sends is, by its command code, a wrapped one by its own.
enum class PacketKind { kLog, kEvent, kMessage, kResponse };
PacketKind classify(const std::string& packet);
const char* kindName(PacketKind kind);

// Log code of a log packet, wrapped or not: command, "more", outer length, then the log
// item's own length and its code, both 16 bits little-endian. False for anything shorter
// or no log packet.
bool logCode(const std::string& packet, unsigned* code);

// Operation of a log configuration request (3 zero bytes, then 32 bits); false if not one.
bool logConfigOperation(const std::string& packet, unsigned* operation);

// The AT tunnel: 4B C9 E8 FF, command id, 16-bit text length, the text.
struct TunnelPacket {
    unsigned id = 0;
    unsigned declaredLength = 0;
    std::string text;
};
bool isTunnel(const std::string& packet);
bool parseTunnel(const std::string& packet, TunnelPacket* out);
std::string makeTunnel(unsigned id, const std::string& text);

unsigned readLe16(const std::string& bytes, size_t at);
unsigned readLe32(const std::string& bytes, size_t at);
void appendLe16(std::string& bytes, unsigned value);
void appendLe32(std::string& bytes, unsigned value);

}  // namespace vtools

#endif
