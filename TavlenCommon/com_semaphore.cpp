#include <TavlenCommon/com_semaphore.h>
#include <TavlenCommon/com_semaphore_internal.h>

#include <cerrno>
#include <sys/time.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/report_as.h>

namespace {

constexpr unsigned retry_delay_seconds = 1;

bool is_known_type(uint32_t type)
{
    return type <= COM_SEMAPHORE_MUTEX;
}

int lock_once(com_semaphore *s, uint32_t type)
{
    return type == COM_SEMAPHORE_COUNTING ? sem_wait(s->sem) : pthread_mutex_lock(&s->mutex);
}

bool is_worth_a_retry(uint32_t type, int result, int error)
{
    return type == COM_SEMAPHORE_COUNTING ? result == -1 && error == EINTR : result == EDEADLK;
}

int init_semaphore(sem_t *sem, uint32_t value)
{
    constexpr int between_processes = 1;
    constexpr int within_process = 0;
    const int result = sem_init(sem, between_processes, value);
    return result != 0 && errno == ENOSYS ? sem_init(sem, within_process, value) : result;
}

} // namespace

void tavlen::insist_on_lock(com_semaphore *s, uint32_t type, int result)
{
    static ratelimit_slot not_locked;
    while (result != 0) {
        const int error = errno;
        if (!is_worth_a_retry(type, result, error)) {
            LPRINTF_AS("com_semaphore_lock_ex", not_locked,
                       "ERROR: unable to lock semaphore %d %d %d", result, error,
                       static_cast<int>(type));
            return;
        }
        // glibc waits without a signal here, in any thread. NOLINTNEXTLINE(concurrency-mt-unsafe)
        sleep(retry_delay_seconds);
        type = s->type;
        result = lock_once(s, type);
    }
}

void tavlen::report_not_unlocked()
{
    static ratelimit_slot not_unlocked;
    LPRINTF_AS("com_semaphore_unlock_ex", not_unlocked, "ERROR: unable to unlock mutex");
}

com_semaphore *com_semaphore_init(void)
{
    auto s = tavlen::allocate<com_semaphore>();
    if (s == nullptr) {
        LPRINTF("ERROR: low mem");
        return nullptr;
    }
    s->type = COM_SEMAPHORE_MUTEX;
    s->sem = nullptr;
    if (pthread_mutex_init(&s->mutex, nullptr) != 0) {
        LPRINTF("ERROR: unable to init. mutex");
        return nullptr;
    }
    return s.release();
}

com_semaphore *com_semaphore_int_init(uint32_t value)
{
    auto s = tavlen::allocate<com_semaphore>();
    if (s == nullptr) {
        LPRINTF("ERROR: low mem");
        return nullptr;
    }
    s->type = COM_SEMAPHORE_COUNTING;
    s->sem = &s->sem_storage;
    if (init_semaphore(s->sem, value) != 0) {
        LPRINTF("ERROR: unable to init. semaphore");
        return nullptr;
    }
    return s.release();
}

void com_semaphore_lock_ex(int quiet, com_semaphore *s)
{
    if (s == nullptr) {
        if (quiet == 0) {
            LPRINTF("ERROR: argument is NULL");
        }
        return;
    }
    const uint32_t type = s->type;
    if (!is_known_type(type)) {
        LPRINTF("ERROR: unknown type of semaphore: %d", static_cast<int>(type));
        return;
    }
    const int result = lock_once(s, type);
    if (result != 0) [[unlikely]] {
        tavlen::insist_on_lock(s, type, result);
    }
}

void com_semaphore_unlock_ex(int quiet, com_semaphore *s)
{
    if (s == nullptr) {
        if (quiet == 0) {
            LPRINTF("ERROR: argument is NULL");
        }
        return;
    }
    if (!is_known_type(s->type)) {
        LPRINTF("ERROR: unknown type of semaphore: %d", static_cast<int>(s->type));
        return;
    }
    const int result =
        s->type == COM_SEMAPHORE_COUNTING ? sem_post(s->sem) : pthread_mutex_unlock(&s->mutex);
    if (result != 0) [[unlikely]] {
        tavlen::report_not_unlocked();
    }
}

void com_semaphore_lock(com_semaphore *s)
{
    com_semaphore_lock_ex(0, s);
}

void com_semaphore_unlock(com_semaphore *s)
{
    com_semaphore_unlock_ex(0, s);
}

void com_semaphore_destroy(com_semaphore *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: argument is NULL");
        return;
    }
    int result = 0;
    if (s->type == COM_SEMAPHORE_COUNTING) {
        errno = 0;
        result = sem_destroy(s->sem);
    } else {
        errno = 0;
        const int locked = pthread_mutex_trylock(&s->mutex);
        const int error = errno;
        if (locked == EBUSY) {
            LPRINTF("WARNING: trying to destroy locked mutex");
        } else if (locked != 0) {
            LPRINTF("WARNING: trylock returns %d, %d", locked, error);
        }
        pthread_mutex_unlock(&s->mutex);
        errno = 0;
        result = pthread_mutex_destroy(&s->mutex);
    }
    if (result != 0) {
        const int error = errno;
        LPRINTF("ERROR: unable to destroy mutex %d, %d", result, error);
    }
    free(s);
}

// ----------------------------------------------------------------------------------- conditionals

com_conditional *com_conditional_init(void)
{
    auto c = tavlen::allocate<com_conditional>();
    if (c == nullptr) {
        LPRINTF("ERROR: low mem");
        return nullptr;
    }
    int result = pthread_mutex_init(&c->mutex, nullptr);
    if (result != 0) {
        LPRINTF("ERROR: unable to init. mutex %d", result);
        return nullptr;
    }
    result = pthread_mutex_lock(&c->mutex);
    if (result != 0) {
        LPRINTF("ERROR: pthread_mutex_lock failed %d", result);
    }
    result = pthread_cond_init(&c->cond, nullptr);
    if (result != 0) {
        LPRINTF("ERROR: unable to init. cond %d", result);
        pthread_mutex_destroy(&c->mutex);
        return nullptr;
    }
    return c.release();
}

void com_conditional_wait(com_conditional *c)
{
    if (c == nullptr) {
        LPRINTF("ERROR: parameter invalid");
        return;
    }
    const int result = pthread_cond_wait(&c->cond, &c->mutex);
    if (result != 0) {
        LPRINTF("ERROR: pthread_cond_wait failed %d", result);
    }
}

void com_conditional_timedwait(com_conditional *c, int32_t seconds)
{
    if (c == nullptr) {
        LPRINTF("ERROR: parameter invalid");
        return;
    }
    timeval now;
    if (gettimeofday(&now, nullptr) != 0) {
        LPRINTF("ERROR: gettimeofday failed");
        return;
    }
    constexpr long nanoseconds_per_microsecond = 1000;
    const timespec deadline{now.tv_sec + seconds, now.tv_usec * nanoseconds_per_microsecond};
    const int result = pthread_cond_timedwait(&c->cond, &c->mutex, &deadline);
    if (result != 0 && result != ETIMEDOUT) {
        LPRINTF("ERROR: pthread_cond_wait failed %d", result);
    }
}

void com_conditional_signal(com_conditional *c)
{
    if (c == nullptr) {
        LPRINTF("ERROR: parameter invalid");
        return;
    }
    const int result = pthread_cond_signal(&c->cond);
    if (result != 0) {
        LPRINTF("ERROR: pthread_cond_signal failed %d", result);
    }
}

void com_conditional_close(com_conditional *c)
{
    if (c == nullptr) {
        LPRINTF("ERROR: parameter invalid");
        return;
    }
    if (pthread_cond_destroy(&c->cond) != 0) {
        LPRINTF("ERROR: failed pthread_cond_destroy");
    }
    if (pthread_mutex_destroy(&c->mutex) != 0) {
        LPRINTF("ERROR: failed pthread_mutex_destroy");
    }
    free(c);
}
