#include "srvTestSupport.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diagLog.h"
#include "portDiscovery.h"
#include "serialport.h"

void SrvTest::SetUp() {
    // The log opens its file in the working directory of its first line.
    DiagLog::destroyDiagLog();
    cwd = std::make_unique<testkit::CurrentDir>(work.path());
    OS_ADAPT_SetSysfsRoot(work.path());
}

void SrvTest::TearDown() {
    OS_ADAPT_SetSysfsRoot("");
    DiagLog::destroyDiagLog();
    cwd.reset();
}

std::string SrvTest::logText() const {
    return testkit::readFile(work.file("vrec.log"));
}

int SrvTest::logCount(const std::string& text) const {
    const std::string log = logText();
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
        ++count;
    }
    return count;
}

void makeDirs(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
    mkdir(path.c_str(), 0755);
}

FakeSysfs::FakeSysfs() {
    OS_ADAPT_SetSysfsRoot(root.path());
}

void FakeSysfs::add(const std::string& dir, const UsbInterface& usb) const {
    const std::string at = dir + "/" + usb.name;
    makeDirs(at);
    testkit::writeFile(at + "/modalias", "usb:v" + usb.vendor + "p" + usb.product +
                                             "d0318dc00dsc00dp00icFFiscFFipFFin" + usb.number +
                                             "\n");
    testkit::writeFile(at + "/bInterfaceProtocol", usb.protocol + "\n");
    testkit::writeFile(at + "/bInterfaceNumber", usb.number + "\n");
    if (!usb.tty.empty()) {
        mkdir((at + "/" + usb.tty).c_str(), 0755);
    }
}

std::map<std::string, int> enumeratedPorts() {
    auto info = std::make_unique<DevicePortInfo>();
    std::map<std::string, int> ports;
    if (OS_ADAPT_EnumPorts(0, info.get()) != OS_ADAPT_SUCCESS) {
        ports[""] = -1;
        return ports;
    }
    EXPECT_LE(info->deviceCount, 1);
    const int count = info->deviceCount > 0 ? info->devices[0].portCount : 0;
    for (int i = 0; i < count; ++i) {
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
