#include "vrecSevice.h"

#include "atMdonImpl.h"
#include "diagImpl.h"
#include "portMgnt.h"

namespace {
vrecSevice* g_service = nullptr;
}

vrecSevice* vrecSevice::getInstance() {
    if (g_service == nullptr) {
        g_service = new vrecSevice;
    }
    return g_service;
}

void vrecSevice::destroy() {
    delete g_service;
    g_service = nullptr;
}

// A new object holds a module-logging implementation but serves CAPTURE_QUALCOMM, so it
// forwards nothing until switched to CAPTURE_MDON.
vrecSevice::vrecSevice() : m_impl(std::make_unique<AtMdonImpl>()) {}

vrecSevice::~vrecSevice() = default;

int vrecSevice::switchMode(int mode) {
    m_impl.reset();
    if (mode == CAPTURE_MDON) {
        m_impl = std::make_unique<AtMdonImpl>();
    } else if (mode == CAPTURE_QUALCOMM || mode == CAPTURE_IMC) {
        m_impl = std::make_unique<DiagImpl>();
    }
    m_mode = mode;
    return 0;
}

AtMdonImpl* vrecSevice::mdon() {
    return m_mode == CAPTURE_MDON ? dynamic_cast<AtMdonImpl*>(m_impl.get()) : nullptr;
}

bool vrecSevice::queryFuntion(int& state) {
    return mdon() != nullptr && mdon()->queryFuntion(state);
}

int vrecSevice::getTransferResult() {
    return mdon() != nullptr ? mdon()->transferResult() : 0;
}

void vrecSevice::stopExportFiles() {
    if (mdon() != nullptr) {
        mdon()->stopExportFiles();
    }
}

bool vrecSevice::exportUEFiles(int mask) {
    return mdon() != nullptr && mdon()->exportUEFiles(mask);
}

bool vrecSevice::setSaveMode(int mode) {
    return mdon() != nullptr && mdon()->setSaveMode(mode);
}

bool vrecSevice::getSaveMode(int& mode) {
    return mdon() != nullptr && mdon()->getSaveMode(mode);
}

std::string vrecSevice::getRemainSize() {
    return mdon() != nullptr ? mdon()->getRemainSize() : std::string();
}

bool vrecSevice::clearSaveSpace(int which) {
    return mdon() != nullptr && mdon()->clearSaveSpace(which);
}

bool vrecSevice::setSaveLocation(int location) {
    return mdon() != nullptr && mdon()->setSaveLocation(location);
}

bool vrecSevice::getSaveLocation(int& location) {
    return mdon() != nullptr && mdon()->getSaveLocation(location);
}

bool vrecSevice::sendConfigFile(const std::string& directory) {
    return mdon() != nullptr && mdon()->sendConfigFile(directory);
}

bool vrecSevice::getConfigFile(const std::string& directory) {
    return mdon() != nullptr && mdon()->getConfigFile(directory);
}

void vrecSevice::setSavePath(const std::string& path) {
    PortMgnt::getInstance()->setSavePath(path);
}

bool vrecSevice::closePorts() {
    PortMgnt* ports = PortMgnt::getInstance();
    return ports->closePcuiPort() && ports->closeDiagPort();
}

bool vrecSevice::openPort(const std::string& name) {
    return PortMgnt::getInstance()->openPort(name);
}

bool vrecSevice::getPorts(std::list<std::string>& ports) {
    return PortMgnt::getInstance()->getPorts(ports);
}
