#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>

#include "jthread.h"
#include "testkit.h"

namespace {

using Clock = std::chrono::steady_clock;
using testkit::msSince;
using testkit::waitFor;

// Static, so that a body that was let go never touches an object that is already gone.
std::atomic<int> g_entries{0};
std::atomic<bool> g_release{false};
std::atomic<bool> g_unwound{false};

// A body that counts its entries before the handshake and runs until its release flag is
// set, looking at it after every millisecond's sleep or, with blockFd, after each read of a
// descriptor that never has data (a port read without a time-out).
class Probe : public JThread {
public:
    int delayMs = 0;
    int blockFd = -1;
    std::atomic<bool>* release = &g_release;

protected:
    void* Thread() override {
        const std::atomic<bool>* const until = release;
        const int fd = blockFd;
        ++g_entries;
        usleep(static_cast<useconds_t>(delayMs) * 1000);
        ThreadStarted();
        struct OnEnd {
            ~OnEnd() { g_unwound = true; }
        } guard;
        do {
            char byte = 0;
            if (fd < 0 || read(fd, &byte, 1) < 0) {
                usleep(1000);
            }
        } while (!*until);
        return nullptr;
    }
};

}  // namespace

TEST(JThread, StartHandshakeAndRestart) {
    Probe probe;
    probe.delayMs = 150;
    const auto start = Clock::now();
    ASSERT_EQ(probe.Start(), 0);
    // Start waits for the body's ThreadStarted, not just for the thread to exist.
    EXPECT_GE(msSince(start), 140);
    EXPECT_TRUE(probe.IsRunning());
    EXPECT_EQ(probe.Start(), JThread::ERR_RUNNING);
    EXPECT_EQ(g_entries, 1);
    g_release = true;
    ASSERT_TRUE(waitFor([&] { return !probe.IsRunning(); }));
    // Once the body has ended, the same object starts again.
    g_release = false;
    probe.delayMs = 0;
    ASSERT_EQ(probe.Start(), 0);
    EXPECT_EQ(g_entries, 2);
    g_release = true;
    ASSERT_TRUE(waitFor([&] { return !probe.IsRunning(); }));
}

TEST(JThread, StopProtocolWaitsThenInterruptsAndLetsGo) {
    Probe probe;
    ASSERT_EQ(probe.Start(), 0);
    g_release = true;
    auto start = Clock::now();
    EXPECT_TRUE(probe.WaitOrKill());
    EXPECT_LT(msSince(start), 1000);

    // A body blocked in a read without a time-out is woken once the limit of whole seconds
    // has passed, sees its flag and ends.
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    probe.blockFd = pipeFds[0];
    ASSERT_EQ(probe.Start(), 0);
    g_unwound = false;
    start = Clock::now();
    EXPECT_FALSE(probe.WaitOrKill());
    EXPECT_GE(msSince(start), (JThread::STOP_LIMIT_SECONDS - 1) * 1000);
    EXPECT_LE(msSince(start), (JThread::STOP_LIMIT_SECONDS + 1) * 1000);
    EXPECT_FALSE(probe.IsRunning());
    EXPECT_TRUE(waitFor([] { return g_unwound.load(); }));
    probe.blockFd = -1;

    // A body that does not end is let go at once: the object starts again, and when the
    // old thread ends at last it leaves the new run alone.
    static std::atomic<bool> oldRelease{false};
    static std::atomic<bool> newRelease{false};
    probe.release = &oldRelease;
    ASSERT_EQ(probe.Start(), 0);
    EXPECT_EQ(probe.Kill(), 0);
    EXPECT_FALSE(probe.IsRunning());
    EXPECT_EQ(probe.Kill(), JThread::ERR_NOT_RUNNING);
    probe.release = &newRelease;
    ASSERT_EQ(probe.Start(), 0);
    g_unwound = false;
    oldRelease = true;
    EXPECT_TRUE(waitFor([] { return g_unwound.load(); }));
    usleep(20000);
    EXPECT_TRUE(probe.IsRunning());
    newRelease = true;
    EXPECT_TRUE(waitFor([&] { return !probe.IsRunning(); }));
    close(pipeFds[0]);
    close(pipeFds[1]);
}
