// The module's list of its files, in both forms, and the splitting under it. Input: a
// separator, a newline, the answer's text.
#include "atMdonImpl.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::scratchDir();
    const std::string input = fuzz::text(data, size);
    for (const std::string& name : AtMdonImpl::parseFileList(input)) {
        if (name.empty()) {
            fuzz::fail("an empty name in a file list");
        }
    }
    const auto [separator, text] = fuzz::splitFirstLine(input);
    for (const std::string& token : AtMdonImpl::splitText(text, separator)) {
        if (token.empty() || token.size() > text.size()) {
            fuzz::fail("a token that is empty or longer than its text");
        }
    }
    return 0;
}
