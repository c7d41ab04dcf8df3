#ifndef VREC_TOOLS_HDLC_H
#define VREC_TOOLS_HDLC_H

#include <cstddef>
#include <string>

namespace vtools {

// Asynchronous HDLC as a Diag port carries it: no opening flag, the packet and its
// CRC-16/X.25 (low byte first) escaped, then the closing flag 0x7E.
constexpr unsigned char kFlag = 0x7E;
constexpr unsigned char kEscape = 0x7D;
// The longest run of bytes without a flag that is still waited on as one frame; a longer
// run cannot be a DIAG packet and is given up as bytes outside frames.
constexpr size_t kMaxWireFrame = 64 * 1024;

// One step of splitting a byte stream into frames.
struct DeframeStep {
    enum Kind {
        kNeedMore,    // no flag yet: feed more bytes
        kFrame,       // a frame: `packet` unescaped, without its check sequence
        kJunk,        // bytes outside any frame: stray flags, runs too short to be a frame
        kIncomplete,  // end of input inside a frame
    };
    Kind kind = kNeedMore;
    size_t used = 0;     // input bytes this step accounts for, the closing flag included
    std::string packet;  // kFrame: the packet; kJunk and kIncomplete: the raw bytes
    bool fcsOk = false;  // kFrame: check sequence right and no broken escape
    unsigned short fcsReceived = 0;
};

// Looks at the front of `data` and reports the first frame or run of junk in it. With
// `atEnd`, bytes that no flag closes are reported as kIncomplete instead of kNeedMore.
DeframeStep deframe(const char* data, size_t size, bool atEnd = false);

// The wire form of one packet: escaped packet and check sequence, then the flag.
std::string frame(const std::string& packet);

// CRC-16/X.25 of the bytes, as it travels (complemented).
unsigned short fcs16(const std::string& bytes);

// Accumulates bytes that come in pieces and hands out whole steps.
class Deframer {
public:
    void feed(const char* data, size_t size) { buffer.append(data, size); }
    // Next complete step; false when more bytes are needed.
    bool next(DeframeStep& step);
    // Bytes buffered that no flag has closed yet.
    const std::string& pending() const { return buffer; }
    // Takes `count` bytes off the front, for a caller that consumed them otherwise.
    void drop(size_t count) { buffer.erase(0, count); }

private:
    std::string buffer;
};

}  // namespace vtools

#endif
