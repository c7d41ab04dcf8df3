#include "simOptions.h"

#include <getopt.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

namespace vtools {

namespace {

bool parseNumber(const std::string& text, long* value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    *value = strtol(text.c_str(), &end, 10);
    return *end == '\0' && *value >= 0;
}

// A count with an optional suffix: "8M" is 8,000,000 with `unit` 1000, 8,388,608 with 1024.
bool parseAmount(const std::string& text, long unit, long* value) {
    std::string digits = text;
    long factor = 1;
    if (!digits.empty() && (digits.back() == 'k' || digits.back() == 'K')) {
        factor = unit;
    } else if (!digits.empty() && (digits.back() == 'm' || digits.back() == 'M')) {
        factor = unit * unit;
    }
    if (factor != 1) {
        digits.pop_back();
    }
    if (!parseNumber(digits, value) || *value > LONG_MAX / factor) {
        return false;
    }
    *value *= factor;
    return true;
}

bool isPortName(const std::string& name) {
    return name == "diag" || name == "pcui" || name == "port" || name == "all";
}

}  // namespace

bool parseFault(const std::string& text, Fault* fault, std::string* error) {
    error->clear();
    if (parseDumpFault(text, fault, error)) {
        return true;
    }
    if (!error->empty()) {
        return false;
    }
    *fault = Fault();
    fault->given = text;
    const size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    std::string value = equals == std::string::npos ? "" : text.substr(equals + 1);
    if (name == "error" || name == "unsolicited") {
        fault->kind = name == "error" ? Fault::kError : Fault::kUnsolicited;
        fault->text = value;
        return true;
    }
    // Numeric faults may wait: "...@MS".
    const size_t at = value.find('@');
    if (at != std::string::npos) {
        if (!parseNumber(value.substr(at + 1), &fault->afterMs)) {
            *error = "bad delay in fault " + text;
            return false;
        }
        value.erase(at);
    }
    if (name == "hangup") {
        fault->kind = Fault::kHangup;
        const size_t colon = value.find(':');
        fault->port = value.substr(0, colon);
        fault->value = 1000;
        if (fault->port.empty()) {
            fault->port = "all";
        }
        if (!isPortName(fault->port) ||
            (colon != std::string::npos && !parseNumber(value.substr(colon + 1), &fault->value))) {
            *error = "bad fault " + text + " (hangup=diag|pcui|port|all[:MS])";
            return false;
        }
        return true;
    }
    if (name == "silent") {
        fault->kind = Fault::kSilent;
        fault->port = value.empty() ? "all" : value;
        if (!isPortName(fault->port) && fault->port != "off") {
            *error = "bad fault " + text + " (silent[=diag|pcui|port|all|off])";
            return false;
        }
        return true;
    }
    if (name == "split" || name == "rsfr-stop") {
        fault->kind = name == "split" ? Fault::kSplit : Fault::kStopTransfer;
        if (!parseNumber(value, &fault->value)) {
            *error = "bad fault " + text + " (" + name + "=N)";
            return false;
        }
        return true;
    }
    *error = "unknown fault " + text;
    return false;
}

const char* simUsage() {
    return "Usage: vrec-modemsim [options]\n"
           "A USB cellular module on pseudo-terminals, for vrec's tests and demos.\n"
           "Ports (a symbolic link at PATH points at the terminal; a port made anew keeps it):\n"
           "  --diag PATH            Diag port: HDLC DIAG requests in, responses and log out\n"
           "  --pcui PATH            PCUI port: AT commands\n"
           "  --port PATH            one port for both: AT commands in tunnel frames\n"
           "                         (4B C9 E8 FF id len16 text), answered in tunnel frames\n"
           "  --wwan DIR             the ports as a PCIe module's, not terminals: files\n"
           "                         wwan0qcdm0 (Diag, or --port) and wwan0at0 (PCUI) in a FUSE\n"
           "                         mount at DIR that the links point at; a hang-up of every\n"
           "                         port brings them back as wwan1...; terminal settings fail\n"
           "Diag stream (starts with log configuration operation 3 or at+trace=1, ends with\n"
           "operation 0 or at+trace=0):\n"
           "  --rate N               log packets per second (0, default: as fast as the host\n"
           "                         reads)\n"
           "  --byte-rate N[k|M]     stream bytes per second instead (k: thousand, M: million)\n"
           "  --total N              end the stream after N packets in all (0: no end)\n"
           "  --replay FILE          send FILE's frames instead of the sequence stream\n"
           "  --no-answers           leave DIAG requests unanswered\n"
           "Masks (once the host disables all logs, only what its masks enable streams):\n"
           "  --log-codes LIST       log codes the made-up stream draws from, round robin over\n"
           "                         those enabled: 0xB0C0,0xB0E0-0xB0E3 (default: its own\n"
           "                         code 0x1F5A)\n"
           "  --log-ranges N,...     the 16 item counts the module declares per equipment\n"
           "                         (default "
           "0,2042,0,0,2328,1064,0,2910,0,0,914,2464,0,519,0,0);\n"
           "                         a mask with a code beyond them is refused with status 2\n"
           "  --no-ranges-answer     leave the request for the ranges unanswered\n"
           "  --drop-when-full       never wait for the host, as a USB serial driver does not:\n"
           "                         what is sent goes into the host's receive buffer, a packet\n"
           "                         or answer that does not fit whole is dropped and counted,\n"
           "                         and the buffer moves into the terminal as the host reads\n"
           "                         (default: wait for the host, as flow control does);\n"
           "                         the simulator then runs at nice -10 where permitted\n"
           "  --host-buffer N[K|M]   size of that receive buffer (default 640K; K: KiB, M: MiB)\n"
           "  --transfer N[K]        size of the USB transfers in which the stream fills that\n"
           "                         buffer and reaches the terminal (default 4096; smaller for\n"
           "                         a module that sends packet by packet)\n"
           "AT side:\n"
           "  --files DIR            files that AT^RSFR lists and serves\n"
           "  --upload-dir DIR       where a finished AT^RSFW upload is stored (default: .)\n"
           "  --piece-size N         file bytes per AT^RSFR answer (default 512)\n"
           "  --cmdlen N             AT^CMDLEN? answer; longer commands get ERROR (default 1024)\n"
           "  --list-unquoted        AT^RSFR=? as \"^RSFR: a b\" instead of '^RSFR: "
           "(\"a\",\"b\")'\n"
           "  --echo on|off          echo of commands (default on; ATE0/ATE1 switch it)\n"
           "Record, control and faults:\n"
           "  --record FILE          one line per thing received: MS PORT KIND DATA, where KIND "
           "is\n"
           "                         frame, badfcs, junk (hex), tunnel (ID TEXT), badtunnel,\n"
           "                         text, at (escaped text) or event (words); the dump\n"
           "                         port's lines: dump sahara|junk|error|new_id DATA\n"
           "  --control PATH         FIFO that takes lines: a fault, \"stats\" or \"quit\"\n"
           "  --fault FAULT          hangup=PORT[:MS]  close PORT (diag|pcui|port|all) and make\n"
           "                                           it again after MS (default 1000)\n"
           "                         silent[=PORT|off] read but send nothing\n"
           "                         error=CMD         answer ERROR to AT+CMD..., e.g. ^MDSL\n"
           "                         split=N           answers in writes of N bytes, 20 ms apart\n"
           "                         unsolicited=TEXT  the line TEXT before every answer\n"
           "                         rsfr-stop=N       a file transfer fails after N pieces\n"
           "                         crash[@MS]        the firmware crashes, at once or MS after\n"
           "                                           the start: see Crash below\n"
           "                         Numeric faults take \"@MS\" to wait MS after the start.\n"
           "                         Faults of the dump port (no @MS; BYTES take K, M, G):\n"
           "                         dump-hangup@BYTES the port hangs up after BYTES region\n"
           "                                           bytes; the module returns as after RESET\n"
           "                         dump-silent@BYTES nothing more is sent after BYTES region\n"
           "                                           bytes; RESET still reboots the module\n"
           "                         dump-refuse=REGION END_IMAGE_TX status 0x19 instead of the\n"
           "                                           data of REGION (number from 0, or file)\n"
           "                         dump-mode=N       HELLO with mode N (0: download mode);\n"
           "                                           then any byte received is an error\n"
           "                         dump-table-length=BYTES  MEMORY_DEBUG announces BYTES; the\n"
           "                                           table reads as zeros behind its entries\n"
           "Crash (the fault crash): the Diag and PCUI ports hang up, the sysfs tree shows a\n"
           "05C6:900E device, a dump port speaks Sahara memory debug; RESET, then --reboot-ms\n"
           "later the module is back. Region bytes follow the rule of vrec-inspect --dump.\n"
           "  --dump-regions LIST    SIZE[@ADDR]:FILE[:DESCRIPTION],... SIZE and ADDR decimal\n"
           "                         or 0x hex, SIZE with K, M or G; names at most 20 bytes\n"
           "                         (default 2M:DDRCS0.BIN:DDR CS0,70001:OCIMEM.BIN:OCIMEM,\n"
           "                         4K:CODERAM.BIN:CODE RAM)\n"
           "  --dump-table 32|64     MEMORY_DEBUG and 52-byte entries, or MEMORY_DEBUG_64 and\n"
           "                         64-byte entries (default 64)\n"
           "  --dump-port PATH       the dump port's link (default: Diag port's path + .dump)\n"
           "  --dump-unbound         no driver holds the dump interface until \"05c6 900e\" is\n"
           "                         written to sys/bus/usb-serial/drivers/option1/new_id\n"
           "  --dump-driver NAME     the driver that holds it: option (default) or qcserial\n"
           "  --dump-product PID     product ID in dump mode (default 900E)\n"
           "  --reboot-ms MS         from the dump port's hang-up (after RESET_RESP) to the\n"
           "                         normal module's return (default 3000)\n"
           "Discovery:\n"
           "  --sysfs DIR            write DIR/sys/bus/usb/... for the module (alone: then exit);\n"
           "                         with --wwan DIR/sys/class/wwan instead, kept up to date\n"
           "  --product PID          product ID in modalias (default F001)\n"
           "  --protocol-roles       interfaces state their role in bInterfaceProtocol\n"
           "                         (default FF: the interface number decides)\n"
           "  --tty-base N           ttyUSB number of interface 0 (default 0)\n"
           "  --help, --version      this text; the version\n"
           "The byte counts are printed on exit, on SIGUSR1 and on \"stats\", and recorded:\n"
           "  stats: PORT offered N written N dropped N queued N drops N late-ms N\n"
           "(offered = written + dropped + queued; drops: packets and answers dropped whole;\n"
           "late-ms: stream time skipped because the simulator itself fell behind)\n"
           "SIGINT or SIGTERM end the run.\n";
}

int parseSimOptions(int argc, char** argv, SimOptions* options) {
    enum {
        kDiag = 256,
        kPcui,
        kPort,
        kRate,
        kTotal,
        kByteRate,
        kHostBuffer,
        kTransfer,
        kReplay,
        kNoAnswers,
        kLogCodes,
        kLogRanges,
        kNoRangesAnswer,
        kDrop,
        kFiles,
        kUpload,
        kPiece,
        kCmdlen,
        kUnquoted,
        kEcho,
        kRecord,
        kControl,
        kFault,
        kSysfs,
        kProduct,
        kProtocol,
        kTtyBase,
        kWwan,
        kDumpOption,  // the --dump-* options and --reboot-ms, handled by their name
        kHelp,
        kVersion
    };
    static const option kLong[] = {{"diag", required_argument, nullptr, kDiag},
                                   {"pcui", required_argument, nullptr, kPcui},
                                   {"port", required_argument, nullptr, kPort},
                                   {"rate", required_argument, nullptr, kRate},
                                   {"total", required_argument, nullptr, kTotal},
                                   {"byte-rate", required_argument, nullptr, kByteRate},
                                   {"host-buffer", required_argument, nullptr, kHostBuffer},
                                   {"transfer", required_argument, nullptr, kTransfer},
                                   {"replay", required_argument, nullptr, kReplay},
                                   {"no-answers", no_argument, nullptr, kNoAnswers},
                                   {"log-codes", required_argument, nullptr, kLogCodes},
                                   {"log-ranges", required_argument, nullptr, kLogRanges},
                                   {"no-ranges-answer", no_argument, nullptr, kNoRangesAnswer},
                                   {"drop-when-full", no_argument, nullptr, kDrop},
                                   {"files", required_argument, nullptr, kFiles},
                                   {"upload-dir", required_argument, nullptr, kUpload},
                                   {"piece-size", required_argument, nullptr, kPiece},
                                   {"cmdlen", required_argument, nullptr, kCmdlen},
                                   {"list-unquoted", no_argument, nullptr, kUnquoted},
                                   {"echo", required_argument, nullptr, kEcho},
                                   {"record", required_argument, nullptr, kRecord},
                                   {"control", required_argument, nullptr, kControl},
                                   {"fault", required_argument, nullptr, kFault},
                                   {"sysfs", required_argument, nullptr, kSysfs},
                                   {"wwan", required_argument, nullptr, kWwan},
                                   {"product", required_argument, nullptr, kProduct},
                                   {"protocol-roles", no_argument, nullptr, kProtocol},
                                   {"tty-base", required_argument, nullptr, kTtyBase},
                                   {"dump-regions", required_argument, nullptr, kDumpOption},
                                   {"dump-table", required_argument, nullptr, kDumpOption},
                                   {"dump-port", required_argument, nullptr, kDumpOption},
                                   {"dump-unbound", no_argument, nullptr, kDumpOption},
                                   {"dump-driver", required_argument, nullptr, kDumpOption},
                                   {"dump-product", required_argument, nullptr, kDumpOption},
                                   {"reboot-ms", required_argument, nullptr, kDumpOption},
                                   {"help", no_argument, nullptr, kHelp},
                                   {"version", no_argument, nullptr, kVersion},
                                   {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    int opt = 0;
    int longIndex = 0;
    while ((opt = getopt_long(argc, argv, "h", kLong, &longIndex)) != -1) {
        const std::string arg = optarg == nullptr ? "" : optarg;
        long number = 0;
        const bool numeric = parseNumber(arg, &number);
        std::string error;
        switch (opt) {
            case kDiag:
                options->diagLink = arg;
                break;
            case kPcui:
                options->pcuiLink = arg;
                break;
            case kPort:
                options->sharedLink = arg;
                break;
            case kReplay:
                options->replayPath = arg;
                break;
            case kNoAnswers:
                options->answerRequests = false;
                break;
            case kLogCodes:
            case kLogRanges:
                if (opt == kLogCodes ? !parseLogCodes(arg, &options->logCodes)
                                     : !parseLogRanges(arg, &options->logRanges)) {
                    fprintf(stderr, "vrec-modemsim: bad value %s for --%s (%s)\n", arg.c_str(),
                            opt == kLogCodes ? "log-codes" : "log-ranges",
                            opt == kLogCodes ? "codes and ranges such as 0xB0C0,0xB0E0-0xB0E3"
                                             : "16 item counts from 0 to 4096, comma-separated");
                    return 2;
                }
                break;
            case kNoRangesAnswer:
                options->answerRanges = false;
                break;
            case kDrop:
                options->dropWhenFull = true;
                break;
            case kFiles:
                options->at.filesDir = arg;
                break;
            case kUpload:
                options->at.uploadDir = arg;
                break;
            case kUnquoted:
                options->at.listUnquoted = true;
                break;
            case kRecord:
                options->recordPath = arg;
                break;
            case kControl:
                options->controlPath = arg;
                break;
            case kSysfs:
                options->sysfsRoot = arg;
                break;
            case kWwan:
                options->wwanDir = arg;
                break;
            case kProduct:
                options->sysfs.product = arg;
                break;
            case kProtocol:
                options->sysfs.protocolRoles = true;
                break;
            case kRate:
            case kTotal:
            case kPiece:
            case kCmdlen:
            case kTtyBase:
                if (!numeric || ((opt == kPiece || opt == kCmdlen) && number == 0)) {
                    fprintf(stderr, "vrec-modemsim: bad number %s\n", arg.c_str());
                    return 2;
                }
                if (opt == kRate)
                    options->rate = number;
                if (opt == kTotal)
                    options->total = number;
                if (opt == kPiece)
                    options->at.pieceSize = static_cast<size_t>(number);
                if (opt == kCmdlen)
                    options->at.maxCommandLength = static_cast<int>(number);
                if (opt == kTtyBase)
                    options->sysfs.firstTty = static_cast<int>(number);
                break;
            case kByteRate:
            case kHostBuffer:
            case kTransfer:
                if (!parseAmount(arg, opt == kByteRate ? 1000 : 1024, &number) || number == 0) {
                    fprintf(stderr,
                            "vrec-modemsim: bad amount %s for --%s (a number above 0, "
                            "optionally followed by k or M)\n",
                            arg.c_str(),
                            opt == kByteRate ? "byte-rate"
                                             : (opt == kTransfer ? "transfer" : "host-buffer"));
                    return 2;
                }
                if (opt == kByteRate)
                    options->byteRate = number;
                else if (opt == kTransfer)
                    options->transfer = static_cast<size_t>(number);
                else
                    options->hostBuffer = static_cast<size_t>(number);
                break;
            case kEcho:
                if (arg != "on" && arg != "off") {
                    fprintf(stderr, "vrec-modemsim: --echo takes on or off\n");
                    return 2;
                }
                options->echo = arg == "on";
                break;
            case kFault: {
                Fault fault;
                if (!parseFault(arg, &fault, &error)) {
                    fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
                    return 2;
                }
                options->faults.push_back(fault);
                break;
            }
            case kDumpOption:
                if (!parseDumpOption(kLong[longIndex].name, arg, &options->dump, &error)) {
                    fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
                    return 2;
                }
                break;
            case 'h':
            case kHelp:
                fputs(simUsage(), stdout);
                return 1;
            case kVersion:
                printf("vrec-modemsim %s\n", VREC_VERSION);
                return 1;
            default:
                fprintf(stderr, "vrec-modemsim: bad option %s\n%s", argv[optind - 1], simUsage());
                return 2;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "vrec-modemsim: unexpected argument %s\n", argv[optind]);
        return 2;
    }
    if (options->rate > 0 && options->byteRate > 0) {
        fprintf(stderr, "vrec-modemsim: give --rate or --byte-rate, not both\n");
        return 2;
    }
    const bool split = !options->diagLink.empty() || !options->pcuiLink.empty();
    if (split && !options->sharedLink.empty()) {
        fprintf(stderr, "vrec-modemsim: --port excludes --diag and --pcui\n");
        return 2;
    }
    if (!split && options->sharedLink.empty() && options->sysfsRoot.empty()) {
        fprintf(stderr, "vrec-modemsim: no port given\n%s", simUsage());
        return 2;
    }
    if (options->dump.unbound && options->sysfsRoot.empty()) {
        fprintf(stderr, "vrec-modemsim: --dump-unbound needs --sysfs: the tree holds new_id\n");
        return 2;
    }
    std::string error;
    const std::string& first = !options->diagLink.empty()     ? options->diagLink
                               : !options->sharedLink.empty() ? options->sharedLink
                                                              : options->pcuiLink;
    if (!completeDumpSetup(&options->dump, first, &error)) {
        fprintf(stderr, "vrec-modemsim: %s\n", error.c_str());
        return 2;
    }
    return 0;
}

}  // namespace vtools
