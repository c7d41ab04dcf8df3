#ifndef VREC_TOOLS_CONVERTER_H
#define VREC_TOOLS_CONVERTER_H

#include <cstdio>
#include <string>
#include <vector>

#include "frameReader.h"
#include "outputs.h"
#include "signalling.h"

namespace vdecode {

// Bytes of a capture in, records out: frames, then packets, then signalling messages, with
// everything left out counted by its reason.
class Converter {
public:
    explicit Converter(Output& output);
    // False once the output failed; output.error() says why.
    bool feed(const char* data, size_t size);
    // The end of the stream: a frame it cuts is counted.
    void finish() { reader.finish(); }
    void flush() { output.flush(); }
    const Tally& counts() const { return tally; }
    uint64_t bytes() const { return reader.bytes(); }
    bool failed() const { return outputFailed; }
    void printSummary(FILE* to) const;

private:
    void take(const vtools::DeframeStep& step, bool first);
    void deliver(const Record& record);

    Output& output;
    Tally tally;
    SignallingDecoder decoder;
    vtools::FrameReader reader;
    std::vector<Record> records;  // of the packet at hand
    bool outputFailed = false;
};

}  // namespace vdecode

#endif
