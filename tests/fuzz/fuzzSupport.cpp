#include "fuzzSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fuzz {

namespace {

std::string g_dir;

void removeScratch() {
    std::error_code ignored;
    std::filesystem::remove_all(g_dir, ignored);
}

}  // namespace

const std::string& scratchDir() {
    if (g_dir.empty()) {
        char pattern[] = "/tmp/vrec-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr || chdir(pattern) != 0) {
            fail("no scratch directory under /tmp");
        }
        g_dir = pattern;
        atexit(removeScratch);
    }
    return g_dir;
}

void fail(const char* what) {
    fprintf(stderr, "fuzz target: %s\n", what);
    abort();
}

}  // namespace fuzz
