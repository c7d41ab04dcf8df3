#ifndef VREC_CORE_JMUTEX_H
#define VREC_CORE_JMUTEX_H

#include <pthread.h>

// Recursive mutex that knows whether it was set up. One thread may take it again,
// which the diagnostic log and the AT exchange rely on.
class JMutex {
public:
    static constexpr int ERR_ALREADY_INIT = -1;
    static constexpr int ERR_NOT_INIT = -2;
    static constexpr int ERR_CREATE = -3;

    JMutex();
    ~JMutex();
    JMutex(const JMutex&) = delete;
    JMutex& operator=(const JMutex&) = delete;

    int Init();
    int Lock();
    int Unlock();
    bool IsInitialized() const { return initialized; }

private:
    pthread_mutex_t mutex;
    bool initialized = false;
};

// Scoped lock over a JMutex; Release() lets go early.
class JMutexAutoLock {
public:
    explicit JMutexAutoLock(JMutex* mutex);
    ~JMutexAutoLock();
    JMutexAutoLock(const JMutexAutoLock&) = delete;
    JMutexAutoLock& operator=(const JMutexAutoLock&) = delete;

    void Release();

private:
    JMutex* mutex;
    bool held;
};

#endif
