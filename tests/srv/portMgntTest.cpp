#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <map>
#include <string>

#include "portDiscovery.h"
#include "portMgnt.h"
#include "serialport.h"
#include "srvTestSupport.h"

namespace {

// Set once a case in this process has stored port names: they can't be forgotten through
// the public operations, so later cases can't count on discovery being asked.
bool g_namesStored = false;

class PortMgntTest : public SrvTest {
protected:
    void SetUp() override {
        SrvTest::SetUp();
        ports = PortMgnt::getInstance();  // its first log lines go to this case's log
    }

    // Closes both sides whatever earlier cases of this process left open: each side is
    // given a port by name, the name then vanishes, and the regain finds nothing.
    void closeBothSides() {
        g_namesStored = true;
        testkit::Pty pty;
        const std::string link = work.file("vanished");
        ASSERT_EQ(0, symlink(pty.slaveName().c_str(), link.c_str()));
        ASSERT_TRUE(ports->openDiagPortByName(link.c_str()));
        ASSERT_TRUE(ports->openPcuiPortByName(link.c_str()));
        unlink(link.c_str());
        ASSERT_EQ(-1, ports->regainDiagPort());
        ASSERT_EQ(-1, ports->regainPcuiPort());
    }

    PortMgnt* ports = nullptr;
};

TEST_F(PortMgntTest, FirstDiagAndLastPcuiAreChosen) {
    const FakeSysfs sysfs;
    sysfs.add({"1-1:1.0", "01", "ttyUSB0"});  // MODEM
    sysfs.add({"1-1:1.1", "03", "ttyUSB1"});
    sysfs.add({"1-1:1.2", "03", "ttyUSB2"});
    sysfs.add({"1-1:1.3", "02", "ttyUSB3"});
    sysfs.add({"1-1:1.4", "02", "ttyUSB4"});
    sysfs.add({"1-1:1.5", "04", "ttyUSB5"});  // PortType 0
    std::list<std::string> found;
    ASSERT_TRUE(ports->getPorts(found));
    ASSERT_EQ(6u, found.size());
    // Discovery order is readdir order; the choice follows it.
    std::string firstDiag;
    std::string lastPcui;
    for (const std::string& name : found) {
        if (firstDiag.empty() && (name == "/dev/ttyUSB1" || name == "/dev/ttyUSB2")) {
            firstDiag = name;
        }
        if (name == "/dev/ttyUSB3" || name == "/dev/ttyUSB4") {
            lastPcui = name;
        }
    }
    EXPECT_EQ(firstDiag, ports->getDiagPortName());
    EXPECT_EQ(lastPcui, ports->getPcuiPortName());
    EXPECT_LE(1, logCount("Port type: DIAG"));
    EXPECT_LE(1, logCount("Port type: PCUI AND DIAG port"));

    const FakeSysfs neither;
    neither.add({"1-1:1.0", "01", "ttyUSB0"});
    neither.add({"1-1:1.5", "04", "ttyUSB5"});
    EXPECT_EQ("", ports->getDiagPortName());
    EXPECT_EQ("", ports->getPcuiPortName());
    EXPECT_EQ(0, logCount("Did not find any port!"));

    const FakeSysfs none;
    EXPECT_EQ("", ports->getDiagPortName());
    EXPECT_EQ("", ports->getPcuiPortName());
    EXPECT_EQ(2, logCount("Did not find any port!"));
}

TEST_F(PortMgntTest, KeywordsDecideBeforeTheDiscoveredType) {
    struct Row {
        const char* name;
        bool diag;
        bool pcui;
    };
    const Row rows[] = {{"/dev/diag1", true, false},
                        {"Diag port", true, false},
                        {"Application1", true, false},
                        {"TAT Port 2", true, false},
                        {"PC UI Interface", false, true},
                        {"Mobile AT Port", false, true},
                        {"Pcui0", false, true},
                        {"pcui0", false, true},
                        {"Vodafone Mobile Broadband Secondary Port Modem", false, true},
                        {"DIAG PCUI", false, false},
                        {"/dev/ttyUSB40", false, false}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.diag, ports->isDiagPort(row.name)) << row.name;
        EXPECT_EQ(row.pcui, ports->isPcuiPort(row.name)) << row.name;
    }

    const FakeSysfs sysfs;
    sysfs.add({"1-1:1.2", "02", "ttyUSB2"});
    sysfs.add({"1-1:1.3", "03", "ttyUSB3"});
    sysfs.add({"1-1:1.4", "02", "ttyUSBdiag4"});
    std::list<std::string> found;
    ASSERT_TRUE(ports->getPorts(found));
    EXPECT_TRUE(ports->isPcuiPort("/dev/ttyUSB2"));
    EXPECT_FALSE(ports->isDiagPort("/dev/ttyUSB2"));
    EXPECT_TRUE(ports->isDiagPort("/dev/ttyUSB3"));
    EXPECT_TRUE(ports->isDiagPort("/dev/ttyUSBdiag4"));  // a PCUI by type
}

TEST_F(PortMgntTest, OpenPortFilesByNameNotByType) {
    closeBothSides();
    testkit::Pty diag;
    testkit::Pty plain;
    const std::string diagLink = work.file("diag_port");
    ASSERT_EQ(0, symlink(diag.slaveName().c_str(), diagLink.c_str()));
    ASSERT_TRUE(ports->openPort(diagLink));
    EXPECT_TRUE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(diag, ports->getDiagHandle()));
    // A name with no keyword and no known type lands on the PCUI side.
    ASSERT_TRUE(ports->openPort(plain.slaveName()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(plain, ports->getPcuiHandle()));
    EXPECT_FALSE(ports->openPort(work.file("no-such-port")));
    EXPECT_EQ(1, logCount("port open failed."));
}

TEST_F(PortMgntTest, OverridesSetAndClearPcuiAsDiag) {
    closeBothSides();
    testkit::Pty diag;
    testkit::Pty pcui;
    EXPECT_FALSE(ports->openDiagPortByName(nullptr));
    EXPECT_FALSE(ports->openPcuiPortByName(nullptr));
    EXPECT_FALSE(ports->openDiagPortByName(work.file("no-such-port").c_str()));
    EXPECT_FALSE(ports->openPcuiPortByName(work.file("no-such-port").c_str()));
    EXPECT_EQ(1, logCount("open diag port failed."));
    EXPECT_EQ(1, logCount("open pcui port failed."));
    EXPECT_FALSE(ports->isPcuiAsDiag());

    // -d with no PCUI port open: the stream is taken to live on the PCUI side.
    ASSERT_TRUE(ports->openDiagPortByName(diag.slaveName().c_str()));
    EXPECT_TRUE(ports->isPcuiAsDiag());
    ASSERT_TRUE(ports->openPcuiPortByName(pcui.slaveName().c_str()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    // The other order: -d while the PCUI port is open leaves it clear.
    ASSERT_TRUE(ports->openDiagPortByName(diag.slaveName().c_str()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(diag, ports->getDiagHandle()));
    EXPECT_TRUE(reachesHandle(pcui, ports->getPcuiHandle()));
}

TEST_F(PortMgntTest, RegainsReuseTheStoredNameAndLeakNothing) {
    closeBothSides();
    for (const bool diagSide : {true, false}) {
        const auto regain = [&] {
            return diagSide ? ports->regainDiagPort() : ports->regainPcuiPort();
        };
        const std::string error = diagSide ? "Regain Diag port error" : "Regain Pcui port error";
        SCOPED_TRACE(error);
        testkit::Pty pty;
        const std::string link = work.file("module_port");
        ASSERT_EQ(0, symlink(pty.slaveName().c_str(), link.c_str()));
        ASSERT_TRUE(diagSide ? ports->openDiagPortByName(link.c_str())
                             : ports->openPcuiPortByName(link.c_str()));
        const int descriptors = testkit::openDescriptorCount();
        for (int i = 0; i < 20; ++i) {
            EXPECT_NE(-1, regain());
        }
        EXPECT_EQ(descriptors, testkit::openDescriptorCount());
        EXPECT_TRUE(reachesHandle(pty, regain()));

        // The device goes away: the regain fails and closes the old handle...
        const int errors = logCount(error);
        unlink(link.c_str());
        EXPECT_EQ(-1, regain());
        EXPECT_EQ(errors + 1, logCount(error));
        EXPECT_EQ(descriptors - 1, testkit::openDescriptorCount());
        // ...but keeps the name, so the device is found again where it comes back.
        ASSERT_EQ(0, symlink(pty.slaveName().c_str(), link.c_str()));
        EXPECT_TRUE(reachesHandle(pty, regain()));
        unlink(link.c_str());
    }
}

TEST_F(PortMgntTest, HandleRequestsWithNoPortRegainEachTime) {
    // Under ctest each case has its process, so the names are still empty here and the
    // regains ask discovery, which finds nothing.
    const bool namesEmpty = !g_namesStored;
    if (!namesEmpty) {
        closeBothSides();
    }
    const int diagErrors = logCount("Regain Diag port error");
    const int pcuiErrors = logCount("Regain Pcui port error");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(-1, ports->getDiagHandle());
        EXPECT_EQ(-1, ports->getPcuiHandle());
    }
    EXPECT_EQ(diagErrors + 3, logCount("Regain Diag port error"));
    EXPECT_EQ(pcuiErrors + 3, logCount("Regain Pcui port error"));
    if (namesEmpty) {
        EXPECT_EQ(6, logCount("Did not find any port!"));
    }
}

std::map<int, int> g_closes;
int g_openAs = -1;

TEST_F(PortMgntTest, DescriptorHeldByBothSidesIsClosedOnce) {
    closeBothSides();
    testkit::Pty pcui;
    testkit::Pty diag;
    ASSERT_TRUE(ports->openPcuiPortByName(pcui.slaveName().c_str()));
    g_openAs = ports->getPcuiHandle();
    // The Diag side is handed the very descriptor number that the PCUI side holds.
    serialSysCalls().open = [](const char* path, int flags) {
        const int fd = ::open(path, flags);
        if (fd >= 0 && fd != g_openAs) {
            dup2(fd, g_openAs);
            ::close(fd);
        }
        return fd >= 0 ? g_openAs : fd;
    };
    ASSERT_TRUE(ports->openDiagPortByName(diag.slaveName().c_str()));
    resetSerialSysCalls();
    const int shared = g_openAs;
    ASSERT_EQ(shared, ports->getDiagHandle());

    g_closes.clear();
    serialSysCalls().close = [](int fd) {
        ++g_closes[fd];
        return ::close(fd);
    };
    // The PCUI regain most likely gets the same number back: a second close of the old
    // Diag handle would then take the new PCUI port away.
    EXPECT_NE(-1, ports->regainPcuiPort());
    EXPECT_NE(-1, ports->regainDiagPort());
    resetSerialSysCalls();
    EXPECT_EQ(1, g_closes[shared]);
    EXPECT_TRUE(reachesHandle(pcui, ports->getPcuiHandle()));
    EXPECT_TRUE(reachesHandle(diag, ports->getDiagHandle()));
}

TEST_F(PortMgntTest, SavePathTakesForwardSlashesAndSurvivesAFailedCreate) {
    ports->setSavePath(work.path() + "\\logs");
    EXPECT_EQ(work.path() + "/logs", ports->getSavePath());
    EXPECT_TRUE(testkit::fileExists(work.file("logs")));

    // Only one level is created; a failure leaves the old directory in place.
    ports->setSavePath(work.file("a/b"));
    EXPECT_EQ(work.path() + "/logs", ports->getSavePath());
    EXPECT_EQ(1, logCount("create dir failed."));
    EXPECT_FALSE(testkit::fileExists(work.file("a")));

    makeDirs(work.file("run"));
    ports->setSavePath("run\\one");  // kept relative, made under the working directory
    EXPECT_EQ("run/one", ports->getSavePath());
    EXPECT_TRUE(testkit::fileExists(work.file("run/one")));
}

}  // namespace
