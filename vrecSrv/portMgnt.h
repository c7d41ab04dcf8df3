#ifndef VREC_SRV_PORTMGNT_H
#define VREC_SRV_PORTMGNT_H

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

// The one owner of the module's Diag and PCUI ports: it tells which device is which, opens
// and closes them, lends their handles and regains a port that went away. It also holds
// the directory that log output goes under.
class PortMgnt {
public:
    static PortMgnt* getInstance();
    virtual ~PortMgnt();
    PortMgnt(const PortMgnt&) = delete;
    PortMgnt& operator=(const PortMgnt&) = delete;

    // Appends the device paths of the module's ports, in discovery order.
    bool getPorts(std::list<std::string>& ports);
    // The first Diag port found, or empty.
    std::string getDiagPortName();
    // The last PCUI port found, or empty.
    std::string getPcuiPortName();

    // Opens a port and files it on the Diag side if its name classifies as Diag, else on
    // the PCUI side.
    bool openPort(const std::string& name);
    bool openPcuiPort();
    // Port overrides given on the command line; a failed open leaves discovery to later.
    // A PCUI port once opened by its name is opened by that name whenever it is needed again.
    bool openDiagPortByName(const char* name);
    bool openPcuiPortByName(const char* name);

    // Close the old handle and open the port again by its stored or discovered name.
    int regainDiagPort();
    int regainPcuiPort();
    // The handle, regained first if there is none.
    int getDiagHandle();
    int getPcuiHandle();

    // Real-time reading: opens the Diag port if need be and starts the reader; stops the
    // reader and closes the port.
    bool startReadDiag();
    bool stopReadDiag();
    bool closeDiagPort();
    bool closePcuiPort();

    // Creates the directory with its parents where it is missing; false, after an ERROR
    // line naming the path and the reason, where it cannot be made or written into.
    bool setSavePath(const std::string& path);
    std::string getSavePath() const;

    // Why the PCUI port could not be had, as "NAME: reason" for each way that was tried since
    // it was last open; empty when nothing failed.
    std::string pcuiFailure() const;
    // The name of the PCUI port in use or last tried, for the user's lines.
    std::string pcuiName() const;

    bool isPcuiAsDiag() const;
    bool isReading() const;

    // Classification of a port name by keyword, else by the type discovery gave it.
    bool isDiagPort(const std::string& name);
    bool isPcuiPort(const std::string& name);

private:
    PortMgnt();

    int typeOf(const std::string& name);
    // With no Diag port to start on: a module waiting in dump mode is dealt with, and the
    // Diag port it comes back with waited for.
    void awaitModuleAfterDump();
    // A fresh walk of sysfs, with its log line when nothing was found.
    std::list<std::string> discoveredPorts();
    bool openInto(const std::string& name, int& handle);
    int regain(int& handle, std::string& storedName, const std::string& givenName,
               std::string (PortMgnt::*find)(), const char* side, std::string* used = nullptr);
    // Tells the user which port a side uses, once for each new name.
    void announcePort(const char* side, const std::string& name);
    // Closes a handle once, also where both sides share the descriptor.
    void releaseHandle(int& handle);
    // Names, once each, the other processes that have the port open: they would take bytes
    // of the stream or answers meant for this run.
    void warnOtherHolders(const std::string& name);
    // Remembers a failed open of the PCUI port (an empty name: none was found), or forgets
    // them all after a success.
    void notePcuiOpen(const std::string& name, bool opened, int error);

    // Handles change under this lock so that a regain on one thread and a close on another
    // never close a descriptor twice nor lend one that was closed.
    mutable std::recursive_mutex handleLock;
    std::string diagPortName;
    std::string pcuiPortName;
    // The PCUI port named with -p: a closed PCUI port is opened again by this name, which
    // discovery may never find.
    std::string givenPcuiName;
    // The Diag port named with -d: waited for by this name when it is lost.
    std::string givenDiagName;
    // The port each side was last announced with.
    std::string announcedDiag;
    std::string announcedPcui;
    std::string pcuiTrouble;
    std::string lastPcuiName;
    int diagPort = -1;
    int pcuiPort = -1;
    bool pcuiAsDiag = false;
    bool reading = false;
    const std::vector<std::string> diagKeywords;
    const std::vector<std::string> pcuiKeywords;
    std::string savePath;
    std::map<std::string, int32_t> portTypes;
    std::set<std::pair<std::string, pid_t>> warnedHolders;
};

#endif
