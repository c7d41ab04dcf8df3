#include "portDiscovery.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diagLog.h"
#include "pcieDiscovery.h"
#include "serialport.h"

namespace {

const char* const kVendors[] = {"7C5A", "03F0"};

// bInterfaceProtocol -> interface type; 0 refuses the protocol. Three ranges repeat the
// same roles: the plain numbers, 0x30 + n and 0x60 + n.
constexpr std::array<uint8_t, 128> makeProtocolTable() {
    std::array<uint8_t, 128> table{};
    for (int p = 0x01; p <= 0x1D; ++p) {
        table[p] = static_cast<uint8_t>(p);
    }
    for (int base : {0x30, 0x60}) {
        for (int n = 1; n <= 15; ++n) {
            table[base + n] = static_cast<uint8_t>(n);
        }
        table[base + 0x16] = 22;  // NCM
        for (int n = 0; n < 6; ++n) {
            table[base + 0x18 + n] = static_cast<uint8_t>(24 + n);  // SHELL A .. GNSS
        }
    }
    return table;
}
constexpr std::array<uint8_t, 128> kProtocolTable = makeProtocolTable();

// Products that do not state their interfaces' roles: the interface number of each role,
// as sysfs shows it; "_" where the product has no such interface.
struct InterfaceRow {
    const char* product;
    const char* modem;
    const char* diag;
    const char* pcui;
};
constexpr InterfaceRow kInterfaceTable[] = {
    {"F001", "00", "01", "02"}, {"F002", "00", "_", "01"},  {"F003", "00", "01", "02"},
    {"F004", "_", "00", "02"},  {"F005", "00", "_", "02"},  {"F006", "_", "02", "00"},
    {"F007", "00", "01", "02"}, {"F008", "_", "_", "00"},   {"F009", "00", "_", "01"},
    {"F010", "_", "_", "00"},   {"F011", "00", "01", "02"}, {"F012", "00", "01", "02"},
    {"F013", "00", "01", "03"}, {"F014", "_", "01", "02"},  {"F015", "00", "01", "02"},
    {"F016", "00", "01", "02"}, {"F017", "00", "_", "01"},  {"F018", "00", "_", "01"},
    {"F019", "_", "_", "00"},   {"F020", "00", "01", "02"}, {"F021", "00", "02", "03"},
    {"F022", "00", "02", "03"}, {"F023", "00", "_", "02"},  {"F024", "00", "_", "02"},
    {"F025", "00", "_", "01"},  {"F026", "00", "01", "02"}, {"F027", "00", "01", "03"},
    {"F028", "00", "01", "02"}, {"F029", "00", "_", "01"},  {"F030", "00", "02", "03"},
    {"F031", "00", "02", "03"}, {"F032", "00", "02", "03"}, {"F033", "00", "02", "01"},
    {"F034", "00", "01", "03"}, {"F035", "00", "01", "03"}, {"F036", "00", "_", "02"},
    {"F037", "00", "01", "02"}, {"F038", "00", "01", "03"}, {"F039", "00", "02", "01"},
};
static_assert(sizeof(kInterfaceTable) / sizeof(kInterfaceTable[0]) == 39, "39 products");

std::string g_sysfsRoot;

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// The first 16 bytes of a small sysfs attribute; false when it can't be opened.
bool readAttribute(const std::string& path, std::string* text) {
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    char buffer[17] = {};
    const size_t got = fread(buffer, 1, 16, file);
    fclose(file);
    text->assign(buffer, strnlen(buffer, got));
    return true;
}

int interfaceTypeByTable(const std::string& modalias, const std::string& number) {
    for (const InterfaceRow& row : kInterfaceTable) {
        if (!contains(modalias, row.product)) {
            continue;
        }
        // Only the first product that matches is looked at.
        if (contains(number, row.modem)) {
            return IF_MODEM;
        }
        if (contains(number, row.diag)) {
            return IF_DIAG;
        }
        if (contains(number, row.pcui)) {
            return IF_PCUI;
        }
        return IF_UNKNOWN;
    }
    return IF_UNKNOWN;
}

}  // namespace

void OS_ADAPT_SetSysfsRoot(const std::string& root) {
    g_sysfsRoot = root;
}

const std::string& OS_ADAPT_SysfsRoot() {
    return g_sysfsRoot;
}

namespace discovery {

int protocolToInterfaceType(unsigned protocol) {
    return protocol < kProtocolTable.size() ? kProtocolTable[protocol] : 0;
}

int interfaceToPortType(int interfaceType) {
    switch (interfaceType) {
        case IF_MODEM:
            return PORT_TYPE_MODEM;
        case IF_PCUI:
            return PORT_TYPE_PCUI;
        case IF_DIAG:
            return PORT_TYPE_DIAG;
        default:
            return PORT_TYPE_PCUI_AND_DIAG;
    }
}

bool FindTtyName(const std::string& interfaceDir, char* name, size_t nameSize, bool acceptAcm) {
    if (name == nullptr || nameSize == 0) {
        return false;
    }
    name[0] = '\0';
    DIR* dir = opendir(interfaceDir.c_str());
    if (dir == nullptr) {
        return false;
    }
    bool found = false;
    while (dirent* entry = readdir(dir)) {
        if (strstr(entry->d_name, "ttyUSB") != nullptr ||
            (acceptAcm && strstr(entry->d_name, "ttyACM") != nullptr)) {
            // Device paths are kept to 46 characters, as the record has always held them.
            const std::string path = std::string("/dev/") + entry->d_name;
            const size_t length = std::min({path.size(), nameSize - 1, size_t{46}});
            path.copy(name, length);
            name[length] = '\0';
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

bool MactchInterfaceNumber(const std::string& dir, const std::string& modalias,
                           const std::string& interfaceName, PortRecord* record) {
    const std::string interfaceDir = dir + "/" + interfaceName;
    std::string protocol;
    if (!readAttribute(interfaceDir + "/bInterfaceProtocol", &protocol)) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Get bInterfaceProtocol: %s\n", protocol.c_str());
    record->type = IF_UNKNOWN;

    // An upper-case "F" among the first two characters: the interface does not state its
    // role, and the product table decides.
    const bool statesNoRole =
        (protocol.size() > 0 && protocol[0] == 'F') || (protocol.size() > 1 && protocol[1] == 'F');
    if (!statesNoRole) {
        const long value = strtol(protocol.c_str(), nullptr, 16);
        if (value >= 1 && value <= 127) {
            record->type = protocolToInterfaceType(static_cast<unsigned>(value));
        }
        if (record->type == IF_UNKNOWN) {
            return false;
        }
        return FindTtyName(interfaceDir, record->name, sizeof(record->name), false);
    }

    if (!FindTtyName(interfaceDir, record->name, sizeof(record->name), true)) {
        return false;
    }
    std::string number;
    if (!readAttribute(interfaceDir + "/bInterfaceNumber", &number)) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Get bInterfaceNumber: %s\n", number.c_str());
    record->type = interfaceTypeByTable(modalias, number);
    return record->type != IF_UNKNOWN;
}

void EnumAllPortsByDir(PortRecordList* list, const std::string& dirPath) {
    DIAG_LOG(LOG_INFO, "Enum port in Dir: %s\n", dirPath.c_str());
    if (list == nullptr) {
        return;
    }
    list->count = 0;
    DIR* dir = opendir(dirPath.c_str());
    if (dir == nullptr) {
        return;
    }
    while (list->count < kMaxPortRecords) {
        const dirent* entry = readdir(dir);
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        DIAG_LOG(LOG_INFO, "Get PID: %s\n", name.c_str());
        // USB interface directories hold a colon between device and interface numbers.
        if (name.find(':') == std::string::npos) {
            continue;
        }
        FILE* modaliasFile = fopen((dirPath + "/" + name + "/modalias").c_str(), "r");
        if (modaliasFile == nullptr) {
            continue;
        }
        char line[259] = {};
        if (fgets(line, sizeof(line), modaliasFile) != nullptr) {
            DIAG_LOG(LOG_INFO, "Get VID: %s\n", line);
            const std::string modalias = line;
            const bool supported =
                contains(modalias, kVendors[0]) || contains(modalias, kVendors[1]);
            if (supported &&
                MactchInterfaceNumber(dirPath, modalias, name, &list->records[list->count])) {
                ++list->count;
            }
        }
        fclose(modaliasFile);
    }
    closedir(dir);
}

void EnumAllPorts(PortRecordList* list) {
    EnumAllPortsByDir(list, g_sysfsRoot + "/sys/bus/usb/drivers/option");
    if (list != nullptr && list->count == 0) {
        EnumAllPortsByDir(list, g_sysfsRoot + "/sys/bus/usb/devices");
    }
}

}  // namespace discovery

int OS_ADAPT_EnumPorts(int /*reserved*/, DevicePortInfo* info) {
    PortRecordList list{};
    discovery::EnumAllPorts(&list);
    if (info == nullptr) {
        return OS_ADAPT_SUCCESS;
    }
    if (list.count > 0) {
        info->deviceCount = 1;
        DeviceEntry& device = info->devices[0];
        device.portCount = list.count;
        for (int i = 0; i < list.count; ++i) {
            snprintf(device.ports[i].name, sizeof(device.ports[i].name), "%s",
                     list.records[i].name);
            device.ports[i].type = discovery::interfaceToPortType(list.records[i].type);
        }
    }
    // A role the USB walk found no port for is looked for among PCIe modules' ports.
    discovery::AppendPciePorts(info);
    return OS_ADAPT_SUCCESS;
}
