// Datagrams on the control port.
#include "controlMessage.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = fuzz::text(data, size);
    if (isStopMessage(text.data(), text.size()) != (text.find("stop") != std::string::npos)) {
        fuzz::fail("a stop found where there is none, or missed");
    }
    return 0;
}
