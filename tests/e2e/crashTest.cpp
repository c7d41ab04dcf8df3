// A module that crashes during a capture, played by the simulator in a mount namespace of
// the test's own: a fake sysfs over /sys/bus and a /dev whose ttyUSB names lead to the
// simulator's terminals. What vrec sent to the dump port is the simulator's record; the dump
// is checked byte for byte by vrec-inspect --dump against the simulator's memory rule.
#include <gtest/gtest.h>
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
    explicit CrashRig(const Args& args)
        : sim(withHead({"--pcui", "pcui", "--sysfs", "tree", "--reboot-ms", "300", "--rate", "2000",
                        "--dump-regions", kRegions},
                       args)) {}

    // False, with the reason, where the namespace cannot be had.
    bool mount(std::string* why, const std::string& diskSize = "") {
        if (!Mounts::enter()) {
            *why = std::string("no mount namespace of our own (") + strerror(errno) +
                   "): a fake sysfs and /dev cannot be put in place";
            return false;
        }
        testkit::isolateNetwork();
        const std::string dev = sim.file("dev");
        for (const std::string& dir : {dev, dev + "/pts", sim.file("logs")}) {
            EXPECT_EQ(0, mkdir(dir.c_str(), 0755));
        }
        testkit::writeFile(dev + "/null", "");
        testkit::writeFile(dev + "/ptmx", "");
        const std::pair<const char*, const char*> links[] = {
            {"diag", "/ttyUSB1"}, {"pcui", "/ttyUSB2"}, {"diag.dump", "/ttyUSB3"}};
        for (const auto& link : links) {
            EXPECT_EQ(0, symlink(sim.file(link.first).c_str(), (dev + link.second).c_str()));
        }
        bool done = mounts.add(sim.file("tree/sys/bus"), "/sys/bus", nullptr, MS_BIND);
        for (const char* name : {"/null", "/pts", "/ptmx"}) {
            done = done && mounts.add(std::string("/dev") + name, dev + name, nullptr, MS_BIND);
        }
        done = done && mounts.add(dev, "/dev", nullptr, MS_BIND | MS_REC);
        if (done && !diskSize.empty()) {
            done = mounts.add("tmpfs", sim.file("logs"), "tmpfs", 0, ("size=" + diskSize).c_str());
        }
        putCommandFiles(sim.file("logs"));
        return done;
    }

    std::string logs() const { return sim.file("logs"); }
    // The one dump directory under the log directory, or empty.
    std::string dumpDir() const {
        std::string found;
        for (const std::string& name : testkit::listDir(logs())) {
            if (name.rfind("dump_", 0) == 0) {
                EXPECT_TRUE(found.empty()) << "a second dump directory " << name;
                found = logs() + "/" + name;
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

int inspectDump(const std::string& dir, std::string* report) {
    return inspect({"--dump", dir, "--sim-memory"}, report);
}

// Capture, crash, dump, return: everything the module sends before and after is in the
// one item, and the dump is whole.
void crashAndResume(const std::string& table, const std::string& firstAddress,
                    const std::string& lines) {
    CrashRig rig({"--dump-table", table});
    std::string why;
    if (!rig.mount(&why)) {
        GTEST_SKIP() << why;
    }
    Vrec vrec(rig.logs(), {});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = rig.logs() + "/real_log.bin";
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > 5000; }, 5000));
    rig.sim.control("crash");
    ASSERT_TRUE(vrec.run.waitForOutput("INFO: logging resumed at ", 20000))
        << vrec.run.output() << testkit::readFile(rig.logs() + "/vrec.log") << rig.sim.record();
    const uint64_t resumedAt = fileSize(log);
    EXPECT_TRUE(waitFor([&] { return fileSize(log) > resumedAt + 5000; }, 5000));
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
    EXPECT_NE(std::string::npos, index.find(" port /dev/ttyUSB3 table " + table +
                                            "-bit 3 regions\n"
                                            "0\tDDR CS0\tDDRCS0.BIN\t" +
                                            firstAddress + lines + "# result complete\n"))
        << index;
    const Args packets = rig.dumpPackets();
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ("sahara HELLO_RESP", packets.front());
    EXPECT_EQ("sahara RESET", packets.back());
    EXPECT_EQ(Args{}, rig.dumpErrors());
    // The start set went out again on the returned module; the item is one whole stream.
    EXPECT_EQ(arrivals({kStartRequest, kStartRequest, kStopRequest}), rig.sim.arrived("diag"));
    EXPECT_EQ(Args{"real_log.bin"}, [&] {
        Args logs;
        for (const std::string& name : testkit::listDir(rig.logs())) {
            if (name.rfind("real_log", 0) == 0) {
                logs.push_back(name);
            }
        }
        return logs;
    }());
    inspect({log}, &report);
    EXPECT_NE(std::string::npos, report.find("verdict: whole")) << report;
    EXPECT_EQ(0, figure(report, ", missing ")) << report;
    EXPECT_GT(figure(report, ", last "), 200) << report;
}

TEST(CrashDump, SixtyFourBitTableCollectedAndTheCaptureResumesInTheSameItem) {
    crashAndResume("64", "0x880000000",
                   "\t0x12c000\t1228800\tcomplete\n"
                   "1\tOCIMEM\tOCIMEM.BIN\t0x880140000\t0x11171\t70001\tcomplete\n"
                   "2\tCODERAM\tCODERAM.BIN\t0x880170000\t0x1000\t4096\tcomplete\n");
}

TEST(CrashDump, ThirtyTwoBitTableCollectedAndTheCaptureResumesInTheSameItem) {
    crashAndResume("32", "0x80000000",
                   "\t0x12c000\t1228800\tcomplete\n"
                   "1\tOCIMEM\tOCIMEM.BIN\t0x80140000\t0x11171\t70001\tcomplete\n"
                   "2\tCODERAM\tCODERAM.BIN\t0x80170000\t0x1000\t4096\tcomplete\n");
}

}  // namespace
