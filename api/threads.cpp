// The dps... wrappers over POSIX threads.
#include <cerrno>
#include <cstdio>

#include "api/tsmconnector.h"

namespace {

// Prints the message with the error number where there is one, and hands the number back.
int Reported(const char* message, int error) {
    if (error != 0) std::printf(message, error);
    return error;
}

}  // namespace

int dpsMutexInit(pthread_mutex_t* mutex) {
    return Reported("Mutex init failed: %d.\n", pthread_mutex_init(mutex, nullptr));
}

int dpsMutexDestroy(pthread_mutex_t* mutex) {
    return Reported("Mutex destroy failed: %d.\n", pthread_mutex_destroy(mutex));
}

int dpsMutexLock(pthread_mutex_t* mutex) {
    return Reported("Mutex lock failed: %d.\n", pthread_mutex_lock(mutex));
}

int dpsMutexUnlock(pthread_mutex_t* mutex) {
    return Reported("Mutex unlock failed: %d.\n", pthread_mutex_unlock(mutex));
}

int dpsCreateCondition(pthread_cond_t* condition) {
    return Reported("Condition init failed: %d.\n", pthread_cond_init(condition, nullptr));
}

int dpsDestroyCondition(pthread_cond_t* condition) {
    return Reported("Condition Destroy failed: %d.\n", pthread_cond_destroy(condition));
}

int dpsWaitCondition(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    int error;
    do {
        error = pthread_cond_wait(condition, mutex);
    } while (error == EINTR);
    return Reported("Condition wait failed: error %d\n", error);
}

int dpsSignalCondition(pthread_cond_t* condition) {
    return Reported("Condition signal failed: %d.\n", pthread_cond_signal(condition));
}

int dpsThreadCreate(void* (*start)(void*), void* argument) {
    pthread_t thread;
    pthread_create(&thread, nullptr, start, argument);
    return 0;
}
