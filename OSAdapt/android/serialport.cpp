#include "serialport.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "diagLog.h"

namespace {

int sysOpen(const char* path, int flags) {
    return ::open(path, flags);
}

const SerialSysCalls kRealCalls = {sysOpen, ::close, ::read, ::write, ::poll};
SerialSysCalls g_calls = kRealCalls;

// The most one write may carry on each open port that is not a terminal, by descriptor. A
// port without an entry takes any length.
std::mutex g_limitLock;
std::map<int, size_t> g_writeLimits;

size_t writeLimit(int fd) {
    std::lock_guard<std::mutex> lock(g_limitLock);
    const auto it = g_writeLimits.find(fd);
    return it == g_writeLimits.end() ? 0 : it->second;
}

void setWriteLimit(int fd, size_t limit) {
    std::lock_guard<std::mutex> lock(g_limitLock);
    if (limit == 0) {
        g_writeLimits.erase(fd);
    } else {
        g_writeLimits[fd] = limit;
    }
}

// A node that passes a stream without being a terminal: a character device (a WWAN or MHI
// port), a pipe or socket, or a file that cannot seek (a stand-in served by a file system).
// A plain file is none of these.
bool isStreamNode(int fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        return false;
    }
    if (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
        return true;
    }
    return S_ISREG(st.st_mode) && lseek(fd, 0, SEEK_CUR) == -1 && errno == ESPIPE;
}

CSerialPort& serialPort() {
    static CSerialPort port;
    return port;
}

// Raw 8N1 at 115200 with reads that never wait inside read(): the wait happens in poll.
bool configureRaw(int fd, int when = TCSAFLUSH) {
    termios tio{};
    if (tcgetattr(fd, &tio) != 0) {
        return false;
    }
    cfsetispeed(&tio, B115200);
    cfsetospeed(&tio, B115200);
    tio.c_cflag &= ~(CSIZE | CSTOPB | PARENB);
    tio.c_cflag |= CS8 | CREAD | CLOCAL;
    tio.c_lflag &= ~(ICANON | ECHO | ISIG);
    tio.c_iflag &= ~(BRKINT | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IUCLC | IXON);
    tio.c_iflag |= IGNPAR;
    cfmakeraw(&tio);
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    return tcsetattr(fd, when, &tio) == 0;
}

}  // namespace

SerialSysCalls& serialSysCalls() {
    return g_calls;
}

void resetSerialSysCalls() {
    g_calls = kRealCalls;
}

int CSerialPort::Open(const char* path, int* handle) {
    if (path == nullptr || path[0] == '\0' || handle == nullptr) {
        return OS_ADAPT_FAILED;
    }
    const int fd = g_calls.open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    *handle = fd;
    if (fd < 0) {
        const int err = errno;
        DIAG_LOG(LOG_INFO, "Open %s failed with error code %d.\n", path, err);
        if (err == EACCES) {
            DIAG_LOG(LOG_INFO, "\tPermission denied.\n");
        }
        errno = err;  // the caller tells the user why
        return OS_ADAPT_FAILED;
    }
    setWriteLimit(fd, 0);
    if (isatty(fd)) {
        if (!configureRaw(fd)) {
            const int err = errno;
            g_calls.close(fd);
            *handle = -1;
            errno = err;
            return OS_ADAPT_FAILED;
        }
        return OS_ADAPT_SUCCESS;
    }
    // A port that is not a terminal (a PCIe module's WWAN or MHI node) refuses terminal
    // settings: it is used as it is, and its writes are kept to what one transfer takes.
    if (!isStreamNode(fd)) {
        const int err = ENOTTY;
        g_calls.close(fd);
        *handle = -1;
        errno = err;
        return OS_ADAPT_FAILED;
    }
    DIAG_LOG(LOG_INFO,
             "%s is not a terminal: used without terminal settings, writes of at most %d bytes",
             path, kNodeWriteBytes);
    setWriteLimit(fd, kNodeWriteBytes);
    return OS_ADAPT_SUCCESS;
}

int CSerialPort::Close(int handle) {
    if (handle != -1) {
        setWriteLimit(handle, 0);
        g_calls.close(handle);
    }
    return OS_ADAPT_SUCCESS;
}

int CSerialPort::Read(int handle, void* buffer, int length, int* count) {
    int result = -1;
    if (handle != -1) {
        pollfd pfd{handle, POLLIN, 0};
        if (g_calls.poll(&pfd, 1, -1) >= 0) {
            if (buffer == nullptr || length <= 0) {
                int waiting = 0;
                result = ioctl(handle, FIONREAD, &waiting) == 0 ? waiting : -1;
            } else {
                result =
                    static_cast<int>(g_calls.read(handle, buffer, static_cast<size_t>(length)));
            }
        }
    }
    if (count != nullptr) {
        *count = result;
    }
    return result > 0 ? OS_ADAPT_SUCCESS : OS_ADAPT_FAILED;
}

int CSerialPort::Write(int handle, const void* buffer, int length, int* count) {
    int result = -1;
    if (handle != -1 && buffer != nullptr && length > 0) {
        const size_t limit = writeLimit(handle);
        size_t size = static_cast<size_t>(length);
        size = limit != 0 ? std::min(size, limit) : size;
        result = static_cast<int>(g_calls.write(handle, buffer, size));
        // A node that takes less in one transfer than was thought: halves until it fits,
        // and the port keeps the size that fitted. The caller sends the rest.
        while (result < 0 && errno == EMSGSIZE && size > kSmallestWriteBytes) {
            size = std::max(size / 2, kSmallestWriteBytes);
            setWriteLimit(handle, size);
            result = static_cast<int>(g_calls.write(handle, buffer, size));
        }
    }
    if (count != nullptr) {
        *count = result;
    }
    return result > 0 ? OS_ADAPT_SUCCESS : OS_ADAPT_FAILED;
}

int OS_ADAPT_Open(const char* path, int* handle) {
    return serialPort().Open(path, handle);
}

int OS_ADAPT_OpenDump(const char* path, int* handle) {
    if (path == nullptr || path[0] == '\0' || handle == nullptr) {
        return OS_ADAPT_FAILED;
    }
    const int fd = g_calls.open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    *handle = fd;
    if (fd < 0) {
        DIAG_LOG(LOG_INFO, "Open %s failed with error code %d.\n", path, errno);
        return OS_ADAPT_FAILED;
    }
    // What already waits (the module's HELLO) is kept; a node that is no terminal (a PCIe
    // port) takes no terminal attributes.
    if (isatty(fd) && !configureRaw(fd, TCSANOW)) {
        g_calls.close(fd);
        *handle = -1;
        return OS_ADAPT_FAILED;
    }
    return OS_ADAPT_SUCCESS;
}

int OS_ADAPT_Close(int handle) {
    return serialPort().Close(handle);
}

int OS_ADAPT_Read(int handle, void* buffer, int length, int* count) {
    return serialPort().Read(handle, buffer, length, count);
}

int OS_ADAPT_Write(int handle, const void* buffer, int length, int* count) {
    return serialPort().Write(handle, buffer, length, count);
}

int OS_ADAPT_WaitReadable(int handle, int timeoutMs) {
    if (handle == -1) {
        return -1;
    }
    pollfd pfd{handle, POLLIN, 0};
    const int rc = g_calls.poll(&pfd, 1, timeoutMs < 0 ? 0 : timeoutMs);
    if (rc < 0) {
        return -1;
    }
    return rc > 0 ? 1 : 0;
}

int OS_ADAPT_ReadNow(int handle, void* buffer, int length, int* count) {
    int result = -1;
    if (handle != -1 && buffer != nullptr && length > 0) {
        result = static_cast<int>(g_calls.read(handle, buffer, static_cast<size_t>(length)));
    }
    if (count != nullptr) {
        *count = result;
    }
    return result > 0 ? OS_ADAPT_SUCCESS : OS_ADAPT_FAILED;
}

int OS_ADAPT_WaitPortOrWake(int handle, int wakeFd, int timeoutMs) {
    if (handle == -1) {
        return -1;
    }
    pollfd pfds[2] = {{handle, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    const nfds_t count = wakeFd >= 0 ? 2 : 1;
    const int ready = g_calls.poll(pfds, count, timeoutMs < 0 ? -1 : timeoutMs);
    if (ready < 0) {
        return errno == EINTR ? 0 : -1;
    }
    if (ready == 0) {
        return 0;
    }
    if (count == 2 && pfds[1].revents != 0) {
        return 2;
    }
    // Hung up or gone, with nothing left to read: the port is lost.
    if ((pfds[0].revents & POLLIN) == 0 &&
        (pfds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
        errno = ENODEV;
        return -1;
    }
    return 1;
}

CWakeup::CWakeup() {
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        fds[0] = fds[1] = -1;
    }
}

CWakeup::~CWakeup() {
    for (int fd : fds) {
        if (fd != -1) {
            close(fd);
        }
    }
}

void CWakeup::Signal() {
    const char byte = 1;
    if (fds[1] != -1) {
        ssize_t ignored = write(fds[1], &byte, 1);
        (void)ignored;
    }
}

void CWakeup::Drain() {
    char buffer[64];
    while (fds[0] != -1 && read(fds[0], buffer, sizeof(buffer)) > 0) {
    }
}
