#include "captureCheck.h"

#include <algorithm>
#include <cstdlib>

namespace vtools {

void CaptureCheck::feed(const char* data, size_t size) {
    bytes += size;
    // In pieces: the deframer takes each frame off the front of what it holds, which costs
    // the length of what it holds.
    constexpr size_t kPiece = 64 * 1024;
    for (size_t at = 0; at < size; at += kPiece) {
        deframer.feed(data + at, std::min(kPiece, size - at));
        DeframeStep step;
        while (deframer.next(step)) {
            take(step);
        }
    }
}

void CaptureCheck::finish() {
    const std::string& rest = deframer.pending();
    if (!rest.empty()) {
        take(deframe(rest.data(), rest.size(), true));
        deframer.drop(rest.size());
    }
}

void CaptureCheck::take(const DeframeStep& step) {
    switch (step.kind) {
        case DeframeStep::kFrame:
            if (!step.fcsOk) {
                if (atStreamHead()) {
                    headBytes += step.used;
                } else {
                    ++badFrames;
                }
                return;
            }
            ++goodFrames;
            take(classify(step.packet));
            if (unsigned code = 0; logCode(step.packet, &code)) {
                ++logCodes[code];
            }
            checker.take(step.packet);
            return;
        case DeframeStep::kJunk:
            if (step.used == 1) {
                ++emptyFrames;  // the flag alone
            } else {
                (atStreamHead() ? headBytes : junkBytes) += step.used;
            }
            return;
        case DeframeStep::kIncomplete:
            incompleteBytes += step.used;
            return;
        case DeframeStep::kNeedMore:
            return;
    }
}

void CaptureCheck::take(PacketKind kind) {
    ++kinds[kind];
    streaming = streaming || kind != PacketKind::kResponse;
}

std::vector<std::string> CaptureCheck::problems(bool strict) const {
    std::vector<std::string> found;
    if (badFrames > 0) {
        found.push_back(std::to_string(badFrames) + " frames with a bad check sequence");
    }
    if (junkBytes > 0) {
        found.push_back(std::to_string(junkBytes) + " bytes outside frames");
    }
    if (strict && headBytes > 0) {
        found.push_back("a cut frame at the start");
    }
    const SeqStats& seq = sequence();
    if (seq.missing > 0) {
        found.push_back(std::to_string(seq.missing) + " sequence numbers missing in " +
                        std::to_string(seq.gaps) + " gaps");
    }
    if (seq.outOfOrder > 0) {
        found.push_back(std::to_string(seq.outOfOrder) + " packets out of order");
    }
    if (seq.corrupt > 0) {
        found.push_back(std::to_string(seq.corrupt) + " stream packets with a damaged body");
    }
    return found;
}

bool CaptureCheck::clean(bool strict, bool allowCutEnd) const {
    return problems(strict).empty() && (allowCutEnd || !cutAtEnd());
}

namespace {

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// 0 for an item (with its number), 1 for the file in progress, -1 for anything else.
int captureRank(const std::string& path, long* number) {
    const std::string name = baseName(path);
    const std::string itemPrefix = "real_logitem_";
    if (name.compare(0, itemPrefix.size(), itemPrefix) == 0) {
        char* end = nullptr;
        *number = strtol(name.c_str() + itemPrefix.size(), &end, 10);
        if (end != name.c_str() + itemPrefix.size()) {
            return 0;
        }
    }
    if (name == "real_log.bin") {
        return 1;
    }
    return -1;
}

}  // namespace

std::vector<std::string> captureOrder(std::vector<std::string> paths) {
    // Only the capture's own files move, among the places they take in the list.
    std::vector<size_t> places;
    std::vector<std::string> ours;
    for (size_t i = 0; i < paths.size(); ++i) {
        long number = 0;
        if (captureRank(paths[i], &number) >= 0) {
            places.push_back(i);
            ours.push_back(paths[i]);
        }
    }
    std::stable_sort(ours.begin(), ours.end(), [](const std::string& a, const std::string& b) {
        long na = 0;
        long nb = 0;
        const int ra = captureRank(a, &na);
        const int rb = captureRank(b, &nb);
        return ra != rb ? ra < rb : na < nb;
    });
    for (size_t i = 0; i < places.size(); ++i) {
        paths[places[i]] = ours[i];
    }
    return paths;
}

}  // namespace vtools
