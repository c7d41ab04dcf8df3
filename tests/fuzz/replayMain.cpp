// Runs a fuzz target over files and directories of inputs, once each, where libFuzzer is not
// at hand: the corpus then serves as an ordinary regression test. Words beginning with '-'
// are libFuzzer's options and are passed over, so both builds take the same command.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzzSupport.h"

namespace {

bool runFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    size_t inputs = 0;
    bool readable = true;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!arg.empty() && arg[0] == '-') {
            continue;
        }
        std::error_code error;
        if (std::filesystem::is_directory(arg, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(arg)) {
                if (entry.is_regular_file()) {
                    readable = runFile(entry.path()) && readable;
                    ++inputs;
                }
            }
        } else {
            readable = runFile(arg) && readable;
            ++inputs;
        }
    }
    printf("%zu inputs run\n", inputs);
    // An empty corpus tests nothing: a missing directory must not pass unnoticed.
    return readable && inputs > 0 ? 0 : 1;
}
