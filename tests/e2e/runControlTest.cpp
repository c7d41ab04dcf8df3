// How a run begins and ends around other runs and processes: stops that come during the
// start, a second run while one captures, other holders of the port, the log directory.
// vrec runs against the module simulator, whose record tells what reached the module.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "e2eKit.h"

namespace {

using namespace e2e;
using testkit::BackgroundRun;
using testkit::endsWith;
using testkit::waitFor;
using Clock = std::chrono::steady_clock;

const std::string kRunning = "vrec now is running in the background.";

// The simulator; with `commandFiles`, vrec sends one request to start and one to stop
// instead of its tables.
struct Module : Sim {
    explicit Module(bool commandFiles) : Sim({"--rate", "1000"}, commandFiles) {}
};

std::unique_ptr<BackgroundRun> launch(const std::string& cwd, const Args& args) {
    return std::make_unique<BackgroundRun>(withHead({kVrec}, args), cwd);
}

// `vrec -s` from `cwd`; the exit status of `capture`.
int stopCapture(BackgroundRun& capture, const std::string& cwd) {
    std::string out;
    EXPECT_EQ(0, testkit::runToEnd({kVrec, "-s"}, cwd, &out));
    return capture.childStatus(15000);
}

// A stop about a second into the 528 frames of the built-in start: the start ends at the
// next frame, the stop frames follow at once, and the run ends with status 1 before it ever
// says it runs in the background.
TEST(RunControl, StopDuringTheStartTableEndsItAtTheNextFrame) {
    testkit::isolateNetwork();
    const Args table = arrivals(diagreq::qualcommStartRequests());
    const Args stopFrames = arrivals(diagreq::qualcommStopRequests());
    for (const int how : {0, SIGQUIT, SIGTERM}) {
        SCOPED_TRACE(how == 0 ? "stop datagram" : strsignal(how));
        Module module(false);
        auto vrec = launch(module.path(), {"-d", "./diag", "-r", "0"});
        ASSERT_TRUE(waitFor([&] { return module.arrived("diag").size() >= 100; }, 5000));
        const auto stopped = Clock::now();
        std::unique_ptr<BackgroundRun> client;
        if (how == 0) {
            client = launch(module.path(), {"-s"});
        } else {
            ASSERT_TRUE(vrec->signalChild(how));
        }
        EXPECT_EQ(1, vrec->launcherStatus(5000));
        const long took = testkit::msSince(stopped);
        EXPECT_LT(took, 1000);
        printf("[ FIGURE   ] %s: the run ended %ld ms after the stop\n",
               how == 0 ? "vrec -s" : strsignal(how), took);
        EXPECT_EQ(1, vrec->childStatus());
        EXPECT_TRUE(endsWith(vrec->output(), kStopLine)) << vrec->output();
        EXPECT_EQ(std::string::npos, vrec->output().find(kRunning));

        Args arrived = module.arrived("diag");
        ASSERT_GT(arrived.size(), stopFrames.size());
        const size_t started = arrived.size() - stopFrames.size();
        EXPECT_LT(started, table.size());
        EXPECT_EQ(Args(table.begin(), table.begin() + static_cast<long>(started)),
                  Args(arrived.begin(), arrived.begin() + static_cast<long>(started)));
        EXPECT_EQ(stopFrames, Args(arrived.begin() + static_cast<long>(started), arrived.end()));
    }
}

// A second run while one captures says so and ends before it touches any port; the first
// goes on and is the one `vrec -s` stops.
TEST(RunControl, ASecondRunLeavesTheCaptureAlone) {
    testkit::isolateNetwork();
    Module module(true);
    auto first = launch(module.path(), {"-d", "./diag"});
    ASSERT_TRUE(first->waitForOutput(kRunning)) << first->output();
    EXPECT_EQ(0, first->launcherStatus());
    const std::string log = module.file("real_log.bin");
    const Args started = arrivals({kStartRequest});
    ASSERT_TRUE(waitFor([&] { return module.arrived("diag") == started; }));

    // Named ports, or the module found by discovery, or the module's own logging.
    for (const Args& args : {Args{"-d", "./diag"}, Args{}, Args{"-p", "./diag", "-m", "1"}}) {
        SCOPED_TRACE(testing::PrintToString(args));
        std::string out;
        EXPECT_EQ(1, testkit::runToEnd(withHead({kVrec}, args), module.path(), &out));
        EXPECT_TRUE(endsWith(out,
                             "ERROR: another capture is running; stop it with vrec -s before "
                             "starting a new one.\n"))
            << out;
    }
    const size_t size = testkit::readFile(log).size();
    EXPECT_TRUE(waitFor([&] { return testkit::readFile(log).size() > size + 1000; }, 5000));
    EXPECT_EQ(started, module.arrived("diag"));

    EXPECT_EQ(1, stopCapture(*first, module.path()));
    EXPECT_EQ(arrivals({kStartRequest, kStopRequest}), module.arrived("diag"));
}

// Another process that has the Diag port open is named before the capture starts; the
// simulator, which plays the module through the other end of the terminal, is not.
TEST(RunControl, OtherHoldersOfThePortAreNamed) {
    testkit::isolateNetwork();
    Module module(true);
    const int held = open(module.file("diag").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_NE(-1, held) << strerror(errno);
    std::string command = testkit::readFile("/proc/self/comm");
    command.pop_back();
    auto vrec = launch(module.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec->waitForOutput(kRunning)) << vrec->output();
    const std::string warning = "WARNING: ./diag is also open in " + command + " (pid " +
                                std::to_string(getpid()) +
                                "), which may take part of what the module sends.\n";
    const std::string out = vrec->output();
    EXPECT_NE(std::string::npos, out.find(warning)) << out;
    EXPECT_EQ(out.find("is also open in"), out.rfind("is also open in")) << out;
    close(held);
    EXPECT_EQ(1, stopCapture(*vrec, module.path()));
}

// A missing -l directory is made with its parents. One that cannot be made or written
// into ends the run with the reason, before anything reaches the module.
TEST(RunControl, LogDirectoryIsMadeOrRefusedBeforeTheModuleIsTouched) {
    testkit::isolateNetwork();
    Module module(true);
    testkit::writeFile(module.file("plain"), "");
    std::vector<std::pair<std::string, std::string>> refused = {
        {"plain/logs", "ERROR: can't create the log directory plain/logs: Not a directory\n"}};
    // A read-only file system, in a mount namespace of this test's own where there is one.
    const std::string readOnly = module.file("ro");
    const bool mounted = mkdir(readOnly.c_str(), 0755) == 0 && unshare(CLONE_NEWNS) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("tmpfs", readOnly.c_str(), "tmpfs", MS_RDONLY, "size=1m") == 0;
    if (mounted) {
        refused.emplace_back("ro",
                             "ERROR: can't write into the log directory ro: Read-only file "
                             "system\n");
    } else {
        printf("[  SKIPPED ] no mount namespace of our own: the read-only case is left out\n");
    }
    for (const auto& c : refused) {
        SCOPED_TRACE(c.first);
        std::string out;
        EXPECT_EQ(1,
                  testkit::runToEnd({kVrec, "-d", "./diag", "-l", c.first}, module.path(), &out));
        EXPECT_TRUE(endsWith(out, c.second)) << out;
        EXPECT_TRUE(module.arrived("diag").empty());
    }
    if (mounted) {
        umount2(readOnly.c_str(), MNT_DETACH);
    }

    auto vrec = launch(module.path(), {"-d", "./diag", "-l", "logs/a/b"});
    ASSERT_TRUE(vrec->waitForOutput(kRunning)) << vrec->output();
    EXPECT_TRUE(testkit::fileExists(module.file("logs/a/b/real_log.bin")));
    EXPECT_EQ(1, stopCapture(*vrec, module.path()));
}

}  // namespace
