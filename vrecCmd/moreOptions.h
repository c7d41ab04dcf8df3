#ifndef VREC_CMD_MOREOPTIONS_H
#define VREC_CMD_MOREOPTIONS_H

#include <string>
#include <vector>

#include "maskRequests.h"

// Long options without a short letter: their parser codes, and each one's line of help.
// A new one is a row of moreOptions() and a code here.
enum MoreOptionCode {
    OPT_LOGS = 256,
    OPT_MSGS,
    OPT_EVENTS,
    OPT_MASK_FILE,
    OPT_ON_CRASH,
    OPT_COLLECT_DUMP,
};

struct MoreOption {
    const char* name;
    int hasArgument;  // as the long-option parser has it
    int code;
    const char* help;  // its line under "More options:", as printed
};
const std::vector<MoreOption>& moreOptions();
// The text of `vrec -h` below the usage: a blank line, "More options:", one line each.
std::string moreOptionsHelp();
const char* moreOptionName(int code);
// Whether `code` is one of the options that choose what is logged.
bool isLogOption(int code);

// The options that choose what a Qualcomm module logs. Takes one into `selection`; empty
// when its value is good, else the ERROR line's text (without "ERROR: ").
std::string takeLogOption(int code, const std::string& value, masks::Selection* selection);
// After all options: what is wrong with the combination, or empty. `otherMode` names the
// option of a capture that is not a Qualcomm one ("-i (IMC)"), or is empty.
std::string logOptionConflict(const masks::Selection& selection, const std::string& otherMode);
// The options given, for a line: "--logs, --events".
std::string logOptionsGiven(const masks::Selection& selection);

#endif
