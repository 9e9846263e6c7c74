/*
 * Internal: says which lock guards what, for clang to check (-Wthread-safety). Other compilers see
 * nothing of it.
 */
#ifndef TAVLEN_COMMON_LOCK_ANNOTATIONS_H
#define TAVLEN_COMMON_LOCK_ANNOTATIONS_H

#if defined(__clang__)
#define TAVLEN_LOCK_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define TAVLEN_LOCK_ATTRIBUTE(attribute)
#endif

/// A type whose objects are locks, or stand for one.
#define TAVLEN_LOCK TAVLEN_LOCK_ATTRIBUTE(capability("mutex"))

/// A type whose objects hold a lock while they live.
#define TAVLEN_LOCK_HOLDER TAVLEN_LOCK_ATTRIBUTE(scoped_lockable)

/// A variable that is touched with the lock held alone.
#define TAVLEN_GUARDED_BY(lock) TAVLEN_LOCK_ATTRIBUTE(guarded_by(lock))

/// A function that takes the lock, gives it back, is called with it held, takes it as held, or has
/// a reason of its own to go without.
#define TAVLEN_ACQUIRES(lock) TAVLEN_LOCK_ATTRIBUTE(acquire_capability(lock))
#define TAVLEN_RELEASES(lock) TAVLEN_LOCK_ATTRIBUTE(release_capability(lock))
#define TAVLEN_REQUIRES(lock) TAVLEN_LOCK_ATTRIBUTE(requires_capability(lock))
#define TAVLEN_TAKES_AS_HELD(lock) TAVLEN_LOCK_ATTRIBUTE(assert_capability(lock))
#define TAVLEN_UNCHECKED TAVLEN_LOCK_ATTRIBUTE(no_thread_safety_analysis)

#endif
