#ifndef VREC_TOOLS_SIMOPTIONS_H
#define VREC_TOOLS_SIMOPTIONS_H

#include <string>
#include <vector>

#include "atModule.h"
#include "dumpSetup.h"
#include "maskState.h"
#include "sysfsTree.h"

namespace vtools {

// A fault, as given to --fault or written to the control FIFO.
struct Fault {
    enum Kind {
        kHangup,           // port: "diag", "pcui", "port" or "all"; value: ms until it comes back
        kSilent,           // port (or "off"): read and record, but send nothing
        kError,            // text: commands starting with AT+text get ERROR ("" clears)
        kSplit,            // value: answers go out in writes of this many bytes (0: whole)
        kUnsolicited,      // text: a line sent before every answer ("" clears)
        kStopTransfer,     // value: a file transfer fails after this many pieces (0: never)
        kCrash,            // the firmware crashes: dump mode until RESET, then a reboot
        kDumpHangup,       // value: the dump port hangs up after this many region bytes
        kDumpRefuse,       // text: the region (number or file name) answered by END_IMAGE_TX
        kDumpSilent,       // value: the dump port stops answering after this many region bytes
        kDumpMode,         // value: the mode HELLO announces
        kDumpTableLength,  // value: the table length MEMORY_DEBUG announces
    };
    Kind kind = kSilent;
    std::string port;
    std::string text;
    long value = 0;
    long afterMs = 0;   // "@MS": from the command line, the fault waits this long
    std::string given;  // as given, for the record
};

// Parses "hangup=diag:500@2000", "silent", "silent=pcui", "silent=off", "error=^MDSL",
// "split=3", "unsolicited=^BOOT: 1", "rsfr-stop=2". False with a message for anything else.
bool parseFault(const std::string& text, Fault* fault, std::string* error);
// The crash and its dump-mode faults: "crash", "crash@MS", "dump-hangup@BYTES",
// "dump-refuse=REGION", "dump-silent@BYTES", "dump-mode=N", "dump-table-length=BYTES".
// False, with `error` empty, for a fault of another family.
bool parseDumpFault(const std::string& text, Fault* fault, std::string* error);

struct SimOptions {
    std::string diagLink;
    std::string pcuiLink;
    std::string sharedLink;  // one port carrying the Diag stream and tunnelled AT commands
    std::string recordPath;
    std::string controlPath;
    std::string replayPath;
    std::string sysfsRoot;
    std::string wwanDir;  // ports served as WWAN nodes in a FUSE mount there
    SysfsModule sysfs;
    long rate = 0;      // stream packets per second; 0: as fast as the host takes them
    long byteRate = 0;  // stream bytes per second instead (framed), 0: by `rate`
    long total = 0;     // packets in all; 0: no end
    // A module that never waits: what it sends goes into the host driver's receive buffer of
    // `hostBuffer` bytes, and a packet or answer that does not fit whole is dropped.
    bool dropWhenFull = false;
    size_t hostBuffer = 640 * 1024;
    // The size of the USB transfers in which the stream reaches that buffer and the terminal.
    size_t transfer = 4096;
    bool answerRequests = true;
    // Log codes the made-up stream draws from, those the masks enable (empty: its own one).
    std::vector<unsigned> logCodes;
    MaskState::Ranges logRanges = MaskState::kDefaultRanges;
    bool answerRanges = true;
    AtModuleConfig at;
    bool echo = true;
    std::vector<Fault> faults;
    DumpSetup dump;
};

const char* simUsage();
// 0: run; 1: done (help or version printed); 2: bad usage, message printed.
int parseSimOptions(int argc, char** argv, SimOptions* options);

}  // namespace vtools

#endif
