#include "moreOptions.h"

#include <getopt.h>

#include "logSelection.h"
#include "textUtil.h"

namespace {

const char* const kListRule =
    "layer names (lte-rrc, lte-nas, nr-rrc, nr-nas, wcdma-rrc, gsm-rr, umts-nas, gprs, "
    "signalling, lte-ml1, nr-ml1, measurements, lte-l2, ip, all), log codes 0x0000 to 0xFFFF "
    "or ranges such as 0xB0C0-0xB0CF, separated by commas";

std::string invalid(int code, const std::string& value, const std::string& rule) {
    return "invalid value \"" + escapeText(value) + "\" for --" + moreOptionName(code) + ": give " +
           rule + ".";
}

}  // namespace

const std::vector<MoreOption>& moreOptions() {
    static const std::vector<MoreOption> kOptions = {
        {"logs", required_argument, OPT_LOGS,
         "  --logs LIST                Log only these log codes: layer names, codes (0xB0C0) "
         "and ranges (0xB0C0-0xB0CF), comma-separated; see man vrec"},
        {"msgs", required_argument, OPT_MSGS,
         "  --msgs LEVEL               Message level for all subsystems: "
         "off|fatal|error|high|medium|low"},
        {"events", required_argument, OPT_EVENTS,
         "  --events on|off            Event reports on or off"},
        {"mask-file", required_argument, OPT_MASK_FILE,
         "  --mask-file FILE           Send the HDLC frames of FILE (each ending with 0x7E) "
         "as the start set"},
        {"on-crash", required_argument, OPT_ON_CRASH,
         "  --on-crash collect|reset|leave  When the module crashes into dump mode: collect its "
         "memory dump (default), only reset it, or leave it"},
        {"collect-dump", no_argument, OPT_COLLECT_DUMP,
         "  --collect-dump             Collect the dump of a module in dump mode, reset it and "
         "end (status 0 when complete)"},
    };
    return kOptions;
}

bool isLogOption(int code) {
    return code >= OPT_LOGS && code <= OPT_MASK_FILE;
}

std::string moreOptionsHelp() {
    std::string text = "\nMore options:\n";
    for (const MoreOption& option : moreOptions()) {
        text += std::string(option.help) + "\n";
    }
    return text;
}

const char* moreOptionName(int code) {
    for (const MoreOption& option : moreOptions()) {
        if (option.code == code) {
            return option.name;
        }
    }
    return "";
}

std::string takeLogOption(int code, const std::string& value, masks::Selection* selection) {
    switch (code) {
        case OPT_LOGS: {
            std::string bad;
            if (!masks::parseLogList(value, selection, &bad)) {
                return invalid(code, bad, kListRule);
            }
            return "";
        }
        case OPT_MSGS:
            if (!masks::parseMsgLevel(value, &selection->msgLevelBits)) {
                return invalid(code, value, "off, fatal, error, high, medium or low");
            }
            selection->msgsGiven = true;
            selection->msgLevelName = value;
            return "";
        case OPT_EVENTS:
            if (!masks::parseEvents(value, &selection->eventsOn)) {
                return invalid(code, value, "on or off");
            }
            selection->eventsGiven = true;
            return "";
        case OPT_MASK_FILE: {
            std::string why;
            if (!loadMaskFile(value, &selection->maskFrames, &why)) {
                return "--mask-file \"" + escapeText(value) + "\" cannot be used: " + why +
                       "; give a file of at most 1 MiB of HDLC-framed requests, each ending "
                       "with 0x7E.";
            }
            selection->maskFileGiven = true;
            return "";
        }
        default:
            return "";
    }
}

std::string logOptionConflict(const masks::Selection& selection, const std::string& otherMode) {
    if (selection.maskFileGiven &&
        (selection.logsGiven || selection.msgsGiven || selection.eventsGiven)) {
        return "--mask-file excludes --logs, --msgs and --events: give the mask file alone, or "
               "the others without it.";
    }
    if (!otherMode.empty() && selection.any()) {
        return otherMode + " cannot take " + logOptionsGiven(selection) +
               ": these choose what a Qualcomm capture through the Diag port logs.";
    }
    return "";
}

std::string logOptionsGiven(const masks::Selection& selection) {
    std::string names;
    const std::pair<bool, const char*> given[] = {{selection.logsGiven, "--logs"},
                                                  {selection.msgsGiven, "--msgs"},
                                                  {selection.eventsGiven, "--events"},
                                                  {selection.maskFileGiven, "--mask-file"}};
    for (const auto& option : given) {
        if (option.first) {
            names += (names.empty() ? "" : ", ") + std::string(option.second);
        }
    }
    return names;
}
