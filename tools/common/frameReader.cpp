#include "frameReader.h"

#include <cstring>

namespace vtools {

void FrameReader::hand(const DeframeStep& step) {
    const bool first = !seenStep;
    seenStep = true;
    sink(step, first);
}

void FrameReader::feed(const char* data, size_t size) {
    total += size;
    size_t at = 0;
    if (!pending.empty()) {
        // The frame the last piece cut: complete it up to the first flag of this one.
        const void* hit = memchr(data, kFlag, size);
        const size_t upTo = hit == nullptr ? size : static_cast<const char*>(hit) - data + 1;
        pending.append(data, upTo);
        at = upTo;
        const DeframeStep step = deframe(pending.data(), pending.size());
        if (step.kind == DeframeStep::kNeedMore) {
            return;
        }
        hand(step);
        pending.clear();
    }
    while (at < size) {
        const DeframeStep step = deframe(data + at, size - at);
        if (step.kind == DeframeStep::kNeedMore) {
            pending.assign(data + at, size - at);
            return;
        }
        hand(step);
        at += step.used;
    }
}

void FrameReader::finish() {
    if (!pending.empty()) {
        hand(deframe(pending.data(), pending.size(), true));
        pending.clear();
    }
}

}  // namespace vtools
