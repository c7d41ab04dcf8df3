// A module on PCIe: vrec against the simulator's WWAN stand-ins, files of a FUSE mount that
// are not terminals and refuse terminal settings, bound into /dev of a mount namespace of
// the test's own, with the WWAN class in a fake /sys.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "diagRequests.h"
#include "e2eKit.h"
#include "testkit.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using namespace e2e;
using testkit::waitFor;

using testkit::has;

// Why this host cannot serve WWAN stand-ins, or empty.
std::string whyNoStandIns() {
#ifndef VREC_SIM_WWAN
    return "vrec-modemsim was built without libfuse3";
#else
    const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd == -1) {
        return std::string("/dev/fuse: ") + strerror(errno);
    }
    close(fd);
    return "";
#endif
}

// A host in a mount namespace of its own: /dev holds the terminals the tests need and the
// links given, /sys is the directory `sys` (empty unless the simulator or test fills it).
class PcieHost {
public:
    // False, with the reason in `skip`, where no namespace or FUSE may be had.
    bool enter() {
        if (!Mounts::enter()) {
            skip = std::string("no mount namespace of our own (") + strerror(errno) +
                   "): a fake /sys and /dev cannot be put in place";
            return false;
        }
        skip = whyNoStandIns();
        if (!skip.empty()) {
            return false;
        }
        testkit::isolateNetwork();
        for (const char* sub : {"dev", "tree", "tree/sys"}) {
            EXPECT_EQ(0, mkdir(dir.file(sub).c_str(), 0755)) << sub;
        }
        putCommandFiles(dir.path());
        return true;
    }
    // Links in the fake /dev: name -> target, a target that need not exist yet.
    void link(const std::string& name, const std::string& target) {
        EXPECT_EQ(0, symlink(target.c_str(), dir.file("dev/" + name).c_str())) << name;
    }
    // The WWAN nodes of both indexes, pointing into the simulator's mount.
    void linkWwanNodes() {
        for (const char* node : {"wwan0qcdm0", "wwan0at0", "wwan1qcdm0", "wwan1at0"}) {
            link(node, dir.file("wwan/") + node);
        }
    }
    // Puts the fake /dev and /sys in place.
    bool mountAll() {
        return mountDev(mounts, dir.file("dev")) &&
               mounts.add(dir.file("tree/sys"), "/sys", nullptr, MS_BIND);
    }
    std::string log() const { return testkit::readFile(dir.file("vrec.log")); }

    // Declared first, so that its directories go after the mounts over them.
    TempDir dir;
    Mounts mounts;
    std::string skip;
};

// The simulator's PCIe ports: WWAN stand-ins in `wwan`, the WWAN class in `tree` if asked.
std::unique_ptr<testkit::ModemSim> pcieModule(const PcieHost& host, const Args& args,
                                              bool sysfs = true) {
    Args all = {"--wwan", host.dir.file("wwan")};
    if (sysfs) {
        all.insert(all.end(), {"--sysfs", host.dir.file("tree")});
    }
    return std::make_unique<testkit::ModemSim>(host.dir.path(), withHead(all, args));
}

// Nothing set terminal attributes on a node that is not a terminal.
void expectNoTerminalSettings(const testkit::ModemSim& sim) {
    for (const std::string& event : sim.arrived("sim")) {
        EXPECT_FALSE(has(event, "refused terminal settings")) << event;
    }
}

#define ENTER_OR_SKIP(host)          \
    if (!(host).enter()) {           \
        GTEST_SKIP() << (host).skip; \
    }

// No USB module: discovery takes the QCDM port for Diag and the AT port for AT commands,
// says so, and both a capture and the AT^MDON commands work on them (the exchanges of an
// export are those of any AT command, proven on a terminal).
TEST(Pcie, DiscoveryFindsTheWwanPortsAndAtWorksOnThem) {
    PcieHost host;
    ENTER_OR_SKIP(host);
    const auto sim = pcieModule(host, {"--diag", "diag", "--pcui", "pcui", "--rate", "1000"});
    ASSERT_TRUE(sim->ready);
    host.linkWwanNodes();
    ASSERT_TRUE(host.mountAll());
    // A start command longer than one transfer of the node goes out whole, in pieces.
    std::string longRequest("\x4B\x12\x18\x02", 4);
    for (int i = 0; longRequest.size() < 40000; ++i) {
        longRequest += static_cast<char>(i * 7);
    }
    testkit::writeFile(host.dir.file("startcmd.txt"),
                       testkit::commandFileText(diagreq::frame(longRequest)) +
                           testkit::readFile(host.dir.file("startcmd.txt")));

    {
        Vrec vrec(host.dir.path(), {});
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        EXPECT_TRUE(has(vrec.run.output(), "INFO: Diag port /dev/wwan0qcdm0 (PCIe, WWAN).\n"))
            << vrec.run.output();
        ASSERT_TRUE(
            waitFor([&] { return fileSize(host.dir.file("real_log.bin")) > 20000; }, 10000));
        EXPECT_EQ(1, vrec.stop());
    }
    EXPECT_EQ(arrivals({longRequest, kStartRequest, kStopRequest}), sim->arrived("diag"));
    const std::string log = host.log();
    EXPECT_TRUE(has(log, "WWAN port wwan0qcdm0 of type QCDM, node /dev/wwan0qcdm0"));
    EXPECT_TRUE(has(log, "Diag port of a PCIe module: /dev/wwan0qcdm0 (PCIe, WWAN)"));

    std::string out;
    EXPECT_EQ(0, testkit::runToEnd({kVrec, "-m", "2"}, host.dir.path(), &out));
    EXPECT_TRUE(has(out, "INFO: PCUI port /dev/wwan0at0 (PCIe, WWAN).\n")) << out;
    Args at = sim->arrived("pcui");
    ASSERT_FALSE(at.empty());
    EXPECT_EQ("at AT^MDON=2", at.back());

    expectNoTerminalSettings(*sim);
}

// A USB module beside a PCIe one is the one used, for Diag and for AT commands alike.
TEST(Pcie, AUsbModuleIsPreferred) {
    PcieHost host;
    ENTER_OR_SKIP(host);
    testkit::ModemSim sim(host.dir.path(), {"--diag", "diag", "--pcui", "pcui", "--rate", "1000",
                                            "--sysfs", host.dir.file("tree")});
    ASSERT_TRUE(sim.ready);
    for (const auto& [port, type] : {std::make_pair("wwan0qcdm0", "QCDM"), {"wwan0at0", "AT"}}) {
        const std::string at = host.dir.file(std::string("tree/sys/class/wwan/") + port);
        ASSERT_TRUE(std::filesystem::create_directories(at));
        testkit::writeFile(at + "/type", std::string(type) + "\n");
    }
    host.link("ttyUSB1", host.dir.file("diag"));
    host.link("ttyUSB2", host.dir.file("pcui"));
    host.link("wwan0qcdm0", host.dir.file("no-such-node"));
    host.link("wwan0at0", host.dir.file("no-such-node"));
    ASSERT_TRUE(host.mountAll());

    {
        Vrec vrec(host.dir.path(), {});
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        // A USB module's terminal lines stay as they were; vrec.log names the port.
        EXPECT_FALSE(has(vrec.run.output(), "port /dev/")) << vrec.run.output();
        EXPECT_TRUE(has(host.log(), "Diag port in use: /dev/ttyUSB1 (USB)")) << host.log();
        EXPECT_EQ(1, vrec.stop());
    }
    EXPECT_EQ(arrivals({kStartRequest, kStopRequest}), sim.arrived("diag"));
    std::string out;
    EXPECT_EQ(0, testkit::runToEnd({kVrec, "-m", "2"}, host.dir.path(), &out));
    EXPECT_FALSE(has(out, "port /dev/")) << out;
    EXPECT_TRUE(has(host.log(), "PCUI port in use: /dev/ttyUSB2 (USB)")) << host.log();
    EXPECT_FALSE(sim.arrived("pcui").empty());
    EXPECT_FALSE(has(host.log(), "of a PCIe module"));
}

// A reset of the modem: the port fails, comes back as wwan1qcdm0, and vrec finds it there,
// reads again within 2.5 s of its return and keeps the stream whole.
TEST(Pcie, AHangUpBringsThePortBackUnderTheNextIndex) {
    PcieHost host;
    ENTER_OR_SKIP(host);
    const auto sim = pcieModule(host, {"--diag", "diag", "--rate", "1000"});
    ASSERT_TRUE(sim->ready);
    host.linkWwanNodes();
    ASSERT_TRUE(host.mountAll());
    const std::string log = host.dir.file("real_log.bin");
    Vrec vrec(host.dir.path(), {});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > 20000; }, 10000));

    sim->control("hangup=diag:300");
    ASSERT_TRUE(waitFor([&] { return sim->arrived("diag").size() == 2; }, 10000));
    const long reopen = lastEventAt(*sim, "event reopen diag " + host.dir.file("wwan/wwan1qcdm0"));
    ASSERT_GT(reopen, 0) << testing::PrintToString(sim->arrived("sim"));
    EXPECT_LE(lastArrivalAt(*sim, "diag") - reopen, 2500);
    const uint64_t before = fileSize(log);
    EXPECT_TRUE(waitFor([&] { return fileSize(log) > before + 10000; }, 5000));
    EXPECT_TRUE(has(vrec.run.output(), "INFO: Diag port /dev/wwan1qcdm0 (PCIe, WWAN).\n"))
        << vrec.run.output();
    EXPECT_EQ(1, vrec.stop());
    EXPECT_EQ(arrivals({kStartRequest, kStartRequest, kStopRequest}), sim->arrived("diag"));

    // At most the frame cut by the reset and the packets it took are missing.
    std::string report;
    inspect({log}, &report);
    EXPECT_LE(figure(report, " in "), 1) << report;
    EXPECT_EQ(0, figure(report, "out of order ")) << report;
    EXPECT_EQ(0, figure(report, "damaged ")) << report;
    expectNoTerminalSettings(*sim);
}

// Ports named on the command line are used as named, and MHI nodes are found by their names.
TEST(Pcie, NamedNodesAndMhiNodes) {
    PcieHost host;
    ENTER_OR_SKIP(host);
    const auto sim =
        pcieModule(host, {"--diag", "diag", "--pcui", "pcui", "--rate", "1000"}, false);
    ASSERT_TRUE(sim->ready);
    host.linkWwanNodes();
    host.link("mhi_DIAG", host.dir.file("wwan/wwan0qcdm0"));
    host.link("mhi_DUN", host.dir.file("wwan/wwan0at0"));
    ASSERT_TRUE(host.mountAll());

    for (const Args& args : {Args{"-d", "/dev/wwan0qcdm0"}, Args{}}) {
        SCOPED_TRACE(testing::PrintToString(args));
        const size_t before = sim->arrived("diag").size();
        Vrec vrec(host.dir.path(), args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        EXPECT_EQ(args.empty(),
                  has(vrec.run.output(), "INFO: Diag port /dev/mhi_DIAG (PCIe, MHI).\n"))
            << vrec.run.output();
        EXPECT_TRUE(waitFor([&] { return sim->arrived("diag").size() == before + 1; }, 5000));
        EXPECT_EQ(1, vrec.stop());
        EXPECT_EQ(before + 2, sim->arrived("diag").size());
        const std::string node = args.empty() ? "/dev/mhi_DIAG" : "/dev/wwan0qcdm0";
        EXPECT_TRUE(has(host.log(), node + " is not a terminal"));
    }
    std::string out;
    EXPECT_EQ(0, testkit::runToEnd({kVrec, "-m", "2"}, host.dir.path(), &out));
    EXPECT_TRUE(has(out, "INFO: PCUI port /dev/mhi_DUN (PCIe, MHI).\n")) << out;
    EXPECT_EQ(0,
              testkit::runToEnd({kVrec, "-p", "/dev/wwan0at0", "-m", "1"}, host.dir.path(), &out));
    const Args at = sim->arrived("pcui");
    EXPECT_EQ(2, std::count(at.begin(), at.end(), "at AT^MDSL=1")) << testing::PrintToString(at);
    expectNoTerminalSettings(*sim);
}

}  // namespace
