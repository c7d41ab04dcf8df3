#ifndef VREC_TOOLS_SEQSTREAM_H
#define VREC_TOOLS_SEQSTREAM_H

#include <cstdint>
#include <string>

namespace vtools {

// The simulator's log stream: DIAG log packets of one log code, each carrying a sequence
// number and a body computed from it, so that a capture shows every lost, repeated,
// reordered or altered packet.
//
// Packet: 10 00 len16 | len16 code16 time64 | "VSIM" seq32 | body
// The body is 8 to 128 bytes, its length and every byte a function of the sequence number;
// the bytes run through all values, flags and escapes included.
constexpr unsigned kSimLogCode = 0x1F5A;

std::string simLogPacket(uint32_t seq);
size_t simBodyLength(uint32_t seq);
unsigned char simBodyByte(uint32_t seq, size_t index);

struct SeqStats {
    uint64_t packets = 0;     // packets of the stream seen, corrupt ones included
    uint32_t first = 0;       // first sequence number seen
    uint32_t last = 0;        // highest sequence number seen
    uint64_t missing = 0;     // sequence numbers skipped
    uint64_t gaps = 0;        // places where numbers were skipped
    uint64_t outOfOrder = 0;  // packets older than one already seen: repeated or reordered
    uint64_t corrupt = 0;     // packets of the stream whose length or body is wrong
    bool whole() const { return missing == 0 && outOfOrder == 0 && corrupt == 0; }
};

class SeqChecker {
public:
    // Looks at one packet; false if it is not one of the stream's.
    bool take(const std::string& packet);
    const SeqStats& stats() const { return counts; }

private:
    SeqStats counts;
    uint32_t expected = 0;
};

}  // namespace vtools

#endif
