#include "console.h"

#include <cstdarg>
#include <cstdio>

const char* const kLineClear =
    "\r                                                                                 "
    "                   \r";

void consolePrint(const char* format, ...) {
    va_list args;
    va_start(args, format);
    flockfile(stdout);
    vfprintf(stdout, format, args);
    fflush(stdout);
    funlockfile(stdout);
    va_end(args);
}
