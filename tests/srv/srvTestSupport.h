#ifndef VREC_TESTS_SRV_SRVTESTSUPPORT_H
#define VREC_TESTS_SRV_SRVTESTSUPPORT_H

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "diagLog.h"
#include "portDiscovery.h"
#include "serialport.h"
#include "testkit.h"

// A case that runs in a temporary working directory, so that its diagnostic log
// ("vrec.log") is its own, and whose sysfs root points there, away from the host's /sys.
class SrvTest : public ::testing::Test {
protected:
    void SetUp() override {
        DiagLog::destroyDiagLog();  // the log opens its file where its first line is written
        cwd = std::make_unique<testkit::CurrentDir>(work.path());
        OS_ADAPT_SetSysfsRoot(work.path());
    }
    void TearDown() override {
        OS_ADAPT_SetSysfsRoot("");
        DiagLog::destroyDiagLog();
        cwd.reset();
    }
    // Occurrences of `text` in the log so far.
    int logCount(const std::string& text) const {
        const std::string log = testkit::readFile(work.file("vrec.log"));
        int count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

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
    FakeSysfs() { OS_ADAPT_SetSysfsRoot(root.path()); }
    std::string optionDir() const { return root.path() + "/sys/bus/usb/drivers/option"; }
    std::string devicesDir() const { return root.path() + "/sys/bus/usb/devices"; }
    // A path under the fake root: "/sys/class/wwan", "/dev/mhi_DIAG".
    std::string at(const std::string& path) const { return root.path() + path; }
    void add(const UsbInterface& usb) const { add(optionDir(), usb); }
    void add(const std::string& dir, const UsbInterface& usb) const {
        const std::string at = dir + "/" + usb.name;
        std::filesystem::create_directories(at + "/" + usb.tty);
        testkit::writeFile(at + "/modalias", "usb:v" + usb.vendor + "p" + usb.product +
                                                 "d0318dc00dsc00dp00icFFiscFFipFFin" + usb.number +
                                                 "\n");
        testkit::writeFile(at + "/bInterfaceProtocol", usb.protocol + "\n");
        testkit::writeFile(at + "/bInterfaceNumber", usb.number + "\n");
    }

private:
    testkit::TempDir root;
};

// Port name -> PortType as OS_ADAPT_EnumPorts reports them; {"", -1} when it fails.
inline std::map<std::string, int> enumeratedPorts() {
    auto info = std::make_unique<DevicePortInfo>();
    if (OS_ADAPT_EnumPorts(0, info.get()) != OS_ADAPT_SUCCESS) {
        return {{"", -1}};
    }
    EXPECT_LE(info->deviceCount, 1);
    std::map<std::string, int> ports;
    for (int i = 0; info->deviceCount > 0 && i < info->devices[0].portCount; ++i) {
        ports[info->devices[0].ports[i].name] = info->devices[0].ports[i].type;
    }
    return ports;
}

// True when a byte written on the master side of `pty` arrives on `handle`.
inline bool reachesHandle(testkit::Pty& pty, int handle) {
    if (handle < 0) {
        return false;
    }
    pty.writeMaster("?");
    pollfd pfd{handle, POLLIN, 0};
    char byte = 0;
    return poll(&pfd, 1, 2000) == 1 && read(handle, &byte, 1) == 1 && byte == '?';
}

#endif
