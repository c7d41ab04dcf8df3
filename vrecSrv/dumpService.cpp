#include "dumpService.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>

#include "console.h"
#include "dateTime.h"
#include "diagLog.h"
#include "dumpCollection.h"
#include "portMgnt.h"
#include "serialport.h"

namespace {

DumpService* g_dumpService = nullptr;

// A port of a module that was reset is not opened again while the module restarts.
constexpr uint64_t kRestartGraceMs = 60000;
constexpr useconds_t kRescanPauseUs = 100000;
constexpr useconds_t kAloneRescanPauseUs = 200000;

unsigned long long ull(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

sahara::Session::Action sessionAction(CrashAction action) {
    switch (action) {
        case CrashAction::Reset:
            return sahara::Session::Action::Reset;
        case CrashAction::Leave:
            return sahara::Session::Action::Leave;
        case CrashAction::Collect:
            break;
    }
    return sahara::Session::Action::Collect;
}

bool present(const std::vector<DumpPortCandidate>& candidates, const std::string& path) {
    return std::any_of(candidates.begin(), candidates.end(),
                       [&](const DumpPortCandidate& c) { return c.path == path; });
}

}  // namespace

DumpService* DumpService::getInstance() {
    if (g_dumpService == nullptr) {
        g_dumpService = new DumpService;
    }
    return g_dumpService;
}

void DumpService::destroy() {
    delete g_dumpService;
    g_dumpService = nullptr;
}

void DumpService::sayOnce(const std::string& path, const std::string& line) {
    if (toldAbout.insert(path).second) {
        DIAG_LOG(LOG_INFO, "%s", line.c_str());
        consolePrint("%s%s\n", kLineClear, line.c_str());
    }
}

DumpService::Found DumpService::lookForDump(uint64_t lostAtMs, const StopCheck& stopped) {
    std::vector<DumpPortCandidate> candidates = OS_ADAPT_FindDumpPorts();
    // Ports that went away are forgotten: a module that shows one again crashed again.
    const uint64_t now = GetTickMs();
    for (auto it = toldAbout.begin(); it != toldAbout.end();) {
        it = present(candidates, *it) ? std::next(it) : toldAbout.erase(it);
    }
    for (auto it = resetPorts.begin(); it != resetPorts.end();) {
        const bool keep = present(candidates, it->first) && now - it->second < kRestartGraceMs;
        it = keep ? std::next(it) : resetPorts.erase(it);
    }
    if (bindUnbound(candidates, stopped)) {
        candidates = OS_ADAPT_FindDumpPorts();
    }
    for (const DumpPortCandidate& candidate : candidates) {
        if (candidate.kind == DumpPortCandidate::Kind::Download) {
            sayOnce(candidate.path, "INFO: the module is in emergency download mode (05C6:" +
                                        upper(candidate.product) + ") on " + candidate.path +
                                        "; vrec leaves it alone.");
            continue;
        }
        if (candidate.kind != DumpPortCandidate::Kind::Dump ||
            toldAbout.count(candidate.path) != 0 || resetPorts.count(candidate.path) != 0) {
            continue;
        }
        const Found found = handlePort(candidate.path, lostAtMs, action, stopped);
        if (found != Found::Nothing) {
            return found;
        }
    }
    return Found::Nothing;
}

bool DumpService::bindUnbound(const std::vector<DumpPortCandidate>& candidates,
                              const StopCheck& stopped) {
    bool bound = false;
    for (const DumpPortCandidate& candidate : candidates) {
        if (candidate.kind != DumpPortCandidate::Kind::Unbound ||
            !bindTried.insert(candidate.interface).second) {
            continue;
        }
        const std::string device = "05C6:" + upper(candidate.product);
        if (geteuid() != 0) {
            consolePrint(
                "%sWARNING: a module in dump mode (%s, interface %s) has no driver, and only "
                "root may bind one: write \"05c6 %s\" to %s.\n",
                kLineClear, device.c_str(), candidate.interface.c_str(), candidate.product.c_str(),
                OS_ADAPT_NewIdPath().c_str());
            continue;
        }
        std::string error;
        if (!OS_ADAPT_BindDumpInterface(candidate.product, &error)) {
            DIAG_LOG(LOG_ERRO, "binding %s failed: %s", device.c_str(), error.c_str());
            consolePrint(
                "%sWARNING: can't bind the serial driver to the dump interface of %s: %s\n",
                kLineClear, device.c_str(), error.c_str());
            continue;
        }
        consolePrint(
            "%sINFO: no driver held the dump interface %s of %s: vrec wrote \"05c6 %s\" to %s.\n",
            kLineClear, candidate.interface.c_str(), device.c_str(), candidate.product.c_str(),
            OS_ADAPT_NewIdPath().c_str());
        const uint64_t deadline = GetTickMs() + kBindWaitMs;
        for (;;) {
            const std::vector<DumpPortCandidate> now = OS_ADAPT_FindDumpPorts();
            const bool hasPort = std::any_of(now.begin(), now.end(), [&](const auto& c) {
                return c.interface == candidate.interface &&
                       c.kind == DumpPortCandidate::Kind::Dump;
            });
            if (hasPort) {
                bound = true;
                break;
            }
            if (stopped && stopped()) {
                return bound;
            }
            if (GetTickMs() >= deadline) {
                consolePrint("%sWARNING: the dump interface %s got no port within %d s.\n",
                             kLineClear, candidate.interface.c_str(), kBindWaitMs / 1000);
                break;
            }
            usleep(kRescanPauseUs);
        }
    }
    return bound;
}

DumpService::Found DumpService::handlePort(const std::string& path, uint64_t lostAtMs,
                                           CrashAction what, const StopCheck& stopped) {
    DIAG_LOG(LOG_INFO, "looking at the dump-mode candidate %s", path.c_str());
    int port = -1;
    if (OS_ADAPT_OpenDump(path.c_str(), &port) != OS_ADAPT_SUCCESS) {
        DIAG_LOG(LOG_INFO, "can't open the dump-mode candidate %s", path.c_str());
        return Found::Nothing;
    }
    DumpCollection collection(port, path, sessionAction(what), stopped);
    collection.run(PortMgnt::getInstance()->getSavePath(), [&] {
        if (lostAtMs != 0) {
            consolePrint(
                "%sINFO: the module crashed: its Diag port went away at %s, and it waits in dump "
                "mode on %s.\n",
                kLineClear, ClockText(lostAtMs).c_str(), path.c_str());
        } else {
            consolePrint("%sINFO: a module waits in dump mode on %s.\n", kLineClear, path.c_str());
        }
        if (what == CrashAction::Collect) {
            consolePrint("INFO: memory dump started at %s.\n", ClockText(GetTickMs()).c_str());
        }
    });
    OS_ADAPT_Close(port);

    if (!collection.dumpMode()) {
        // Told once, and not opened again while it is there: its HELLO will not come again.
        if (collection.otherMode() == "no Sahara HELLO" || collection.otherMode().empty()) {
            toldAbout.insert(path);
            DIAG_LOG(LOG_INFO, "%s said no Sahara HELLO in %d ms", path.c_str(),
                     DumpCollection::kHelloWaitMs);
        } else {
            sayOnce(path, "INFO: " + path + " speaks Sahara in " + collection.otherMode() +
                              " mode, not memory debug; vrec leaves it alone.");
        }
        return Found::Nothing;
    }
    if (what == CrashAction::Leave) {
        sayOnce(path, "INFO: the module waits in dump mode on " + path +
                          "; with --on-crash leave vrec writes nothing to it.");
        return Found::Left;
    }
    resetPorts[path] = GetTickMs();
    const sahara::Session& session = collection.session();
    if (what == CrashAction::Collect && !collection.directory().empty()) {
        lastComplete = session.allComplete() && session.result() == "complete";
        consolePrint("%sINFO: memory dump ended: %s, %zu regions, %llu bytes in %.1f s, %s.\n",
                     kLineClear, collection.directory().c_str(), session.regions().size(),
                     ull(session.storedBytes()), collection.seconds(),
                     lastComplete ? "all complete" : session.result().c_str());
        DIAG_LOG(LOG_INFO, "memory dump in %s: %zu regions, %llu bytes in %.1f s, %s",
                 collection.directory().c_str(), session.regions().size(),
                 ull(session.storedBytes()), collection.seconds(), session.result().c_str());
    } else if (what == CrashAction::Collect) {
        lastComplete = false;
    }
    if (collection.resetAnswered()) {
        consolePrint(
            "%sINFO: the module was reset%s; waiting for it to come back.\n", kLineClear,
            what == CrashAction::Reset ? " without its memory being read (--on-crash reset)" : "");
    } else {
        consolePrint("%sWARNING: the module did not answer the RESET (%s); waiting for it.\n",
                     kLineClear, session.result().c_str());
    }
    return Found::Reset;
}

int DumpService::collectAlone(const StopCheck& stopped) {
    consolePrint("INFO: looking for a module in dump mode (up to %d s)...\n",
                 kCollectAloneWaitMs / 1000);
    const CrashAction saved = action;
    action = CrashAction::Collect;
    const uint64_t deadline = GetTickMs() + kCollectAloneWaitMs;
    Found found = Found::Nothing;
    while (found == Found::Nothing && !(stopped && stopped()) && GetTickMs() < deadline) {
        found = lookForDump(0, stopped);
        if (found == Found::Nothing) {
            usleep(kAloneRescanPauseUs);
        }
    }
    action = saved;
    if (found != Found::Reset) {
        consolePrint("ERROR: no module in dump mode found within %d s.\n",
                     kCollectAloneWaitMs / 1000);
        return 1;
    }
    return lastComplete ? 0 : 1;
}
