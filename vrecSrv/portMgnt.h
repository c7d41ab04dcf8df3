#ifndef VREC_SRV_PORTMGNT_H
#define VREC_SRV_PORTMGNT_H

#include <mutex>
#include <string>

// The one owner of the module's Diag and PCUI ports: it opens them, lends their handles
// and closes them. It also holds the directory that log output goes under.
class PortMgnt {
public:
    static PortMgnt* getInstance();
    virtual ~PortMgnt();
    PortMgnt(const PortMgnt&) = delete;
    PortMgnt& operator=(const PortMgnt&) = delete;

    // Port overrides given on the command line; a failed open leaves discovery to later.
    bool openDiagPortByName(const char* name);
    bool openPcuiPortByName(const char* name);

    void setSavePath(const std::string& path);
    std::string getSavePath() const;

    bool isPcuiAsDiag() const;
    bool isReading() const;
    std::string diagName() const;
    std::string pcuiName() const;

private:
    PortMgnt();

    // Handles change under this lock so that no descriptor is closed twice or lent after
    // it was closed.
    mutable std::recursive_mutex handleLock;
    std::string diagPortName;
    std::string pcuiPortName;
    int diagPort = -1;
    int pcuiPort = -1;
    bool pcuiAsDiag = false;
    bool reading = false;
    std::string savePath;
};

#endif
