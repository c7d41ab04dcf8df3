#ifndef VREC_TOOLS_CAPTURECHECK_H
#define VREC_TOOLS_CAPTURECHECK_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "diagPacket.h"
#include "hdlc.h"
#include "seqStream.h"

namespace vtools {

// What a capture holds, counted as its bytes go by. The capture may arrive in any pieces:
// a frame cut by a chunk or an item boundary is put together again.
class CaptureCheck {
public:
    void feed(const char* data, size_t size);
    // Ends the stream: bytes that no flag closes count as an incomplete frame.
    void finish();

    uint64_t bytes = 0;
    uint64_t goodFrames = 0;
    uint64_t badFrames = 0;        // frames whose check sequence is wrong
    uint64_t emptyFrames = 0;      // a flag right behind a flag, which HDLC allows
    uint64_t junkBytes = 0;        // bytes outside frames
    uint64_t headBytes = 0;        // a cut frame where the stream begins (its check fails)
    uint64_t incompleteBytes = 0;  // a frame the stream ended in
    std::map<PacketKind, uint64_t> kinds;
    std::map<unsigned, uint64_t> logCodes;

    const SeqStats& sequence() const { return checker.stats(); }
    // Corruption or loss: bad frames, bytes outside frames, a damaged or broken sequence.
    // `strict` also counts a cut frame where the stream begins, which a capture that began
    // in the middle of the module's stream has of necessity.
    std::vector<std::string> problems(bool strict) const;
    // The stream ended inside a frame: what a capture stopped or killed mid-frame leaves.
    bool cutAtEnd() const { return incompleteBytes > 0; }
    // No problem, and no cut at the end unless that is allowed.
    bool clean(bool strict, bool allowCutEnd = false) const;

private:
    void take(const DeframeStep& step);
    void take(PacketKind kind);
    // Whether a damaged frame or junk here is the cut frame the stream began with: the first
    // damage before the module's own stream (logs, events, messages) began, even behind
    // answers to the host's requests.
    bool atStreamHead() const { return !streaming && headBytes == 0; }

    Deframer deframer;
    SeqChecker checker;
    bool streaming = false;
};

// The order in which a capture's files were written: numbered items by their number,
// then the file in progress ("real_log.bin"); other names stay where they stand.
std::vector<std::string> captureOrder(std::vector<std::string> paths);

}  // namespace vtools

#endif
