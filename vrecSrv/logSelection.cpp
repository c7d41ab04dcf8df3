// The start set that the user's choice of logs, messages and events makes: what is sent,
// and what the module's answers, read from the stream as it is stored, make of it.

#include "logSelection.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include "console.h"
#include "diagLog.h"
#include "diagRequests.h"
#include "diagService.h"

namespace {

// How long the module has to tell its log ranges, and to answer the mask sets.
constexpr int kRangesWaitMs = 2000;
constexpr int kSetAnswersWaitMs = 1000;

std::string joinedNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ",") + name;
    }
    return text;
}

}  // namespace

bool loadMaskFile(const std::string& path, std::vector<std::string>* frames, std::string* error) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        *error = strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *error = "it is no regular file";
        return false;
    }
    if (static_cast<uint64_t>(info.st_size) > masks::kMaxMaskFileBytes) {
        *error = "it is larger than 1 MiB";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        *error = strerror(errno);
        return false;
    }
    std::string bytes(masks::kMaxMaskFileBytes + 1, '\0');
    in.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(in.gcount()));
    return masks::parseMaskFile(bytes, frames, error);
}

void DiagService::setSelection(const masks::Selection& chosen) {
    selection = chosen;
}

void DiagService::takeStoredBytes(const std::vector<iovec>& parts, size_t count) {
    for (const iovec& part : parts) {
        const size_t here = std::min(count, part.iov_len);
        maskAnswers.feed(static_cast<const char*>(part.iov_base), here);
        count -= here;
        if (count == 0) {
            break;
        }
    }
}

bool DiagService::sendSelectionRequest(const std::string& request, unsigned generation,
                                       bool framed) {
    const std::string wire = framed ? request : diagreq::frame(request);
    {
        std::lock_guard<std::mutex> lock(sendLock);
        if (!startSetGoesOn(generation)) {
            return false;
        }
        if (!sendSingleCmd(reinterpret_cast<const unsigned char*>(wire.data()),
                           static_cast<int>(wire.size()), PORT_DIAG)) {
            DIAG_LOG(LOG_ERRO, "Write diag command failed\n");
        }
    }
    usleep(kTableFramePauseUs);
    return true;
}

void DiagService::sendSelection() {
    DIAG_TRACE();
    std::lock_guard<std::mutex> one(selectionLock);
    const unsigned generation = portGeneration;
    if (selection.maskFileGiven) {
        for (const std::string& frame : selection.maskFrames) {
            if (!sendSelectionRequest(frame, generation, true)) {
                return;
            }
        }
        consolePrint("%sINFO: the module logs what the %zu requests of the mask file ask for.\n",
                     kLineClear, selection.maskFrames.size());
        return;
    }
    maskAnswers.arm();
    sendSelectionLogMasks(generation);
    maskAnswers.disarm();
}

void DiagService::sendSelectionLogMasks(unsigned generation) {
    const auto goOn = [this, generation] { return startSetGoesOn(generation); };
    if (!sendSelectionRequest(masks::logDisableAll(), generation) ||
        !sendSelectionRequest(masks::logRetrieveRanges(), generation)) {
        return;
    }
    masks::Ranges ranges{};
    const bool known = maskAnswers.waitForRanges(&ranges, kRangesWaitMs, goOn);
    if (!goOn()) {
        return;
    }
    const bool wantsLogs = selection.allLogs || !selection.codes.empty();
    if (!known && wantsLogs) {
        consolePrint(
            "%sWARNING: the module did not tell its log ranges within 2 s; each log mask ends "
            "at the highest item wanted%s.\n",
            kLineClear, selection.allLogs ? ", and \"all\" asks for nothing" : "");
        DIAG_LOG(LOG_WARN, "no answer to the log ranges request");
    }
    std::vector<uint16_t> beyond;
    const std::vector<masks::MaskSet> sets =
        masks::logMaskSets(selection, known ? &ranges : nullptr, &beyond);
    if (!beyond.empty()) {
        std::string codes;
        for (const uint16_t code : beyond) {
            codes += (codes.empty() ? "" : ", ") + masks::codeText(code);
        }
        consolePrint(
            "%sWARNING: log codes beyond what the module declares are not asked for: %s.\n",
            kLineClear, codes.c_str());
    }
    size_t codes = 0;
    for (const masks::MaskSet& set : sets) {
        if (!sendSelectionRequest(set.request, generation)) {
            return;
        }
        codes += set.codes;
    }
    if (!sendSelectionRequest(masks::messageSetAll(selection.msgLevelBits), generation) ||
        !sendSelectionRequest(masks::eventReport(selection.eventsOn), generation)) {
        return;
    }
    const std::string logs = selection.logsGiven ? joinedNames(selection.names) + " (" +
                                                       std::to_string(codes) + " log codes)"
                                                 : "no log codes";
    consolePrint("%sINFO: the module logs %s, messages %s, events %s.\n", kLineClear, logs.c_str(),
                 selection.msgLevelName.c_str(), selection.eventsOn ? "on" : "off");
    DIAG_LOG(LOG_INFO, "log selection sent: %s, %zu mask sets, %s ranges", logs.c_str(),
             sets.size(), known ? "the module's" : "guessed");
    if (!sets.empty() && !maskAnswers.waitForSetAnswers(sets.size(), kSetAnswersWaitMs, goOn)) {
        DIAG_LOG(LOG_WARN, "%zu log mask requests went out, fewer answers came", sets.size());
    }
    for (const auto& answer : maskAnswers.setAnswers()) {
        if (answer.second != 0) {
            const unsigned equipment = answer.first;
            consolePrint(
                "%sWARNING: the module refused the log mask of equipment %u (%s): status %u.\n",
                kLineClear, equipment, masks::equipmentName(equipment), answer.second);
        }
    }
}
