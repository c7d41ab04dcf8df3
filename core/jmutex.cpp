#include "jmutex.h"

JMutex::JMutex() {
    Init();
}

JMutex::~JMutex() {
    if (initialized) {
        pthread_mutex_destroy(&mutex);
    }
}

int JMutex::Init() {
    if (initialized) {
        return ERR_ALREADY_INIT;
    }
    pthread_mutexattr_t attr;
    if (pthread_mutexattr_init(&attr) != 0) {
        return ERR_CREATE;
    }
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    const int rc = pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        return ERR_CREATE;
    }
    initialized = true;
    return 0;
}

int JMutex::Lock() {
    if (!initialized) {
        return ERR_NOT_INIT;
    }
    pthread_mutex_lock(&mutex);
    return 0;
}

int JMutex::Unlock() {
    if (!initialized) {
        return ERR_NOT_INIT;
    }
    pthread_mutex_unlock(&mutex);
    return 0;
}

JMutexAutoLock::JMutexAutoLock(JMutex* m) : mutex(m), held(false) {
    if (mutex != nullptr && mutex->Lock() == 0) {
        held = true;
    }
}

JMutexAutoLock::~JMutexAutoLock() {
    if (held) {
        Release();
    }
}

void JMutexAutoLock::Release() {
    if (held && mutex != nullptr) {
        mutex->Unlock();
    }
    mutex = nullptr;
    held = false;
}
