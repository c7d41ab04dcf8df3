// PortMgnt is process-wide and keeps what a case leaves: each case counts on a process of
// its own, as ctest runs them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "portMgnt.h"
#include "srvTestSupport.h"

namespace {

class PortMgntTest : public SrvTest {
protected:
    void SetUp() override {
        SrvTest::SetUp();
        ports = PortMgnt::getInstance();  // its first log lines go to this case's log
    }

    PortMgnt* ports = nullptr;
};

TEST_F(PortMgntTest, FirstDiagLastPcuiAndKeywords) {
    const FakeSysfs sysfs;
    const char* protocols[] = {"01", "03", "03", "02", "02", "04"};  // 04 is PortType 0
    for (int i = 0; i < 6; ++i) {
        sysfs.add({"1-1:1." + std::to_string(i), protocols[i], "ttyUSB" + std::to_string(i)});
    }
    sysfs.add({"1-1:1.6", "02", "ttyUSBdiag6"});  // a PCUI by type, a Diag port by name
    std::list<std::string> found;
    ASSERT_TRUE(ports->getPorts(found));
    ASSERT_EQ(7u, found.size());
    // Discovery order is readdir order; the choice follows it.
    std::string firstDiag;
    std::string lastPcui;
    for (const std::string& name : found) {
        firstDiag = firstDiag.empty() && ports->isDiagPort(name) ? name : firstDiag;
        lastPcui = ports->isPcuiPort(name) ? name : lastPcui;
    }
    EXPECT_TRUE(firstDiag == "/dev/ttyUSB1" || firstDiag == "/dev/ttyUSB2" ||
                firstDiag == "/dev/ttyUSBdiag6")
        << firstDiag;
    EXPECT_TRUE(lastPcui == "/dev/ttyUSB3" || lastPcui == "/dev/ttyUSB4") << lastPcui;
    EXPECT_EQ(firstDiag, ports->getDiagPortName());
    EXPECT_EQ(lastPcui, ports->getPcuiPortName());

    const FakeSysfs none;
    EXPECT_EQ("", ports->getDiagPortName());
    EXPECT_EQ("", ports->getPcuiPortName());
    EXPECT_EQ(2, logCount("Did not find any port!"));
}

TEST_F(PortMgntTest, OverridesAndOpenPortDecidePcuiAsDiag) {
    testkit::Pty diag;
    testkit::Pty pcui;
    const std::string missing = work.file("no-such-port");
    EXPECT_FALSE(ports->openDiagPortByName(nullptr) || ports->openPcuiPortByName(nullptr));
    EXPECT_FALSE(ports->openDiagPortByName(missing.c_str()));
    EXPECT_FALSE(ports->openPcuiPortByName(missing.c_str()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    // -d with no PCUI port open: the stream is taken to live on the PCUI side.
    ASSERT_TRUE(ports->openDiagPortByName(diag.slaveName().c_str()));
    EXPECT_TRUE(ports->isPcuiAsDiag());
    ASSERT_TRUE(ports->openPcuiPortByName(pcui.slaveName().c_str()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    ASSERT_TRUE(ports->openDiagPortByName(diag.slaveName().c_str()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(diag, ports->getDiagHandle()));
    EXPECT_TRUE(reachesHandle(pcui, ports->getPcuiHandle()));

    // By name, not by type: a Diag keyword goes to the Diag side, anything else to PCUI.
    const std::string diagLink = work.file("diag_port");
    ASSERT_EQ(0, symlink(diag.slaveName().c_str(), diagLink.c_str()));
    ASSERT_TRUE(ports->openPort(diagLink));
    EXPECT_TRUE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(diag, ports->getDiagHandle()));
    ASSERT_TRUE(ports->openPort(pcui.slaveName()));
    EXPECT_FALSE(ports->isPcuiAsDiag());
    EXPECT_TRUE(reachesHandle(pcui, ports->getPcuiHandle()));
    EXPECT_FALSE(ports->openPort(missing));
    EXPECT_EQ(1, logCount("port open failed."));
}

TEST_F(PortMgntTest, RegainsByDiscoveryOrByStoredNameLeakNothing) {
    // With no names stored, each handle request asks discovery, which finds nothing here.
    EXPECT_EQ(-1, ports->getDiagHandle());
    EXPECT_EQ(-1, ports->getPcuiHandle());
    EXPECT_EQ(-1, ports->getPcuiHandle());
    EXPECT_EQ(3, logCount("Did not find any port!"));
    EXPECT_EQ(1, logCount("Regain Diag port error"));
    EXPECT_EQ(2, logCount("Regain Pcui port error"));

    for (const bool diagSide : {true, false}) {
        SCOPED_TRACE(diagSide ? "diag" : "pcui");
        const auto regain = [&] {
            return diagSide ? ports->regainDiagPort() : ports->regainPcuiPort();
        };
        const std::string error = diagSide ? "Regain Diag port error" : "Regain Pcui port error";
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
        // The device goes away: the regain fails and closes the old handle, but keeps the
        // name, so the device is found again where it comes back.
        unlink(link.c_str());
        EXPECT_EQ(-1, regain());
        EXPECT_EQ(diagSide ? 2 : 3, logCount(error));
        EXPECT_EQ(descriptors - 1, testkit::openDescriptorCount());
        ASSERT_EQ(0, symlink(pty.slaveName().c_str(), link.c_str()));
        EXPECT_TRUE(reachesHandle(pty, regain()));
        unlink(link.c_str());
    }
}

}  // namespace
