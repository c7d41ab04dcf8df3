#ifndef VREC_TOOLS_WWANFS_H
#define VREC_TOOLS_WWANFS_H

#include <functional>
#include <memory>
#include <string>

namespace vtools {

// The ports of a module on PCIe as the Linux WWAN subsystem gives them: files wwanNqcdm0
// and wwanNat0 in a FUSE mount that are not terminals. Reads wait until the module sent
// something (O_NONBLOCK: EAGAIN), poll works, a write of more than 32 KiB fails with
// EMSGSIZE, terminal ioctls fail with ENOTTY. When a port goes, its open files fail: reads
// with EIO, writes with ENODEV, poll says POLLHUP|POLLERR; it comes back under the next
// index once every port of the old one went. The simulator talks to each port through a
// descriptor that it reads and writes like the master end of a pseudo-terminal.
class WwanFs {
public:
    enum Kind { kQcdm, kAt };

    WwanFs();
    ~WwanFs();  // unmounts
    WwanFs(const WwanFs&) = delete;
    WwanFs& operator=(const WwanFs&) = delete;

    // Also writes DIR/sys/class/wwan for the ports, whenever they change (empty: none).
    void setSysfsRoot(const std::string& root);
    // Told of what the host did that a module would refuse (terminal settings), on any thread.
    void setNote(std::function<void(const std::string&)> note);

    bool mount(const std::string& dir, std::string* error);
    // Makes the port's file; the simulator's end of it, or -1 with the reason in `error`.
    // `path` takes the file's path.
    int attach(Kind kind, std::string* path, std::string* error);
    // The port goes, as in a reset of the modem.
    void lose(Kind kind);

    // What the file system's handlers share, defined where they are.
    struct State;

private:
    std::unique_ptr<State> state;
};

}  // namespace vtools

#endif
