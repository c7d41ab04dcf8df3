#ifndef VREC_OSADAPT_SERIALPORT_H
#define VREC_OSADAPT_SERIALPORT_H

#include <poll.h>
#include <sys/types.h>

#include <cstddef>

// Status of the serial operations; for read and write, success means at least one byte
// moved.
constexpr int OS_ADAPT_SUCCESS = 30000;
constexpr int OS_ADAPT_FAILED = 30001;

// A port that is not a terminal takes at most this much in one write (a WWAN port refuses
// more than one transfer); a node that refuses that too gets halves, down to the second.
constexpr int kNodeWriteBytes = 32 * 1024;
constexpr size_t kSmallestWriteBytes = 512;

// The serial side of the platform: a port travels as its file descriptor, -1 for none.
class CSerialPort {
public:
    virtual ~CSerialPort() = default;

    int Open(const char* path, int* handle);
    int Close(int handle);
    int Read(int handle, void* buffer, int length, int* count);
    int Write(int handle, const void* buffer, int length, int* count);
};

// A terminal is made raw at 115200 baud; a node that is not one but passes a stream (the
// character devices of PCIe modules) is opened as it is, with no terminal settings.
int OS_ADAPT_Open(const char* path, int* handle);
// Opens a port of a module in dump mode: raw where it is a terminal, without discarding
// what the module sent before the open.
int OS_ADAPT_OpenDump(const char* path, int* handle);
int OS_ADAPT_Close(int handle);
// Waits without limit until data or a hang-up is there, then reads once. A null buffer or
// a length of 0 asks for the number of bytes waiting instead.
int OS_ADAPT_Read(int handle, void* buffer, int length, int* count);
// One write; on a port that is not a terminal at most as much as one transfer takes, so the
// count may be short and the caller sends the rest.
int OS_ADAPT_Write(int handle, const void* buffer, int length, int* count);

// The system calls the serial layer makes, gathered in one place so that tests can inject
// interrupted calls, hang-ups and failures.
struct SerialSysCalls {
    int (*open)(const char* path, int flags);
    int (*close)(int fd);
    ssize_t (*read)(int fd, void* buffer, size_t length);
    ssize_t (*write)(int fd, const void* buffer, size_t length);
    int (*poll)(pollfd* fds, nfds_t count, int timeoutMs);
};
SerialSysCalls& serialSysCalls();
// Puts the real system calls back.
void resetSerialSysCalls();

// Waits at most `timeoutMs` (0: just looks) until the port has data or was hung up.
// 1 when it is ready, 0 when the time ran out, -1 on a bad handle or a failed wait.
// Callers with a time limit wait here first, so that OS_ADAPT_Read then returns at once.
int OS_ADAPT_WaitReadable(int handle, int timeoutMs);

// One read without waiting first, for a caller that has just seen the port ready (through
// OS_ADAPT_WaitPortOrWake): the same statuses as OS_ADAPT_Read.
int OS_ADAPT_ReadNow(int handle, void* buffer, int length, int* count);

// Waits until the port has data or was hung up, or until `wakeFd` becomes readable, at most
// `timeoutMs` (-1: without limit). 1: the port is ready; 2: woken; 0: the time ran out;
// -1: a bad handle, a failed wait, or a port that is lost (hung up or in error with nothing
// left to read, errno ENODEV).
int OS_ADAPT_WaitPortOrWake(int handle, int wakeFd, int timeoutMs = -1);

// A pipe that lets one thread wake another that waits on a port, so that a stop does not
// have to outlast a silent module.
class CWakeup {
public:
    CWakeup();
    ~CWakeup();
    CWakeup(const CWakeup&) = delete;
    CWakeup& operator=(const CWakeup&) = delete;

    int Fd() const { return fds[0]; }
    void Signal();
    // Empties the pipe after a wake-up has been seen.
    void Drain();

private:
    int fds[2] = {-1, -1};
};

#endif
