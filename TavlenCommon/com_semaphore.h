/*
 * Locks, a POSIX mutex or a POSIX counting semaphore behind one object; and conditionals, a mutex
 * paired with a condition variable.
 *
 * Conventions
 *  1. No operation returns an error code (the makers give null). A failure of the platform call is
 *     reported through the logging macro (logger.h) under the name of the operation.
 *  2. The creator owns the object and ends it with com_semaphore_destroy or com_conditional_close,
 *     once, when nobody holds it or waits for it.
 *  3. Every operation on a lock may be called from any thread. A mutex is not recursive and is
 *     unlocked by the thread that locked it; a counting semaphore may be unlocked by any thread.
 *  4. A conditional is waited for by its creator alone, who holds its mutex whenever it does not
 *     wait. Any thread may signal, without the mutex; a signal that nobody waits for is forgotten.
 */
#ifndef TAVLEN_COMMON_COM_SEMAPHORE_H
#define TAVLEN_COMMON_COM_SEMAPHORE_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { COM_SEMAPHORE_COUNTING = 0, COM_SEMAPHORE_MUTEX = 1 };

/** A lock. Members are for the library; `type` decides which of the others is in use. */
typedef struct com_semaphore {
    pthread_mutex_t mutex; /**< the lock of COM_SEMAPHORE_MUTEX, default attributes */
    sem_t *sem;            /**< the semaphore of COM_SEMAPHORE_COUNTING: &sem_storage; else null */
    sem_t sem_storage;
    uint32_t type;
} com_semaphore;

/** Makes an unlocked mutex. Null after a report when memory or the platform refuses. */
TAVLEN_API com_semaphore *com_semaphore_init(void);

/**
 * Makes a counting semaphore that holds `value` units, shared between processes where the system
 * offers that. Null after a report when memory or the platform refuses.
 */
TAVLEN_API com_semaphore *com_semaphore_int_init(uint32_t value);

/**
 * Locks: takes the mutex, or one unit of the count; blocks until it is there. A wait that a signal
 * interrupts is taken up again after one second. After a report the caller does not hold the lock.
 * A null `s` is reported, or ignored when `quiet` is not 0; `quiet` has no other effect.
 */
TAVLEN_API void com_semaphore_lock_ex(int quiet, com_semaphore *s);

/** Unlocks: releases the mutex, or gives one unit back. Null `s` and `quiet` as for locking. */
TAVLEN_API void com_semaphore_unlock_ex(int quiet, com_semaphore *s);

/** com_semaphore_lock_ex with `quiet` 0. */
TAVLEN_API void com_semaphore_lock(com_semaphore *s);

/** com_semaphore_unlock_ex with `quiet` 0. */
TAVLEN_API void com_semaphore_unlock(com_semaphore *s);

/**
 * Ends the lock and frees the object, also when the platform reports a failure. A mutex that is
 * still held is reported, unlocked and destroyed all the same.
 */
TAVLEN_API void com_semaphore_destroy(com_semaphore *s);

/** A conditional. Members are for the library. */
typedef struct com_conditional {
    pthread_mutex_t mutex; /**< the creator's, but while it waits */
    pthread_cond_t cond;   /**< on the realtime clock */
} com_conditional;

/** Makes a conditional, whose mutex the calling thread then holds. Null after a report. */
TAVLEN_API com_conditional *com_conditional_init(void);

/** Waits for a signal; may also return without one, as the platform's wait may. */
TAVLEN_API void com_conditional_wait(com_conditional *c);

/**
 * Waits for a signal, at most so many seconds (0 or fewer: returns at once). Which of the two ended
 * the wait is not told.
 */
TAVLEN_API void com_conditional_timedwait(com_conditional *c, int32_t seconds);

/** Wakes the waiting creator, if it waits. */
TAVLEN_API void com_conditional_signal(com_conditional *c);

/**
 * Ends the conditional and frees the object. Its mutex is not unlocked first, so that a close by
 * the thread that holds it, the ordinary one, is told of as a mutex that could not be destroyed.
 */
TAVLEN_API void com_conditional_close(com_conditional *c);

#ifdef __cplusplus
}
#endif

#endif
