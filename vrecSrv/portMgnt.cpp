#include "portMgnt.h"

#include "diagLog.h"
#include "fileSystem.h"
#include "serialport.h"

namespace {
PortMgnt* g_portMgnt = nullptr;
}

PortMgnt* PortMgnt::getInstance() {
    if (g_portMgnt == nullptr) {
        g_portMgnt = new PortMgnt;
    }
    return g_portMgnt;
}

PortMgnt::PortMgnt() : savePath(CDirectory::GetCurrentDir()) { DIAG_TRACE(); }

PortMgnt::~PortMgnt() {
    OS_ADAPT_Close(diagPort);
    if (pcuiPort != diagPort) {
        OS_ADAPT_Close(pcuiPort);
    }
}

bool PortMgnt::openDiagPortByName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Open Diag Port name: %s\n", name);
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (OS_ADAPT_Open(name, &diagPort) != OS_ADAPT_SUCCESS) {
        diagPort = -1;
        DIAG_LOG(LOG_ERRO, "open diag port failed.");
        return false;
    }
    if (pcuiPort == -1) {
        pcuiAsDiag = true;
    }
    diagPortName = name;
    return true;
}

bool PortMgnt::openPcuiPortByName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    DIAG_LOG(LOG_INFO, "Open Pcui Port name: %s\n", name);
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    if (OS_ADAPT_Open(name, &pcuiPort) != OS_ADAPT_SUCCESS) {
        pcuiPort = -1;
        DIAG_LOG(LOG_ERRO, "open pcui port failed.");
        return false;
    }
    pcuiAsDiag = false;
    pcuiPortName = name;
    return true;
}

void PortMgnt::setSavePath(const std::string& path) {
    DIAG_LOG(LOG_INFO, "file path: %s", path.c_str());
    const std::string normalised = CDirectory::NormalisePath(path);
    if (!CDirectory::Exists(normalised)) {
        DIAG_LOG(LOG_INFO, "create dir %s", normalised.c_str());
        if (!CDirectory::Create(normalised)) {
            DIAG_LOG(LOG_INFO, "create dir failed.");
            return;
        }
    }
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    savePath = normalised;
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

std::string PortMgnt::diagName() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return diagPortName;
}

std::string PortMgnt::pcuiName() const {
    std::lock_guard<std::recursive_mutex> lock(handleLock);
    return pcuiPortName;
}
