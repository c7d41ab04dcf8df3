#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include "diagLog.h"
#include "serialport.h"
#include "testkit.h"

using testkit::hex;

namespace {

// Every injected call counts itself, notes its descriptor and gives the planned answer.
int g_calls = 0;
int g_lastFd = -1;
ssize_t g_answer = 0;
int g_errno = 0;

ssize_t planned(int fd) {
    ++g_calls;
    g_lastFd = fd;
    errno = g_errno;
    return g_answer;
}
ssize_t fakeRead(int fd, void*, size_t) {
    return planned(fd);
}
ssize_t fakeWrite(int fd, const void*, size_t) {
    return planned(fd);
}
int fakeClose(int fd) {
    return static_cast<int>(planned(fd));
}
int fakeOpen(const char*, int) {
    return static_cast<int>(planned(-1));
}
int fakePoll(pollfd*, nfds_t, int) {
    return static_cast<int>(planned(-1));
}
int readyPoll(pollfd* fds, nfds_t, int) {
    fds[0].revents = POLLIN;
    return 1;
}

bool waitReadable(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, 2000) == 1;
}

// Each test logs into a directory of its own and leaves the real system calls in place.
class SerialPort : public ::testing::Test {
protected:
    SerialPort() : inside(dir.path()) {
        DiagLog::destroyDiagLog();
        g_calls = 0;
        g_answer = 0;
        g_errno = 0;
    }
    ~SerialPort() override {
        resetSerialSysCalls();
        DiagLog::destroyDiagLog();
    }
    std::string log() const { return testkit::readFile(dir.file("vrec.log")); }

    testkit::TempDir dir;
    testkit::CurrentDir inside;
};

}  // namespace

TEST_F(SerialPort, OpenMakesTheLineRawAndDropsStaleInput) {
    testkit::Pty pty;
    // Start from a cooked line with input waiting, as a freshly plugged module may have it.
    termios cooked{};
    ASSERT_EQ(tcgetattr(pty.slave(), &cooked), 0);
    cooked.c_lflag |= ICANON | ECHO | ISIG;
    cooked.c_oflag |= OPOST | ONLCR;
    cooked.c_iflag |= ICRNL | IXON | IXOFF | ISTRIP;
    cooked.c_cflag |= PARENB | CSTOPB;
    cooked.c_cc[VMIN] = 1;
    cooked.c_cc[VTIME] = 5;
    cfsetspeed(&cooked, B9600);
    ASSERT_EQ(tcsetattr(pty.slave(), TCSANOW, &cooked), 0);
    pty.writeMaster("stale\n");
    ASSERT_TRUE(waitReadable(pty.slave()));

    int handle = -1;
    ASSERT_EQ(OS_ADAPT_Open(pty.slaveName().c_str(), &handle), OS_ADAPT_SUCCESS);
    termios tio{};
    ASSERT_EQ(tcgetattr(handle, &tio), 0);
    EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B115200));
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    EXPECT_EQ(tio.c_cc[VTIME], 0);
    EXPECT_EQ(tio.c_oflag & OPOST, 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ISIG), 0u);
    EXPECT_EQ(tio.c_cflag & (CSIZE | CSTOPB | PARENB | CREAD | CLOCAL),
              static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(tio.c_iflag & (BRKINT | PARMRK | INPCK | ISTRIP | INLCR | IGNCR | ICRNL | IXON), 0u);
    EXPECT_EQ(tio.c_iflag & IXOFF, static_cast<tcflag_t>(IXOFF));  // left as the line had it
    int waiting = -1;
    ASSERT_EQ(ioctl(handle, FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 0);
    EXPECT_EQ(OS_ADAPT_Close(handle), OS_ADAPT_SUCCESS);
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));
}

TEST_F(SerialPort, BytesPassUnchangedUntilHangUp) {
    testkit::Pty pty;
    int handle = -1;
    ASSERT_EQ(OS_ADAPT_Open(pty.slaveName().c_str(), &handle), OS_ADAPT_SUCCESS);
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes += static_cast<char>(i);
    }

    int count = 0;
    EXPECT_EQ(OS_ADAPT_Write(handle, bytes.data(), 256, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 256);
    EXPECT_EQ(hex(pty.readMaster(256, 2000)), hex(bytes));

    pty.writeMaster(bytes);
    std::string got;
    char buffer[4096];
    while (got.size() < bytes.size() && waitReadable(handle)) {
        ASSERT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_SUCCESS);
        got.append(buffer, static_cast<size_t>(count));
    }
    EXPECT_EQ(hex(got), hex(bytes));

    // Without a buffer, or with a length of 0, the count is what is waiting.
    pty.writeMaster("12345");
    int waiting = 0;
    for (int i = 0; i < 2000 && waiting < 5; ++i) {
        ioctl(handle, FIONREAD, &waiting);
        usleep(1000);
    }
    EXPECT_EQ(OS_ADAPT_Read(handle, nullptr, 16, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, 0, &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_SUCCESS);
    EXPECT_EQ(std::string(buffer, 5), "12345");

    // An unplugged module: the wait ends and the read fails, as does a write.
    pty.closeMaster();
    EXPECT_EQ(OS_ADAPT_Read(handle, buffer, sizeof(buffer), &count), OS_ADAPT_FAILED);
    EXPECT_LE(count, 0);
    EXPECT_EQ(OS_ADAPT_Read(handle, nullptr, 0, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(OS_ADAPT_Write(handle, "x", 1, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(OS_ADAPT_Close(handle), OS_ADAPT_SUCCESS);
}

TEST_F(SerialPort, OpenFailures) {
    const int descriptors = testkit::openDescriptorCount();
    int handle = 77;
    EXPECT_EQ(OS_ADAPT_Open("", &handle), OS_ADAPT_FAILED);
    EXPECT_EQ(OS_ADAPT_Open(nullptr, &handle), OS_ADAPT_FAILED);
    EXPECT_EQ(handle, 77);

    // Not a terminal: opened, refused, closed again.
    testkit::writeFile(dir.file("plain"), "not a tty");
    for (const std::string& path : {dir.file("plain"), std::string("/dev/null")}) {
        handle = 77;
        EXPECT_EQ(OS_ADAPT_Open(path.c_str(), &handle), OS_ADAPT_FAILED) << path;
        EXPECT_EQ(handle, -1) << path;
    }
    EXPECT_EQ(testkit::openDescriptorCount(), descriptors);
    EXPECT_FALSE(testkit::fileExists(dir.file("vrec.log")));

    const std::string missing = dir.file("ttyUSB9");
    EXPECT_EQ(OS_ADAPT_Open(missing.c_str(), &handle), OS_ADAPT_FAILED);
    EXPECT_EQ(handle, -1);
    EXPECT_NE(log().find("Open " + missing + " failed with error code 2."), std::string::npos);
    EXPECT_EQ(log().find("Permission denied"), std::string::npos);

    serialSysCalls().open = fakeOpen;
    g_answer = -1;
    g_errno = EACCES;
    EXPECT_EQ(OS_ADAPT_Open("/dev/ttyUSB0", &handle), OS_ADAPT_FAILED);
    EXPECT_NE(log().find("Open /dev/ttyUSB0 failed with error code 13."), std::string::npos);
    EXPECT_NE(log().find("\tPermission denied."), std::string::npos);
}

TEST_F(SerialPort, RefusedArgumentsMakeNoSystemCall) {
    SerialSysCalls& calls = serialSysCalls();
    calls.close = fakeClose;
    calls.read = fakeRead;
    calls.write = fakeWrite;
    calls.poll = fakePoll;  // a wait on -1 would never end
    char buffer[8] = {};
    int count = 0;
    EXPECT_EQ(OS_ADAPT_Close(-1), OS_ADAPT_SUCCESS);
    EXPECT_EQ(OS_ADAPT_Read(-1, buffer, 8, &count), OS_ADAPT_FAILED);
    EXPECT_EQ(count, -1);
    for (const auto& [fd, data, length] :
         {std::make_tuple(-1, buffer, 8), std::make_tuple(42, buffer, 0),
          std::make_tuple(42, static_cast<char*>(nullptr), 8)}) {
        count = 0;
        EXPECT_EQ(OS_ADAPT_Write(fd, data, length, &count), OS_ADAPT_FAILED);
        EXPECT_EQ(count, -1);
    }
    EXPECT_EQ(g_calls, 0);

    g_answer = -1;  // a failing close is not looked at
    EXPECT_EQ(OS_ADAPT_Close(42), OS_ADAPT_SUCCESS);
    EXPECT_EQ(g_calls, 1);
    EXPECT_EQ(g_lastFd, 42);
}

TEST_F(SerialPort, InjectedFaults) {
    SerialSysCalls& calls = serialSysCalls();
    calls.read = fakeRead;
    calls.write = fakeWrite;
    char buffer[64] = {};
    int count = 0;

    // An interrupted wait is a failed read; nothing is read and nothing retried.
    calls.poll = fakePoll;
    g_answer = -1;
    g_errno = EINTR;
    EXPECT_EQ(OS_ADAPT_Read(42, buffer, sizeof(buffer), &count), OS_ADAPT_FAILED);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(g_calls, 1);

    // Then the answers of read and of write themselves. A short write still succeeds and
    // the caller compares the count; a full or unplugged port fails.
    calls.poll = readyPoll;
    struct Case {
        bool write;
        ssize_t answer;
        int error;
        int status;
    };
    const Case cases[] = {{false, -1, EIO, OS_ADAPT_FAILED},   {false, -1, EINTR, OS_ADAPT_FAILED},
                          {false, 0, 0, OS_ADAPT_FAILED},      {false, 1, 0, OS_ADAPT_SUCCESS},
                          {true, 61, 0, OS_ADAPT_SUCCESS},     {true, -1, ENOSPC, OS_ADAPT_FAILED},
                          {true, -1, ENODEV, OS_ADAPT_FAILED}, {true, 0, 0, OS_ADAPT_FAILED}};
    for (const Case& c : cases) {
        g_answer = c.answer;
        g_errno = c.error;
        const int status = c.write ? OS_ADAPT_Write(42, buffer, sizeof(buffer), &count)
                                   : OS_ADAPT_Read(42, buffer, sizeof(buffer), &count);
        EXPECT_EQ(status, c.status) << (c.write ? "write " : "read ") << c.answer;
        EXPECT_EQ(count, c.answer);
    }
    EXPECT_EQ(g_calls, 9);
}
