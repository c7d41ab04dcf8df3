#ifndef VREC_CMD_OPTIONVALUES_H
#define VREC_CMD_OPTIONVALUES_H

#include <cstdint>
#include <string>

// The values the options take, checked before any option acts, so that a mistyped number
// or a name that would break an AT command ends the run before a port is touched.

// Long options without a letter.
constexpr int kOnCrashOption = 0x1701;
constexpr int kCollectDumpOption = 0x1702;
// One help line for each of them, for the list of long options.
extern const char* const kCrashDumpOptionHelp[2];

// A whole decimal number of digits only, from `low` to `high`.
bool parseWholeNumber(const std::string& text, uint64_t low, uint64_t high, uint64_t* value);

// What a value of the option `letter` must be, when `text` is not one; empty when it is.
std::string valueRule(int letter, const std::string& text);

#endif
