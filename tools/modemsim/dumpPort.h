#ifndef VREC_TOOLS_DUMPPORT_H
#define VREC_TOOLS_DUMPPORT_H

#include <chrono>
#include <string>
#include <vector>

#include "dumpSetup.h"
#include "ptyPort.h"
#include "saharaServer.h"

namespace vtools {

// The port of a module in dump mode: a terminal that the Sahara server talks through. It
// says HELLO once, when a host first opens it.
class DumpPort {
public:
    using Clock = std::chrono::steady_clock;

    DumpPort(const DumpSetup& setup, SaharaServer::Note note);
    DumpPort(const DumpPort&) = delete;
    DumpPort& operator=(const DumpPort&) = delete;

    bool open(std::string* error);
    // The port goes, as the module leaves dump mode: bytes no packet took are told.
    void close();
    const std::string& terminal() const { return pty.terminal(); }
    SaharaServer& server() { return sahara; }

    // Notices the host's first open, takes what it wrote, sends what is due.
    void service();
    // The descriptor to wait on and its events; -1 while no host has opened the port.
    int pollFd(short* events) const;
    // The dump is over for the module: RESET answered and read by the host (or a second
    // gone by), RESET taken by a silent module, or the port's hang-up fault reached and
    // what came before it read.
    bool over() const;

private:
    // Nothing waits for the host, and nothing has for a moment.
    bool drained(Clock::time_point now) const;

    std::string path;
    PtyPort pty;
    SaharaServer sahara;
    std::vector<unsigned char> buffer;
    size_t head = 0;  // what of `buffer` is sent
    size_t tail = 0;  // what of it is filled
    bool opened = false;
    Clock::time_point resetAt;
    Clock::time_point hungAt;
    bool resetTimed = false;
    bool hangTimed = false;
    Clock::time_point emptySince;
    bool empty = false;
};

}  // namespace vtools

#endif
