#include <TavlenCommon/com_semaphore.h>

#include <cerrno>
#include <thread>

#include "faults.h"
#include "support.h"

namespace {

class Semaphores : public ReportingTest {};

constexpr com_semaphore *none = nullptr;

TEST_F(Semaphores, NullIsReportedUnlessQuiet)
{
    com_semaphore_lock_ex(1, none);
    com_semaphore_unlock_ex(1, none);
    EXPECT_REPORTS();
    com_semaphore_lock(none);
    com_semaphore_unlock(none);
    com_semaphore_destroy(none);
    EXPECT_REPORTS({"com_semaphore_lock_ex", "ERROR: argument is NULL"},
                   {"com_semaphore_unlock_ex", "ERROR: argument is NULL"},
                   {"com_semaphore_destroy", "ERROR: argument is NULL"});
}

TEST_F(Semaphores, UnknownTypeIsRefusedAndDestroyedAsMutex)
{
    com_semaphore *s = com_semaphore_init();
    s->type = 0x80000002;
    com_semaphore_lock_ex(1, s);
    com_semaphore_unlock_ex(1, s);
    EXPECT_EQ(pthread_mutex_trylock(&s->mutex), 0) << "was locked";
    pthread_mutex_unlock(&s->mutex);
    com_semaphore_destroy(s);
    EXPECT_REPORTS({"com_semaphore_lock_ex", "ERROR: unknown type of semaphore: -2147483646"},
                   {"com_semaphore_unlock_ex", "ERROR: unknown type of semaphore: -2147483646"});
}

TEST_F(Semaphores, MutexExcludesAndHeldOneIsDestroyedWithWarning)
{
    com_semaphore *s = com_semaphore_init();
    EXPECT_EQ(s->type, 1U);
    EXPECT_EQ(s->sem, nullptr);
    com_semaphore_lock(s);
    EXPECT_EQ(pthread_mutex_trylock(&s->mutex), EBUSY);
    com_semaphore_unlock(s);
    com_semaphore_lock(s);
    com_semaphore_destroy(s);
    EXPECT_REPORTS({"com_semaphore_destroy", "WARNING: trying to destroy locked mutex"});
}

TEST_F(Semaphores, CountingThreadsBlockAtZero)
{
    com_semaphore *s = com_semaphore_int_init(2);
    EXPECT_EQ(s->sem, &s->sem_storage);
    com_semaphore_lock(s);
    com_semaphore_lock(s);
    std::atomic<bool> released = false;
    std::thread waiter([&] {
        com_semaphore_lock(s);
        EXPECT_TRUE(released);
    });
    released = true;
    com_semaphore_unlock(s);
    waiter.join();
    com_semaphore_destroy(s);
}

TEST_F(Semaphores, FailedMakingIsReported)
{
    const Reports mutex_memory{{"com_semaphore_init", "ERROR: low mem"}};
    const Reports count_memory{{"com_semaphore_int_init", "ERROR: low mem"}};
    const Reports mutex{{"com_semaphore_init", "ERROR: unable to init. mutex"}};
    const Reports semaphore{{"com_semaphore_int_init", "ERROR: unable to init. semaphore"}};
    const auto make_counting = [] { return com_semaphore_int_init(1); };
    const struct {
        const char *function;
        Failing failing;
        int64_t result;
        int error;
        com_semaphore *(*make)();
        Reports reports;
    } cases[] = {
        {allocation, Failing::once, 0, ENOMEM, com_semaphore_init, mutex_memory},
        {allocation, Failing::once, 0, ENOMEM, make_counting, count_memory},
        {"pthread_mutex_init", Failing::once, ENOMEM, 0, com_semaphore_init, mutex},
        {"sem_init", Failing::from_then_on, -1, EINVAL, make_counting, semaphore},
        {"sem_init", Failing::from_then_on, -1, ENOSYS, make_counting, semaphore},
    };
    for (const auto &c : cases) {
        {
            const Fault fault(c.function, 1, c.failing, c.result, c.error);
            EXPECT_EQ(c.make(), nullptr);
        }
        EXPECT_EQ(take_reports(), c.reports);
    }
    Fault first_only("sem_init", 1, Failing::once, -1, ENOSYS);
    com_semaphore *s = make_counting();
    EXPECT_NE(s, nullptr) << "no second try without sharing";
    first_only.struck();
    com_semaphore_destroy(s);
}

TEST_F(Semaphores, InterruptedLockIsTakenUpAgain)
{
    com_semaphore *mutex = com_semaphore_init();
    com_semaphore *counting = com_semaphore_int_init(1);
    fake_platform.sleeps = 0;
    {
        const Fault fault("sem_wait", 1, Failing::once, -1, EINTR);
        com_semaphore_lock(counting);
    }
    EXPECT_EQ(fake_platform.sleeps, 1);
    int units = -1;
    sem_getvalue(counting->sem, &units);
    EXPECT_EQ(units, 0) << "the unit was not taken";
    EXPECT_REPORTS();
    {
        const Fault fault("sem_wait", -1, EINVAL);
        com_semaphore_lock(counting);
    }
    {
        const Fault fault("sem_post", -1, EOVERFLOW);
        com_semaphore_unlock(counting);
    }
    EXPECT_REPORTS({"com_semaphore_lock_ex", "ERROR: unable to lock semaphore -1 22 0"},
                   {"com_semaphore_unlock_ex", "ERROR: unable to unlock mutex"});
    com_semaphore_destroy(counting);
    com_semaphore_destroy(mutex);
}

TEST_F(Semaphores, FailedDestructionIsReportedAndFrees)
{
    const struct {
        const char *function;
        int64_t result;
        com_semaphore *s;
        Reports reports;
    } cases[] = {
        // Unlocking what was never locked makes the platform refuse the destruction as well.
        {"pthread_mutex_trylock",
         EINVAL,
         com_semaphore_init(),
         {{"com_semaphore_destroy", "WARNING: trylock returns 22, 5"},
          {"com_semaphore_destroy", "ERROR: unable to destroy mutex 16, 0"}}},
        {"pthread_mutex_destroy",
         EBUSY,
         com_semaphore_init(),
         {{"com_semaphore_destroy", "ERROR: unable to destroy mutex 16, 5"}}},
        {"sem_destroy",
         -1,
         com_semaphore_int_init(0),
         {{"com_semaphore_destroy", "ERROR: unable to destroy mutex -1, 5"}}},
    };
    for (const auto &c : cases) {
        // The report itself passes the logging library's lock, so only the first call fails.
        const Fault fault(c.function, 1, Failing::once, c.result, EIO);
        com_semaphore_destroy(c.s);
        EXPECT_EQ(take_reports(), c.reports);
    }
}

} // namespace
