#ifndef VREC_CORE_JTHREAD_H
#define VREC_CORE_JTHREAD_H

#include <pthread.h>

#include <memory>
#include <mutex>

#include "jmutex.h"

// A detached thread with a start handshake: Start() returns only once the new thread is
// inside its body. Threads are never joined; IsRunning() is the only sign of their end.
//
// Kill() does not cancel (Android's C library has no pthread_cancel): it interrupts the
// system call the thread waits in, so that a body blocked on a port without a time-out
// wakes, sees its run flag cleared and ends; and it lets the thread go, so that whenever the
// thread ends it no longer touches this object, which may be started again or destroyed.
class JThread {
public:
    static constexpr int ERR_MUTEX_INIT = -1;
    static constexpr int ERR_START = -2;
    static constexpr int ERR_NOT_RUNNING = -4;
    static constexpr int ERR_RUNNING = -5;

    // Seconds an owner waits for its worker to notice its run flag before killing it.
    static constexpr int STOP_LIMIT_SECONDS = 5;

    JThread();
    virtual ~JThread();
    JThread(const JThread&) = delete;
    JThread& operator=(const JThread&) = delete;

    int Start();
    // Interrupts the running thread's blocking call and lets it go; -4 if not running.
    int Kill();
    bool IsRunning();
    void* GetReturnValue();

    // The stop protocol, once the owner has cleared its run flag: wait while the thread
    // runs, in steps of 80 ms, until more than `limitSeconds` whole seconds have passed
    // since the wait began, then Kill() it. Returns true when the thread ended by itself.
    bool WaitOrKill(int limitSeconds = STOP_LIMIT_SECONDS);

protected:
    virtual void* Thread() = 0;
    // Every body calls this first; Start() waits for it.
    void ThreadStarted();

private:
    // What a thread keeps of the object that started it: the object, until it lets the
    // thread go. The thread's last step goes through it.
    struct Tie {
        std::mutex lock;
        JThread* owner = nullptr;
    };
    struct Launch {
        JThread* self;
        std::shared_ptr<Tie> tie;
    };

    static void* TheThread(void* param);

    std::shared_ptr<Tie> tie;
    pthread_t threadId{};
    void* returnValue = nullptr;
    bool running = false;
    JMutex runningMutex;
    JMutex continueMutex;
    JMutex continueMutex2;
    bool mutexInit = false;
};

// Gives the calling thread the nice value `niceValue` (lower runs first), where the system
// permits it; false where it does not.
bool RaiseCallingThreadPriority(int niceValue);

template <class Owner, class Result>
class JThreadT;

// Runs a member function of its owner as a thread. The owner binds it right before Start.
template <class Owner>
class JThreadT<Owner, void> : public JThread {
public:
    using Body = void (Owner::*)();

    JThreadT() = default;
    ~JThreadT() override { WaitOrKill(); }

    void Bind(Body function, Owner* object) {
        body = function;
        owner = object;
    }

protected:
    void* Thread() override {
        ThreadStarted();
        if (owner != nullptr && body != nullptr) {
            (owner->*body)();
        }
        return nullptr;
    }

private:
    Body body = nullptr;
    Owner* owner = nullptr;
};

#endif
