#include "serialport.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "diagLog.h"

namespace {

int sysOpen(const char* path, int flags) {
    return ::open(path, flags);
}

const SerialSysCalls kRealCalls = {sysOpen, ::close, ::read, ::write, ::poll};
SerialSysCalls g_calls = kRealCalls;

CSerialPort& serialPort() {
    static CSerialPort port;
    return port;
}

// Raw 8N1 at 115200 with reads that never wait inside read(): the wait happens in poll.
bool configureRaw(int fd) {
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
    return tcsetattr(fd, TCSAFLUSH, &tio) == 0;
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
    if (!configureRaw(fd)) {
        const int err = errno;
        g_calls.close(fd);
        *handle = -1;
        errno = err;
        return OS_ADAPT_FAILED;
    }
    return OS_ADAPT_SUCCESS;
}

int CSerialPort::Close(int handle) {
    if (handle != -1) {
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
        result = static_cast<int>(g_calls.write(handle, buffer, static_cast<size_t>(length)));
    }
    if (count != nullptr) {
        *count = result;
    }
    return result > 0 ? OS_ADAPT_SUCCESS : OS_ADAPT_FAILED;
}

int OS_ADAPT_Open(const char* path, int* handle) {
    return serialPort().Open(path, handle);
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
