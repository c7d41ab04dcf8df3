#ifndef VREC_SRV_DUMPSERVICE_H
#define VREC_SRV_DUMPSERVICE_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "dumpDiscovery.h"

// What is done with a module found in dump mode during a capture.
enum class CrashAction { Collect, Reset, Leave };

// Finds a crashed module waiting in dump mode, collects its memory into a dump directory
// under the log directory and resets it, so that it comes back and the capture goes on.
class DumpService {
public:
    // How long a port of a freshly bound dump interface is waited for.
    static constexpr int kBindWaitMs = 5000;
    // How long vrec --collect-dump looks for a module in dump mode.
    static constexpr int kCollectAloneWaitMs = 10000;

    enum class Found {
        Nothing,  // no module in dump mode (or only ones told about before)
        Reset,    // a module in dump mode was reset, with its memory collected or not
        Left,     // a module in dump mode left as it is
    };
    using StopCheck = std::function<bool()>;

    static DumpService* getInstance();
    static void destroy();
    DumpService(const DumpService&) = delete;
    DumpService& operator=(const DumpService&) = delete;

    void setCrashAction(CrashAction value) { action = value; }
    CrashAction crashAction() const { return action; }

    // Looks once for a module in dump mode and deals with it as the crash action says.
    // `lostAtMs`: when the Diag port went away (0: not in a capture). `stopped` tells of a
    // stop, which ends a collection at its next piece.
    Found lookForDump(uint64_t lostAtMs, const StopCheck& stopped);
    // vrec --collect-dump: waits for a module in dump mode, collects and resets it. The exit
    // status: 0 when every region is complete, else 1.
    int collectAlone(const StopCheck& stopped);

private:
    DumpService() = default;

    // Binds dump interfaces that no driver holds, once each; true when one got a port. A stop
    // ends the wait for the port.
    bool bindUnbound(const std::vector<DumpPortCandidate>& candidates, const StopCheck& stopped);
    // Opens a candidate and handles it; Nothing when it is no dump port.
    Found handlePort(const std::string& path, uint64_t lostAtMs, CrashAction what,
                     const StopCheck& stopped);
    void sayOnce(const std::string& path, const std::string& line);

    CrashAction action = CrashAction::Collect;
    // Ports told about (download mode, another mode, left alone): not opened again while
    // they are there.
    std::set<std::string> toldAbout;
    // Ports of modules reset and the time: skipped while the module restarts.
    std::map<std::string, uint64_t> resetPorts;
    std::set<std::string> bindTried;
    bool lastComplete = false;
};

#endif
