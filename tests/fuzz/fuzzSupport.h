#ifndef VREC_TESTS_FUZZSUPPORT_H
#define VREC_TESTS_FUZZSUPPORT_H

// What every fuzz target shares. A target defines LLVMFuzzerTestOneInput; libFuzzer calls
// it, or, in builds without libFuzzer, replayMain.cpp does for each file of a corpus.
#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fuzz {

// Moves the process into a fresh directory under /tmp, removed at exit, so that the
// diagnostic log and any file a parser touches stay out of the way. Once per process.
const std::string& scratchDir();

// Stops the run with a message: an input broke a property the target checks.
[[noreturn]] void fail(const char* what);

inline std::string text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// The input cut at its first newline: the head and the rest.
inline std::pair<std::string, std::string> splitFirstLine(const std::string& input) {
    const size_t end = input.find('\n');
    if (end == std::string::npos) {
        return {input, std::string()};
    }
    return {input.substr(0, end), input.substr(end + 1)};
}

}  // namespace fuzz

#endif
