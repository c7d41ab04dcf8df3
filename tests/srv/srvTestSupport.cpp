#include "srvTestSupport.h"

#include <poll.h>
#include <unistd.h>

#include <filesystem>

#include "diagLog.h"
#include "portDiscovery.h"
#include "serialport.h"

void SrvTest::SetUp() {
    DiagLog::destroyDiagLog();  // the log opens its file where its first line is written
    cwd = std::make_unique<testkit::CurrentDir>(work.path());
    OS_ADAPT_SetSysfsRoot(work.path());
}

void SrvTest::TearDown() {
    OS_ADAPT_SetSysfsRoot("");
    DiagLog::destroyDiagLog();
    cwd.reset();
}

int SrvTest::logCount(const std::string& text) const {
    const std::string log = logText();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

FakeSysfs::FakeSysfs() {
    OS_ADAPT_SetSysfsRoot(root.path());
}

void FakeSysfs::add(const std::string& dir, const UsbInterface& usb) const {
    const std::string at = dir + "/" + usb.name;
    std::filesystem::create_directories(at + "/" + usb.tty);
    testkit::writeFile(at + "/modalias", "usb:v" + usb.vendor + "p" + usb.product +
                                             "d0318dc00dsc00dp00icFFiscFFipFFin" + usb.number +
                                             "\n");
    testkit::writeFile(at + "/bInterfaceProtocol", usb.protocol + "\n");
    testkit::writeFile(at + "/bInterfaceNumber", usb.number + "\n");
}

std::map<std::string, int> enumeratedPorts() {
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

bool reachesHandle(testkit::Pty& pty, int handle) {
    if (handle < 0) {
        return false;
    }
    pty.writeMaster("?");
    pollfd pfd{handle, POLLIN, 0};
    char byte = 0;
    return poll(&pfd, 1, 2000) == 1 && read(handle, &byte, 1) == 1 && byte == '?';
}
