#include <TavlenCommon/com_semaphore.h>

#include <cerrno>
#include <future>

#include "faults.h"
#include "support.h"

namespace {

class Semaphores : public ReportingTest {};

/// What an operation gives whose first call of a platform function fails; the report's own calls do not.
auto with(const char *function, int64_t result, int error, auto operation, auto... arguments)
{
    const Fault fault(function, 1, Failing::once, result, error);
    return operation(arguments...);
}

TEST_F(Semaphores, NullIsReportedUnlessQuietAndUnknownTypeIsDestroyedAsMutex)
{
    com_semaphore_lock_ex(1, nullptr);
    com_semaphore_unlock_ex(1, nullptr);
    com_semaphore_lock(nullptr);
    com_semaphore_unlock(nullptr);
    com_semaphore_destroy(nullptr);
    EXPECT_REPORTS("com_semaphore_lock_ex: ERROR: argument is NULL", "com_semaphore_unlock_ex: ERROR: argument is NULL",
                   "com_semaphore_destroy: ERROR: argument is NULL");
    com_semaphore *s = com_semaphore_init();
    s->type = 0x80000002;
    com_semaphore_lock_ex(1, s);
    com_semaphore_unlock_ex(1, s);
    com_semaphore_destroy(s);
    EXPECT_REPORTS("com_semaphore_lock_ex: ERROR: unknown type of semaphore: -2147483646",
                   "com_semaphore_unlock_ex: ERROR: unknown type of semaphore: -2147483646");
}

TEST_F(Semaphores, CountingThreadsBlockAtZero)
{
    com_semaphore *s = com_semaphore_int_init(1);
    com_semaphore_lock(s);
    const auto waiter = std::async(std::launch::async, com_semaphore_lock, s);
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(5)), std::future_status::timeout);
    com_semaphore_unlock(s);
    waiter.wait();
    com_semaphore_destroy(s);
}

TEST_F(Semaphores, FailedMakingIsReported)
{
    EXPECT_REPORTED(with(allocation, 0, 0, com_semaphore_init), nullptr, "com_semaphore_init: ERROR: low mem");
    EXPECT_REPORTED(with(allocation, 0, 0, com_semaphore_int_init, 1), nullptr,
                    "com_semaphore_int_init: ERROR: low mem");
    EXPECT_REPORTED(with("pthread_mutex_init", ENOMEM, 0, com_semaphore_init), nullptr,
                    "com_semaphore_init: ERROR: unable to init. mutex");
    EXPECT_REPORTED(with("sem_init", -1, EINVAL, com_semaphore_int_init, 1), nullptr,
                    "com_semaphore_int_init: ERROR: unable to init. semaphore");
}

TEST_F(Semaphores, InterruptedCallsAreTakenUpAgainAndFailedOnesReported)
{
    com_semaphore *mutex = com_semaphore_init();
    com_semaphore *counting = with("sem_init", -1, ENOSYS, com_semaphore_int_init, 2); // not between processes, then
    fake_platform.sleeps = 0;
    with("pthread_mutex_lock", EDEADLK, 0, com_semaphore_lock, mutex);
    with("sem_wait", -1, EINTR, com_semaphore_lock, counting);
    EXPECT_EQ(fake_platform.sleeps, 2);
    EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), EBUSY);
    with("sem_wait", -1, EINVAL, com_semaphore_lock, counting);
    with("sem_post", -1, EOVERFLOW, com_semaphore_unlock, counting);
    EXPECT_EQ(sem_trywait(counting->sem) + sem_trywait(counting->sem), -1) << "one of two units is left";
    with("sem_destroy", -1, EIO, com_semaphore_destroy, counting);
    with("pthread_mutex_destroy", EBUSY, EIO, com_semaphore_destroy, mutex);
    with("pthread_mutex_trylock", EINVAL, EIO, com_semaphore_destroy, com_semaphore_init());
    EXPECT_REPORTS("com_semaphore_lock_ex: ERROR: unable to lock semaphore -1 22 0",
                   "com_semaphore_unlock_ex: ERROR: unable to unlock mutex",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex -1, 5",
                   "com_semaphore_destroy: WARNING: trying to destroy locked mutex",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex 16, 5",
                   "com_semaphore_destroy: WARNING: trylock returns 22, 5",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex 16, 0"); // unlocked, and had not been locked
}

} // namespace
