// vrec-modemsim --wwan: the stand-ins for a PCIe module's ports behave as the kernel's WWAN
// ports do, seen from the host's side with plain system calls.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

#include "hdlc.h"
#include "testkit.h"

namespace {

// A request the module answers: log configuration operation 0.
const std::string kRequest = vtools::frame(std::string("\x73\0\0\0\0\0\0\0", 8));

using testkit::has;

short pollOnce(int fd, int timeoutMs) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, timeoutMs) == 1 ? pfd.revents : 0;
}

TEST(WwanStandIns, ReadWritePollLimitsTerminalSettingsAndAReset) {
#ifndef VREC_SIM_WWAN
    GTEST_SKIP() << "vrec-modemsim was built without libfuse3";
#else
    const int fuse = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fuse == -1 || unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        GTEST_SKIP() << "no FUSE or no mount namespace of our own: " << strerror(errno);
    }
    close(fuse);
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--diag", "diag", "--pcui", "pcui", "--wwan",
                                       dir.file("wwan"), "--sysfs", dir.file("tree")});
    ASSERT_TRUE(sim.ready);
    const std::string qcdm = dir.file("wwan/wwan0qcdm0");
    EXPECT_EQ(testkit::readFile(dir.file("tree/sys/class/wwan/wwan0qcdm0/type")), "QCDM\n");
    EXPECT_EQ(testkit::readFile(dir.file("tree/sys/class/wwan/wwan0at0/type")), "AT\n");
    EXPECT_EQ(testkit::readFile(dir.file("tree/sys/class/wwan/wwan0/index")), "0\n");

    // Not a terminal: asking for the settings fails, setting them fails and is recorded.
    const int port = open(qcdm.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(-1, port) << strerror(errno);
    EXPECT_FALSE(isatty(port));
    termios tio{};
    EXPECT_EQ(-1, ioctl(port, TCSETSF, &tio));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_TRUE(testkit::waitFor(
        [&] { return has(sim.record(), "refused terminal settings on wwan0qcdm0"); }));

    // Without data: a read that may not wait says so, a poll waits; then the answer comes.
    char buffer[256];
    EXPECT_EQ(-1, read(port, buffer, sizeof(buffer)));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0, pollOnce(port, 100));
    const int blocking = open(qcdm.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, blocking);
    auto waiting = std::async(std::launch::async, [&] { return read(blocking, buffer, 256); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(std::chrono::milliseconds(300)));
    EXPECT_EQ(static_cast<ssize_t>(kRequest.size()), write(port, kRequest.data(), kRequest.size()));
    ASSERT_EQ(std::future_status::ready, waiting.wait_for(std::chrono::seconds(5)));
    const std::string answer = vtools::frame(std::string("\x73\0\0\0\0\0\0\0\0\0\0\0", 12));
    EXPECT_EQ(testkit::hex(answer),
              testkit::hex(std::string(buffer, static_cast<size_t>(waiting.get()))));
    EXPECT_EQ(static_cast<ssize_t>(kRequest.size()), write(port, kRequest.data(), kRequest.size()));
    EXPECT_EQ(POLLIN, pollOnce(port, 2000));
    EXPECT_EQ(static_cast<ssize_t>(answer.size()), read(port, buffer, sizeof(buffer)));

    // One transfer at the most.
    const std::string big(0x8001, '\x7e');
    EXPECT_EQ(-1, write(port, big.data(), big.size()));
    EXPECT_EQ(EMSGSIZE, errno);
    EXPECT_EQ(0x8000, write(port, big.data(), 0x8000));

    // A reset: the open files fail, the names go, and the ports come back as wwan1.
    sim.control("hangup=all:200");
    EXPECT_EQ(POLLHUP | POLLERR, pollOnce(port, 2000));
    EXPECT_EQ(-1, read(port, buffer, sizeof(buffer)));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, read(blocking, buffer, sizeof(buffer)));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, write(port, "x", 1));
    EXPECT_EQ(ENODEV, errno);
    EXPECT_TRUE(testkit::waitFor([&] { return testkit::fileExists(dir.file("wwan/wwan1at0")); }));
    EXPECT_FALSE(testkit::fileExists(qcdm));
    EXPECT_EQ(testkit::readFile(dir.file("tree/sys/class/wwan/wwan1qcdm0/type")), "QCDM\n");
    EXPECT_FALSE(testkit::fileExists(dir.file("tree/sys/class/wwan/wwan0")));
    const int again = open(dir.file("wwan/wwan1qcdm0").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(-1, again);
    EXPECT_EQ(static_cast<ssize_t>(kRequest.size()),
              write(again, kRequest.data(), kRequest.size()));
    EXPECT_EQ(POLLIN, pollOnce(again, 2000));
    for (int fd : {port, blocking, again}) {
        close(fd);
    }
#endif
}

}  // namespace
