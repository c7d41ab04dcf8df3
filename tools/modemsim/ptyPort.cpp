#include "ptyPort.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vtools {

namespace {

std::string failure(const char* what, const std::string& path) {
    return std::string(what) + "(" + path + ") failed: " + strerror(errno);
}

}  // namespace

bool PtyPort::open(const std::string& link, std::string* error, bool holdSlave) {
    close();
    if (wwan != nullptr) {
        master = wwan->attach(wwanKind, &slaveName, error);
        return master != -1 && pointLink(link, error);
    }
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master == -1) {
        *error = failure("posix_openpt", "/dev/ptmx");
        return false;
    }
    char name[128] = {};
    if (grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name, sizeof(name)) != 0) {
        *error = failure("unlockpt", "/dev/ptmx");
        close();
        return false;
    }
    slaveName = name;
    slaveHold = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slaveHold == -1) {
        *error = failure("open", slaveName);
        close();
        return false;
    }
    // Raw, so that the line discipline neither echoes nor translates: a module's port
    // passes bytes unchanged whatever the host sets later.
    termios tio{};
    tcgetattr(slaveHold, &tio);
    cfmakeraw(&tio);
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    tcsetattr(slaveHold, TCSANOW, &tio);
    if (!holdSlave) {
        // The settings stay with the terminal; the master reports a hang-up until a host
        // opens it.
        ::close(slaveHold);
        slaveHold = -1;
    }
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    return pointLink(link, error);
}

bool PtyPort::pointLink(const std::string& link, std::string* error) {
    // Point the link at the terminal in one step, so that a host never sees it missing
    // while an old one is replaced.
    const std::string temporary = link + ".new";
    unlink(temporary.c_str());
    if (symlink(slaveName.c_str(), temporary.c_str()) != 0 ||
        rename(temporary.c_str(), link.c_str()) != 0) {
        *error = failure("symlink", link);
        unlink(temporary.c_str());
        close();
        return false;
    }
    linkPath = link;
    return true;
}

bool PtyPort::hostOpened() const {
    if (master == -1) {
        return false;
    }
    pollfd probe{master, 0, 0};
    return poll(&probe, 1, 0) == 0 || (probe.revents & POLLHUP) == 0;
}

void PtyPort::hold() {
    if (slaveHold == -1 && !slaveName.empty()) {
        slaveHold = ::open(slaveName.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
}

size_t PtyPort::unread() const {
    if (slaveHold == -1) {
        return 0;
    }
    // What the master wrote reaches the terminal's input a moment later, from a kernel
    // worker; a poll of the terminal end moves it there first, so that the count is exact.
    pollfd probe{slaveHold, POLLIN, 0};
    poll(&probe, 1, 0);
    int count = 0;
    if (ioctl(slaveHold, FIONREAD, &count) != 0 || count < 0) {
        return 0;
    }
    return static_cast<size_t>(count);
}

void PtyPort::close() {
    if (!linkPath.empty()) {
        unlink(linkPath.c_str());
        linkPath.clear();
    }
    if (slaveHold != -1) {
        ::close(slaveHold);
        slaveHold = -1;
    }
    if (master != -1) {
        if (wwan != nullptr) {
            wwan->lose(wwanKind);
        }
        ::close(master);
        master = -1;
    }
    slaveName.clear();
}

}  // namespace vtools
