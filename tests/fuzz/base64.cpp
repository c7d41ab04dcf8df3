// Base64 pieces of an export as the module sends them, and the way back.
#include "codec.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = fuzz::text(data, size);
    int count = 0;
    const std::string decoded = Base64Decode(input.data(), static_cast<int>(input.size()), &count);
    if (static_cast<size_t>(count) != decoded.size() || decoded.size() > input.size()) {
        fuzz::fail("a decoded size that does not match its count or its text");
    }
    const std::string encoded = Base64Encode(data, static_cast<int>(size));
    count = 0;
    if (Base64Decode(encoded.data(), static_cast<int>(encoded.size()), &count) != input) {
        fuzz::fail("encoding and decoding do not give the bytes back");
    }
    return 0;
}
