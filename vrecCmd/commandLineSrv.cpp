#include "commandLineSrv.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "atMdonImpl.h"
#include "console.h"
#include "controlMessage.h"
#include "diagImpl.h"
#include "diagLog.h"
#include "dumpService.h"
#include "fileSystem.h"
#include "moreOptions.h"
#include "optionValues.h"
#include "portMgnt.h"
#include "textUtil.h"

namespace {

const char* const kVersion = VREC_VERSION;
const char* const kBuildTime = __DATE__ " " __TIME__;
const char* const kMaker = "Made by Orvane for its USB modules and datacards.";

const char* const kShortOptions = "m:qip:d:l:shvc:t:f:u:r:o:";
// clang-format off
const option kLongOptions[] = {
    {"mdon", required_argument, nullptr, 'm'},     {"qualcomm", no_argument, nullptr, 'q'},
    {"imc", no_argument, nullptr, 'i'},            {"pcui", required_argument, nullptr, 'p'},
    {"diag", required_argument, nullptr, 'd'},     {"location", required_argument, nullptr, 'l'},
    {"stop", no_argument, nullptr, 's'},           {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},        {"cycle", required_argument, nullptr, 'c'},
    {"total", required_argument, nullptr, 't'},    {"file", required_argument, nullptr, 'f'},
    {"unit", required_argument, nullptr, 'u'},     {"report", required_argument, nullptr, 'r'},
    {"overwrite", required_argument, nullptr, 'o'},
    {nullptr, 0, nullptr, 0}};
// clang-format on

// The table above and the long options without a short letter, for the parser.
const option* allLongOptions() {
    static const std::vector<option> kAll = [] {
        std::vector<option> all(std::begin(kLongOptions), std::end(kLongOptions) - 1);
        for (const MoreOption& more : moreOptions()) {
            all.push_back({more.name, more.hasArgument, nullptr, more.code});
        }
        all.push_back({nullptr, 0, nullptr, 0});
        return all;
    }();
    return kAll.data();
}

const char* const kUsage[] = {
    "Usage: vrec [options]",
    "Used to capture Orvane module or the datacard log in various systems.",
    "If vrec runs without parameters, it used to capture QXDM log,",
    "Parameters are described below:",
    "  -q, --qualcomm             Default, used to capture QXDM log",
    "  -i, --imc                  Used to capture IMC(MA) log",
    "  -m, --mdon STATE           Only Used to support normalization program. There are "
    "optional STATEs:",
    "                              0: stop all(log or dump).",
    "                              1: active saving log only.",
    "                              2: active saving dump only.",
    "                              3: start real time log.",
    "                              4: start both real time log and dump.",
    "                              5: export log.",
    "                              6: export dump.",
    "  -p, --pcuiport             Specifies the pcui port name",
    "  -d, --diagport             Specifies the diag port name",
    "  -l, --location             Specifies the Log/Dump file location.",
    "  -c, --cycle                Specifies the size(MB) of saving cycle.",
    "  -t, --total                Specifies the total(max) size(MB) of saving log.",
    "  -f, --file                 Specifies the file name of log or dump to export.",
    "  -u, --unit                 Specifies the sub unit of log or dump to export.",
    "  -r, --report               Switch of real-time reporting log file size(some terminal "
    "don't support inline refresh should use -r 0).",
    "  -o, --overwrite            Overwrite(1) the captured log files or not(0).",
    "  -s, --stop                 Stop the log capture and quit",
    "  -h, --help                 Show this help",
    "  -v, --version              show version information",
};

CommandLineSrv* g_commandLine = nullptr;
CommandLineSrv::ImplFactory g_factory;
// Written by the stop signals' handler, read by the thread that runs the stop sequence.
int g_stopSignalPipe[2] = {-1, -1};

std::unique_ptr<LogInterface> makeDefaultImpl(const CaptureOptions& options) {
    if (options.mode == CAPTURE_MDON) {
        return std::make_unique<AtMdonImpl>();
    }
    return std::make_unique<DiagImpl>();
}

CrashAction crashActionOf(const std::string& text) {
    return text == "reset"   ? CrashAction::Reset
           : text == "leave" ? CrashAction::Leave
                             : CrashAction::Collect;
}

int32_t toInt(const char* text) {
    return static_cast<int32_t>(strtol(text, nullptr, 10));
}

// Whether the run stays alive after a successful start: a real-time capture and an
// export do; settings that the module carries out alone end the run.
bool staysAlive(const CaptureOptions& options) {
    if (options.mode != CAPTURE_MDON) {
        return true;
    }
    return options.state > 2;
}

// The ERROR line for a value out of its option's rules; the run ends before anything acts.
[[noreturn]] void refuseValue(int option, const char* value, const std::string& rule) {
    const char* longName = moreOptionName(option);
    for (const struct option& entry : kLongOptions) {
        if (entry.name != nullptr && entry.val == option) {
            longName = entry.name;
        }
    }
    if (option > 0xFF) {
        consolePrint(
            "ERROR: invalid value \"%s\" for --%s: give %s.\nUse vrec -h to see the options.\n",
            escapeText(value).c_str(), longName, rule.c_str());
        exit(1);
    }
    consolePrint(
        "ERROR: invalid value \"%s\" for -%c (--%s): give %s.\nUse vrec -h to see the options.\n",
        escapeText(value).c_str(), option, longName, rule.c_str());
    exit(1);
}

[[noreturn]] void refuseOptions(const std::string& why) {
    consolePrint("ERROR: %s\nUse vrec -h to see the options.\n", why.c_str());
    exit(1);
}

}  // namespace

CommandLineSrv* CommandLineSrv::getInstance() {
    if (g_commandLine == nullptr) {
        g_commandLine = new CommandLineSrv;
    }
    return g_commandLine;
}

void CommandLineSrv::setImplFactory(ImplFactory factory) {
    g_factory = std::move(factory);
}

CommandLineSrv::CommandLineSrv() {
    // The stop sequence is far more than a signal handler may do, so the handler only
    // wakes a thread that runs it.
    if (pipe2(g_stopSignalPipe, O_CLOEXEC) == 0) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, stopSignalLoop, this) == 0) {
            pthread_detach(thread);
        }
    }
    // SIGTERM is how service managers end a service: it stops as SIGQUIT does.
    signal(SIGQUIT, onStopSignal);
    signal(SIGTERM, onStopSignal);
    // A terminal or pipe that went away must not end the capture unannounced.
    signal(SIGPIPE, SIG_IGN);
}

void CommandLineSrv::onStopSignal(int /*signal*/) {
    const int savedErrno = errno;
    const char byte = 'q';
    if (g_stopSignalPipe[1] != -1) {
        ssize_t ignored = write(g_stopSignalPipe[1], &byte, 1);
        (void)ignored;
    }
    errno = savedErrno;
}

void* CommandLineSrv::stopSignalLoop(void* param) {
    auto* self = static_cast<CommandLineSrv*>(param);
    char byte = 0;
    for (;;) {
        const ssize_t got = read(g_stopSignalPipe[0], &byte, 1);
        if (got == 1) {
            self->stopAndExit();
        } else if (got == 0 || errno != EINTR) {
            return nullptr;
        }
    }
}

int CommandLineSrv::run(int argc, char** argv) {
    consolePrint("vrec, Ver: %s\nCompiled at: %s\n%s\n\n", kVersion, kBuildTime, kMaker);

    checkOptionValues(argc, argv);
    optind = 0;  // full re-initialisation of the parser
    int option = 0;
    while ((option = getopt_long(argc, argv, kShortOptions, allLongOptions(), nullptr)) != -1) {
        applyOption(option, optarg);
    }
    if (collectDump) {
        // A run of its own: no capture, no control port, no background.
        return DumpService::getInstance()->collectAlone([this] {
            std::lock_guard<std::mutex> lock(stopLock);
            return stopping;
        });
    }
    checkOptions();

    // Before anything reaches the module: a second run must leave the first one's ports
    // alone, and a stop must be heard from the first frame of the start on.
    if (!claimControlPort()) {
        consolePrint(
            "ERROR: another capture is running; stop it with vrec -s before starting a new "
            "one.\n");
        return 1;
    }
    if (control == Control::Held) {
        Start();
    }
    if (startLog(options)) {
        consolePrint("INFO: Wait for settings to take effect.\nDone.\n");
        return startSucceeded ? 0 : 1;
    }

    consolePrint("%sINFO: Use vrec -s or press Ctrl+C to stop log capture.\n", kLineClear);
    bool capturing = false;
    {
        std::lock_guard<std::mutex> lock(stopLock);
        capturing = current != nullptr;
    }
    if (capturing) {
        if (options.reportStep != 0) {
            consolePrint(
                "INFO: vrec will report the size of log from time to time. Launch vrec with -r 0 "
                "to disable this.\n");
        }
        consolePrint("\nvrec now is running in the background.\n");
    }
    announceStarted();
    for (;;) {
        sleep(1);
    }
}

bool CommandLineSrv::claimControlPort() {
    if (control == Control::Unclaimed) {
        int error = 0;
        if (Bind(kControlPort, htonl(INADDR_LOOPBACK), &error)) {
            control = Control::Held;
        } else if (error == EADDRINUSE) {
            control = Control::Taken;
        } else {
            // The capture goes on without the channel; the stop signals still reach it.
            DIAG_LOG(LOG_ERRO, "control port: %s", strerror(error));
            consolePrint("bind error in UDP Initialize");
            control = Control::Unavailable;
        }
    }
    return control != Control::Taken;
}

void CommandLineSrv::announceStarted() {
    if (startNotice == -1) {
        return;
    }
    const char byte = 'u';
    ssize_t ignored = write(startNotice, &byte, 1);
    (void)ignored;
    close(startNotice);
    startNotice = -1;
}

void CommandLineSrv::checkOptionValues(int argc, char** argv) {
    // A quiet first pass: the parser speaks about unknown options in the pass that acts. It
    // goes over a copy, for the parser moves the words that are no options to the end.
    std::vector<char*> words(argv, argv + argc);
    words.push_back(nullptr);
    optind = 0;
    opterr = 0;
    const struct option* longOptions = allLongOptions();
    int option = 0;
    std::string otherMode;  // the last option that makes the run no Qualcomm capture
    while ((option = getopt_long(argc, words.data(), kShortOptions, longOptions, nullptr)) != -1) {
        otherMode = option == 'i'   ? "-i (IMC)"
                    : option == 'm' ? "-m (logging inside the module)"
                    : option == 'f' ? "-f (export of the module's files)"
                    : option == 'q' ? ""
                                    : otherMode;
        if (isLogOption(option) && optarg != nullptr) {
            const std::string error = takeLogOption(option, optarg, &options.selection);
            if (!error.empty()) {
                refuseOptions(error);
            }
        } else if (optarg != nullptr) {
            const std::string rule = valueRule(option, optarg);
            if (!rule.empty()) {
                refuseValue(option, optarg, rule);
            }
        }
    }
    opterr = 1;
    const std::string conflict = logOptionConflict(options.selection, otherMode);
    if (!conflict.empty()) {
        refuseOptions(conflict);
    }
}

void CommandLineSrv::applyOption(int option, const char* argument) {
    switch (option) {
        case 'm':
            options.saveLocation = SAVE_SD;
            options.mode = CAPTURE_MDON;
            options.state = toInt(argument);
            break;
        case 'q':
            options.state = 3;
            options.mode = CAPTURE_QUALCOMM;
            break;
        case 'i':
            options.mode = CAPTURE_IMC;
            options.state = 3;
            break;
        // A port named on the command line opens at once, unless another run holds the
        // control port: this run then ends before it touches that run's ports.
        case 'p':
            if (claimControlPort()) {
                PortMgnt::getInstance()->openPcuiPortByName(argument);
            }
            break;
        case 'd':
            if (claimControlPort()) {
                PortMgnt::getInstance()->openDiagPortByName(argument);
            }
            break;
        case 'l': {
            const std::string where = argument;
            if (where == "sd" || where == "SD" || where == "1") {
                options.saveLocation = SAVE_SD;
            } else if (where == "flash" || where == "FLASH" || where == "0") {
                options.saveLocation = SAVE_FLASH;
            } else {
                options.saveLocation = SAVE_HOST;
                if (!PortMgnt::getInstance()->setSavePath(where)) {
                    exit(1);  // said why; nothing has been sent to the module
                }
            }
            break;
        }
        case 'c': {
            const int32_t size = toInt(argument);
            if (size == 0) {
                options.saveMode = 1;
            } else if (size == 1) {
                options.cycleSize = 1;
                options.saveMode = 0;
            } else {
                options.cycleSize = size;
                options.saveMode = 2;
            }
            break;
        }
        case 't':
            options.totalSize = toInt(argument);
            if (options.totalSize != 0) {
                consolePrint("INFO:the max size of log size is set to %dMB.\n", options.totalSize);
            }
            break;
        case 'f':
            applyFileOption(argument);
            break;
        case 'u':
            options.subUnit = argument;
            consolePrint("INFO: file subitem is %s .\n", argument);
            break;
        case 'r':
            options.reportStep = static_cast<uint32_t>(strtoul(argument, nullptr, 10));
            consolePrint("INFO: Reporting size of log file is %s .\n",
                         options.reportStep == 0 ? "OFF" : "ON");
            break;
        case 'o':
            options.overwrite = toInt(argument) != 0;
            break;
        case OPT_ON_CRASH:
            DumpService::getInstance()->setCrashAction(crashActionOf(argument));
            break;
        case OPT_COLLECT_DUMP:
            collectDump = true;
            break;
        case 's':
            sendCommand("stop");
            exit(0);
        case 'h':
            showUsage();
            exit(0);
        case 'v':
            exit(0);
        default:
            break;  // the parser has said what was wrong; the run goes on
    }
}

void CommandLineSrv::applyFileOption(const char* name) {
    options.mode = CAPTURE_MDON;
    options.fileName = name;
    const std::string lower = toLowerCase(name);
    if (startsWith(lower, "dump")) {
        options.state = 6;
        consolePrint("INFO: Dump file %s request\n", lower.c_str());
    } else if (startsWith(lower, "logsave")) {
        options.state = 5;
        consolePrint("INFO: Log file %s request\n", lower.c_str());
    } else if (lower == "*") {
        options.state = 7;
        consolePrint("INFO: Log and dump files request\n");
    } else {
        consolePrint("ERROR: only log(logsave*) and dump(dump*) can be exported!");
        exit(1);
    }
}

void CommandLineSrv::checkOptions() {
    if (options.selection.any() && options.mode == CAPTURE_QUALCOMM &&
        CFile::Exists("startcmd.txt")) {
        consolePrint("WARNING: startcmd.txt is not sent: what the module logs comes from %s.\n",
                     logOptionsGiven(options.selection).c_str());
    }
    if (options.cycleSize != 0 && options.mode != CAPTURE_MDON) {
        consolePrint("INFO:the log saving cycle is set to %d MB.\n", options.cycleSize);
    }
    if (options.overwrite) {
        consolePrint("WARNING: vrec will overwrite existing captured log files.\n");
    }
    if (options.totalSize != 0 && options.cycleSize != 0 && options.totalSize < options.cycleSize) {
        // Doubled in 32 unsigned bits, so that a huge cycle wraps instead of overflowing;
        // the capture reads the size as unsigned.
        options.totalSize = static_cast<int32_t>(static_cast<uint32_t>(options.cycleSize) * 2u);
        consolePrint(
            "WARNING: the max log saving size is less than the size of saving cycle.\n"
            "\t\t\tuse twice cycle size as max log size instead. ");
    }
}

bool CommandLineSrv::startLog(CaptureOptions& runOptions) {
    DIAG_LOG(LOG_INFO, "vrec, Ver: %s\n", kVersion);
    DIAG_LOG(LOG_INFO, "Compiled at: %s", kBuildTime);
    DIAG_LOG(LOG_INFO, "%s", kMaker);

    LogInterface* mode = nullptr;
    {
        std::lock_guard<std::mutex> lock(stopLock);
        if (stopping) {
            finishStop();  // stopped before the start: nothing has reached the module
        }
        current = g_factory ? g_factory(runOptions) : makeDefaultImpl(runOptions);
        mode = current.get();
        phase = Phase::Starting;
    }
    // Not under the lock: a stop that comes now runs the mode's stopLog beside the start,
    // which ends the start at its next step.
    const bool started = mode != nullptr && mode->startLog(runOptions);
    const bool ends = !started || !staysAlive(runOptions);
    std::unique_lock<std::mutex> lock(stopLock);
    startSucceeded = started;
    phase = ends ? Phase::Finishing : Phase::Running;
    startEnded.notify_all();
    if (stopping) {
        lock.unlock();
        for (;;) {
            sleep(1);  // the stop sequence ends the process
        }
    }
    return ends;
}

void CommandLineSrv::showUsage() {
    std::string text;
    for (const char* line : kUsage) {
        text += line;
        text += '\n';
    }
    text += std::string(105, '.') + "\n";
    text += "Notice:\n";
    text +=
        "1. -q or -i or -m is the master parameters, any incompatible parameters followed are "
        "simply ignored\n";
    text += moreOptionsHelp();
    consolePrint("%s", text.c_str());
}

void CommandLineSrv::OnReceive(const sockaddr_in* from, const char* data, int length) {
    // Only a program on this host may stop the capture: the port listens on the loopback
    // address alone, and a sender from another address is not heard either.
    if (from == nullptr || (ntohl(from->sin_addr.s_addr) >> 24) != IN_LOOPBACKNET) {
        return;
    }
    if (length > 0 && isStopMessage(data, static_cast<size_t>(length))) {
        stopAndExit();
    }
}

void CommandLineSrv::stopAndExit() {
    std::unique_lock<std::mutex> lock(stopLock);
    if (stopping || phase == Phase::Finishing) {
        return;
    }
    stopping = true;
    if (phase == Phase::Preparing) {
        return;  // a run that gets to its start ends there instead
    }
    LogInterface* mode = current.get();
    lock.unlock();
    if (mode != nullptr) {
        mode->stopLog();
    }
    lock.lock();
    startEnded.wait(lock, [this] { return phase != Phase::Starting; });
    current.reset();
    finishStop();
}

void CommandLineSrv::finishStop() {
    consolePrint("\nINFO: Stop capturing log.\n");
    DiagLog::destroyDiagLog();
    exit(1);
}

void CommandLineSrv::sendCommand(const char* text) {
    Initialize(kClientPort);
    Start();
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kControlPort);
    inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    if (SendTo(&to, text, static_cast<int>(strlen(text)) + 1) < 1) {
        consolePrint("send cmd failed!%s\n", text);
    } else {
        consolePrint("send cmd success!\n");
    }
    sleep(1);
}

namespace {

// The launching process's end: status 0 once the run says it is up, else the run's own.
int launcherStatus(pid_t run, int startNotice) {
    char byte = 0;
    ssize_t got = 0;
    do {
        got = read(startNotice, &byte, 1);
    } while (got < 0 && errno == EINTR);
    if (got == 1) {
        return 0;
    }
    int status = 0;
    pid_t ended = 0;
    do {
        ended = waitpid(run, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == run && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int vrecMain(int argc, char** argv) {
    // Started with standard streams closed, as a service manager may do, the first
    // descriptors opened below would take their numbers: the banner would go into the
    // start-notice pipe and read as "the run is up". They are held by /dev/null first.
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF &&
            open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) == -1) {
            return 1;
        }
    }
    // Collecting a dump is a run in the foreground: its status is the collection's.
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--collect-dump") == 0) {
            return CommandLineSrv::getInstance()->run(argc, argv);
        }
    }
    int notice[2] = {-1, -1};
    if (pipe2(notice, O_CLOEXEC) != 0) {
        notice[0] = notice[1] = -1;
    }
    const pid_t run = fork();
    if (run < 0) {
        close(notice[0]);
        close(notice[1]);
        return 1;
    }
    if (run > 0) {
        close(notice[1]);
        if (notice[0] == -1) {
            return 0;  // nothing to wait on: the run is on its own, as it always was
        }
        const int status = launcherStatus(run, notice[0]);
        close(notice[0]);
        return status;
    }
    close(notice[0]);
    CommandLineSrv* commandLine = CommandLineSrv::getInstance();
    commandLine->setStartNotice(notice[1]);
    return commandLine->run(argc, argv);
}
