// End-to-end runs of the command line. The real vrec cannot start a capture without a
// module, so its runs end with "Done."; vrec_stayup has a mode that always starts, so its
// runs stay up and the stop channel and SIGQUIT can be driven against them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.h"

namespace {

using testkit::BackgroundRun;
using testkit::TempDir;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kStayUp = testkit::builtProgram("tests/cmd/vrec_stayup");

const std::string kLineClear = "\r" + std::string(100, ' ') + "\r";
const std::string kOverwrite = "WARNING: vrec will overwrite existing captured log files.\n";
const std::string kDone = "INFO: Wait for settings to take effect.\nDone.\n";
const std::string kRunning = "\nvrec now is running in the background.\n";
const std::string kStopped = "stayup: stopLog\nstayup: destroyed\n\nINFO: Stop capturing log.\n";

const std::string kUsage =
    "Usage: vrec [options]\n"
    "Used to capture Orvane module or the datacard log in various systems.\n"
    "If vrec runs without parameters, it used to capture QXDM log,\n"
    "Parameters are described below:\n"
    "  -q, --qualcomm             Default, used to capture QXDM log\n"
    "  -i, --imc                  Used to capture IMC(MA) log\n"
    "  -m, --mdon STATE           Only Used to support normalization program. There are optional "
    "STATEs:\n"
    "                              0: stop all(log or dump).\n"
    "                              1: active saving log only.\n"
    "                              2: active saving dump only.\n"
    "                              3: start real time log.\n"
    "                              4: start both real time log and dump.\n"
    "                              5: export log.\n"
    "                              6: export dump.\n"
    "  -p, --pcuiport             Specifies the pcui port name\n"
    "  -d, --diagport             Specifies the diag port name\n"
    "  -l, --location             Specifies the Log/Dump file location.\n"
    "  -c, --cycle                Specifies the size(MB) of saving cycle.\n"
    "  -t, --total                Specifies the total(max) size(MB) of saving log.\n"
    "  -f, --file                 Specifies the file name of log or dump to export.\n"
    "  -u, --unit                 Specifies the sub unit of log or dump to export.\n"
    "  -r, --report               Switch of real-time reporting log file size(some terminal don't "
    "support inline refresh should use -r 0).\n"
    "  -o, --overwrite            Overwrite(1) the captured log files or not(0).\n"
    "  -s, --stop                 Stop the log capture and quit\n"
    "  -h, --help                 Show this help\n"
    "  -v, --version              show version information\n" +
    std::string(105, '.') +
    "\n"
    "Notice:\n"
    "1. -q or -i or -m is the master parameters, any incompatible parameters followed are simply "
    "ignored\n";

// "Apr 12 2014 16:49:57": when the build was made.
bool isBuildTime(const std::string& text) {
    return text.size() == 20 && isupper(static_cast<unsigned char>(text[0])) &&
           text.find_first_not_of("0123456789 :", 3) == std::string::npos && text[11] == ' ' &&
           text[14] == ':' && text[17] == ':';
}

// What a run printed after the banner that opens every run; a run without it fails the
// test.
std::string afterBanner(const std::string& out, std::string* buildTime = nullptr) {
    const std::string version = "vrec, Ver: 2.0\nCompiled at: ";
    const std::string maker = "\nMade by Orvane for its USB modules and datacards.\n\n";
    const size_t timeEnd = out.find('\n', version.size());
    const bool fits = out.compare(0, version.size(), version) == 0 &&
                      timeEnd != std::string::npos &&
                      isBuildTime(out.substr(version.size(), timeEnd - version.size())) &&
                      out.compare(timeEnd, maker.size(), maker) == 0;
    if (!fits) {
        ADD_FAILURE() << "no banner at the start of:\n" << out;
        return out;
    }
    if (buildTime != nullptr) {
        *buildTime = out.substr(version.size(), timeEnd - version.size());
    }
    return out.substr(timeEnd + maker.size());
}

std::string stayingLines(bool reporting) {
    return kLineClear + "INFO: Use vrec -s or press Ctrl+C to stop log capture.\n" +
           (reporting ? "INFO: vrec will report the size of log from time to time. Launch vrec "
                        "with -r 0 to disable this.\n"
                      : "") +
           kRunning;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Checks what a run printed after its banner. A run that reached the capture mode and
// ended there prints the front end's lines, then whatever the mode says about its start
// (which opens with the line-clearing string), then the two closing lines; any other run
// prints the front end's lines alone.
void expectPrinted(const std::string& frontEnd, const std::string& printed) {
    const bool reachedMode = endsWith(printed, kDone);
    if (!reachedMode) {
        EXPECT_EQ(frontEnd, printed);
        return;
    }
    ASSERT_EQ(frontEnd, printed.substr(0, frontEnd.size())) << printed;
    ASSERT_GE(printed.size(), frontEnd.size() + kDone.size()) << printed;
    const std::string mode =
        printed.substr(frontEnd.size(), printed.size() - frontEnd.size() - kDone.size());
    EXPECT_TRUE(mode.empty() || mode.compare(0, kLineClear.size(), kLineClear) == 0) << mode;
}

std::vector<std::string> argvOf(const std::string& program, std::vector<std::string> args) {
    args.insert(args.begin(), program);
    return args;
}

struct Ended {
    int launcher;  // exit status of the process started
    int child;     // exit status of the run it forked off
    std::string out;
    std::string err;
};

// Runs of one program side by side, each to its end: a sanitized build takes some tenths
// of a second to leave each process.
std::vector<Ended> finishAll(const std::string& program,
                             const std::vector<std::vector<std::string>>& argsOfRuns,
                             const std::string& cwd) {
    std::vector<std::unique_ptr<BackgroundRun>> runs;
    for (const std::vector<std::string>& args : argsOfRuns) {
        runs.push_back(std::make_unique<BackgroundRun>(argvOf(program, args), cwd));
    }
    std::vector<Ended> ended;
    for (const std::unique_ptr<BackgroundRun>& run : runs) {
        ended.push_back({run->launcherStatus(), run->childStatus(), "", ""});
        run->waitForEof();
        ended.back().out = run->output();
        ended.back().err = run->errors();
    }
    return ended;
}

Ended finish(const std::string& program, const std::vector<std::string>& args,
             const std::string& cwd) {
    return finishAll(program, {args}, cwd).front();
}

std::string commandLine(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& arg : args) {
        text += " " + arg;
    }
    return text;
}

// The run has started its capture and waits to be stopped.
bool waiting(BackgroundRun& run) {
    return run.waitForOutput(kRunning, 10000);
}

// A run that has not ended within `forMs` was not stopped by what came before; every stop
// takes far less.
bool stillRunning(BackgroundRun& run, int forMs) {
    return run.childStatus(forMs) == -1;
}

// One datagram to the control port, from a socket of the test's own.
void sendToControlPort(const std::string& bytes) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(sock, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(52888);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(
        static_cast<ssize_t>(bytes.size()),
        sendto(sock, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)));
    close(sock);
}

// Local addresses that UDP sockets of this network are bound to on `port`, as the kernel
// lists them: "00000000" is every address, "0100007F" the loopback address.
std::vector<std::string> boundAddresses(unsigned short port) {
    char suffix[8];
    snprintf(suffix, sizeof(suffix), ":%04X", port);
    std::vector<std::string> found;
    std::istringstream table(testkit::readFile("/proc/net/udp"));
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        fields >> slot >> local;
        if (endsWith(local, suffix)) {
            found.push_back(local.substr(0, local.size() - 5));
        }
    }
    return found;
}

// The stop sequence as the stay-up mode shows it: stopLog, destruction, the closing line,
// status 1, and nothing printed between the wait and the stop.
void expectStopped(BackgroundRun& run) {
    EXPECT_EQ(1, run.childStatus()) << run.errors();
    run.waitForEof();
    EXPECT_TRUE(endsWith(run.output(), kRunning + kStopped)) << run.output() << run.errors();
}

TEST(CommandLine, VersionAndHelpEndTheRunAtOnce) {
    TempDir dir;
    const std::vector<std::vector<std::string>> argsOfRuns = {
        {"-v"}, {"--version"}, {"-h"}, {"--help"}, {"-t", "5", "-h", "-t", "6"}};
    // Options act as they are read: the line of the first -t comes, the second -t and the
    // checks after the last option never do.
    const std::string printed[] = {"", "", kUsage, kUsage,
                                   "INFO:the max size of log size is set to 5MB.\n" + kUsage};
    const std::vector<Ended> runs = finishAll(kVrec, argsOfRuns, dir.path());
    for (size_t i = 0; i < runs.size(); ++i) {
        SCOPED_TRACE("vrec" + commandLine(argsOfRuns[i]));
        EXPECT_EQ(0, runs[i].launcher);
        EXPECT_EQ(0, runs[i].child);
        EXPECT_EQ(printed[i], afterBanner(runs[i].out));
        EXPECT_EQ("", runs[i].err);
    }
}

TEST(CommandLine, PortAndPathOptionsActBeforeTheRunEnds) {
    TempDir dir;
    const std::string pcui = dir.file("nopcui");
    const std::string diag = dir.file("nodiag");
    const Ended run =
        finish(kVrec, {"--pcui", pcui, "-d", diag, "-l", dir.file("out"), "-v"}, dir.path());
    EXPECT_EQ(0, run.child);
    const std::string log = testkit::readFile(dir.file("vrec.log"));
    EXPECT_NE(std::string::npos, log.find("Open Pcui Port name: " + pcui)) << log;
    EXPECT_NE(std::string::npos, log.find("Open Diag Port name: " + diag)) << log;
    EXPECT_TRUE(testkit::fileExists(dir.file("out")));
}

TEST(CommandLine, OptionLinesWarningsAndStatuses) {
    TempDir dir;
    struct Case {
        std::vector<std::string> args;
        std::string printed;  // after the banner, up to what the capture mode says
        int status;
        std::vector<std::string> parserSays;  // on stderr, which stays empty otherwise
    };
    const std::string on = "INFO: Reporting size of log file is ON .\n";
    const std::string cycle20 = "INFO:the log saving cycle is set to 20 MB.\n";
    const Case cases[] = {
        {{}, kOverwrite, 0, {}},
        {{"-t", "0", "-u", "A1", "-r", "0", "-r", "1", "-r", "2000000", "-o", "0"},
         "INFO: file subitem is A1 .\nINFO: Reporting size of log file is OFF .\n" + on + on,
         0,
         {}},
        {{"-t", "10", "-c", "20"},
         "INFO:the max size of log size is set to 10MB.\n" + cycle20 + kOverwrite +
             "WARNING: the max log saving size is less than the size of saving cycle.\n"
             "\t\t\tuse twice cycle size as max log size instead. ",
         0,
         {}},
        {{"-t", "20", "-c", "20", "-o", "0"},
         "INFO:the max size of log size is set to 20MB.\n" + cycle20,
         0,
         {}},
        {{"-c", "5", "-m", "3", "-o", "0"}, "", 0, {}},
        {{"-m", "3", "-i", "-c", "5", "-o", "0"},
         "INFO:the log saving cycle is set to 5 MB.\n",
         0,
         {}},
        // An export stays up, so -v ends these runs once the names are taken.
        {{"-f", "logsave_3", "-f", "LOGSAVE_X", "--file", "Dump1", "-f", "*", "-v"},
         "INFO: Log file logsave_3 request\nINFO: Log file logsave_x request\n"
         "INFO: Dump file dump1 request\nINFO: Log and dump files request\n",
         0,
         {}},
        {{"-f", "log", "-t", "5"},
         "ERROR: only log(logsave*) and dump(dump*) can be exported!",
         1,
         {}},
        {{"-x", "stray", "--pcuiport", "x", "-o", "0", "-t"},
         "",
         0,
         {"invalid option -- 'x'", "unrecognized option '--pcuiport'",
          "option requires an argument -- 't'"}},
    };
    std::vector<std::vector<std::string>> argsOfRuns;
    for (const Case& c : cases) {
        argsOfRuns.push_back(c.args);
    }
    const std::vector<Ended> runs = finishAll(kVrec, argsOfRuns, dir.path());
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE("vrec" + commandLine(c.args));
        EXPECT_EQ(0, runs[i].launcher);
        EXPECT_EQ(c.status, runs[i].child);
        expectPrinted(c.printed, afterBanner(runs[i].out));
        for (const std::string& message : c.parserSays) {
            EXPECT_NE(std::string::npos, runs[i].err.find(message)) << runs[i].err;
        }
        if (c.parserSays.empty()) {
            EXPECT_EQ("", runs[i].err);
        }
    }
}

TEST(CommandLine, DiagnosticLogCarriesTheStartLines) {
    TempDir dir;
    const Ended run = finish(kVrec, {"-o", "0"}, dir.path());
    ASSERT_EQ(0, run.child);
    std::string buildTime;
    afterBanner(run.out, &buildTime);

    // "h:m:s:ms  INFO  file line function text"
    const std::string site = "  INFO  vrecCmd/commandLineSrv.cpp ";
    std::vector<std::string> texts;
    std::istringstream log(testkit::readFile(dir.file("vrec.log")));
    for (std::string line; std::getline(log, line);) {
        const size_t at = line.find(site);
        if (at == std::string::npos) {
            continue;
        }
        std::istringstream rest(line.substr(at + site.size()));
        size_t number = 0;
        std::string function;
        std::string text;
        rest >> number >> function;
        std::getline(rest >> std::ws, text);
        if (function != "startLog" || text == "enter" || text == "exit") {
            continue;
        }
        texts.push_back(text);
    }
    const std::vector<std::string> expected = {"vrec, Ver: 2.0", "Compiled at: " + buildTime,
                                               "Made by Orvane for its USB modules and datacards."};
    EXPECT_EQ(expected, texts);
}

TEST(StopClient, NobodyListeningStillSaysSuccess) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun client(argvOf(kVrec, {"-s"}), dir.path());
    ASSERT_TRUE(client.waitForOutput("send cmd success!\n", 5000)) << client.output();
    // No capture is set while the client waits, so SIGQUIT finds nothing to stop.
    kill(client.childPid(), SIGQUIT);
    EXPECT_EQ(0, client.launcherStatus());
    EXPECT_EQ(0, client.childStatus());
    client.waitForEof();
    EXPECT_EQ("send cmd success!\n", afterBanner(client.output()));
}

TEST(StopClient, TakenClientPortMakesTheSendFail) {
    testkit::isolateNetwork();
    TempDir dir;
    const int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(52889);
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&local), sizeof(local)));
    const Ended run = finish(kVrec, {"--stop"}, dir.path());
    close(holder);
    EXPECT_EQ(0, run.launcher);
    EXPECT_EQ(0, run.child);
    EXPECT_EQ("bind error in UDP Initializesend cmd failed!stop\n", afterBanner(run.out));
}

TEST(StayUp, ModeAndStateDecideWhetherTheRunStays) {
    testkit::isolateNetwork();
    TempDir dir;
    enum End { kEnds, kStays, kStaysQuiet };
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> record;  // fields the mode must have been given
        End end;
    };
    const Case cases[] = {
        {{},
         {"mode=0", "state=3", "location=2", "saveMode=0", "cycle=0", "total=0", "report=1",
          "overwrite=1", "file=real_log.bin", "unit=0"},
         kStays},
        {{"-t", "10", "-c", "20"}, {"cycle=20", "total=40", "saveMode=2"}, kStays},
        {{"-t", "1", "-c", "2000000000"}, {"cycle=2000000000"}, kStays},
        {{"-c", "7", "-c", "0", "-t", "abc", "-r", "2000000", "-u", "7"},
         {"cycle=7", "saveMode=1", "total=0", "report=2000000", "unit=7"},
         kStays},
        {{"-i", "-c", "1", "-r", "0", "-o", "0"},
         {"mode=2", "state=3", "cycle=1", "saveMode=0", "report=0", "overwrite=0"},
         kStaysQuiet},
        {{"-m", "0"}, {"mode=1", "state=0", "location=1"}, kEnds},
        {{"-m", "1", "-l", "flash"}, {"mode=1", "state=1", "location=0"}, kEnds},
        {{"-q", "-m", "2"}, {"mode=1", "state=2", "location=1"}, kEnds},
        {{"-m", "2", "-q"}, {"mode=0", "state=3", "location=1"}, kStays},
        {{"-m", "3"}, {"mode=1", "state=3"}, kStays},
        {{"--mdon", "4", "-l", "SD"}, {"mode=1", "state=4", "location=1"}, kStays},
        {{"-f", "LOGSAVE_A"}, {"mode=1", "state=5", "location=2", "file=LOGSAVE_A"}, kStays},
        {{"-f", "*", "-l", dir.file("saved")}, {"mode=1", "state=7", "location=2"}, kStays},
        {{"-m", "9"}, {"mode=1", "state=9"}, kStays},
    };
    // Side by side: all runs but one find the control port taken, which matters not here.
    std::vector<std::unique_ptr<BackgroundRun>> runs;
    for (const Case& c : cases) {
        runs.push_back(std::make_unique<BackgroundRun>(argvOf(kStayUp, c.args), dir.path()));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        BackgroundRun& run = *runs[i];
        SCOPED_TRACE("vrec_stayup" + commandLine(c.args));
        EXPECT_EQ(0, run.launcherStatus());
        if (c.end == kEnds) {
            EXPECT_EQ(0, run.childStatus());
            run.waitForEof();
            EXPECT_TRUE(endsWith(run.output(), kDone)) << run.output();
        } else {
            ASSERT_TRUE(waiting(run)) << run.output() << run.errors();
            EXPECT_TRUE(endsWith(run.output(), stayingLines(c.end == kStays))) << run.output();
        }
        const std::string out = run.output();
        const size_t start = out.find("stayup: startLog");
        ASSERT_NE(std::string::npos, start) << out;
        const std::string record = out.substr(start, out.find('\n', start) - start) + " ";
        for (const std::string& field : c.record) {
            EXPECT_NE(std::string::npos, record.find(" " + field + " ")) << record;
        }
    }
}

TEST(StayUp, VrecStopEndsTheCapture) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun capture(argvOf(kStayUp, {}), dir.path());
    ASSERT_TRUE(waiting(capture)) << capture.output() << capture.errors();
    EXPECT_EQ(0, capture.launcherStatus());
    // Bound for every address, not for loopback alone.
    EXPECT_EQ(std::vector<std::string>{"00000000"}, boundAddresses(52888));

    TempDir clientDir;
    const Ended client = finish(kVrec, {"-s"}, clientDir.path());
    EXPECT_EQ(0, client.launcher);
    EXPECT_EQ(0, client.child);
    EXPECT_EQ("send cmd success!\n", afterBanner(client.out));
    expectStopped(capture);
}

TEST(StayUp, StopIsFoundAnywhereWithinTheDatagram) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun capture(argvOf(kStayUp, {}), dir.path());
    ASSERT_TRUE(waiting(capture)) << capture.output() << capture.errors();
    // A full buffer carries no terminator; a "stop" past 2048 bytes is cut off by the read.
    sendToControlPort(std::string(2048, 'x'));
    sendToControlPort(std::string(2500, 'x') + "stop");
    EXPECT_TRUE(stillRunning(capture, 300));
    sendToControlPort(std::string(2037, ' ') + "please stop");
    expectStopped(capture);
}

TEST(StayUp, EmptyDatagramClosesTheChannelButSigQuitStillStops) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun capture(argvOf(kStayUp, {"-r", "0"}), dir.path());
    ASSERT_TRUE(waiting(capture)) << capture.output() << capture.errors();
    sendToControlPort("");
    // The client cannot tell: its datagram leaves, nobody reads it any more.
    const Ended client = finish(kVrec, {"-s"}, dir.path());
    EXPECT_EQ("send cmd success!\n", afterBanner(client.out));
    EXPECT_TRUE(stillRunning(capture, 100));

    kill(capture.childPid(), SIGQUIT);
    expectStopped(capture);
}

TEST(StayUp, SecondCaptureRunsWithoutAChannel) {
    testkit::isolateNetwork();
    TempDir firstDir;
    TempDir secondDir;
    BackgroundRun first(argvOf(kStayUp, {}), firstDir.path());
    ASSERT_TRUE(waiting(first)) << first.output() << first.errors();
    BackgroundRun second(argvOf(kStayUp, {}), secondDir.path());
    ASSERT_TRUE(waiting(second)) << second.output() << second.errors();
    EXPECT_TRUE(endsWith(second.output(), "bind error in UDP Initialize" + stayingLines(true)))
        << second.output();

    EXPECT_EQ(0, finish(kVrec, {"-s"}, secondDir.path()).child);
    expectStopped(first);
    EXPECT_TRUE(stillRunning(second, 100));
    kill(second.childPid(), SIGQUIT);
    expectStopped(second);
}

}  // namespace
