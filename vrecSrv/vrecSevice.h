#ifndef VREC_SRV_VRECSEVICE_H
#define VREC_SRV_VRECSEVICE_H

#include <list>
#include <memory>
#include <string>

#include "logInterface.h"

class AtMdonImpl;

// The capture machinery behind one object, for programs that drive it without the command
// line. Module operations are served only in CAPTURE_MDON; the port and path operations in
// every mode.
class vrecSevice {
public:
    static vrecSevice* getInstance();
    static void destroy();
    virtual ~vrecSevice();
    vrecSevice(const vrecSevice&) = delete;
    vrecSevice& operator=(const vrecSevice&) = delete;

    // Replaces the capture mode: 1 module logging, 0 and 2 Diag capture, others none.
    int switchMode(int mode);
    int getMode() const { return m_mode; }
    bool hasImplementation() const { return m_impl != nullptr; }

    bool queryFuntion(int& state);
    // -1 none yet or under way, 0 failed, 1 done.
    int getTransferResult();
    void stopExportFiles();
    bool exportUEFiles(int mask);
    bool setSaveMode(int mode);
    bool getSaveMode(int& mode);
    std::string getRemainSize();
    bool clearSaveSpace(int which);
    bool setSaveLocation(int location);
    bool getSaveLocation(int& location);
    bool sendConfigFile(const std::string& directory);
    bool getConfigFile(const std::string& directory);

    void setSavePath(const std::string& path);
    bool closePorts();
    bool openPort(const std::string& name);
    bool getPorts(std::list<std::string>& ports);

private:
    vrecSevice();
    // The module-logging implementation, or null outside CAPTURE_MDON.
    AtMdonImpl* mdon();

    std::unique_ptr<LogInterface> m_impl;
    int m_mode = CAPTURE_QUALCOMM;
};

#endif
