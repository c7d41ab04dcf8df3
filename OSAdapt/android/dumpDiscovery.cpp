#include "dumpDiscovery.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "diagLog.h"
#include "portDiscovery.h"

namespace {

const char* const kQualcommVendor = "05c6";
const char* const kDumpProducts[] = {"900e", "90db"};
const char* const kDownloadProducts[] = {"9008", "901d"};
const char* const kSerialDrivers[] = {"/sys/bus/usb/drivers/option",
                                      "/sys/bus/usb/drivers/qcserial"};
const char* const kUsbDevices = "/sys/bus/usb/devices";
const char* const kNewId = "/sys/bus/usb-serial/drivers/option1/new_id";
const char* const kMhiSahara = "/dev/mhi_SAHARA";
const char* const kWwanClass = "/sys/class/wwan";

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// A small attribute's first line.
std::string attribute(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
        line.pop_back();
    }
    return line;
}

bool exists(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0;
}

// The entries of a directory in sorted order; with `interfacesOnly`, those named like USB
// interfaces (a colon between device and interface numbers).
std::vector<std::string> entryNames(const std::string& dir, bool interfacesOnly) {
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
         it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (!interfacesOnly || name.find(':') != std::string::npos) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Adds the port of one USB interface when its device is in dump or download mode. The
// interface's own sysfs name tells whether it was seen already.
void addUsbInterface(const std::string& dir, const std::string& name, bool unboundAllowed,
                     std::vector<DumpPortCandidate>* found) {
    for (const DumpPortCandidate& known : *found) {
        if (known.interface == name) {
            return;
        }
    }
    std::string vendor;
    std::string product;
    if (!dumpdiscovery::parseModalias(attribute(dir + "/" + name + "/modalias"), &vendor,
                                      &product) ||
        vendor != kQualcommVendor) {
        return;
    }
    const bool dump = dumpdiscovery::isDumpProduct(product);
    if (!dump && !dumpdiscovery::isDownloadProduct(product)) {
        return;
    }
    DumpPortCandidate candidate;
    candidate.product = product;
    candidate.interface = name;
    char tty[64] = {};
    if (discovery::FindTtyName(dir + "/" + name, tty, sizeof(tty), true)) {
        candidate.kind = dump ? DumpPortCandidate::Kind::Dump : DumpPortCandidate::Kind::Download;
        candidate.path = OS_ADAPT_SysfsRoot() + tty;
    } else if (dump && unboundAllowed && !exists(dir + "/" + name + "/driver")) {
        candidate.kind = DumpPortCandidate::Kind::Unbound;
    } else {
        return;
    }
    found->push_back(candidate);
}

void addPcie(std::vector<DumpPortCandidate>* found) {
    const std::string root = OS_ADAPT_SysfsRoot();
    if (exists(root + kMhiSahara)) {
        DumpPortCandidate candidate;
        candidate.path = root + kMhiSahara;
        found->push_back(candidate);
    }
    for (const std::string& port : entryNames(root + kWwanClass, false)) {
        if (attribute(root + kWwanClass + "/" + port + "/type") == "SAHARA") {
            DumpPortCandidate candidate;
            candidate.path = root + "/dev/" + port;
            found->push_back(candidate);
        }
    }
}

}  // namespace

namespace dumpdiscovery {

bool parseModalias(const std::string& modalias, std::string* vendor, std::string* product) {
    const std::string text = lower(modalias);
    if (text.compare(0, 5, "usb:v") != 0 || text.size() < 14 || text[9] != 'p') {
        return false;
    }
    const std::string v = text.substr(5, 4);
    const std::string p = text.substr(10, 4);
    const auto hexDigits = [](const std::string& part) {
        return std::all_of(part.begin(), part.end(),
                           [](unsigned char c) { return std::isxdigit(c) != 0; });
    };
    if (!hexDigits(v) || !hexDigits(p)) {
        return false;
    }
    *vendor = v;
    *product = p;
    return true;
}

bool isDumpProduct(const std::string& product) {
    return std::find(std::begin(kDumpProducts), std::end(kDumpProducts), product) !=
           std::end(kDumpProducts);
}

bool isDownloadProduct(const std::string& product) {
    return std::find(std::begin(kDownloadProducts), std::end(kDownloadProducts), product) !=
           std::end(kDownloadProducts);
}

}  // namespace dumpdiscovery

std::vector<DumpPortCandidate> OS_ADAPT_FindDumpPorts() {
    std::vector<DumpPortCandidate> found;
    const std::string root = OS_ADAPT_SysfsRoot();
    for (const char* driver : kSerialDrivers) {
        for (const std::string& name : entryNames(root + driver, true)) {
            addUsbInterface(root + driver, name, false, &found);
        }
    }
    for (const std::string& name : entryNames(root + kUsbDevices, true)) {
        addUsbInterface(root + kUsbDevices, name, true, &found);
    }
    addPcie(&found);
    return found;
}

std::string OS_ADAPT_NewIdPath() {
    return OS_ADAPT_SysfsRoot() + kNewId;
}

bool OS_ADAPT_BindDumpInterface(const std::string& product, std::string* error) {
    const std::string path = OS_ADAPT_NewIdPath();
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr) {
        *error = strerror(errno);
        return false;
    }
    const std::string text = std::string(kQualcommVendor) + " " + product + "\n";
    const bool written = fwrite(text.data(), 1, text.size(), file) == text.size();
    const int writeError = errno;
    if (fclose(file) != 0 || !written) {
        *error = strerror(written ? errno : writeError);
        return false;
    }
    DIAG_LOG(LOG_INFO, "wrote \"%s %s\" to %s", kQualcommVendor, product.c_str(), path.c_str());
    return true;
}
