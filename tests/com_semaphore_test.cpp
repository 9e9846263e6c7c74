#include <TavlenCommon/com_semaphore.h>

#include <cerrno>
#include <future>
#include <thread>

#include "faults.h"
#include "support.h"

namespace {

using Semaphores = ReportingTest;
using Conditionals = ReportingTest;

TEST_F(Semaphores, NullIsReportedUnlessQuietAndUnknownTypeIsDestroyedAsMutex)
{
    com_semaphore *s = nullptr;
    com_semaphore_lock_ex(1, s), com_semaphore_unlock_ex(1, s);
    com_semaphore_lock(s), com_semaphore_unlock(s), com_semaphore_destroy(s);
    s = com_semaphore_init();
    s->type = 0x80000002;
    com_semaphore_lock_ex(1, s), com_semaphore_unlock_ex(1, s), com_semaphore_destroy(s);
    com_conditional *const c = nullptr;
    com_conditional_wait(c), com_conditional_timedwait(c, 1), com_conditional_signal(c), com_conditional_close(c);
    EXPECT_REPORTS(
        "com_semaphore_lock_ex: ERROR: argument is NULL", "com_semaphore_unlock_ex: ERROR: argument is NULL",
        "com_semaphore_destroy: ERROR: argument is NULL",
        "com_semaphore_lock_ex: ERROR: unknown type of semaphore: -2147483646",
        "com_semaphore_unlock_ex: ERROR: unknown type of semaphore: -2147483646",
        "com_conditional_wait: ERROR: parameter invalid", "com_conditional_timedwait: ERROR: parameter invalid",
        "com_conditional_signal: ERROR: parameter invalid", "com_conditional_close: ERROR: parameter invalid");
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
    const auto expect = [this](const char *function, int64_t result, auto make, const std::string &report) {
        EXPECT_REPORTED(with(function, result, EIO, make), nullptr, report);
    };
    const auto counting = [] { return com_semaphore_int_init(1); };
    expect(allocation, 0, com_semaphore_init, "com_semaphore_init: ERROR: low mem");
    expect(allocation, 0, counting, "com_semaphore_int_init: ERROR: low mem");
    expect(allocation, 0, com_conditional_init, "com_conditional_init: ERROR: low mem");
    expect("pthread_mutex_init", 12, com_semaphore_init, "com_semaphore_init: ERROR: unable to init. mutex");
    expect("pthread_mutex_init", 12, com_conditional_init, "com_conditional_init: ERROR: unable to init. mutex 12");
    expect("sem_init", -1, counting, "com_semaphore_int_init: ERROR: unable to init. semaphore");
    expect("pthread_cond_init", 12, com_conditional_init, "com_conditional_init: ERROR: unable to init. cond 12");
}

TEST_F(Semaphores, InterruptedCallsAreTakenUpAgainAndFailedOnesReported)
{
    com_semaphore *mutex = com_semaphore_init();
    com_semaphore *counting = with("sem_init", -1, ENOSYS, com_semaphore_int_init, 2U); // not between processes, then
    fake_platform.sleeps = 0;
    with("pthread_mutex_lock", EDEADLK, 0, com_semaphore_lock, mutex);
    with("sem_wait", -1, EINTR, com_semaphore_lock, counting);
    EXPECT_EQ(fake_platform.sleeps, 2);
    EXPECT_EQ(pthread_mutex_trylock(&mutex->mutex), EBUSY);
    with("sem_wait", -1, EAGAIN, com_semaphore_lock, counting);
    with("sem_post", -1, EOVERFLOW, com_semaphore_unlock, counting);
    EXPECT_EQ(sem_trywait(counting->sem) + sem_trywait(counting->sem), -1) << "one of two units is left";
    with("sem_destroy", -1, EIO, com_semaphore_destroy, counting);
    with("pthread_mutex_destroy", EBUSY, EIO, com_semaphore_destroy, mutex);
    with("pthread_mutex_trylock", EINVAL, EIO, com_semaphore_destroy, com_semaphore_init());
    EXPECT_REPORTS("com_semaphore_lock_ex: ERROR: unable to lock semaphore -1 11 0",
                   "com_semaphore_unlock_ex: ERROR: unable to unlock mutex",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex -1, 5",
                   "com_semaphore_destroy: WARNING: trying to destroy locked mutex",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex 16, 5",
                   "com_semaphore_destroy: WARNING: trylock returns 22, 5",
                   "com_semaphore_destroy: ERROR: unable to destroy mutex 16, 0"); // unlocked, and had not been locked
}

TEST_F(Conditionals, CreatorHoldsTheMutexAndThreadsWakeIt)
{
    com_conditional *c = com_conditional_init();
    EXPECT_EQ(pthread_mutex_trylock(&c->mutex), EBUSY);
    const time_t before = time(nullptr);
    com_conditional_timedwait(c, 1), com_conditional_timedwait(c, 0), com_conditional_timedwait(c, INT32_MIN);
    EXPECT_TRUE(time(nullptr) > before && time(nullptr) <= before + 2) << "the last two return at once";
    com_conditional_signal(c); // nobody waits: forgotten
    bool signalled = false;    // guarded by the mutex; a wait may end without a signal
    std::thread signaller([c, &signalled] {
        pthread_mutex_lock(&c->mutex); // free only while the creator waits
        signalled = true;
        com_conditional_signal(c);
        pthread_mutex_unlock(&c->mutex);
    });
    while (!signalled) {
        com_conditional_wait(c);
    }
    signaller.join();
    com_conditional_close(c); // by the creator, who holds the mutex
    EXPECT_REPORTS("com_conditional_close: ERROR: failed pthread_mutex_destroy");
}

TEST_F(Conditionals, FailuresAreReported)
{
    com_conditional *c = com_conditional_init();
    with("pthread_cond_wait", EPERM, 0, com_conditional_wait, c);
    with("pthread_cond_timedwait", EPERM, 0, com_conditional_timedwait, c, 1);
    with("gettimeofday", EPERM, 0, com_conditional_timedwait, c, 1);
    with("pthread_cond_signal", EINVAL, 0, com_conditional_signal, c);
    with("pthread_cond_destroy", EBUSY, 0, com_conditional_close, c);
    EXPECT_REPORTS("com_conditional_wait: ERROR: pthread_cond_wait failed 1",
                   "com_conditional_timedwait: ERROR: pthread_cond_wait failed 1",
                   "com_conditional_timedwait: ERROR: gettimeofday failed",
                   "com_conditional_signal: ERROR: pthread_cond_signal failed 22",
                   "com_conditional_close: ERROR: failed pthread_cond_destroy",
                   "com_conditional_close: ERROR: failed pthread_mutex_destroy");
    c = with("pthread_mutex_lock", EINVAL, 0, com_conditional_init);
    EXPECT_REPORTED((com_conditional_close(c), 0), 0, "com_conditional_init: ERROR: pthread_mutex_lock failed 22");
}

} // namespace
