#ifndef VREC_OSADAPT_PORTDISCOVERY_H
#define VREC_OSADAPT_PORTDISCOVERY_H

#include <cstdint>
#include <string>

// Port types as the rest of the program knows them.
enum PortType {
    PORT_TYPE_PCUI_AND_DIAG = 0,
    PORT_TYPE_MODEM = 1,
    PORT_TYPE_NDIS = 2,
    PORT_TYPE_WIFI = 3,
    PORT_TYPE_PCUI = 4,
    PORT_TYPE_DIAG = 5,
    PORT_TYPE_MAX = 6
};

// Interface types as a module states them in bInterfaceProtocol (1 MODEM, 2 PCUI, 3 DIAG...).
enum InterfaceType { IF_UNKNOWN = 0, IF_MODEM = 1, IF_PCUI = 2, IF_DIAG = 3 };

constexpr int kMaxPortRecords = 16;
constexpr int kMaxDevices = 64;

// One USB interface found in sysfs: its interface type and its device path under /dev.
struct PortRecord {
    int32_t type;
    char name[52];
};

struct PortRecordList {
    PortRecord records[kMaxPortRecords];
    int32_t count;
};

struct PortEntry {
    char name[256];
    int32_t type;  // a PortType
};

struct DeviceEntry {
    int32_t portCount;
    PortEntry ports[kMaxPortRecords];
};

// What discovery hands to its caller. All interfaces land in the first device.
struct DevicePortInfo {
    int32_t deviceCount;
    DeviceEntry devices[kMaxDevices];
};

// Walks sysfs for the interfaces of supported modules. `reserved` is unused (pass 0).
// Always succeeds; no module means a deviceCount of 0. A role that no USB interface has
// is then looked for among the ports of PCIe modules (pcieDiscovery.h).
int OS_ADAPT_EnumPorts(int reserved, DevicePortInfo* info);

// Puts a prefix in front of the sysfs paths that discovery walks, so a fake tree can
// stand in for the kernel's. Empty means the real /sys.
// The same prefix is put in front of the /dev nodes whose existence discovery tests.
void OS_ADAPT_SetSysfsRoot(const std::string& root);
const std::string& OS_ADAPT_SysfsRoot();

// The walk's steps, reachable for tests on fake trees.
namespace discovery {
void EnumAllPorts(PortRecordList* list);
void EnumAllPortsByDir(PortRecordList* list, const std::string& dir);
bool MactchInterfaceNumber(const std::string& dir, const std::string& modalias,
                           const std::string& interfaceName, PortRecord* record);
bool FindTtyName(const std::string& interfaceDir, char* name, size_t nameSize, bool acceptAcm);
int protocolToInterfaceType(unsigned protocol);
int interfaceToPortType(int interfaceType);
}  // namespace discovery

#endif
