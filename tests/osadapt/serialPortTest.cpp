#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "diagLog.h"
#include "serialport.h"
#include "testkit.h"

using testkit::hex;

namespace {

// An injected call counts itself and gives the planned answer with the planned errno.
int g_calls = 0;
ssize_t g_answer = 0;
int g_errno = 0;

ssize_t planned() {
    ++g_calls;
    errno = g_errno;
    return g_answer;
}
bool g_pollFails = false;
int fakePoll(pollfd* fds, nfds_t, int) {
    fds[0].revents = POLLIN;
    return g_pollFails ? static_cast<int>(planned()) : 1;
}

int waitingBytes(int fd, int atLeast) {
    int waiting = 0;
    testkit::waitFor([&] { return ioctl(fd, FIONREAD, &waiting) != 0 || waiting >= atLeast; });
    return waiting;
}

// Each case logs into a directory of its own and ends with the real system calls.
class SerialPort : public ::testing::Test {
protected:
    SerialPort() : inside(dir.path()) { DiagLog::destroyDiagLog(); }
    ~SerialPort() override {
        resetSerialSysCalls();
        DiagLog::destroyDiagLog();
    }
    std::string log() const { return testkit::readFile(dir.file("vrec.log")); }

    testkit::TempDir dir;
    testkit::CurrentDir inside;
};

}  // namespace

// A cooked line with input waiting, as a freshly plugged module may have it: the open drops
// the input and makes the line raw, so that every byte passes unchanged both ways, without
// echo, signals, line editing or flow control.
TEST_F(SerialPort, OpenMakesTheLineRawAndBytesPassUnchangedUntilHangUp) {
    testkit::Pty pty;
    termios tio{};
    ASSERT_EQ(tcgetattr(pty.slave(), &tio), 0);
    tio.c_lflag |= ICANON | ECHO | ISIG;
    tio.c_oflag |= OPOST | ONLCR;
    tio.c_iflag |= ICRNL | IXON | ISTRIP;
    tio.c_cc[VMIN] = 1;
    cfsetspeed(&tio, B9600);
    ASSERT_EQ(tcsetattr(pty.slave(), TCSANOW, &tio), 0);
    pty.writeMaster("stale\n");
    ASSERT_GT(waitingBytes(pty.slave(), 1), 0);
    EXPECT_EQ(pty.readMaster(7, 2000), "stale\r\n");  // the cooked line's echo

    int handle = -1;
    ASSERT_EQ(OS_ADAPT_Open(pty.slaveName().c_str(), &handle), OS_ADAPT_SUCCESS);
    ASSERT_EQ(tcgetattr(handle, &tio), 0);
    EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    EXPECT_EQ(tio.c_cc[VTIME], 0);
    EXPECT_EQ(waitingBytes(handle, 0), 0);
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));

    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }
    int count = 0;
    EXPECT_EQ(OS_ADAPT_Write(handle, bytes.data(), 256, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 256);
    EXPECT_EQ(hex(pty.readMaster(256, 2000)), hex(bytes));

    pty.writeMaster(bytes);
    ASSERT_EQ(waitingBytes(handle, 256), 256);
    // Without a buffer, the count is what is waiting.
    EXPECT_EQ(OS_ADAPT_Read(handle, nullptr, 16, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 256);
    char buffer[512];
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(hex(std::string(buffer, static_cast<size_t>(count))), hex(bytes));
    EXPECT_EQ(pty.readMaster(1, 100), "");  // nothing echoed

    // An unplugged module: the wait ends and the read fails, as does a write.
    pty.closeMaster();
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_FAILED);
    EXPECT_LE(count, 0);
    EXPECT_EQ(OS_ADAPT_Read(handle, nullptr, 0, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(OS_ADAPT_Write(handle, "x", 1, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(OS_ADAPT_Close(handle), OS_ADAPT_SUCCESS);
}

TEST_F(SerialPort, FailureStatuses) {
    const int descriptors = testkit::openDescriptorCount();
    int handle = 77;
    EXPECT_EQ(OS_ADAPT_Open(nullptr, &handle), OS_ADAPT_FAILED);
    EXPECT_EQ(handle, 77);
    // Not a terminal: opened, refused, closed again, silently.
    testkit::writeFile(dir.file("plain"), "not a tty");
    EXPECT_EQ(OS_ADAPT_Open(dir.file("plain").c_str(), &handle), OS_ADAPT_FAILED);
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(testkit::openDescriptorCount(), descriptors);
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));
    const std::string missing = dir.file("ttyUSB9");
    EXPECT_EQ(OS_ADAPT_Open(missing.c_str(), &handle), OS_ADAPT_FAILED);
    EXPECT_NE(log().find("Open " + missing + " failed with error code 2."), std::string::npos);
    EXPECT_EQ(log().find("Permission denied"), std::string::npos);

    SerialSysCalls& calls = serialSysCalls();
    calls.open = [](const char*, int) { return static_cast<int>(planned()); };
    calls.close = [](int) { return static_cast<int>(planned()); };
    calls.read = [](int, void*, size_t) { return planned(); };
    calls.write = [](int, const void*, size_t) { return planned(); };
    calls.poll = fakePoll;
    g_answer = -1;
    g_errno = EACCES;
    EXPECT_EQ(OS_ADAPT_Open("/dev/ttyUSB0", &handle), OS_ADAPT_FAILED);
    EXPECT_NE(log().find("Open /dev/ttyUSB0 failed with error code 13.\n"), std::string::npos);
    EXPECT_NE(log().find("\tPermission denied."), std::string::npos);

    // Refused arguments make no system call; a failing close is not looked at.
    char buffer[64] = {};
    int count = 0;
    g_calls = 0;
    EXPECT_EQ(OS_ADAPT_Read(-1, buffer, 8, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(OS_ADAPT_Write(42, nullptr, 8, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(g_calls, 0);
    EXPECT_EQ(OS_ADAPT_Close(42), OS_ADAPT_SUCCESS);

    // An interrupted wait fails the read, with nothing read and nothing retried. Then the
    // answers of read and write themselves: a short write succeeds and the caller compares
    // the count; a full or unplugged port fails. Rows: write or read, the wait fails, the
    // call's answer and errno, the status.
    const std::tuple<bool, bool, ssize_t, int, int> cases[] = {
        {false, true, -1, EINTR, OS_ADAPT_FAILED},  {false, false, -1, EIO, OS_ADAPT_FAILED},
        {false, false, -1, EINTR, OS_ADAPT_FAILED}, {false, false, 0, 0, OS_ADAPT_FAILED},
        {false, false, 1, 0, OS_ADAPT_SUCCESS},     {true, false, 61, 0, OS_ADAPT_SUCCESS},
        {true, false, -1, ENOSPC, OS_ADAPT_FAILED}, {true, false, -1, ENODEV, OS_ADAPT_FAILED},
        {true, false, 0, 0, OS_ADAPT_FAILED}};
    for (const auto& [write, pollFails, answer, error, status] : cases) {
        g_calls = 0;
        g_pollFails = pollFails;
        g_answer = answer;
        g_errno = error;
        EXPECT_EQ(status, write ? OS_ADAPT_Write(42, buffer, sizeof(buffer), &count)
                                : OS_ADAPT_Read(42, buffer, sizeof(buffer), &count))
            << (write ? "write " : "read ") << answer;
        EXPECT_EQ(count, answer);
        EXPECT_EQ(g_calls, 1);
    }
}

namespace {

// The sizes the injected write was asked for; it refuses anything above `g_takes` as a WWAN
// port refuses more than one transfer.
std::vector<size_t> g_asked;
size_t g_takes = 0;
ssize_t boundedWrite(int, const void*, size_t length) {
    g_asked.push_back(length);
    if (length > g_takes) {
        errno = EMSGSIZE;
        return -1;
    }
    return static_cast<ssize_t>(length);
}

}  // namespace

// A node that is not a terminal but passes a stream (here a FIFO, as a WWAN port would)
// opens without terminal settings (a plain file does not: see FailureStatuses).
TEST_F(SerialPort, NodesThatAreNoTerminalsOpenAsTheyAre) {
    const std::string fifo = dir.file("wwan0qcdm0");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int handle = -1;
    ASSERT_EQ(OS_ADAPT_Open(fifo.c_str(), &handle), OS_ADAPT_SUCCESS);
    EXPECT_NE(log().find(fifo + " is not a terminal"), std::string::npos);
    const int descriptors = testkit::openDescriptorCount() - 1;  // the log's stays open
    int count = 0;
    EXPECT_EQ(OS_ADAPT_Write(handle, "\x1d\x1c\x3b\x7e", 4, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(OS_ADAPT_WaitPortOrWake(handle, -1, 2000), 1);
    char buffer[16];
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(hex(std::string(buffer, static_cast<size_t>(count))), "1D 1C 3B 7E");
    EXPECT_EQ(OS_ADAPT_Close(handle), OS_ADAPT_SUCCESS);
    EXPECT_EQ(testkit::openDescriptorCount(), descriptors);
}

// Writes to such a node go in pieces of one transfer; a node that takes less than that
// gets halves, and its port keeps the size that went through. A terminal is not cut.
TEST_F(SerialPort, WritesToANodeAreKeptToWhatOneTransferTakes) {
    const std::string fifo = dir.file("mhi_DUN");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int node = -1;
    ASSERT_EQ(OS_ADAPT_Open(fifo.c_str(), &node), OS_ADAPT_SUCCESS);
    testkit::Pty pty;
    int tty = -1;
    ASSERT_EQ(OS_ADAPT_Open(pty.slaveName().c_str(), &tty), OS_ADAPT_SUCCESS);
    serialSysCalls().write = boundedWrite;
    const std::string big(100000, 'x');
    int count = 0;
    // Rows: the node's transfer size, then the sizes each of two writes asks for.
    const std::tuple<size_t, std::vector<size_t>, std::vector<size_t>> cases[] = {
        {32768, {32768}, {32768}},
        {20000, {16384}, {16384}},  // 32768 refused, 16384 taken and kept
        {600, {1024, 512}, {512}},  // halved to the smallest size, no further
    };
    for (const auto& [takes, first, second] : cases) {
        SCOPED_TRACE(takes);
        g_takes = takes;
        for (const auto& expected : {first, second}) {
            g_asked.clear();
            EXPECT_EQ(OS_ADAPT_Write(node, big.data(), static_cast<int>(big.size()), &count),
                      OS_ADAPT_SUCCESS);
            EXPECT_EQ(static_cast<size_t>(count), expected.back());
            EXPECT_EQ(std::vector<size_t>(g_asked.end() - static_cast<long>(expected.size()),
                                          g_asked.end()),
                      expected);
        }
        OS_ADAPT_Close(node);  // a port opened anew starts again at one transfer
        ASSERT_EQ(OS_ADAPT_Open(fifo.c_str(), &node), OS_ADAPT_SUCCESS);
    }
    g_takes = big.size();
    g_asked.clear();
    EXPECT_EQ(OS_ADAPT_Write(tty, big.data(), static_cast<int>(big.size()), &count),
              OS_ADAPT_SUCCESS);
    EXPECT_EQ(g_asked, std::vector<size_t>{big.size()});
    g_takes = 10;
    EXPECT_EQ(OS_ADAPT_Write(node, "0123456789", 10, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 10);
    resetSerialSysCalls();
    OS_ADAPT_Close(node);
    OS_ADAPT_Close(tty);
}

// A port that hung up or is in error, with nothing left to read, is reported lost by the
// wait at once; with bytes left, they are read first. Rows: what poll reports, the wait.
TEST_F(SerialPort, AHungUpPortIsLostToTheWait) {
    static short reported = 0;
    serialSysCalls().poll = [](pollfd* fds, nfds_t, int) {
        fds[0].revents = reported;
        return 1;
    };
    const std::pair<short, int> cases[] = {{POLLHUP | POLLERR, -1}, {POLLHUP, -1},
                                           {POLLERR, -1},           {POLLNVAL, -1},
                                           {POLLIN | POLLHUP, 1},   {POLLIN, 1}};
    for (const auto& [events, wait] : cases) {
        reported = events;
        errno = 0;
        EXPECT_EQ(OS_ADAPT_WaitPortOrWake(42, -1, 0), wait) << events;
        EXPECT_EQ(errno, wait == -1 ? ENODEV : 0) << events;
    }
}
