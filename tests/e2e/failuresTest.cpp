// Runs that cannot do what was asked say why, with status 1, before the module is told
// anything; inputs that would take a small board's memory or storage are refused or bounded.
// vrec runs against the module simulator, or against a terminal that answers nonsense.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>

#include "e2eKit.h"

namespace e2e {
namespace {

using testkit::endsWith;

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

const std::string kDone = "INFO: Wait for settings to take effect.\nDone.\n";
const std::string kRunning = "vrec now is running in the background.";
// A refused or failed run stays below this (its peak resident set); the largest input it
// may hold is a command file of 1 MiB, kept in about 3.5 MiB. A sanitizer's shadow memory
// and quarantine take several times what the program itself does.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kPeakRssLimitKb = 160 * 1024;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr long kPeakRssLimitKb = 160 * 1024;
#else
constexpr long kPeakRssLimitKb = 24 * 1024;
#endif
#else
constexpr long kPeakRssLimitKb = 24 * 1024;
#endif
constexpr long kMiBytes = 1 << 20;

using testkit::has;

// The peak resident set of a process in KiB, as /proc tells it (VmHWM), looked at every
// millisecond while `going` holds and the process lives; -1 if it ended before the first
// look, too soon to have held much.
long peakRssKb(pid_t pid, const std::function<bool()>& going) {
    long peak = -1;
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    while (pid > 0 && going()) {
        const std::string text = testkit::readFile(status);
        const size_t at = text.find("VmHWM:");
        if (at == std::string::npos) {
            break;  // ended: a zombie has no memory left to tell
        }
        peak = std::max(peak, strtol(text.c_str() + at + 6, nullptr, 10));
        usleep(1000);
    }
    return peak;
}

// One run of vrec in `cwd` to its end: its status, what it printed, its peak memory.
struct Ended {
    Ended(const Args& args, const std::string& cwd) : run(withHead({kVrec}, args), cwd) {
        pid_t child = -1;
        testkit::waitFor(
            [&] { return (child = run.childPid(0)) > 0 || run.launcherStatus(0) != -1; }, 10000);
        peakKb = peakRssKb(child, [] { return true; });
        status = run.launcherStatus(20000);
        if (status != -1 && run.childPid(0) > 0) {
            status = run.childStatus(20000);
        }
        out = run.output();
    }
    testkit::BackgroundRun run;
    int status = -1;
    std::string out;
    long peakKb = -1;
};

void expectRefused(const Ended& vrec, const std::string& line) {
    EXPECT_EQ(1, vrec.status);
    EXPECT_TRUE(has(vrec.out, line)) << vrec.out;
    EXPECT_TRUE(has(vrec.out, line.substr(0, line.find('\n') + 1) + kDone) ||
                endsWith(vrec.out, kDone))
        << vrec.out;
    EXPECT_FALSE(has(vrec.out, kRunning)) << vrec.out;
    EXPECT_GT(kPeakRssLimitKb, vrec.peakKb);
    printf("[ figure   ] peak resident set of the run: %ld KiB\n", vrec.peakKb);
}

// A terminal whose other end answers every command with an endless flow of `unit`, never
// with a final OK or ERROR, as a module in the wrong mode or a wrong device may.
class NonsenseTerminal {
public:
    explicit NonsenseTerminal(std::string unit) : unit(std::move(unit)) {
        fcntl(pty.master(), F_SETFL, fcntl(pty.master(), F_GETFL) | O_NONBLOCK);
        writer = std::thread([this] { talk(); });
    }
    ~NonsenseTerminal() {
        done = true;
        writer.join();
    }
    const std::string& name() const { return pty.slaveName(); }

private:
    void talk() {
        std::string flow;
        while (flow.size() < 64 * 1024) {
            flow += unit;
        }
        while (!done) {
            pollfd ready{pty.master(), POLLOUT, 0};
            if (poll(&ready, 1, 20) == 1 && write(pty.master(), flow.data(), flow.size()) < 0) {
                usleep(1000);
            }
            char sink[4096];
            while (read(pty.master(), sink, sizeof sink) > 0) {
            }
        }
    }

    testkit::Pty pty;
    const std::string unit;
    std::atomic<bool> done{false};
    std::thread writer;
};

TEST(Failures, ALogFileThatCannotBeMadeOrWrittenEndsTheStartBeforeTheModule) {
    Sim sim({});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): no full file system can be put in place";
    }
    testkit::isolateNetwork();
    // No inode left, so the file cannot be made; no block left, so it is made but takes
    // no byte.
    const std::string noInode = sim.file("noinode");
    const std::string noBlock = sim.file("noblock");
    for (const std::string& dir : {noInode, noBlock}) {
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    }
    ASSERT_TRUE(mounts.add("tmpfs", noInode, "tmpfs", 0, "size=1m,nr_inodes=1"));
    ASSERT_TRUE(mounts.add("tmpfs", noBlock, "tmpfs", 0, "size=64k"));
    const int filler = open((noBlock + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_NE(-1, filler);
    const std::string block(4096, 'f');
    while (write(filler, block.data(), block.size()) > 0) {
    }
    close(filler);

    for (const auto& [dir, verb] :
         {std::make_pair(noInode, "create"), std::make_pair(noBlock, "write to")}) {
        SCOPED_TRACE(dir);
        const Ended vrec({"-d", "./diag", "-l", dir}, sim.path());
        expectRefused(vrec, std::string("ERROR: can't ") + verb + " the log file " + dir +
                                "/real_log.bin: No space left on device\n");
        EXPECT_TRUE(sim.arrived("diag").empty());
    }
}

// A medium whose creates fail with EIO: the same, with the system's reason.
TEST(Failures, CreatesThatFailWithEioEndTheStartBeforeTheModule) {
    testkit::StallFs storage({"--eio-creates"});
    if (!storage.mounted()) {
        GTEST_SKIP() << storage.whyNot();
    }
    testkit::isolateNetwork();
    Sim sim({});
    const Ended vrec({"-d", "./diag", "-l", storage.dir()}, sim.path());
    expectRefused(vrec, "ERROR: can't create the log file " + storage.dir() +
                            "/real_log.bin: Input/output error\n");
    EXPECT_TRUE(sim.arrived("diag").empty());
}

// Started with standard input, output and error closed, as a service manager may start
// it, the launcher still ends with the run's own status.
TEST(Failures, ClosedStandardStreamsLeaveTheStatusTrue) {
    testkit::isolateNetwork();
    TempDir dir;
    testkit::writeFile(dir.file("plain"), "");
    const pid_t launcher = fork();
    if (launcher == 0) {
        if (chdir(dir.path().c_str()) == 0) {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            close(STDERR_FILENO);
            execl(kVrec.c_str(), kVrec.c_str(), "-l", "plain/logs", static_cast<char*>(nullptr));
        }
        _exit(127);
    }
    ASSERT_LT(0, launcher);
    int status = 0;
    ASSERT_EQ(launcher, waitpid(launcher, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(1, WEXITSTATUS(status));
}

// A PCUI port that cannot be opened, or that answers nothing an AT command would, ends an
// export or a setting with a line that names the port and what happened.
TEST(Failures, APcuiPortThatFailsIsNamedAndTheRunEnds) {
    testkit::isolateNetwork();
    TempDir dir;
    std::mt19937 random(3);
    std::string binary(4096, '\0');
    for (char& byte : binary) {
        byte = static_cast<char>(0x80 | random());  // never the end of an answer
    }
    const NonsenseTerminal binaryPort(binary);
    const NonsenseTerminal linesPort("+CREG: 1,\"00C3\",\"0012\"\r\n");
    const std::string noPort = "ERROR: can't open the PCUI port: /dev/ttyNONE: No such file";
    const std::pair<Args, std::string> cases[] = {
        {{"-f", "logsave", "-p", "/dev/ttyNONE"}, noPort},
        {{"-p", "/dev/ttyNONE", "-m", "1"}, noPort},
        {{"-f", "logsave", "-p", binaryPort.name()},
         "ERROR: the module on the PCUI port " + binaryPort.name() +
             " gave no list of its files: "},
        {{"-p", linesPort.name(), "-m", "2"},
         "ERROR: AT^MDSL on the PCUI port " + linesPort.name() + " failed: "},
    };
    for (const auto& [args, line] : cases) {
        SCOPED_TRACE(args[1] + " " + args[3]);
        const auto start = std::chrono::steady_clock::now();
        const Ended vrec(args, dir.path());
        expectRefused(vrec, line);
        // No answer is waited for longer than its 5 s, and a port that gives nonsense is not
        // asked again and again.
        EXPECT_GT(8000, testkit::msSince(start));
    }
    // A module that refuses the list: the user's name is not to blame.
    Sim sim({"--pcui", "pcui", "--fault", "error=^RSFR"});
    const Ended refused({"-f", "dump_1", "-p", "./pcui"}, sim.path());
    expectRefused(refused,
                  "ERROR: the module on the PCUI port ./pcui gave no list of its files: the "
                  "module answered ERROR.\n");
    EXPECT_FALSE(has(refused.out, "Please check the item name"));
}

TEST(Failures, OversizedInputIsRefusedBeforeAnythingIsSent) {
    testkit::isolateNetwork();
    Sim sim({"--pcui", "pcui"});
    const auto fill = [](const std::string& unit, long bytes) {
        std::string text;
        while (static_cast<long>(text.size()) < bytes) {
            text += unit;
        }
        return text.substr(0, static_cast<size_t>(bytes));
    };
    const std::string tooLong =
        ": 1048577 bytes, more than the 1048576 bytes (1 MiB) a command "
        "file may hold.\n";
    for (const char* name : {"startcmd.txt", "stopcmd.txt"}) {
        SCOPED_TRACE(name);
        putCommandFiles(sim.path());
        testkit::writeFile(sim.file(name), fill("{0x7E}", kMiBytes + 1));
        const Ended vrec({"-d", "./diag"}, sim.path());
        expectRefused(vrec, std::string("ERROR: can't use the command file ") + name + tooLong);
    }
    putCommandFiles(sim.path());
    testkit::writeFile(sim.file("logconfig.xml"), fill("<a/>", 16 * kMiBytes + 1));
    const Ended vrec({"-p", "./pcui", "-m", "1"}, sim.path());
    expectRefused(vrec, "ERROR: can't upload the logging configuration " +
                            sim.file("logconfig.xml") +
                            ": it is 16777217 bytes; at most 16777216 bytes (16 MiB) are "
                            "accepted.\n");
    EXPECT_TRUE(sim.arrived("diag").empty());
    EXPECT_TRUE(sim.arrived("pcui").empty());

    // One within the limit goes up; its pieces are told in the diagnostic log by count
    // and size, not each in full.
    testkit::writeFile(sim.file("logconfig.xml"), fill("<a/>", 100000));
    const Ended upload({"-p", "./pcui", "-m", "1"}, sim.path());
    EXPECT_EQ(0, upload.status) << upload.out;
    const std::string log = testkit::readFile(sim.file("vrec.log"));
    EXPECT_TRUE(has(log, "AT^RSFW: 139 of 139 pieces sent, 100000 bytes of configuration")) << log;
    EXPECT_FALSE(has(log, "AT send: AT^RSFW"));
}

// A stop file of the most commands a file of 1 MiB can hold: the stop ends in its time
// (or says how many it left out), the run's memory stays small, and the diagnostic log it
// fills keeps no more than its backups.
TEST(Failures, TheLargestStopSetEndsInTimeAndTheLogStaysBounded) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "200"});
    std::string stopSet;
    while (stopSet.size() < static_cast<size_t>(kMiBytes)) {
        stopSet += "{}";
    }
    testkit::writeFile(sim.file("stopcmd.txt"), stopSet);
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    std::atomic<bool> stopped{false};
    long peakKb = -1;
    std::thread watch(
        [&] { peakKb = peakRssKb(vrec.run.childPid(), [&] { return !stopped.load(); }); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, vrec.stop());
    const long stopMs = testkit::msSince(start);
    stopped = true;
    watch.join();
    EXPECT_GT(15000, stopMs);
    const std::string out = vrec.run.output();
    const std::string label = "WARNING: the stop went on without ";
    const size_t warning = out.find(label);
    if (warning != std::string::npos) {
        const long left = strtol(out.c_str() + warning + label.size(), nullptr, 10);
        printf("[ figure   ] %ld of 524288 stop commands left out after 5 s\n", left);
        EXPECT_TRUE(left > 0 && left <= 524288) << out;
        EXPECT_TRUE(has(out,
                        " of the 524288 commands of the stop command file: they took longer "
                        "than 5 s to send.\n"))
            << out;
    }
    EXPECT_GT(kPeakRssLimitKb, peakKb);
    printf("[ figure   ] stop took %ld ms; peak resident set of the run: %ld KiB\n", stopMs,
           peakKb);
    uint64_t logBytes = 0;
    size_t backups = 0;
    for (const std::string& name : testkit::listDir(sim.path())) {
        if (name.rfind("vrec", 0) == 0 && endsWith(name, ".log")) {
            logBytes += fileSize(sim.file(name));
            backups += name.rfind("vrec_backup_", 0) == 0 ? 1 : 0;
        }
    }
    EXPECT_GE(4u, backups);
    EXPECT_GE(5 * 10 * kMiB + kMiB, logBytes);
}

}  // namespace
}  // namespace e2e
