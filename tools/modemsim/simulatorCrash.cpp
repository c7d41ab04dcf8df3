// The module's crash: its ports go, it comes back in dump mode and serves its memory over
// Sahara, and after RESET it reboots into the normal module.
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>

#include "simulator.h"
#include "textUtil.h"

namespace vtools {

namespace {

// How long the host may take to read what the Diag port holds when the firmware crashes.
constexpr auto kDrainGrace = std::chrono::seconds(1);
constexpr auto kEmptyFor = std::chrono::milliseconds(100);

}  // namespace

void Simulator::crashFault(const Fault& fault) {
    if (fault.kind != Fault::kCrash) {
        dumpFaults.push_back(fault);
        if (dumpPort) {
            applyDumpFault(fault);
        }
        return;
    }
    if (crashState != Crash::kNone) {
        event("crash ignored: the module is not running");
        return;
    }
    stopStream("crash");
    crashState = Crash::kDraining;
    crashEmptySince = Clock::time_point::max();
    crashDeadline = Clock::now() + kDrainGrace;
}

void Simulator::applyDumpFault(const Fault& fault) {
    SaharaServer& server = dumpPort->server();
    const auto bytes = static_cast<uint64_t>(fault.value);
    switch (fault.kind) {
        case Fault::kDumpHangup:
            server.hangupAfter(bytes);
            break;
        case Fault::kDumpSilent:
            server.silentAfter(bytes);
            break;
        case Fault::kDumpRefuse:
            server.refuse(fault.text);
            break;
        case Fault::kDumpMode:
            server.setMode(static_cast<uint32_t>(fault.value));
            break;
        case Fault::kDumpTableLength:
            server.announceTableLength(bytes);
            break;
        default:
            break;
    }
}

void Simulator::serviceCrash() {
    if (crashState == Crash::kNone) {
        return;
    }
    const auto now = Clock::now();
    switch (crashState) {
        case Crash::kNone:
            return;
        case Crash::kDraining: {
            // What the Diag port held counts as read once the host's side stayed empty for a
            // moment.
            Port* port = diagPort();
            const size_t unread =
                port == nullptr || port->down ? 0 : port->queued + port->pty.unread();
            if (unread != 0) {
                crashEmptySince = Clock::time_point::max();
            } else if (crashEmptySince == Clock::time_point::max()) {
                crashEmptySince = now;
            }
            if ((unread == 0 && now - crashEmptySince >= kEmptyFor) || now >= crashDeadline) {
                const long last = generated == 0 ? -1 : static_cast<long>(nextSeq) - 1;
                event("crash after seq " + std::to_string(last) + " unread " +
                      std::to_string(unread));
                enterDumpMode();
            }
            return;
        }
        case Crash::kDump:
            if (!dumpPort) {
                watchNewId();
                return;
            }
            dumpPort->service();
            if (dumpPort->over()) {
                leaveDumpMode();
            }
            return;
        case Crash::kRebooting:
            if (now < crashDeadline) {
                return;
            }
            crashState = Crash::kNone;
            if (!opts.sysfsRoot.empty()) {
                std::string error;
                if (!writeSysfsTree(opts.sysfsRoot, opts.sysfs, &error)) {
                    fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
                }
            }
            for (auto& port : ports) {
                port->reopenAt = now;
            }
            event("return");
            return;
    }
}

void Simulator::enterDumpMode() {
    for (auto& port : ports) {
        hangup(*port, 0);
        port->reopenAt = Clock::time_point::max();  // until the module returns
    }
    crashState = Crash::kDump;
    dumpDevice.product = opts.dump.product;
    dumpDevice.driver = opts.dump.driver;
    dumpDevice.tty = "ttyUSB" + std::to_string(opts.sysfs.firstTty + 3);
    if (!opts.sysfsRoot.empty()) {
        removeSysfsModule(opts.sysfsRoot);
        std::string error;
        if (!writeSysfsDumpDevice(opts.sysfsRoot, dumpDevice, false, &error)) {
            fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        }
        if (opts.dump.unbound) {
            event("dump device unbound");
            return;  // the port comes when the host binds the interface
        }
    }
    openDumpPort();
}

void Simulator::openDumpPort() {
    dumpPort = std::make_unique<DumpPort>(
        opts.dump, [this](const std::string& kind, const std::string& text) {
            if (kind == "event") {
                event("dump " + text);
            } else if (recordFile != nullptr) {
                fprintf(recordFile, "%ld dump %s %s\n", elapsedMs(), kind.c_str(), text.c_str());
                fflush(recordFile);
            }
        });
    for (const Fault& fault : dumpFaults) {
        applyDumpFault(fault);
    }
    std::string error;
    if (!dumpPort->open(&error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        event("dump port not made: " + error);
        return;
    }
    if (!opts.sysfsRoot.empty() && !bindSysfsDumpDevice(opts.sysfsRoot, dumpDevice, &error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
    }
    event("dump port " + opts.dump.portPath + " -> " + dumpPort->terminal());
    printf("dump: %s -> %s\n", opts.dump.portPath.c_str(), dumpPort->terminal().c_str());
    fflush(stdout);
}

void Simulator::watchNewId() {
    const std::string path = sysfsNewIdPath(opts.sysfsRoot);
    std::ifstream in(path);
    std::ostringstream content;
    content << in.rdbuf();
    std::string text = content.str();
    if (text.empty()) {
        return;
    }
    std::ofstream(path, std::ios::trunc).close();
    while (!text.empty() && isspace(static_cast<unsigned char>(text.back()))) {
        text.pop_back();
    }
    std::string expected = "05c6 " + opts.dump.product;
    for (char& c : expected) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    std::string given = text;
    for (char& c : given) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    if (recordFile != nullptr) {
        fprintf(recordFile, "%ld dump new_id %s\n", elapsedMs(), escapeText(text).c_str());
    }
    if (given != expected) {
        if (recordFile != nullptr) {
            fprintf(recordFile, "%ld dump error new_id \"%s\" matches no device (%s would)\n",
                    elapsedMs(), escapeText(text).c_str(), expected.c_str());
            fflush(recordFile);
        }
        return;
    }
    event("dump bound");
    openDumpPort();
}

void Simulator::leaveDumpMode() {
    dumpPort->close();
    dumpPort.reset();
    if (!opts.sysfsRoot.empty()) {
        removeSysfsDumpDevice(opts.sysfsRoot, dumpDevice);
    }
    crashState = Crash::kRebooting;
    crashDeadline = Clock::now() + std::chrono::milliseconds(opts.dump.rebootMs);
    event("reboot");
}

}  // namespace vtools
