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

// Static, so that a cancelled body never touches an object that is already gone.
std::atomic<int> g_entries{0};
std::atomic<bool> g_release{false};
std::atomic<bool> g_unwound{false};

// A body that counts its entries before the handshake and runs until released, or, when
// stubborn, until it is cancelled.
class Probe : public JThread {
public:
    int delayMs = 0;
    bool stubborn = false;

protected:
    void* Thread() override {
        ++g_entries;
        usleep(static_cast<useconds_t>(delayMs) * 1000);
        ThreadStarted();
        struct OnUnwind {
            ~OnUnwind() { g_unwound = true; }
        } guard;
        while (stubborn || !g_release) {
            usleep(1000);
        }
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

TEST(JThread, StopProtocolWaitsThenKills) {
    Probe probe;
    ASSERT_EQ(probe.Start(), 0);
    g_release = true;
    auto start = Clock::now();
    EXPECT_TRUE(probe.WaitOrKill());
    EXPECT_LT(msSince(start), 1000);

    // A body that ignores its flag is cancelled once the limit of whole seconds has passed.
    probe.stubborn = true;
    ASSERT_EQ(probe.Start(), 0);
    g_unwound = false;
    start = Clock::now();
    EXPECT_FALSE(probe.WaitOrKill());
    EXPECT_GE(msSince(start), (JThread::STOP_LIMIT_SECONDS - 1) * 1000);
    EXPECT_LE(msSince(start), (JThread::STOP_LIMIT_SECONDS + 1) * 1000);
    EXPECT_FALSE(probe.IsRunning());
    EXPECT_TRUE(waitFor([] { return g_unwound.load(); }));

    // Kill on a running thread acts at once, and the object can be started again.
    ASSERT_EQ(probe.Start(), 0);
    g_unwound = false;
    EXPECT_EQ(probe.Kill(), 0);
    EXPECT_FALSE(probe.IsRunning());
    EXPECT_TRUE(waitFor([] { return g_unwound.load(); }));
    EXPECT_EQ(probe.Kill(), JThread::ERR_NOT_RUNNING);
}
