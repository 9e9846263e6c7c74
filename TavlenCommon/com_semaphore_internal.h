/*
 * Internal: com_semaphore_lock and com_semaphore_unlock for the library's own locks, which are
 * mutexes: on the way of every record, these cost hardly more than the platform's.
 */
#ifndef TAVLEN_COMMON_COM_SEMAPHORE_INTERNAL_H
#define TAVLEN_COMMON_COM_SEMAPHORE_INTERNAL_H

#include <TavlenCommon/com_semaphore.h>

namespace tavlen {

/// After a failed attempt on a lock of that type: tries again, as long as that may help, or
/// reports.
void insist_on_lock(com_semaphore *s, uint32_t type, int result);

void report_not_unlocked();

/// For one that is known to be a mutex.
inline void lock_mutex(com_semaphore *s)
{
    const int result = pthread_mutex_lock(&s->mutex);
    if (result != 0) [[unlikely]] {
        insist_on_lock(s, COM_SEMAPHORE_MUTEX, result);
    }
}

inline void unlock_mutex(com_semaphore *s)
{
    if (pthread_mutex_unlock(&s->mutex) != 0) [[unlikely]] {
        report_not_unlocked();
    }
}

/// For a mutex that may be missing.
inline void lock(com_semaphore *s)
{
    s != nullptr ? lock_mutex(s) : com_semaphore_lock(s);
}

inline void unlock(com_semaphore *s)
{
    s != nullptr ? unlock_mutex(s) : com_semaphore_unlock(s);
}

} // namespace tavlen

#endif
