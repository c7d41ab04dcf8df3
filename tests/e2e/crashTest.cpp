// A module that crashes during a capture, played by the simulator in a mount namespace of
// the test's own: a fake sysfs over /sys/bus and a /dev whose ttyUSB names lead to the
// simulator's terminals. What vrec sent to the dump port is the simulator's record; the dump
// is checked byte for byte by vrec-inspect --dump against the simulator's memory rule.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "e2eKit.h"
#include "testkit.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using namespace e2e;
using testkit::waitFor;

const std::string kRegions = "1200K:DDRCS0.BIN:DDR CS0,70001:OCIMEM.BIN,4K:CODERAM.BIN";

// The simulator with the normal module's ports behind /dev/ttyUSB1 (Diag) and /dev/ttyUSB2
// (PCUI), and its dump port behind /dev/ttyUSB3, once mounted.
struct CrashRig {
    explicit CrashRig(const Args& args, const std::string& regions = kRegions)
        : sim(withHead({"--pcui", "pcui", "--sysfs", "tree", "--reboot-ms", "300", "--rate", "2000",
                        "--dump-regions", regions},
                       args)) {}

    // False, with the reason, where the namespace cannot be had.
    bool mount(std::string* why, const std::string& diskSize = "") {
        if (!Mounts::enter()) {
            *why = std::string("no mount namespace of our own (") + strerror(errno) +
                   "): a fake sysfs and /dev cannot be put in place";
            return false;
        }
        testkit::isolateNetwork();
        EXPECT_EQ(0, mkdir(sim.file("logs").c_str(), 0755));
        bool done = mounts.add(sim.file("tree/sys/bus"), "/sys/bus", nullptr, MS_BIND) &&
                    mountDev(mounts, sim.file("dev"),
                             {{"ttyUSB1", sim.file("diag")},
                              {"ttyUSB2", sim.file("pcui")},
                              {"ttyUSB3", sim.file("diag.dump")}});
        if (done && !diskSize.empty()) {
            done = mounts.add("tmpfs", sim.file("logs"), "tmpfs", 0, ("size=" + diskSize).c_str());
        }
        putCommandFiles(sim.file("logs"));
        return done;
    }

    std::string logs() const { return sim.file("logs"); }
    // The one dump directory under `dir` (the log directory if empty), or empty.
    std::string dumpDir(const std::string& dir = "") const {
        const std::string under = dir.empty() ? logs() : dir;
        std::string found;
        for (const std::string& name : testkit::listDir(under)) {
            if (name.rfind("dump_", 0) == 0) {
                EXPECT_TRUE(found.empty()) << "a second dump directory " << name;
                found = under + "/" + name;
            }
        }
        return found;
    }
    // What vrec sent to the dump port, as the simulator names it, and the errors it saw.
    Args dumpPackets() const {
        Args packets;
        for (const std::string& line : sim.arrived("dump")) {
            packets.push_back(line.substr(0, line.find(' ', line.find(' ') + 1)));
        }
        return packets;
    }
    Args dumpErrors() const {
        Args errors;
        for (const std::string& line : sim.arrived("dump")) {
            if (line.rfind("error", 0) == 0 || line.rfind("junk", 0) == 0) {
                errors.push_back(line);
            }
        }
        return errors;
    }
    size_t starts() const { return sim.arrived("diag").size(); }

    Sim sim;
    Mounts mounts;
};

std::string indexLines(const std::string& dir) {
    return testkit::readFile(dir + "/dump_index.txt");
}

// The bytes stored of region `n` by the index.
long long storedOf(const std::string& index, int n) {
    const size_t row = index.find("\n" + std::to_string(n) + "\t");
    size_t at = row;
    for (int field = 0; field < 5 && at != std::string::npos; ++field) {
        at = index.find('\t', at + 1);
    }
    return at == std::string::npos ? -1 : strtoll(index.c_str() + at + 1, nullptr, 10);
}

int inspectDump(const std::string& dir, std::string* report) {
    return inspect({"--dump", dir, "--sim-memory"}, report);
}

// Runs vrec in the rig's log directory and crashes the module once it captures.
struct CrashedCapture {
    CrashedCapture(CrashRig& rig, const Args& args)
        : vrec(rig.logs(), args), log(rig.logs() + "/real_log.bin") {
        EXPECT_TRUE(vrec.up) << vrec.run.output();
        EXPECT_TRUE(waitFor([&] { return fileSize(log) > 2000; }, 5000));
        rig.sim.control("crash");
    }
    bool resumes() {
        if (!vrec.run.waitForOutput("INFO: logging resumed at ", 20000)) {
            return false;
        }
        const uint64_t at = fileSize(log);
        return waitFor([&] { return fileSize(log) > at + 2000; }, 5000);
    }
    bool says(const std::string& text) { return vrec.run.waitForOutput(text, 15000); }

    Vrec vrec;
    const std::string log;
};

// Capture, crash, dump, return: everything the module sends before and after is in the
// one item, and the dump is whole. The 32-bit table takes the same path through the
// session, proven there on byte arrays.
TEST(CrashDump, TheDumpIsCollectedAndTheCaptureResumesInTheSameItem) {
    CrashRig rig({"--dump-table", "64"});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    ASSERT_TRUE(run.resumes()) << run.vrec.run.output()
                               << testkit::readFile(rig.logs() + "/vrec.log") << rig.sim.record();
    Vrec& vrec = run.vrec;
    EXPECT_EQ(1, vrec.stop());

    const std::string out = vrec.run.output();
    for (const char* line :
         {"INFO: the module crashed: its Diag port went away at ",
          ", and it waits in dump mode on /dev/ttyUSB3.", "INFO: memory dump started at ",
          "INFO: memory dump ended: ", ", 3 regions, 1302897 bytes in ", "s, all complete.",
          "INFO: the module was reset; waiting for it to come back."}) {
        EXPECT_NE(std::string::npos, out.find(line)) << line << "\n" << out;
    }
    const std::string dir = rig.dumpDir();
    ASSERT_FALSE(dir.empty());
    std::string report;
    EXPECT_EQ(0, inspectDump(dir, &report)) << report;
    const std::string index = indexLines(dir);
    EXPECT_EQ(0u, index.find("# vrec memory dump ")) << index;
    EXPECT_NE(std::string::npos,
              index.find(" port /dev/ttyUSB3 table 64-bit 3 regions\n"
                         "0\tDDR CS0\tDDRCS0.BIN\t0x880000000\t0x12c000\t1228800\tcomplete\n"
                         "1\tOCIMEM\tOCIMEM.BIN\t0x880140000\t0x11171\t70001\tcomplete\n"
                         "2\tCODERAM\tCODERAM.BIN\t0x880170000\t0x1000\t4096\tcomplete\n"
                         "# result complete\n"))
        << index;
    const Args packets = rig.dumpPackets();
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ("sahara HELLO_RESP", packets.front());
    EXPECT_EQ("sahara RESET", packets.back());
    EXPECT_EQ(Args{}, rig.dumpErrors());
    // The start set went out again on the returned module; the item is one whole stream.
    EXPECT_EQ(arrivals({kStartRequest, kStartRequest, kStopRequest}), rig.sim.arrived("diag"));
    EXPECT_TRUE(rig.sim.arrived("pcui").empty());  // found, but a Diag capture has no use for it
    EXPECT_EQ(std::vector<int>{}, itemNumbers(rig.logs()));
    inspect({run.log}, &report);
    EXPECT_NE(std::string::npos, report.find("verdict: whole")) << report;
    EXPECT_EQ(0, figure(report, ", missing ")) << report;
    // Packets from before the crash and from after the return, one sequence without a gap.
    const long long crashedAfter = figure(rig.sim.record(), "event crash after seq ");
    EXPECT_GT(crashedAfter, 10);
    EXPECT_GT(figure(report, ", last "), crashedAfter + 10) << report;
}

TEST(CrashDump, OnCrashResetSendsOnlyResetAndLeaveWritesNothing) {
    {
        CrashRig rig({});
        std::string why;
        if (!rig.mount(&why)) {
            GTEST_SKIP() << why;
        }
        CrashedCapture run(rig, {"--on-crash", "reset"});
        EXPECT_TRUE(
            run.says("INFO: the module was reset without its memory being read "
                     "(--on-crash reset); waiting for it to come back."))
            << run.vrec.run.output();
        EXPECT_TRUE(run.resumes()) << run.vrec.run.output();
        EXPECT_EQ(1, run.vrec.stop());
        EXPECT_EQ(Args{"sahara RESET"}, rig.dumpPackets());
        EXPECT_EQ(Args{}, rig.dumpErrors());
        EXPECT_EQ("", rig.dumpDir());
    }
    {
        CrashRig rig({});
        std::string why;
        ASSERT_TRUE(rig.mount(&why)) << why;
        CrashedCapture run(rig, {"--on-crash", "leave"});
        EXPECT_TRUE(
            run.says("INFO: the module waits in dump mode on /dev/ttyUSB3; with "
                     "--on-crash leave vrec writes nothing to it."))
            << run.vrec.run.output();
        usleep(1000000);  // looks go on every half second: the port is neither opened again
        EXPECT_EQ(1, run.vrec.stop());
        const std::string out = run.vrec.run.output();
        EXPECT_EQ(out.find("with --on-crash leave"), out.rfind("with --on-crash leave")) << out;
        EXPECT_EQ(Args{}, rig.dumpPackets());
        EXPECT_EQ("", rig.dumpDir());
        EXPECT_EQ(arrivals({kStartRequest}), rig.sim.arrived("diag"));
    }
}

// A refused region is marked and passed over; a hang-up in the middle of the next cuts it
// where it stopped; the module comes back and the capture goes on.
TEST(CrashDump, RefusedRegionAndHangUpInTheMiddleOfARegion) {
    CrashRig rig({"--fault", "dump-refuse=0", "--fault", "dump-hangup@30000"});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    EXPECT_TRUE(run.resumes()) << run.vrec.run.output();
    EXPECT_EQ(1, run.vrec.stop());
    const std::string dir = rig.dumpDir();
    ASSERT_FALSE(dir.empty());
    const std::string index = indexLines(dir);
    EXPECT_NE(std::string::npos,
              index.find("0\tDDR CS0\tDDRCS0.BIN\t0x880000000\t0x12c000\t0\trefused 0x19\n"
                         "1\tOCIMEM\tOCIMEM.BIN\t0x880140000\t0x11171\t30000\tcut: port hung up\n"
                         "2\tCODERAM\tCODERAM.BIN\t0x880170000\t0x1000\t0\tnot read: port hung up\n"
                         "# result incomplete: port hung up\n"))
        << index;
    std::string report;
    EXPECT_EQ(1, inspectDump(dir, &report)) << report;
    EXPECT_EQ(30000u, fileSize(dir + "/OCIMEM.BIN"));
    EXPECT_EQ(Args{}, rig.dumpErrors());
    EXPECT_NE(std::string::npos, run.vrec.run.output().find("incomplete: port hung up"));
}

// A full disk ends the collection; the index says so and RESET still goes out, so that the
// module comes back.
TEST(CrashDump, AFullDiskEndsTheCollectionAndTheModuleIsResetAllTheSame) {
    CrashRig rig({});
    std::string why;
    if (!rig.mount(&why, "1m")) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    EXPECT_TRUE(run.vrec.run.waitForOutput("INFO: logging resumed at ", 20000))
        << run.vrec.run.output();
    EXPECT_EQ(1, run.vrec.stop());
    const std::string dir = rig.dumpDir();
    ASSERT_FALSE(dir.empty());
    const std::string index = indexLines(dir);
    const long long stored = storedOf(index, 0);
    EXPECT_GT(stored, 0) << index;
    EXPECT_LT(stored, 1228800) << index;
    EXPECT_EQ(static_cast<uint64_t>(stored), fileSize(dir + "/DDRCS0.BIN"));
    EXPECT_NE(std::string::npos, index.find("\tcut: storage full\n1\t")) << index;
    EXPECT_NE(std::string::npos,
              index.find("not read: storage full\n# result incomplete: storage full\n"))
        << index;
    EXPECT_EQ("sahara RESET", rig.dumpPackets().back());
    EXPECT_EQ(Args{}, rig.dumpErrors());
}

// A HELLO in another mode (download): nothing is written, the terminal names the mode.
TEST(CrashDump, AModuleInDownloadModeIsLeftAlone) {
    CrashRig rig({"--fault", "dump-mode=0"});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    EXPECT_TRUE(
        run.says("INFO: /dev/ttyUSB3 speaks Sahara in image transfer pending (download) "
                 "mode, not memory debug; vrec leaves it alone."))
        << run.vrec.run.output();
    EXPECT_EQ(1, run.vrec.stop());
    EXPECT_EQ(Args{}, rig.dumpPackets());
    EXPECT_EQ("", rig.dumpDir());
}

// A dump interface that no driver holds: vrec binds the serial driver through new_id.
TEST(CrashDump, AnUnboundDumpInterfaceIsBoundThroughNewId) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "binding a driver is for root, and this test does not run as root";
    }
    CrashRig rig({"--dump-unbound"});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    EXPECT_TRUE(
        run.says("INFO: no driver held the dump interface 1-1:1.0 of 05C6:900E: vrec "
                 "wrote \"05c6 900e\" to /sys/bus/usb-serial/drivers/option1/new_id."))
        << run.vrec.run.output();
    EXPECT_TRUE(run.resumes()) << run.vrec.run.output();
    EXPECT_EQ(1, run.vrec.stop());
    std::string report;
    EXPECT_EQ(0, inspectDump(rig.dumpDir(), &report)) << report;
    const Args packets = rig.sim.arrived("dump");
    EXPECT_EQ(1, std::count(packets.begin(), packets.end(), "new_id 05c6 900e"))
        << rig.sim.record();
}

// vrec --collect-dump: in the foreground, into -l's directory; 0 when every region is
// complete, 1 when one is not.
TEST(CrashDump, CollectDumpAloneEndsWithTheCollectionsStatus) {
    for (const bool refuse : {false, true}) {
        SCOPED_TRACE(refuse);
        CrashRig rig(refuse ? Args{"--fault", "crash", "--fault", "dump-refuse=2"}
                            : Args{"--fault", "crash"});
        std::string why;
        if (!rig.mount(&why)) {
            GTEST_SKIP() << why;
        }
        std::string out;
        const int status = testkit::runToEnd({kVrec, "--collect-dump", "-l", rig.logs() + "/here"},
                                             rig.logs(), &out);
        EXPECT_EQ(refuse ? 1 : 0, status) << out;
        EXPECT_EQ(std::string::npos, out.find("running in the background")) << out;
        const std::string dir = rig.dumpDir(rig.logs() + "/here");
        ASSERT_FALSE(dir.empty()) << out;
        std::string report;
        EXPECT_EQ(refuse ? 1 : 0, inspectDump(dir, &report)) << report;
        EXPECT_EQ("sahara RESET", rig.dumpPackets().back());
        EXPECT_EQ(Args{}, rig.dumpErrors());
    }
}

// A capture that starts while the module waits in dump mode collects the dump first and
// starts on the module that comes back.
TEST(CrashDump, ACaptureStartingOnACrashedModuleCollectsFirst) {
    CrashRig rig({"--fault", "crash"});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    ASSERT_TRUE(waitFor(
        [&] { return rig.sim.record().find("event dump port ") != std::string::npos; }, 5000));
    Vrec vrec(rig.logs(), {});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string out = vrec.run.output();
    EXPECT_NE(std::string::npos, out.find("INFO: a module waits in dump mode on /dev/ttyUSB3."))
        << out;
    EXPECT_LT(out.find("INFO: memory dump ended: "), out.find("INFO: now start saving log file "))
        << out;
    EXPECT_TRUE(waitFor([&] { return fileSize(rig.logs() + "/real_log.bin") > 2000; }, 5000));
    EXPECT_EQ(1, vrec.stop());
    std::string report;
    EXPECT_EQ(0, inspectDump(rig.dumpDir(), &report)) << report;
    EXPECT_EQ(arrivals({kStartRequest, kStopRequest}), rig.sim.arrived("diag"));
}

// A stop during the dump ends it at the next piece, resets the module, writes the index and
// then stops as always.
TEST(CrashDump, AStopDuringTheDumpResetsTheModuleAndWritesTheIndex) {
    CrashRig rig({}, "256M:BIG.BIN:BIG,4K:SMALL.BIN");
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    CrashedCapture run(rig, {});
    ASSERT_TRUE(run.says("INFO: collecting the memory dump into ")) << run.vrec.run.output();
    const std::string dir = rig.dumpDir();
    ASSERT_TRUE(waitFor([&] { return fileSize(dir + "/BIG.BIN") > 1000000; }, 10000));
    // SIGTERM, which stops at once, where vrec -s takes a second to send its datagram.
    const pid_t pid = run.vrec.run.childPid();
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGTERM));
    EXPECT_EQ(1, run.vrec.run.childStatus(15000));
    const std::string index = indexLines(dir);
    const long long stored = storedOf(index, 0);
    EXPECT_EQ(0, stored % 65536) << index;  // whole pieces only
    EXPECT_LT(stored, 256 << 20) << index;
    EXPECT_EQ(static_cast<uint64_t>(stored), fileSize(dir + "/BIG.BIN"));
    EXPECT_NE(std::string::npos,
              index.find("\tcut: stopped\n1\tSMALL\tSMALL.BIN\t0x890010000\t0x1000\t0\tnot "
                         "read: stopped\n# result incomplete: stopped\n"))
        << index;
    EXPECT_EQ("sahara RESET", rig.dumpPackets().back());
    EXPECT_EQ(Args{}, rig.dumpErrors());
    EXPECT_NE(std::string::npos, run.vrec.run.output().find(kStopLine));
}

}  // namespace
