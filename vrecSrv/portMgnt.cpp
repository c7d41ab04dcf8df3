#include "portMgnt.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "console.h"
#include "dateTime.h"
#include "diagLog.h"
#include "diagService.h"
#include "dumpService.h"
#include "fileSystem.h"
#include "pcieDiscovery.h"
#include "portDiscovery.h"
#include "portHolders.h"
#include "serialport.h"

namespace {

PortMgnt* g_portMgnt = nullptr;

// A module reset out of dump mode before a capture starts is waited for this long.
constexpr uint64_t kComebackWaitMs = 60000;
constexpr useconds_t kComebackPollUs = 500000;

const char* const kPortTypeNames[] = {
    "PCUI AND DIAG port", "MODEM", "NDIS_PORT", "WIFI", "PCUI", "DIAG"};

bool containsAny(const std::string& name, const std::vector<std::string>& keywords) {
    for (const std::string& keyword : keywords) {
        if (name.find(keyword) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

PortMgnt* PortMgnt::getInstance() {
    if (g_portMgnt == nullptr) {
        g_portMgnt = new PortMgnt;
    }
    return g_portMgnt;
}

PortMgnt::PortMgnt()
    : diagKeywords{"diag", "Diag", "Application", "TAT Port"},
      pcuiKeywords{"PC UI", " AT ", "Pcui", "pcui",
                   "Vodafone Mobile Broadband Secondary Port Modem"},
      savePath(CDirectory::GetCurrentDir()) {
    DIAG_TRACE();
}

PortMgnt::~PortMgnt() {
    bool haveDiag = false;
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        haveDiag = diagPort != -1;
    }
    if (haveDiag) {
        stopReadDiag();
    }
    DiagService::destroy();
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    releaseHandle(diagPort);
    releaseHandle(pcuiPort);
}

int PortMgnt::typeOf(const std::string& name) {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return portTypes[name];  // an unseen name is filed as type 0
}

bool PortMgnt::isDiagPort(const std::string& name) {
    return containsAny(name, diagKeywords) || typeOf(name) == PORT_TYPE_DIAG;
}

bool PortMgnt::isPcuiPort(const std::string& name) {
    return containsAny(name, pcuiKeywords) || typeOf(name) == PORT_TYPE_PCUI;
}

bool PortMgnt::getPorts(std::list<std::string>& ports) {
    DIAG_TRACE();
    auto info = std::make_unique<DevicePortInfo>();
    if (OS_ADAPT_EnumPorts(0, info.get()) != OS_ADAPT_SUCCESS) {
        DIAG_LOG(LOG_ERRO, "Enum device port info faile!");
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    for (int d = 0; d < info->deviceCount && d < kMaxDevices; ++d) {
        const DeviceEntry& device = info->devices[d];
        for (int p = 0; p < device.portCount && p < kMaxPortRecords; ++p) {
            const PortEntry& port = device.ports[p];
            ports.emplace_back(port.name);
            portTypes[port.name] = port.type;
            if (port.type >= 0 && port.type <= PORT_TYPE_DIAG) {
                DIAG_LOG(LOG_INFO, "Port type: %s", kPortTypeNames[port.type]);
            } else {
                DIAG_LOG(LOG_INFO, "Port type: Unknown");
            }
        }
    }
    return true;
}

std::list<std::string> PortMgnt::discoveredPorts() {
    std::list<std::string> ports;
    getPorts(ports);
    if (ports.empty()) {
        DIAG_LOG(LOG_INFO, "Did not find any port!");
    }
    return ports;
}

std::string PortMgnt::getDiagPortName() {
    DIAG_TRACE();
    for (const std::string& name : discoveredPorts()) {
        if (isDiagPort(name)) {
            return name;
        }
    }
    return std::string();
}

std::string PortMgnt::getPcuiPortName() {
    DIAG_TRACE();
    std::string chosen;
    for (const std::string& name : discoveredPorts()) {
        if (isPcuiPort(name)) {
            chosen = name;
        }
    }
    return chosen;
}

bool PortMgnt::openInto(const std::string& name, int& handle) {
    releaseHandle(handle);
    warnOtherHolders(name);
    if (OS_ADAPT_Open(name.c_str(), &handle) != OS_ADAPT_SUCCESS) {
        handle = -1;
        return false;
    }
    return true;
}

void PortMgnt::warnOtherHolders(const std::string& name) {
    for (const PortHolder& holder : OS_ADAPT_FindPortHolders(name)) {
        if (!warnedHolders.emplace(name, holder.pid).second) {
            continue;
        }
        DIAG_LOG(LOG_WARN, "%s is also open in %s (pid %d)", name.c_str(), holder.command.c_str(),
                 static_cast<int>(holder.pid));
        consolePrint(
            "%sWARNING: %s is also open in %s (pid %d), which may take part of what the module "
            "sends.\n",
            kLineClear, name.c_str(), holder.command.c_str(), static_cast<int>(holder.pid));
    }
}

void PortMgnt::releaseHandle(int& handle) {
    if (handle == -1) {
        return;
    }
    const int fd = handle;
    // Where both sides share one descriptor, it is closed once and both let go of it.
    if (diagPort == fd) {
        diagPort = -1;
    }
    if (pcuiPort == fd) {
        pcuiPort = -1;
    }
    handle = -1;
    OS_ADAPT_Close(fd);
}

bool PortMgnt::openPort(const std::string& name) {
    DIAG_LOG(LOG_INFO, "open port name: %s", name.c_str());
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        warnOtherHolders(name);
    }
    int handle = -1;
    if (OS_ADAPT_Open(name.c_str(), &handle) != OS_ADAPT_SUCCESS) {
        DIAG_LOG(LOG_ERRO, "port open failed.");
        return false;
    }
    DIAG_LOG(LOG_INFO, "port open succeed.");
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (isDiagPort(name)) {
        DIAG_LOG(LOG_INFO, "setPortMode diag");
        releaseHandle(diagPort);
        diagPort = handle;
        pcuiAsDiag = true;
        diagPortName = name;
    } else {
        pcuiAsDiag = false;
        DIAG_LOG(LOG_INFO, "PCUI port is opened");
        releaseHandle(pcuiPort);
        pcuiPort = handle;
        pcuiPortName = name;
    }
    return true;
}

bool PortMgnt::openPcuiPort() {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (!givenPcuiName.empty()) {
        return openPcuiPortByName(givenPcuiName.c_str());
    }
    const std::string name = getPcuiPortName();
    const bool opened = openPort(name);
    notePcuiOpen(name, opened, errno);
    if (!opened) {
        return false;
    }
    announcePort(name == diagPortName ? "Diag" : "PCUI", name);
    return true;
}

void PortMgnt::announcePort(const char* side, const std::string& name) {
    std::string& last = strcmp(side, "Diag") == 0 ? announcedDiag : announcedPcui;
    if (name.empty() || name == last) {
        return;
    }
    last = name;
    const char* attachment = discovery::PortAttachment(name);
    DIAG_LOG(LOG_INFO, "%s port in use: %s (%s)", side, name.c_str(), attachment);
    // A USB module's run prints what it always printed; a PCIe port is named, for its node
    // tells the user which of the module's transports is read.
    if (!discovery::IsPcieNodeName(name)) {
        return;
    }
    consolePrint("%sINFO: %s port %s (%s).\n", kLineClear, side, name.c_str(), attachment);
}

void PortMgnt::notePcuiOpen(const std::string& name, bool opened, int error) {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (!name.empty()) {
        lastPcuiName = name;
    }
    if (opened) {
        pcuiTrouble.clear();
        return;
    }
    const std::string what =
        name.empty() ? "no PCUI port of a module was found" : name + ": " + strerror(error);
    if (pcuiTrouble.find(what) == std::string::npos) {
        pcuiTrouble += (pcuiTrouble.empty() ? "" : "; ") + what;
    }
}

std::string PortMgnt::pcuiFailure() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return pcuiTrouble;
}

std::string PortMgnt::pcuiName() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return pcuiPortName.empty() ? lastPcuiName : pcuiPortName;
}

bool PortMgnt::openDiagPortByName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Open Diag Port name: %s\n", name);
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (!openInto(name, diagPort)) {
        DIAG_LOG(LOG_ERRO, "open diag port failed.");
        return false;
    }
    if (pcuiPort == -1) {
        pcuiAsDiag = true;
    }
    diagPortName = name;
    givenDiagName = name;
    announcedDiag = name;  // the user named it
    return true;
}

bool PortMgnt::openPcuiPortByName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Open Pcui Port name: %s\n", name);
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    const bool opened = openInto(name, pcuiPort);
    notePcuiOpen(name, opened, errno);
    if (!opened) {
        DIAG_LOG(LOG_ERRO, "open pcui port failed.");
        return false;
    }
    pcuiAsDiag = false;
    pcuiPortName = name;
    givenPcuiName = name;
    announcedPcui = name;  // the user named it
    return true;
}

int PortMgnt::regain(int& handle, std::string& storedName, const std::string& givenName,
                     std::string (PortMgnt::*find)(), const char* side, std::string* used) {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    releaseHandle(handle);
    // A stored name is used as it is, without a new walk of sysfs; but a PCIe module comes
    // back from a reset under the next index (wwan1qcdm0), so a PCIe port that discovery
    // found is looked for again. A port named on the command line is waited for by name.
    std::string name = storedName.empty() ? givenName : storedName;
    const bool rediscover = name.empty() || (name != givenName && discovery::IsPcieNodeName(name));
    if (rediscover) {
        name = (this->*find)();
    }
    if (used != nullptr) {
        *used = name;
    }
    if (name.empty() || !openInto(name, handle)) {
        DIAG_LOG(LOG_INFO, "Regain %s port error", side);
        return -1;
    }
    DIAG_LOG(LOG_INFO, "Regain %s port success", side);
    if (rediscover && discovery::IsPcieNodeName(name)) {
        storedName = name;
    }
    announcePort(strcmp(side, "Diag") == 0 ? "Diag" : "PCUI", name);
    return handle;
}

int PortMgnt::regainDiagPort() {
    return regain(diagPort, diagPortName, givenDiagName, &PortMgnt::getDiagPortName, "Diag");
}

int PortMgnt::regainPcuiPort() {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    std::string name;
    const int handle =
        regain(pcuiPort, pcuiPortName, givenPcuiName, &PortMgnt::getPcuiPortName, "Pcui", &name);
    notePcuiOpen(name, handle != -1, errno);
    return handle;
}

int PortMgnt::getDiagHandle() {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return diagPort != -1 ? diagPort : regainDiagPort();
}

int PortMgnt::getPcuiHandle() {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return pcuiPort != -1 ? pcuiPort : regainPcuiPort();
}

void PortMgnt::awaitModuleAfterDump() {
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        if (diagPort != -1 || pcuiAsDiag || !getDiagPortName().empty()) {
            return;
        }
    }
    const auto stopped = [] { return DiagService::getInstance()->stopAsked(); };
    if (DumpService::getInstance()->lookForDump(0, stopped) != DumpService::Found::Reset) {
        return;
    }
    const uint64_t deadline = GetTickMs() + kComebackWaitMs;
    while (!stopped() && GetTickMs() < deadline && getDiagPortName().empty()) {
        usleep(kComebackPollUs);
    }
}

bool PortMgnt::startReadDiag() {
    DIAG_TRACE();
    awaitModuleAfterDump();
    int handle = -1;
    std::string path;
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        if (diagPort == -1) {
            if (pcuiAsDiag) {
                if (pcuiPort == -1) {
                    DIAG_LOG(LOG_ERRO, "use pcui as diag mode failed.");
                    return false;
                }
                diagPort = pcuiPort;  // both sides share one descriptor
            } else {
                const std::string name = getDiagPortName();
                if (name.empty()) {
                    DIAG_LOG(LOG_ERRO, "get diag port failed.");
                    consolePrint(
                        "%sERROR: can't find the Diag port of your device. \nif the device is "
                        "connected properly, you might try to specify the port name manually "
                        "using -d\n",
                        kLineClear);
                    return false;
                }
                DIAG_LOG(LOG_INFO, "Open port name: %s", name.c_str());
                if (!openInto(name, diagPort)) {
                    DIAG_LOG(LOG_ERRO, "open diag port failed.");
                    consolePrint(
                        "%sERROR: can't open the Diag port of your device. Please check if it's "
                        "being used\n",
                        kLineClear);
                    return false;
                }
                diagPortName = name;
                announcePort("Diag", name);
            }
        }
        handle = diagPort;
        path = savePath;
    }
    // The reader calls back here to regain the port, so the lock is not held while it starts.
    if (!DiagService::getInstance()->beginReadDiag(handle, path)) {
        DIAG_LOG(LOG_ERRO, "read realtime log failed.");
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    reading = true;
    return true;
}

bool PortMgnt::stopReadDiag() {
    DIAG_TRACE();
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        if (diagPort == -1) {
            DIAG_LOG(LOG_INFO, "Port is not exist.");
            // A reader whose port went away is still trying to regain it: it stops all the
            // same, or it could reopen the port and send start commands during the exit.
            if (!reading) {
                return true;
            }
        }
    }
    // Never wait for the reader while holding the lock: it may be regaining the port.
    DiagService::getInstance()->stopReadDiag();
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    reading = false;
    if (pcuiAsDiag || diagPort == -1) {
        return true;  // shared with the PCUI side, which keeps it open; or already gone
    }
    releaseHandle(diagPort);
    diagPortName.clear();
    givenDiagName.clear();
    return true;
}

bool PortMgnt::closeDiagPort() {
    if (isReading()) {
        DiagService::getInstance()->stopReadDiag();
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    releaseHandle(diagPort);
    diagPortName.clear();
    givenDiagName.clear();
    DIAG_LOG(LOG_INFO, "Diag port close succeed.");
    return true;
}

bool PortMgnt::closePcuiPort() {
    bool readerOnPcui = false;
    {
        std::lock_guard<std::recursive_mutex> lock(handleLock);
        // Only a reader that reads this very descriptor has to stop before it closes.
        readerOnPcui = pcuiAsDiag && reading && pcuiPort != -1 && pcuiPort == diagPort;
    }
    if (readerOnPcui) {
        DiagService::getInstance()->stopReadDiag();
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    releaseHandle(pcuiPort);
    pcuiPortName.clear();
    DIAG_LOG(LOG_INFO, "Pcui port close succeed.");
    return true;
}

bool PortMgnt::setSavePath(const std::string& path) {
    DIAG_LOG(LOG_INFO, "file path: %s", path.c_str());
    const std::string normalised = CDirectory::NormalisePath(path);
    std::error_code error;
    if (!std::filesystem::is_directory(normalised, error)) {
        DIAG_LOG(LOG_INFO, "create dir %s", normalised.c_str());
        // A file in the way is named as what it is, not as a name that exists.
        if (std::filesystem::exists(normalised, error)) {
            error = std::make_error_code(std::errc::not_a_directory);
        } else {
            std::filesystem::create_directories(normalised, error);
        }
        if (error) {
            DIAG_LOG(LOG_ERRO, "create dir failed: %s", error.message().c_str());
            consolePrint("ERROR: can't create the log directory %s: %s\n", normalised.c_str(),
                         error.message().c_str());
            return false;
        }
    } else if (access(normalised.c_str(), W_OK | X_OK) != 0) {
        const char* reason = strerror(errno);
        DIAG_LOG(LOG_ERRO, "dir %s is not writable: %s", normalised.c_str(), reason);
        consolePrint("ERROR: can't write into the log directory %s: %s\n", normalised.c_str(),
                     reason);
        return false;
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    savePath = normalised;
    return true;
}

std::string PortMgnt::getSavePath() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return savePath;
}

bool PortMgnt::isPcuiAsDiag() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return pcuiAsDiag;
}

bool PortMgnt::isReading() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return reading;
}
