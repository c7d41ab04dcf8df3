// Runs of the command line as a user makes them. vrec_stayup has a capture mode that always
// starts, so its runs stay up and the stop channel and SIGQUIT can be driven against them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include <memory>
#include <string>
#include <vector>

#include "testkit.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using testkit::BackgroundRun;
using testkit::endsWith;
using testkit::TempDir;
using Args = std::vector<std::string>;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kStayUp = testkit::builtProgram("tests/cmd/vrec_stayup");
const std::string kLineClear = "\r" + std::string(100, ' ') + "\r";
const std::string kOverwrite = "WARNING: vrec will overwrite existing captured log files.\n";
const std::string kDone = "INFO: Wait for settings to take effect.\nDone.\n";
const std::string kRunning = "\nvrec now is running in the background.\n";
const std::string kStaying =
    kLineClear + "INFO: Use vrec -s or press Ctrl+C to stop log capture.\n" +
    "INFO: vrec will report the size of log from time to time. Launch vrec with -r 0 to "
    "disable this.\n" +
    kRunning;
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
    "ignored\n"
    // The long options without a short letter, one line each.
    "\n"
    "More options:\n"
    "  --logs LIST                Log only these log codes: layer names, codes (0xB0C0) and "
    "ranges (0xB0C0-0xB0CF), comma-separated; see man vrec\n"
    "  --msgs LEVEL               Message level for all subsystems: "
    "off|fatal|error|high|medium|low\n"
    "  --events on|off            Event reports on or off\n"
    "  --mask-file FILE           Send the HDLC frames of FILE (each ending with 0x7E) as the "
    "start set\n"
    "  --on-crash collect|reset|leave  When the module crashes into dump mode: collect its "
    "memory dump (default), only reset it, or leave it\n"
    "  --collect-dump             Collect the dump of a module in dump mode, reset it and end "
    "(status 0 when complete)\n";

// What a run printed after the banner that opens every run, with its build time ("Apr 12
// 2014 16:49:57"); a run without it fails the test.
std::string afterBanner(const std::string& out) {
    const std::string version = "vrec, Ver: 2.0\nCompiled at: ";
    const std::string maker = "\nMade by Orvane for its USB modules and datacards.\n\n";
    const size_t end = version.size() + 20;
    if (out.size() < end + maker.size() || out.compare(0, version.size(), version) != 0 ||
        out.compare(end, maker.size(), maker) != 0 || out[end - 3] != ':' || out[end - 9] != ' ') {
        ADD_FAILURE() << "no banner at the start of:\n" << out;
        return out;
    }
    return out.substr(end + maker.size());
}

Args withProgram(const std::string& program, Args args) {
    args.insert(args.begin(), program);
    return args;
}

// A capture of vrec_stayup that has started and waits to be stopped.
std::unique_ptr<BackgroundRun> stayingUp(const Args& args, const std::string& cwd) {
    auto run = std::make_unique<BackgroundRun>(withProgram(kStayUp, args), cwd);
    EXPECT_TRUE(run->waitForOutput(kRunning)) << run->output() << run->errors();
    return run;
}

// The stop sequence as the stay-up mode shows it: stopLog, destruction, the closing line,
// status 1, and nothing printed between the wait and the stop.
void expectStopped(BackgroundRun& run) {
    EXPECT_EQ(1, run.childStatus()) << run.errors();
    EXPECT_TRUE(endsWith(run.output(), kRunning + kStopped)) << run.output() << run.errors();
}

sockaddr_in ipv4(const char* address, unsigned short port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

// `bytes` to port 52888 of `to`, sent from `from` where given.
void sendToControlPort(const std::string& bytes, const char* to = "127.0.0.1",
                       const char* from = nullptr) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (from != nullptr) {
        const sockaddr_in local = ipv4(from, 0);
        ASSERT_EQ(0, bind(sock, reinterpret_cast<const sockaddr*>(&local), sizeof(local)))
            << strerror(errno);
    }
    const sockaddr_in target = ipv4(to, 52888);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
              sendto(sock, bytes.data(), bytes.size(), 0,
                     reinterpret_cast<const sockaddr*>(&target), sizeof(target)));
    close(sock);
}

// A second address on the loopback interface of this test's own network namespace.
bool addLoopbackAlias(const char* address) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr{};
    strncpy(ifr.ifr_name, "lo:1", IFNAMSIZ - 1);
    const sockaddr_in in = ipv4(address, 0);
    memcpy(&ifr.ifr_addr, &in, sizeof(in));
    const bool added = ioctl(sock, SIOCSIFADDR, &ifr) == 0;
    close(sock);
    return added;
}

TEST(CommandLine, OptionLinesWarningsAndStatuses) {
    // Each run that gets to its start takes the control port, so runs side by side need a
    // network of their own; where there is none they go one by one.
    const bool ownNetworks = testkit::isolateNetwork();
    TempDir dir;
    const std::string on = "INFO: Reporting size of log file is ON .\n";
    const std::string cycle20 = "INFO:the log saving cycle is set to 20 MB.\n";
    struct Case {
        Args args;
        std::string printed;  // after the banner, up to what a capture mode says
        int status = 0;
    };
    const Case cases[] = {
        {{"-h"}, kUsage},
        // Options act as they are read: the line of the first -t comes, the second -t and
        // the checks after the last option never do.
        {{"-t", "5", "-h", "-t", "6"}, "INFO:the max size of log size is set to 5MB.\n" + kUsage},
        // No module is attached: every capture fails to start, and the status says so.
        {{}, kOverwrite, 1},
        {{"-t", "0", "-u", "12", "-r", "0", "-r", "1", "-r", "2000000", "-o", "0"},
         "INFO: file subitem is 12 .\nINFO: Reporting size of log file is OFF .\n" + on + on,
         1},
        {{"-t", "10", "-c", "20"},
         "INFO:the max size of log size is set to 10MB.\n" + cycle20 + kOverwrite +
             "WARNING: the max log saving size is less than the size of saving cycle.\n"
             "\t\t\tuse twice cycle size as max log size instead. ",
         1},
        {{"-t", "20", "-c", "20", "-o", "0"},
         "INFO:the max size of log size is set to 20MB.\n" + cycle20,
         1},
        {{"-m", "3", "-i", "-c", "5", "-o", "0"}, "INFO:the log saving cycle is set to 5 MB.\n", 1},
        // An export stays up, so -v ends this run once the names are taken.
        {{"-f", "logsave_3", "-f", "LOGSAVE_X", "--file", "Dump1", "-f", "*", "-v"},
         "INFO: Log file logsave_3 request\nINFO: Log file logsave_x request\n"
         "INFO: Dump file dump1 request\nINFO: Log and dump files request\n"},
        {{"-f", "log", "-t", "5"}, "ERROR: only log(logsave*) and dump(dump*) can be exported!", 1},
        // The ends of each range are good values.
        {{"-r", "4294967295", "-c", "1048576", "-t", "0", "-o", "1", "-m", "6", "-u", "9999", "-v"},
         "INFO: Reporting size of log file is ON .\nINFO: file subitem is 9999 .\n"},
        // The last run alone has the option parser speak, on stderr.
        {{"-x", "stray", "--pcuiport", "x", "-o", "0", "-t"}, "", 1},
    };
    // Side by side: a sanitized build takes some tenths of a second to leave each process.
    std::vector<std::unique_ptr<BackgroundRun>> runs;
    for (const Case& c : cases) {
        runs.push_back(std::make_unique<BackgroundRun>(
            withProgram(kVrec, c.args), dir.path(),
            ownNetworks ? BackgroundRun::Network::Own : BackgroundRun::Network::Shared));
        if (!ownNetworks) {
            runs.back()->waitForEof();
        }
    }
    std::string lastErrors;
    for (size_t i = 0; i < runs.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE("vrec " + ::testing::PrintToString(c.args));
        // The launcher waits for the run and reports how it went.
        EXPECT_EQ(c.status, runs[i]->launcherStatus());
        EXPECT_EQ(c.status, runs[i]->childStatus());
        // A run that reached the capture mode ends with what the mode says about its start,
        // opening with the line-clearing string, and the two closing lines.
        const std::string printed = afterBanner(runs[i]->output());
        if (endsWith(printed, kDone)) {
            EXPECT_EQ(c.printed, printed.substr(0, c.printed.size()));
            const std::string mode = printed.substr(c.printed.size());
            EXPECT_TRUE(mode == kDone || mode.compare(0, kLineClear.size(), kLineClear) == 0);
        } else {
            EXPECT_EQ(c.printed, printed);
        }
        lastErrors = runs[i]->errors();
        EXPECT_EQ(i + 1 == runs.size(), !lastErrors.empty()) << lastErrors;
    }
    for (const char* message : {"invalid option -- 'x'", "unrecognized option '--pcuiport'",
                                "option requires an argument -- 't'"}) {
        EXPECT_NE(std::string::npos, lastErrors.find(message)) << lastErrors;
    }
}

// A value out of its option's rules ends the run with its ERROR line before any option
// acts: the ports named before it are never opened, nothing reaches the module.
TEST(CommandLine, BadValuesEndTheRunBeforeAnyPortIsTouched) {
    TempDir dir;
    testkit::ModemSim module(dir.path(), {"--pcui", "pcui", "--diag", "diag"});
    ASSERT_TRUE(module.ready);
    const std::string size = "a whole number of MB from 0 to 1048576";
    const std::string step = "a whole number from 0 to 4294967295";
    const std::string name = "a file name without quotes, commas, blanks or control characters";
    const struct {
        Args args;
        const char* shown;  // the value as the ERROR line shows it
        const char* option;
        std::string rule;
    } cases[] = {
        {{"-c", "abc"}, "abc", "-c (--cycle)", size},
        {{"--cycle", "99999999999"}, "99999999999", "-c (--cycle)", size},
        {{"-t", "5", "-c", "-1"}, "-1", "-c (--cycle)", size},
        {{"-t", "1048577"}, "1048577", "-t (--total)", size},
        {{"-t", "0x10"}, "0x10", "-t (--total)", size},
        {{"-r", "-5"}, "-5", "-r (--report)", step},
        {{"-r", "4294967296"}, "4294967296", "-r (--report)", step},
        {{"-o", "7"}, "7", "-o (--overwrite)", "0 or 1"},
        {{"-o", ""}, "", "-o (--overwrite)", "0 or 1"},
        {{"-m", "9"}, "9", "-m (--mdon)", "a state from 0 to 6"},
        {{"-m", "abc"}, "abc", "-m (--mdon)", "a state from 0 to 6"},
        {{"-m", " 3"}, " 3", "-m (--mdon)", "a state from 0 to 6"},
        // A unit that would close the quoted field and add a command of its own.
        {{"-f", "logsave", "-u", "0\"\rAT^MDON=0\r"},
         "0\"\\rAT^MDON=0\\r",
         "-u (--unit)",
         "a whole number from 0 to 9999"},
        {{"-f", "logsave_1\",\"0"}, "logsave_1\",\"0", "-f (--file)", name},
        {{"-f", "dump 1"}, "dump 1", "-f (--file)", name},
        {{"--on-crash", "dump"}, "dump", "--on-crash", "collect, reset or leave"},
    };
    std::vector<std::unique_ptr<BackgroundRun>> runs;
    for (const auto& c : cases) {
        Args args = {kVrec, "-p", "./pcui", "-d", "./diag"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        runs.push_back(std::make_unique<BackgroundRun>(args, dir.path()));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        SCOPED_TRACE("vrec " + ::testing::PrintToString(cases[i].args));
        EXPECT_EQ(1, runs[i]->launcherStatus());
        EXPECT_EQ(1, runs[i]->childStatus());
        EXPECT_EQ(std::string("ERROR: invalid value \"") + cases[i].shown + "\" for " +
                      cases[i].option + ": give " + cases[i].rule +
                      ".\nUse vrec -h to see the options.\n",
                  afterBanner(runs[i]->output()));
        EXPECT_EQ("", runs[i]->errors());
    }
    EXPECT_TRUE(module.arrived("pcui").empty());
    EXPECT_TRUE(module.arrived("diag").empty());
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));
}

TEST(StopClient, NobodyListening) {
    testkit::isolateNetwork();
    TempDir dir;
    BackgroundRun client({kVrec, "-s"}, dir.path());
    ASSERT_TRUE(client.waitForOutput(kSent, 5000)) << client.output();
    // No capture is set while the client waits, so SIGQUIT finds nothing to stop.
    EXPECT_TRUE(client.signalChild(SIGQUIT));
    EXPECT_EQ(0, client.launcherStatus());
    EXPECT_EQ(0, client.childStatus());
    EXPECT_EQ(kSent, afterBanner(client.output()));
}

TEST(StayUp, DatagramsOnTheStopChannel) {
    const bool ownNetwork = testkit::isolateNetwork();
    TempDir dir;
    auto capture = stayingUp({}, dir.path());
    // A full buffer carries no terminator; a "stop" past 2048 bytes is cut off by the read.
    // An empty datagram carries nothing and leaves the channel open.
    sendToControlPort(std::string(2048, 'x'));
    sendToControlPort(std::string(2500, 'x') + "stop");
    sendToControlPort("");
    EXPECT_EQ(-1, capture->childStatus(300));
    sendToControlPort(std::string(2037, ' ') + "please stop");
    expectStopped(*capture);

    capture = stayingUp({"-r", "0"}, dir.path());
    sendToControlPort("");
    std::string out;
    testkit::runToEnd({kVrec, "-s"}, dir.path(), &out);
    EXPECT_EQ(kSent, afterBanner(out));
    expectStopped(*capture);

    // Only this host's loopback reaches the channel: neither a datagram to another address
    // nor one from another address stops the capture.
    if (!ownNetwork || !addLoopbackAlias("10.77.0.1")) {
        GTEST_SKIP() << "no network namespace of our own to add an address in";
    }
    capture = stayingUp({}, dir.path());
    sendToControlPort("stop", "10.77.0.1", "10.77.0.1");
    sendToControlPort("stop", "127.0.0.1", "10.77.0.1");
    EXPECT_EQ(-1, capture->childStatus(300));
    // SIGTERM, as a service manager sends it, stops as SIGQUIT does.
    EXPECT_TRUE(capture->signalChild(SIGTERM));
    expectStopped(*capture);
}

}  // namespace
