// DIAG packets as vrec-decode turns them into records: log packets of every kind it knows,
// wrapped or not, segmented messages across packets, and the text of extended messages.
// Input: packets, each behind a one-byte length.
#include <algorithm>
#include <vector>

#include "fuzzSupport.h"
#include "signalling.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vdecode::Tally tally;
    vdecode::SignallingDecoder decoder(tally);
    std::vector<vdecode::Record> records;
    for (size_t at = 0; at < size;) {
        const size_t length = std::min<size_t>(data[at], size - at - 1);
        const std::string packet = fuzz::text(data + at + 1, length);
        decoder.decode(packet, records);
        std::string text;
        uint64_t micros = 0;
        vdecode::extendedMessageText(packet, &text, &micros);
        at += 1 + length;
    }
    return 0;
}
