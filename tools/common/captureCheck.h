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
    uint64_t junkBytes = 0;        // bytes outside frames
    uint64_t headBytes = 0;        // a cut frame at the very start (its check fails)
    uint64_t incompleteBytes = 0;  // a frame the stream ended in
    std::map<PacketKind, uint64_t> kinds;
    std::map<unsigned, uint64_t> logCodes;

    const SeqStats& sequence() const { return checker.stats(); }
    // Corruption or loss: bad frames, bytes outside frames, a damaged or broken sequence.
    // `strict` also counts a cut frame at either end, which a capture that began or ended
    // in the middle of the stream has of necessity.
    bool clean(bool strict) const;
    std::vector<std::string> problems(bool strict) const;

private:
    void take(const DeframeStep& step);

    Deframer deframer;
    SeqChecker checker;
    bool seenStep = false;
};

// The order in which a capture's files were written: numbered items by their number,
// then the file in progress ("real_log.bin"); other names stay where they stand.
std::vector<std::string> captureOrder(std::vector<std::string> paths);

}  // namespace vtools

#endif
