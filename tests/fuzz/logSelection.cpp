// What the user gives to choose the logs: a --logs list, and a mask file's bytes; and the
// stream the answers are read from. The list makes only codes it names, the file only
// frames ending with the flag, and the answers never more than the module sent.
#include <algorithm>

#include "fuzzSupport.h"
#include "maskAnswers.h"
#include "maskRequests.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = fuzz::text(data, size);
    const auto lines = fuzz::splitFirstLine(input);

    masks::Selection selection;
    std::string bad;
    if (masks::parseLogList(lines.first, &selection, &bad)) {
        masks::Ranges ranges{};
        std::fill(ranges.begin(), ranges.end(), static_cast<uint32_t>(size * 7));
        std::vector<uint16_t> beyond;
        size_t codes = 0;
        for (const masks::MaskSet& set : masks::logMaskSets(selection, &ranges, &beyond)) {
            if (set.request.size() != 16 + (set.items + 7) / 8 || set.items > 4096) {
                fuzz::fail("a mask set whose mask does not match its number of items");
            }
            codes += set.codes;
        }
        if (!selection.allLogs && codes + beyond.size() != selection.codes.size()) {
            fuzz::fail("codes asked for and codes left out do not add up to the list");
        }
        masks::logMaskSets(selection, nullptr, &beyond);
    } else if (lines.first.find(bad) == std::string::npos) {
        fuzz::fail("the item named as wrong is not in the list");
    }

    std::vector<std::string> frames;
    std::string error;
    if (masks::parseMaskFile(input, &frames, &error)) {
        size_t total = 0;
        for (const std::string& frame : frames) {
            if (frame.size() < 2 || frame.back() != '\x7E' ||
                std::count(frame.begin(), frame.end(), '\x7E') != 1) {
                fuzz::fail("a mask file frame that is not one request ending with the flag");
            }
            total += frame.size();
        }
        if (total > input.size()) {
            fuzz::fail("more frame bytes than the file holds");
        }
    } else if (error.empty()) {
        fuzz::fail("a refused mask file without a reason");
    }

    MaskAnswers answers;
    answers.arm();
    for (size_t at = 0; at < input.size(); at += 5) {
        answers.feed(input.data() + at, std::min<size_t>(5, input.size() - at));
    }
    if (answers.setAnswers().size() > input.size() / 15) {
        fuzz::fail("more answers than the stream can hold");
    }
    return 0;
}
