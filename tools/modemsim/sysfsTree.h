#ifndef VREC_TOOLS_SYSFSTREE_H
#define VREC_TOOLS_SYSFSTREE_H

#include <string>
#include <vector>

namespace vtools {

struct SysfsModule {
    std::string product = "F001";  // a product ID of the interface table
    // true: interfaces state their role by bInterfaceProtocol (01 modem, 02 PCUI, 03 Diag);
    // false: they say "FF" and the interface number decides through the product's row.
    bool protocolRoles = false;
    int firstTty = 0;  // ttyUSB number of interface 0
};

// Writes, under `root`, the part of /sys that tells of the module's serial interfaces:
// sys/bus/usb/drivers/option/1-1:1.N and the same under sys/bus/usb/devices, each with
// modalias, bInterfaceProtocol, bInterfaceNumber and its ttyUSB entry.
bool writeSysfsTree(const std::string& root, const SysfsModule& module, std::string* error);

// One port of a module on PCIe, as the WWAN class shows it.
struct WwanPortEntry {
    int index;         // of its WWAN device, wwanN
    std::string name;  // wwan0qcdm0
    std::string type;  // QCDM, AT
};

// Writes, under `root`, the WWAN class as it stands with `ports`: sys/class/wwan with a link
// for each device wwanN (attribute index) and each port (attribute type), into the
// devices' tree under the modem's MHI controller. What stood there before goes.
bool writeWwanTree(const std::string& root, const std::vector<WwanPortEntry>& ports,
                   std::string* error);
// The module in dump mode: device 1-1 (vendor 05c6) with its one interface 1-1:1.0 under
// sys/bus/usb/devices, held by `driver` with the tty `tty` once bound, and the option1
// driver's new_id file under sys/bus/usb-serial.
struct SysfsDumpDevice {
    std::string product = "900E";
    std::string driver = "option";
    std::string tty = "ttyUSB3";
};

// Takes the normal module's interfaces out of the tree.
void removeSysfsModule(const std::string& root);
bool writeSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device, bool bound,
                          std::string* error);
bool bindSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device,
                         std::string* error);
void removeSysfsDumpDevice(const std::string& root, const SysfsDumpDevice& device);
// The file through which a host makes the option driver take a device.
std::string sysfsNewIdPath(const std::string& root);

}  // namespace vtools

#endif
