#include "jthread.h"

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

namespace {

// The signal that wakes a thread from a blocking call. Its handler does nothing and is set
// without SA_RESTART, so the call fails with EINTR instead of going on.
int interruptSignal() {
    return SIGRTMIN + 1;
}

void installInterruptHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(interruptSignal(), &action, nullptr);
    });
}

}  // namespace

JThread::JThread() = default;

JThread::~JThread() {
    Kill();
}

int JThread::Start() {
    if (!mutexInit) {
        for (JMutex* m : {&runningMutex, &continueMutex, &continueMutex2}) {
            if (!m->IsInitialized() && m->Init() < 0) {
                return ERR_MUTEX_INIT;
            }
        }
        mutexInit = true;
    }
    {
        JMutexAutoLock lock(&runningMutex);
        if (running) {
            return ERR_RUNNING;
        }
    }
    installInterruptHandler();

    auto* launch = new Launch{this, std::make_shared<Tie>()};
    launch->tie->owner = this;
    tie = launch->tie;
    continueMutex.Lock();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const int rc = pthread_create(&threadId, &attr, TheThread, launch);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete launch;
        continueMutex.Unlock();
        return ERR_START;
    }

    // Wait until the new thread has marked itself running; yield between looks so that
    // a single core is not spent spinning against it.
    for (;;) {
        runningMutex.Lock();
        const bool started = running;
        runningMutex.Unlock();
        if (started) {
            break;
        }
        sched_yield();
    }
    continueMutex.Unlock();

    // The body releases continueMutex2 in ThreadStarted(); this waits for that.
    continueMutex2.Lock();
    continueMutex2.Unlock();
    return 0;
}

void* JThread::TheThread(void* param) {
    const std::unique_ptr<Launch> launch(static_cast<Launch*>(param));
    JThread* self = launch->self;
    self->continueMutex2.Lock();
    self->runningMutex.Lock();
    self->running = true;
    self->runningMutex.Unlock();

    self->continueMutex.Lock();
    self->continueMutex.Unlock();

    void* result = self->Thread();

    // The object may have let this thread go, and may be gone or running another thread.
    std::lock_guard<std::mutex> tieLock(launch->tie->lock);
    if (launch->tie->owner == self) {
        JMutexAutoLock lock(&self->runningMutex);
        self->returnValue = result;
        self->running = false;
    }
    return nullptr;
}

void JThread::ThreadStarted() {
    continueMutex2.Unlock();
}

int JThread::Kill() {
    // The tie first, then runningMutex: the order of the thread's last step.
    const std::shared_ptr<Tie> current = tie;
    if (!current) {
        return ERR_NOT_RUNNING;
    }
    std::lock_guard<std::mutex> tieLock(current->lock);
    JMutexAutoLock lock(&runningMutex);
    if (!running) {
        return ERR_NOT_RUNNING;
    }
    // The thread has not passed its last step, which needs the tie, so it still exists.
    current->owner = nullptr;
    pthread_kill(threadId, interruptSignal());
    running = false;
    return 0;
}

bool JThread::IsRunning() {
    JMutexAutoLock lock(&runningMutex);
    return running;
}

void* JThread::GetReturnValue() {
    JMutexAutoLock lock(&runningMutex);
    return running ? nullptr : returnValue;
}

bool JThread::WaitOrKill(int limitSeconds) {
    if (!IsRunning()) {
        return true;
    }
    const time_t begin = time(nullptr);
    while (IsRunning() && time(nullptr) - begin < limitSeconds) {
        usleep(80000);
    }
    if (IsRunning()) {
        Kill();
        return false;
    }
    return true;
}

bool RaiseCallingThreadPriority(int niceValue) {
    // On Linux a thread id names the one thread to setpriority().
    const long tid = syscall(SYS_gettid);
    return tid > 0 && setpriority(PRIO_PROCESS, static_cast<id_t>(tid), niceValue) == 0;
}
