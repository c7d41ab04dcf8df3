#ifndef VREC_TOOLS_FRAMEREADER_H
#define VREC_TOOLS_FRAMEREADER_H

#include <cstdint>
#include <functional>
#include <string>

#include "hdlc.h"

namespace vtools {

// Splits a byte stream that arrives in pieces into HDLC frames, as the inspector does, but
// without copying the input around: whole frames are cut out of each piece where they lie,
// and only a frame that a piece boundary cuts is put together in a buffer of its own.
class FrameReader {
public:
    using Sink = std::function<void(const DeframeStep&, bool first)>;
    explicit FrameReader(Sink sink) : sink(std::move(sink)) {}

    void feed(const char* data, size_t size);
    // Ends the stream: bytes that no flag closes are handed on as kIncomplete.
    void finish();
    uint64_t bytes() const { return total; }

private:
    void hand(const DeframeStep& step);

    Sink sink;
    std::string pending;
    uint64_t total = 0;
    bool seenStep = false;
};

}  // namespace vtools

#endif
