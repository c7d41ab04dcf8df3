#include "dumpPort.h"

#include <poll.h>
#include <unistd.h>

namespace vtools {

namespace {

constexpr size_t kBufferSize = 256 * 1024;
// Bytes moved in one service call at the most, so that the rest of the module keeps going.
constexpr size_t kMostPerService = 4 * 1024 * 1024;
// How long a host may take to read RESET_RESP, or what came before a hang-up.
constexpr auto kReadGrace = std::chrono::seconds(1);
// How long the host's side must have stayed empty to count as read.
constexpr auto kEmptyFor = std::chrono::milliseconds(100);

}  // namespace

DumpPort::DumpPort(const DumpSetup& setup, SaharaServer::Note note)
    : path(setup.portPath), sahara(setup, std::move(note)), buffer(kBufferSize) {}

bool DumpPort::open(std::string* error) {
    return pty.open(path, error, false);
}

void DumpPort::close() {
    sahara.endOfInput();
    pty.close();
}

int DumpPort::pollFd(short* events) const {
    if (!opened || !pty.isOpen()) {
        return -1;
    }
    *events = POLLIN;
    if (head < tail || sahara.pending()) {
        *events |= POLLOUT;
    }
    return pty.fd();
}

void DumpPort::service() {
    if (!pty.isOpen()) {
        return;
    }
    if (!opened) {
        if (!pty.hostOpened()) {
            return;
        }
        opened = true;
        pty.hold();
        sahara.start();
    }
    char input[4096];
    ssize_t n = 0;
    while ((n = read(pty.fd(), input, sizeof(input))) > 0) {
        sahara.feed(input, static_cast<size_t>(n));
    }
    size_t moved = 0;
    while (moved < kMostPerService) {
        if (head == tail) {
            head = 0;
            tail = sahara.produce(buffer.data(), buffer.size());
            if (tail == 0) {
                break;
            }
        }
        n = write(pty.fd(), buffer.data() + head, tail - head);
        if (n <= 0) {
            break;
        }
        head += static_cast<size_t>(n);
        moved += static_cast<size_t>(n);
    }
    const auto now = Clock::now();
    const bool emptyNow = head == tail && pty.unread() == 0;
    if (emptyNow && !empty) {
        emptySince = now;
    }
    empty = emptyNow;
    if (sahara.resetSeen() && !resetTimed) {
        resetTimed = true;
        resetAt = now;
    }
    if (sahara.hungUp() && !hangTimed) {
        hangTimed = true;
        hungAt = now;
    }
}

bool DumpPort::drained(Clock::time_point now) const {
    return empty && head == tail && now - emptySince >= kEmptyFor;
}

bool DumpPort::over() const {
    const auto now = Clock::now();
    if (hangTimed) {
        return drained(now) || now - hungAt >= kReadGrace;
    }
    if (!resetTimed) {
        return false;
    }
    return sahara.silent() || (sahara.resetAnswered() && drained(now)) ||
           now - resetAt >= kReadGrace;
}

}  // namespace vtools
