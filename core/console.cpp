#include "console.h"

#include <cstdarg>
#include <cstdio>

const char* const kLineClear =
    "\r                                                                                 "
    "                   \r";

namespace {
// Holds the stream for one whole print, and lets go of it even when the printing thread is
// cancelled in the middle.
class StreamLock {
public:
    explicit StreamLock(FILE* stream) : locked(stream) { flockfile(locked); }
    ~StreamLock() { funlockfile(locked); }
    StreamLock(const StreamLock&) = delete;
    StreamLock& operator=(const StreamLock&) = delete;

private:
    FILE* locked;
};
}  // namespace

void consolePrint(const char* format, ...) {
    va_list args;
    va_start(args, format);
    {
        const StreamLock lock(stdout);
        vfprintf(stdout, format, args);
        fflush(stdout);
    }
    va_end(args);
}
