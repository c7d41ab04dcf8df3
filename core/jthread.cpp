#include "jthread.h"

#include <sched.h>
#include <time.h>
#include <initializer_list>
#include <unistd.h>

JThread::JThread() = default;

JThread::~JThread() {
    JMutexAutoLock lock(&runningMutex);
    if (running) {
        pthread_cancel(threadId);
        running = false;
    }
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

    continueMutex.Lock();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    const int rc = pthread_create(&threadId, &attr, TheThread, this);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
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
    auto* self = static_cast<JThread*>(param);
    self->continueMutex2.Lock();
    self->runningMutex.Lock();
    self->running = true;
    self->runningMutex.Unlock();

    self->continueMutex.Lock();
    self->continueMutex.Unlock();

    void* result = self->Thread();

    self->runningMutex.Lock();
    self->returnValue = result;
    self->running = false;
    self->runningMutex.Unlock();
    return nullptr;
}

void JThread::ThreadStarted() { continueMutex2.Unlock(); }

int JThread::Kill() {
    JMutexAutoLock lock(&runningMutex);
    if (!running) {
        return ERR_NOT_RUNNING;
    }
    pthread_cancel(threadId);
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
