#include "sysfsTree.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

namespace vtools {

namespace {

// The interfaces of the simulated module: number, role protocol, and the role's name.
struct Interface {
    int number;
    const char* protocol;
};
const Interface kInterfaces[] = {{0, "01"}, {1, "03"}, {2, "02"}};

bool makeDirs(const std::string& path, std::string* error) {
    for (size_t at = 1; at != std::string::npos; at = path.find('/', at + 1)) {
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
            *error = "mkdir(" + part + ") failed: " + strerror(errno);
            return false;
        }
    }
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "mkdir(" + path + ") failed: " + strerror(errno);
        return false;
    }
    return true;
}

bool writeText(const std::string& path, const std::string& text, std::string* error) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        *error = "write(" + path + ") failed";
        return false;
    }
    return true;
}

}  // namespace

bool writeSysfsTree(const std::string& root, const SysfsModule& module, std::string* error) {
    const std::string driver = root + "/sys/bus/usb/drivers/option";
    const std::string devices = root + "/sys/bus/usb/devices";
    if (!makeDirs(driver, error) || !makeDirs(devices, error)) {
        return false;
    }
    for (const Interface& iface : kInterfaces) {
        char number[8];
        snprintf(number, sizeof(number), "%02d", iface.number);
        const std::string name = "1-1:1." + std::to_string(iface.number);
        const std::string dir = driver + "/" + name;
        const std::string protocol = module.protocolRoles ? iface.protocol : "FF";
        // The kernel's form: vendor, product, device release, classes, interface number.
        const std::string modalias = "usb:v7C5Ap" + module.product + "d0000dc00dsc00dp00icFFisc" +
                                     "FFip" + protocol + "in" + number + "\n";
        const std::string tty = "ttyUSB" + std::to_string(module.firstTty + iface.number);
        if (!makeDirs(dir + "/" + tty, error) || !writeText(dir + "/modalias", modalias, error) ||
            !writeText(dir + "/bInterfaceProtocol", protocol + "\n", error) ||
            !writeText(dir + "/bInterfaceNumber", std::string(number) + "\n", error)) {
            return false;
        }
        const std::string alias = devices + "/" + name;
        unlink(alias.c_str());
        if (symlink(("../drivers/option/" + name).c_str(), alias.c_str()) != 0) {
            *error = "symlink(" + alias + ") failed: " + strerror(errno);
            return false;
        }
    }
    return true;
}

namespace {

const char* const kDumpDevice = "1-1";
const char* const kDumpInterface = "1-1:1.0";

std::string lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

bool makeLink(const std::string& target, const std::string& path, std::string* error) {
    unlink(path.c_str());
    if (symlink(target.c_str(), path.c_str()) != 0) {
        *error = "symlink(" + path + ") failed: " + strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

void removeSysfsModule(const std::string& root) {
    std::error_code ignored;
    for (const Interface& iface : kInterfaces) {
        const std::string name = "1-1:1." + std::to_string(iface.number);
        std::filesystem::remove(root + "/sys/bus/usb/devices/" + name, ignored);
        std::filesystem::remove_all(root + "/sys/bus/usb/drivers/option/" + name, ignored);
    }
}

std::string sysfsNewIdPath(const std::string& root) {
    return root + "/sys/bus/usb-serial/drivers/option1/new_id";
}

bool writeSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device, bool bound,
                          std::string* error) {
    const std::string devices = root + "/sys/bus/usb/devices";
    const std::string dir = devices + "/" + kDumpDevice;
    const std::string iface = dir + "/" + kDumpInterface;
    const std::string modalias =
        "usb:v05C6p" + device.product + "d0000dc00dsc00dp00icFFiscFFipFFin00\n";
    const bool written = makeDirs(iface, error) &&
                         makeDirs(root + "/sys/bus/usb-serial/drivers/option1", error) &&
                         writeText(dir + "/idVendor", "05c6\n", error) &&
                         writeText(dir + "/idProduct", lower(device.product) + "\n", error) &&
                         writeText(dir + "/bNumInterfaces", " 1\n", error) &&
                         writeText(iface + "/modalias", modalias, error) &&
                         writeText(iface + "/bInterfaceClass", "ff\n", error) &&
                         writeText(iface + "/bInterfaceSubClass", "ff\n", error) &&
                         writeText(iface + "/bInterfaceProtocol", "ff\n", error) &&
                         writeText(iface + "/bInterfaceNumber", "00\n", error) &&
                         writeText(sysfsNewIdPath(root), "", error) &&
                         makeLink(std::string(kDumpDevice) + "/" + kDumpInterface,
                                  devices + "/" + kDumpInterface, error);
    return written && (!bound || bindSysfsDumpDevice(root, device, error));
}

bool bindSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device,
                         std::string* error) {
    const std::string iface = root + "/sys/bus/usb/devices/" + kDumpDevice + "/" + kDumpInterface;
    const std::string driver = root + "/sys/bus/usb/drivers/" + device.driver;
    // The tty first: a host that sees the driver's entry finds the tty under it.
    return makeDirs(iface + "/" + device.tty, error) && makeDirs(driver, error) &&
           makeLink("../../../drivers/" + device.driver, iface + "/driver", error) &&
           makeLink(std::string("../../devices/") + kDumpDevice + "/" + kDumpInterface,
                    driver + "/" + kDumpInterface, error);
}

void removeSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device) {
    std::error_code ignored;
    std::filesystem::remove(root + "/sys/bus/usb/drivers/" + device.driver + "/" + kDumpInterface,
                            ignored);
    std::filesystem::remove(root + "/sys/bus/usb/devices/" + std::string(kDumpInterface), ignored);
    std::filesystem::remove_all(root + "/sys/bus/usb/devices/" + std::string(kDumpDevice), ignored);
}

bool writeWwanTree(const std::string& root, const std::vector<WwanPortEntry>& ports,
                   std::string* error) {
    // The modem's place on the PCI bus and its MHI controller, where the kernel puts it.
    const std::string devices = "devices/pci0000:00/0000:00:1c.0/0000:01:00.0/mhi0/wwan";
    const std::string classDir = root + "/sys/class/wwan";
    std::error_code ignored;
    std::filesystem::remove_all(classDir, ignored);
    std::filesystem::remove_all(root + "/sys/" + devices, ignored);
    if (!makeDirs(classDir, error)) {
        return false;
    }
    std::set<int> made;
    for (const WwanPortEntry& port : ports) {
        const std::string device = "wwan" + std::to_string(port.index);
        const std::string deviceDir = devices + "/" + device;
        if (made.insert(port.index).second &&
            (!makeDirs(root + "/sys/" + deviceDir, error) ||
             !writeText(root + "/sys/" + deviceDir + "/index", std::to_string(port.index) + "\n",
                        error) ||
             symlink(("../../" + deviceDir).c_str(), (classDir + "/" + device).c_str()) != 0)) {
            *error = error->empty() ? "symlink(" + classDir + "/" + device + ") failed" : *error;
            return false;
        }
        const std::string portDir = deviceDir + "/" + port.name;
        if (!makeDirs(root + "/sys/" + portDir, error) ||
            !writeText(root + "/sys/" + portDir + "/type", port.type + "\n", error)) {
            return false;
        }
        if (symlink(("../../" + portDir).c_str(), (classDir + "/" + port.name).c_str()) != 0) {
            *error = "symlink(" + classDir + "/" + port.name + ") failed: " + strerror(errno);
            return false;
        }
    }
    return true;
}

}  // namespace vtools
