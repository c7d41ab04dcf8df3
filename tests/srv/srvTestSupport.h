#ifndef VREC_TESTS_SRV_SRVTESTSUPPORT_H
#define VREC_TESTS_SRV_SRVTESTSUPPORT_H

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "testkit.h"

// A case that runs in a temporary working directory, so that the diagnostic log it writes
// ("vrec.log") is its own and can be searched. Case by case the sysfs root points into
// that directory, so nothing walks the host's real /sys.
class SrvTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::string logText() const;
    // How often `text` occurs in the diagnostic log so far.
    int logCount(const std::string& text) const;

    testkit::TempDir work;

private:
    std::unique_ptr<testkit::CurrentDir> cwd;
};

// One USB interface directory as the kernel shows it.
struct UsbInterface {
    std::string name;      // "1-1:1.2"
    std::string protocol;  // bInterfaceProtocol as sysfs shows it: "02", "FF"
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

// Port name -> PortType as OS_ADAPT_EnumPorts reports them; -1 stands for the status when
// that is not OS_ADAPT_SUCCESS.
std::map<std::string, int> enumeratedPorts();

// Creates `path` and its parents.
void makeDirs(const std::string& path);

// True when a byte written on the master side of `pty` arrives on `handle`.
bool reachesHandle(testkit::Pty& pty, int handle);

#endif
