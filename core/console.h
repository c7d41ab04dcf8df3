#ifndef VREC_CORE_CONSOLE_H
#define VREC_CORE_CONSOLE_H

// Wipes a size report or progress line that may stand on the terminal line: a carriage
// return, 100 blanks, a carriage return.
extern const char* const kLineClear;

// Prints to standard output and flushes at once: the run sits in the background and its
// terminal lines, inline reports included, must appear when they happen.
void consolePrint(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
