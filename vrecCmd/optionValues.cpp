#include "optionValues.h"

#include "moreOptions.h"
#include "textUtil.h"

namespace {

// Sizes are megabytes: a terabyte is far beyond any module's log, and twice it still fits
// the 32 bits the sizes are kept in.
constexpr uint64_t kMaxSizeMb = 1048576;
constexpr uint64_t kMaxReportStep = 0xFFFFFFFFu;
constexpr uint64_t kMaxState = 6;
constexpr uint64_t kMaxUnit = 9999;

bool inRange(const std::string& text, uint64_t low, uint64_t high) {
    uint64_t value = 0;
    return parseWholeNumber(text, low, high, &value);
}

}  // namespace

bool parseWholeNumber(const std::string& text, uint64_t low, uint64_t high, uint64_t* value) {
    if (text.empty()) {
        return false;
    }
    uint64_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const auto digit = static_cast<uint64_t>(c - '0');
        if (number > (high - digit) / 10 || digit > high) {
            return false;  // beyond the range, tested before the number could overflow
        }
        number = number * 10 + digit;
    }
    if (number < low) {
        return false;
    }
    *value = number;
    return true;
}

std::string valueRule(int letter, const std::string& text) {
    switch (letter) {
        case 'c':
        case 't':
            return inRange(text, 0, kMaxSizeMb) ? "" : "a whole number of MB from 0 to 1048576";
        case 'r':
            return inRange(text, 0, kMaxReportStep) ? "" : "a whole number from 0 to 4294967295";
        case 'o':
            return inRange(text, 0, 1) ? "" : "0 or 1";
        case 'm':
            return inRange(text, 0, kMaxState) ? "" : "a state from 0 to 6";
        case 'u':
            return inRange(text, 0, kMaxUnit) ? "" : "a whole number from 0 to 9999";
        case 'f':
            return isPlainField(text)
                       ? ""
                       : "a file name without quotes, commas, blanks or control characters";
        case OPT_ON_CRASH:
            return text == "collect" || text == "reset" || text == "leave"
                       ? ""
                       : "collect, reset or leave";
        default:
            return "";
    }
}
