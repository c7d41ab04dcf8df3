#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "jmutex.h"
#include "jthread.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

template <class Condition>
bool waitFor(Condition condition, int timeoutMs = 2000) {
    const auto start = Clock::now();
    while (!condition()) {
        if (msSince(start) > timeoutMs) {
            return false;
        }
        usleep(1000);
    }
    return true;
}

// A body that records its entry before the handshake and runs until released.
class Probe : public JThread {
public:
    std::atomic<int> entries{0};
    std::atomic<bool> release{false};
    int delayBeforeStartedMs = 0;
    int result = 0;

protected:
    void* Thread() override {
        ++entries;
        usleep(static_cast<useconds_t>(delayBeforeStartedMs) * 1000);
        ThreadStarted();
        while (!release) {
            usleep(1000);
        }
        return &result;
    }
};

// An owner whose worker may or may not look at its run flag.
class Worker {
public:
    std::atomic<bool> running{false};
    // Static so that a cancelled body never touches an object that is already gone.
    static std::atomic<bool> unwound;

    void polite() {
        while (running) {
            usleep(1000);
        }
    }
    void stubborn() {
        struct OnUnwind {
            ~OnUnwind() { unwound = true; }
        } guard;
        for (;;) {
            usleep(10000);
        }
    }
};
std::atomic<bool> Worker::unwound{false};

}  // namespace

TEST(JThread, StartHandshakeAndStates) {
    Probe probe;
    EXPECT_EQ(probe.Kill(), JThread::ERR_NOT_RUNNING);
    probe.delayBeforeStartedMs = 150;
    const auto start = Clock::now();
    ASSERT_EQ(probe.Start(), 0);
    // Start waits for the body's ThreadStarted, not just for the thread to exist.
    EXPECT_GE(msSince(start), 140);
    EXPECT_EQ(probe.entries, 1);
    EXPECT_TRUE(probe.IsRunning());
    EXPECT_EQ(probe.GetReturnValue(), nullptr);
    EXPECT_EQ(probe.Start(), JThread::ERR_RUNNING);
    EXPECT_EQ(probe.entries, 1);

    probe.release = true;
    ASSERT_TRUE(waitFor([&] { return !probe.IsRunning(); }));
    EXPECT_EQ(probe.GetReturnValue(), &probe.result);
    EXPECT_EQ(probe.Kill(), JThread::ERR_NOT_RUNNING);

    // Once the body has ended, the same object starts again.
    probe.release = false;
    probe.delayBeforeStartedMs = 0;
    ASSERT_EQ(probe.Start(), 0);
    EXPECT_EQ(probe.entries, 2);
    EXPECT_TRUE(probe.IsRunning());
    probe.release = true;
    ASSERT_TRUE(waitFor([&] { return !probe.IsRunning(); }));
}

TEST(JThread, StopProtocolWaitsThenKills) {
    Worker owner;
    JThreadT<Worker, void> thread;
    owner.running = true;
    thread.Bind(&Worker::polite, &owner);
    ASSERT_EQ(thread.Start(), 0);
    owner.running = false;
    auto start = Clock::now();
    EXPECT_TRUE(thread.WaitOrKill());
    EXPECT_LT(msSince(start), 1000);

    // A body that ignores its flag is cancelled once the limit of whole seconds has passed.
    Worker::unwound = false;
    thread.Bind(&Worker::stubborn, &owner);
    ASSERT_EQ(thread.Start(), 0);
    start = Clock::now();
    EXPECT_FALSE(thread.WaitOrKill());
    const long waited = msSince(start);
    EXPECT_GE(waited, (JThread::STOP_LIMIT_SECONDS - 1) * 1000);
    EXPECT_LE(waited, (JThread::STOP_LIMIT_SECONDS + 1) * 1000);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(waitFor([] { return Worker::unwound.load(); }));

    // Kill on a running thread acts at once, and the object can be started again.
    Worker::unwound = false;
    ASSERT_EQ(thread.Start(), 0);
    EXPECT_EQ(thread.Kill(), 0);
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(waitFor([] { return Worker::unwound.load(); }));
    EXPECT_EQ(thread.Kill(), JThread::ERR_NOT_RUNNING);
}

TEST(JMutex, RecursiveAndScoped) {
    JMutex mutex;
    EXPECT_TRUE(mutex.IsInitialized());
    EXPECT_EQ(mutex.Init(), JMutex::ERR_ALREADY_INIT);

    ASSERT_EQ(mutex.Lock(), 0);
    ASSERT_EQ(mutex.Lock(), 0);  // the same thread takes it again
    std::atomic<bool> acquired{false};
    std::thread other([&] {
        JMutexAutoLock lock(&mutex);
        acquired = true;
    });
    mutex.Unlock();
    // Still held once; a short look is enough to see the other thread kept out.
    usleep(50000);
    EXPECT_FALSE(acquired);
    mutex.Unlock();
    other.join();
    EXPECT_TRUE(acquired);

    // An early release leaves nothing for the destructor to unlock.
    {
        JMutexAutoLock lock(&mutex);
        lock.Release();
        std::thread([&] { JMutexAutoLock inner(&mutex); }).join();
    }
}
