// Values of the command line's options: the rules and the number reading under them.
#include <cstring>

#include "fuzzSupport.h"
#include "optionValues.h"
#include "textUtil.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = fuzz::text(data, size);
    for (const char letter : std::string("mcturofpdl")) {
        valueRule(letter, text);
    }
    uint64_t value = 0;
    if (parseWholeNumber(text, 0, UINT64_MAX / 10, &value)) {
        const size_t digits = text.find_first_not_of('0');
        const std::string significant = digits == std::string::npos ? "0" : text.substr(digits);
        if (std::to_string(value) != significant) {
            fuzz::fail("a number read otherwise than its digits say");
        }
    }
    if (parseWholeNumber(text, 5, 1048576, &value) && (value < 5 || value > 1048576)) {
        fuzz::fail("a number outside its range accepted");
    }
    for (const char c : escapeText(text)) {
        if (c < 0x20 || c >= 0x7F) {
            fuzz::fail("an unprintable byte shown as it is");
        }
    }
    return 0;
}
