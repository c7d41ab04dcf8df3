#ifndef VREC_TOOLS_PTYPORT_H
#define VREC_TOOLS_PTYPORT_H

#include <string>

#include "wwanFs.h"

namespace vtools {

// One port of the simulated module: the master end of a pseudo-terminal, with a symbolic
// link at a fixed path to the terminal end, so that a port made anew keeps its name.
class PtyPort {
public:
    PtyPort() = default;
    ~PtyPort() { close(); }
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    // Makes the terminal and points `link` at it. False, with the reason in `error`.
    // From now on the port is a file of `fs` that is not a terminal, not a pseudo-terminal;
    // closing it is a loss of the port there.
    void serveThrough(WwanFs* fs, WwanFs::Kind kind) {
        wwan = fs;
        wwanKind = kind;
    }
    // Without `holdSlave` the simulator does not keep the terminal end open: until a host
    // opens it, hostOpened() says no.
    bool open(const std::string& link, std::string* error, bool holdSlave = true);
    // Whether a host has the terminal end open now (always true while the simulator holds it).
    bool hostOpened() const;
    // Keeps the terminal end open from now on, as open() does by default.
    void hold();
    // Bytes written into the terminal that the host has not read yet.
    size_t unread() const;
    // Closes both ends and takes the link away, as when a module drops off the bus: a host
    // that holds the terminal end gets a hang-up.
    void close();
    bool isOpen() const { return master != -1; }
    int fd() const { return master; }
    const std::string& terminal() const { return slaveName; }
    const std::string& link() const { return linkPath; }

private:
    bool pointLink(const std::string& link, std::string* error);

    int master = -1;
    // Held open by the simulator itself, so that the master does not report a hang-up
    // while no host has the port open and bytes can wait for the host as on a real port.
    int slaveHold = -1;
    std::string slaveName;
    std::string linkPath;
    WwanFs* wwan = nullptr;
    WwanFs::Kind wwanKind = WwanFs::kQcdm;
};

}  // namespace vtools

#endif
