#ifndef VREC_TESTS_SRV_SRVTESTSUPPORT_H
#define VREC_TESTS_SRV_SRVTESTSUPPORT_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "testkit.h"

// A case that runs in a temporary working directory, so that its diagnostic log
// ("vrec.log") is its own, and whose sysfs root points there, away from the host's /sys.
class SrvTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string logText() const { return testkit::readFile(work.file("vrec.log")); }
    int logCount(const std::string& text) const;  // occurrences in the log so far

    testkit::TempDir work;

private:
    std::unique_ptr<testkit::CurrentDir> cwd;
};

// One USB interface directory as the kernel shows it.
struct UsbInterface {
    std::string name;      // "1-1:1.2"
    std::string protocol;  // bInterfaceProtocol: "02", "FF"
    std::string tty;       // entry under the interface, "ttyUSB3"; empty for none
    std::string product = "1001";
    std::string number = "00";  // bInterfaceNumber
    std::string vendor = "7C5A";
};

// A sysfs tree in a temporary directory, made the root of discovery while it lives.
class FakeSysfs {
public:
    FakeSysfs();
    std::string optionDir() const { return root.path() + "/sys/bus/usb/drivers/option"; }
    std::string devicesDir() const { return root.path() + "/sys/bus/usb/devices"; }
    void add(const std::string& dir, const UsbInterface& usb) const;
    void add(const UsbInterface& usb) const { add(optionDir(), usb); }

private:
    testkit::TempDir root;
};

// Port name -> PortType as OS_ADAPT_EnumPorts reports them; {"", -1} when it fails.
std::map<std::string, int> enumeratedPorts();
// True when a byte written on the master side of `pty` arrives on `handle`.
bool reachesHandle(testkit::Pty& pty, int handle);

#endif
