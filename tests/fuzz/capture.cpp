// Captures as vrec-inspect reads them, in pieces of any size: frames, flags, escapes,
// check sequences, wrapped packets, the simulator's stream, tunnel frames.
#include "captureCheck.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte chooses the size of the pieces the rest comes in.
    const size_t piece = 1 + data[0] % 64;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    vtools::CaptureCheck check;
    for (size_t at = 0; at < size - 1; at += piece) {
        check.feed(bytes + at, std::min(piece, size - 1 - at));
    }
    check.finish();
    if (check.bytes != size - 1) {
        fuzz::fail("bytes counted otherwise than fed");
    }
    check.clean(true);
    vtools::TunnelPacket tunnel;
    vtools::parseTunnel(std::string(bytes, size - 1), &tunnel);
    return 0;
}
