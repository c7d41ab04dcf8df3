#include "pcieDiscovery.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "diagLog.h"

namespace discovery {

namespace {

namespace fs = std::filesystem;

constexpr char kWwanClass[] = "/sys/class/wwan";
constexpr char kWwanNodePrefix[] = "/dev/wwan";
constexpr char kMhiNodePrefix[] = "/dev/mhi_";
constexpr char kMhiDiag[] = "/dev/mhi_DIAG";
constexpr char kMhiAt[] = "/dev/mhi_DUN";

struct Found {
    std::string diag;
    std::string pcui;
};

bool startsWith(const std::string& text, const char* head) {
    return text.compare(0, std::char_traits<char>::length(head), head) == 0;
}

// The first word of a sysfs attribute, or empty.
std::string attributeWord(const fs::path& path) {
    std::ifstream in(path);
    std::string word;
    in >> word;
    return word;
}

// The WWAN class in name order: its devices (wwanN) have no type, its ports have one.
void findWwanPorts(const std::string& root, Found* found) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator it(root + kWwanClass, error), end; !error && it != end;
         it.increment(error)) {
        names.push_back(it->path().filename());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string type = attributeWord(fs::path(root + kWwanClass) / name / "type");
        if (type.empty()) {
            continue;
        }
        DIAG_LOG(LOG_INFO, "WWAN port %s of type %s, node /dev/%s", name.c_str(), type.c_str(),
                 name.c_str());
        if (type == "QCDM" && found->diag.empty()) {
            found->diag = "/dev/" + name;
        } else if (type == "AT" && found->pcui.empty()) {
            found->pcui = "/dev/" + name;
        }
    }
}

void findMhiPorts(const std::string& root, Found* found) {
    if (found->diag.empty() && access((root + kMhiDiag).c_str(), F_OK) == 0) {
        found->diag = kMhiDiag;
    }
    if (found->pcui.empty() && access((root + kMhiAt).c_str(), F_OK) == 0) {
        found->pcui = kMhiAt;
    }
}

void addPort(DevicePortInfo* info, const std::string& name, int type, const char* role) {
    DeviceEntry& device = info->devices[0];
    if (name.empty() || device.portCount >= kMaxPortRecords) {
        return;
    }
    PortEntry& port = device.ports[device.portCount++];
    snprintf(port.name, sizeof(port.name), "%s", name.c_str());
    port.type = type;
    info->deviceCount = std::max(info->deviceCount, 1);
    DIAG_LOG(LOG_INFO, "%s port of a PCIe module: %s (%s)", role, name.c_str(),
             PortAttachment(name));
}

}  // namespace

void AppendPciePorts(DevicePortInfo* info) {
    if (info == nullptr) {
        return;
    }
    bool haveDiag = false;
    bool havePcui = false;
    for (int d = 0; d < info->deviceCount && d < kMaxDevices; ++d) {
        for (int p = 0; p < info->devices[d].portCount && p < kMaxPortRecords; ++p) {
            haveDiag = haveDiag || info->devices[d].ports[p].type == PORT_TYPE_DIAG;
            havePcui = havePcui || info->devices[d].ports[p].type == PORT_TYPE_PCUI;
        }
    }
    if (haveDiag && havePcui) {
        return;  // a USB module has both: PCIe ports are not looked for
    }
    const std::string root = OS_ADAPT_SysfsRoot();
    Found found;
    findWwanPorts(root, &found);
    findMhiPorts(root, &found);
    if (!haveDiag) {
        addPort(info, found.diag, PORT_TYPE_DIAG, "Diag");
    }
    if (!havePcui) {
        addPort(info, found.pcui, PORT_TYPE_PCUI, "PCUI");
    }
}

bool IsPcieNodeName(const std::string& name) {
    return startsWith(name, kWwanNodePrefix) || startsWith(name, kMhiNodePrefix);
}

const char* PortAttachment(const std::string& name) {
    if (startsWith(name, kWwanNodePrefix)) {
        return "PCIe, WWAN";
    }
    return startsWith(name, kMhiNodePrefix) ? "PCIe, MHI" : "USB";
}

}  // namespace discovery
