// Answers of the module to AT commands: the end test, the answer's text, and the fields of
// a data answer. Input: the command, a newline, the bytes the module sent.
#include "atMdonImpl.h"
#include "atProtocol.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::scratchDir();
    const auto [cmd, raw] = fuzz::splitFirstLine(fuzz::text(data, size));
    atproto::answerEnded(raw);
    atproto::shortCmd(cmd);
    const std::string answer = atproto::parseResponse(raw, cmd + "\r");
    for (int number = -1; number <= 7; ++number) {
        if (AtMdonImpl::getResponseField(answer, number).size() > answer.size()) {
            fuzz::fail("a field longer than the answer it came from");
        }
    }
    return 0;
}
