// Runs of the command line as a user makes them. vrec_stayup has a capture mode that always
// starts, so its runs stay up and the stop channel and SIGQUIT can be driven against them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "testkit.h"

namespace {

using testkit::BackgroundRun;
using testkit::TempDir;
using Args = std::vector<std::string>;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kStayUp = testkit::builtProgram("tests/cmd/vrec_stayup");
const std::string kLineClear = "\r" + std::string(100, ' ') + "\r";
const std::string kOverwrite = "WARNING: vrec will overwrite existing captured log files.\n";
const std::string kDone = "INFO: Wait for settings to take effect.\nDone.\n";
const std::string kRunning = "\nvrec now is running in the background.\n";
const std::string kStopped = "stayup: stopLog\nstayup: destroyed\n\nINFO: Stop capturing log.\n";
const std::string kSent = "send cmd success!\n";
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

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// What a run printed after the banner that opens every run; a run without it fails the
// test. The build time ("Apr 12 2014 16:49:57") goes to `buildTime`.
std::string afterBanner(const std::string& out, std::string* buildTime = nullptr) {
    const std::string version = "vrec, Ver: 2.0\nCompiled at: ";
    const std::string maker = "\nMade by Orvane for its USB modules and datacards.\n\n";
    const std::string time = out.compare(0, version.size(), version) == 0
                                 ? out.substr(version.size(), 20)
                                 : std::string();
    if (time.size() != 20 || !isupper(static_cast<unsigned char>(time[0])) || time[11] != ' ' ||
        time[14] != ':' || time[17] != ':' ||
        out.compare(version.size() + 20, maker.size(), maker) != 0) {
        ADD_FAILURE() << "no banner at the start of:\n" << out;
        return out;
    }
    if (buildTime != nullptr) {
        *buildTime = time;
    }
    return out.substr(version.size() + 20 + maker.size());
}

std::string stayingLines(bool reporting) {
    return kLineClear + "INFO: Use vrec -s or press Ctrl+C to stop log capture.\n" +
           (reporting ? "INFO: vrec will report the size of log from time to time. Launch vrec "
                        "with -r 0 to disable this.\n"
                      : "") +
           kRunning;
}

struct Ended {
    int launcher;  // exit status of the process started
    int child;     // exit status of the run it forked off
    std::string out;
    std::string err;
};

// Runs side by side, each to its end: a sanitized build takes some tenths of a second to
// leave each process.
std::vector<Ended> finishAll(const std::string& program, const std::vector<Args>& argsOfRuns,
                             const std::string& cwd) {
    std::vector<std::unique_ptr<BackgroundRun>> runs;
    for (Args args : argsOfRuns) {
        args.insert(args.begin(), program);
        runs.push_back(std::make_unique<BackgroundRun>(args, cwd));
    }
    std::vector<Ended> ended;
    for (const auto& run : runs) {
        ended.push_back({run->launcherStatus(), run->childStatus(), "", ""});
        run->waitForEof();
        ended.back().out = run->output();
        ended.back().err = run->errors();
    }
    return ended;
}

Ended finish(const std::string& program, const Args& args, const std::string& cwd) {
    return finishAll(program, {args}, cwd).front();
}

// A capture of vrec_stayup that has started and waits to be stopped.
std::unique_ptr<BackgroundRun> stayingUp(const Args& args, const std::string& cwd) {
    Args argv = args;
    argv.insert(argv.begin(), kStayUp);
    auto run = std::make_unique<BackgroundRun>(argv, cwd);
    EXPECT_TRUE(run->waitForOutput(kRunning)) << run->output() << run->errors();
    return run;
}

// A run that has not ended within `forMs` was not stopped; every stop takes far less.
bool stillRunning(BackgroundRun& run, int forMs) {
    return run.childStatus(forMs) == -1;
}

// The stop sequence as the stay-up mode shows it: stopLog, destruction, the closing line,
// status 1, and nothing printed between the wait and the stop.
void expectStopped(BackgroundRun& run) {
    EXPECT_EQ(1, run.childStatus()) << run.errors();
    run.waitForEof();
    EXPECT_TRUE(endsWith(run.output(), kRunning + kStopped)) << run.output() << run.errors();
}

void sendToControlPort(const std::string& bytes) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(52888);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(
        static_cast<ssize_t>(bytes.size()),
        sendto(sock, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)));
    close(sock);
}

TEST(CommandLine, OptionLinesWarningsAndStatuses) {
    TempDir dir;
    const std::string on = "INFO: Reporting size of log file is ON .\n";
    const std::string cycle20 = "INFO:the log saving cycle is set to 20 MB.\n";
    struct Case {
        Args args;
        std::string printed;  // after the banner, up to what a capture mode says
        int status = 0;
    };
    const Case cases[] = {
        {{"-v"}, ""},
        {{"--version"}, ""},
        {{"-h"}, kUsage},
        {{"--help"}, kUsage},
        // Options act as they are read: the line of the first -t comes, the second -t and
        // the checks after the last option never do.
        {{"-t", "5", "-h", "-t", "6"}, "INFO:the max size of log size is set to 5MB.\n" + kUsage},
        {{}, kOverwrite},
        {{"-t", "0", "-u", "A1", "-r", "0", "-r", "1", "-r", "2000000", "-o", "0"},
         "INFO: file subitem is A1 .\nINFO: Reporting size of log file is OFF .\n" + on + on},
        {{"-t", "10", "-c", "20"},
         "INFO:the max size of log size is set to 10MB.\n" + cycle20 + kOverwrite +
             "WARNING: the max log saving size is less than the size of saving cycle.\n"
             "\t\t\tuse twice cycle size as max log size instead. "},
        {{"-t", "20", "-c", "20", "-o", "0"},
         "INFO:the max size of log size is set to 20MB.\n" + cycle20},
        {{"-c", "5", "-m", "3", "-o", "0"}, ""},
        {{"-m", "3", "-i", "-c", "5", "-o", "0"}, "INFO:the log saving cycle is set to 5 MB.\n"},
        // An export stays up, so -v ends this run once the names are taken.
        {{"-f", "logsave_3", "-f", "LOGSAVE_X", "--file", "Dump1", "-f", "*", "-v"},
         "INFO: Log file logsave_3 request\nINFO: Log file logsave_x request\n"
         "INFO: Dump file dump1 request\nINFO: Log and dump files request\n"},
        {{"-f", "log", "-t", "5"}, "ERROR: only log(logsave*) and dump(dump*) can be exported!", 1},
        // The last run alone has the option parser speak, on stderr.
        {{"-x", "stray", "--pcuiport", "x", "-o", "0", "-t"}, ""},
    };
    std::vector<Args> argsOfRuns;
    for (const Case& c : cases) {
        argsOfRuns.push_back(c.args);
    }
    const std::vector<Ended> runs = finishAll(kVrec, argsOfRuns, dir.path());
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE("vrec " + ::testing::PrintToString(c.args));
        EXPECT_EQ(0, runs[i].launcher);
        EXPECT_EQ(c.status, runs[i].child);
        // A run that reached the capture mode ends with what the mode says about its start,
        // opening with the line-clearing string, and the two closing lines.
        const std::string printed = afterBanner(runs[i].out);
        if (endsWith(printed, kDone)) {
            EXPECT_EQ(c.printed, printed.substr(0, c.printed.size()));
            const std::string mode = printed.substr(c.printed.size());
            EXPECT_TRUE(mode == kDone || mode.compare(0, kLineClear.size(), kLineClear) == 0);
        } else {
            EXPECT_EQ(c.printed, printed);
        }
        EXPECT_EQ(i + 1 == runs.size(), !runs[i].err.empty()) << runs[i].err;
    }
    for (const char* message : {"invalid option -- 'x'", "unrecognized option '--pcuiport'",
                                "option requires an argument -- 't'"}) {
        EXPECT_NE(std::string::npos, runs.back().err.find(message)) << runs.back().err;
    }
}

TEST(CommandLine, PortsPathAndBannerReachTheDiagnosticLog) {
    TempDir dir;
    const Ended run = finish(
        kVrec,
        {"--pcui", dir.file("nopcui"), "-d", dir.file("nodiag"), "-l", dir.file("out"), "-o", "0"},
        dir.path());
    EXPECT_EQ(0, run.child);
    EXPECT_TRUE(testkit::fileExists(dir.file("out")));
    std::string buildTime;
    afterBanner(run.out, &buildTime);
    // "h:m:s:ms  INFO  file line function text": each line with its own site.
    std::vector<std::string> sites;
    std::istringstream log(testkit::readFile(dir.file("vrec.log")));
    for (std::string line; std::getline(log, line);) {
        const size_t at = line.find("  INFO  vrec");
        const size_t number = line.find(' ', at + 8);
        if (at != std::string::npos && number != std::string::npos) {
            sites.push_back(line.substr(at + 8, number - at - 8) +
                            line.substr(line.find(' ', number + 1)));
        }
    }
    for (const std::string& site :
         {"vrecSrv/portMgnt.cpp openPcuiPortByName Open Pcui Port name: " + dir.file("nopcui"),
          "vrecSrv/portMgnt.cpp openDiagPortByName Open Diag Port name: " + dir.file("nodiag"),
          std::string("vrecCmd/commandLineSrv.cpp startLog vrec, Ver: 2.0"),
          "vrecCmd/commandLineSrv.cpp startLog Compiled at: " + buildTime,
          std::string("vrecCmd/commandLineSrv.cpp startLog Made by Orvane for its USB modules "
                      "and datacards.")}) {
        EXPECT_NE(std::find(sites.begin(), sites.end(), site), sites.end()) << site;
    }
}

TEST(StopClient, NobodyListeningOrTakenClientPort) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun client({kVrec, "-s"}, dir.path());
    ASSERT_TRUE(client.waitForOutput(kSent, 5000)) << client.output();
    // No capture is set while the client waits, so SIGQUIT finds nothing to stop.
    kill(client.childPid(), SIGQUIT);
    EXPECT_EQ(0, client.launcherStatus());
    EXPECT_EQ(0, client.childStatus());
    client.waitForEof();
    EXPECT_EQ(kSent, afterBanner(client.output()));

    const int holder = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(52889);
    ASSERT_EQ(0, bind(holder, reinterpret_cast<sockaddr*>(&local), sizeof(local)));
    const Ended run = finish(kVrec, {"--stop"}, dir.path());
    close(holder);
    EXPECT_EQ(0, run.child);
    EXPECT_EQ("bind error in UDP Initializesend cmd failed!stop\n", afterBanner(run.out));
}

TEST(StayUp, ModeAndStateDecideWhetherTheRunStays) {
    testkit::isolateNetwork();
    TempDir dir;
    enum End { kEnds, kStays, kStaysQuiet };
    struct Case {
        Args args;
        Args record;  // fields the mode must have been given
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
        Args argv = c.args;
        argv.insert(argv.begin(), kStayUp);
        runs.push_back(std::make_unique<BackgroundRun>(argv, dir.path()));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        BackgroundRun& run = *runs[i];
        SCOPED_TRACE("vrec_stayup " + ::testing::PrintToString(c.args));
        EXPECT_EQ(0, run.launcherStatus());
        if (c.end == kEnds) {
            EXPECT_EQ(0, run.childStatus());
            run.waitForEof();
        } else {
            ASSERT_TRUE(run.waitForOutput(kRunning)) << run.output() << run.errors();
        }
        const std::string out = run.output();
        EXPECT_TRUE(endsWith(out, c.end == kEnds ? kDone : stayingLines(c.end == kStays))) << out;
        const size_t start = out.find("stayup: startLog");
        ASSERT_NE(std::string::npos, start) << out;
        const std::string record = out.substr(start, out.find('\n', start) - start) + " ";
        for (const std::string& field : c.record) {
            EXPECT_NE(std::string::npos, record.find(" " + field + " ")) << record;
        }
    }
}

TEST(StayUp, VrecStopEndsTheCaptureThatHoldsTheChannel) {
    testkit::isolateNetwork();
    TempDir firstDir;
    TempDir secondDir;
    auto first = stayingUp({}, firstDir.path());
    EXPECT_EQ(0, first->launcherStatus());
    auto second = stayingUp({}, secondDir.path());
    EXPECT_TRUE(endsWith(second->output(), "bind error in UDP Initialize" + stayingLines(true)))
        << second->output();

    const Ended client = finish(kVrec, {"-s"}, secondDir.path());
    EXPECT_EQ(0, client.launcher);
    EXPECT_EQ(0, client.child);
    EXPECT_EQ(kSent, afterBanner(client.out));
    expectStopped(*first);
    EXPECT_TRUE(stillRunning(*second, 100));
    kill(second->childPid(), SIGQUIT);
    expectStopped(*second);
}

TEST(StayUp, DatagramsOnTheStopChannel) {
    testkit::isolateNetwork();
    TempDir dir;
    auto capture = stayingUp({}, dir.path());
    // A full buffer carries no terminator; a "stop" past 2048 bytes is cut off by the read.
    sendToControlPort(std::string(2048, 'x'));
    sendToControlPort(std::string(2500, 'x') + "stop");
    EXPECT_TRUE(stillRunning(*capture, 300));
    sendToControlPort(std::string(2037, ' ') + "please stop");
    expectStopped(*capture);

    // An empty datagram closes the channel; the client cannot tell, SIGQUIT still stops.
    capture = stayingUp({"-r", "0"}, dir.path());
    sendToControlPort("");
    EXPECT_EQ(kSent, afterBanner(finish(kVrec, {"-s"}, dir.path()).out));
    EXPECT_TRUE(stillRunning(*capture, 100));
    kill(capture->childPid(), SIGQUIT);
    expectStopped(*capture);
}

}  // namespace
