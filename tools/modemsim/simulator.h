#ifndef VREC_TOOLS_SIMULATOR_H
#define VREC_TOOLS_SIMULATOR_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "atModule.h"
#include "dumpPort.h"
#include "hdlc.h"
#include "maskState.h"
#include "ptyPort.h"
#include "simOptions.h"
#include "wwanFs.h"

namespace vtools {

// The running module: its ports, the Diag stream, the AT interpreter and the faults, in
// one thread around poll().
class Simulator {
public:
    explicit Simulator(SimOptions options);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Makes the ports, the record and the control FIFO, and prints the ready line.
    bool start(std::string* error);
    // Runs until SIGINT, SIGTERM or "quit"; prints the byte counts at the end.
    int run();

private:
    using Clock = std::chrono::steady_clock;

    struct Chunk {
        std::string bytes;
        Clock::time_point due;
    };
    struct Port {
        std::string role;  // "diag", "pcui" or "port" (both on one)
        std::string linkPath;
        bool carriesDiag = false;
        bool carriesAt = false;
        PtyPort pty;
        Deframer deframer;
        bool afterText = false;  // the last thing on the Diag side was a text line
        std::string atLine;
        std::deque<Chunk> out;  // not yet sent: answers split in time, or waiting for the host
        // With --drop-when-full: the host driver's receive buffer, from `hostHead` on.
        std::string host;
        size_t hostHead = 0;
        bool answerQueued = false;  // the buffer holds an answer: a short transfer goes too
        size_t queued = 0;          // in `out` and `host`, not yet in the terminal
        uint64_t offered = 0;
        uint64_t written = 0;
        uint64_t dropped = 0;
        uint64_t drops = 0;  // chunks dropped whole because the receive buffer had no room
        bool silent = false;
        bool down = false;
        Clock::time_point reopenAt;
    };
    struct TimedFault {
        Clock::time_point due;
        Fault fault;
    };

    void record(const Port& port, const std::string& kind, const std::string& data);
    void event(const std::string& words);
    long elapsedMs() const;

    // The ports as files of a FUSE mount that are not terminals (--wwan).
    bool startWwan(std::string* error);
    void readPort(Port& port);
    void takeDiagBytes(Port& port);
    void takeFrame(Port& port, const DeframeStep& step);
    void takeDiagText(Port& port, const std::string& line);
    void takeAtBytes(Port& port, const char* data, size_t size);
    std::string runAt(const std::string& line);  // interpreter plus the answer faults

    void send(Port& port, std::string bytes, bool answer, bool now = true);
    void flush(Port& port);
    void admit(Port& port, std::string&& bytes);  // into the receive buffer, or dropped
    void drain(Port& port);                       // the receive buffer into the terminal
    bool hostPaced(const Port& port) const;
    uint64_t streamDue() const;  // stream units (packets or bytes) the rate allows by now
    void pump();                 // generates the stream while it runs

    // The next frame of the stream (maskedStream.cpp), of `size` bytes; empty when the
    // masks keep a replayed one back. False when there is none now, or the replay ended.
    bool nextStreamFrame(std::string* bytes, size_t* size);
    void takeMaskRequest(const std::string& request, std::string* answer);

    void startStream();
    void stopStream(const std::string& why);
    Port* diagPort();

    void applyFault(const Fault& fault);
    // The crash and dump mode (simulatorCrash.cpp).
    void crashFault(const Fault& fault);
    void serviceCrash();  // each round: the steps of a crash under way
    void enterDumpMode();
    void openDumpPort();
    void watchNewId();
    void leaveDumpMode();
    void applyDumpFault(const Fault& fault);
    void hangup(Port& port, long downMs);
    void reopen(Port& port);
    void readControl();
    void controlLine(const std::string& line);
    void report();

    SimOptions opts;
    AtModule module;
    std::unique_ptr<WwanFs> wwan;
    std::vector<std::unique_ptr<Port>> ports;
    FILE* recordFile = nullptr;
    int controlFd = -1;
    int controlKeep = -1;  // our own writer, so the FIFO never reads as ended
    std::string controlLineBuffer;
    int signalFd = -1;
    bool quit = false;
    Clock::time_point started;
    std::vector<TimedFault> timedFaults;
    size_t splitSize = 0;
    std::string unsolicited;

    bool streaming = false;
    Clock::time_point streamStarted;
    uint64_t streamSlots = 0;  // units (packets, or bytes with --byte-rate) used since start
    uint64_t lateSlots = 0;    // units skipped because the simulator itself fell behind
    uint64_t generated = 0;    // packets sent in all, across streams
    uint32_t nextSeq = 0;
    std::vector<std::string> replayFrames;
    size_t replayNext = 0;
    MaskState masks;

    enum class Crash { kNone, kDraining, kDump, kRebooting };
    Crash crashState = Crash::kNone;
    Clock::time_point crashDeadline;    // draining: its end; rebooting: the return
    Clock::time_point crashEmptySince;  // draining: since when the host's side is empty
    std::unique_ptr<DumpPort> dumpPort;
    std::vector<Fault> dumpFaults;  // for every dump, in the order given
    SysfsDumpDevice dumpDevice;
};

}  // namespace vtools

#endif
