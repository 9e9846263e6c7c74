/*
 * Internal: atomic access to plain fields that other threads may change at the same time (flags,
 * reference counts, error numbers, descriptors). Relaxed access promises a whole value and no more.
 */
#ifndef TAVLEN_COMMON_ATOMIC_FIELD_H
#define TAVLEN_COMMON_ATOMIC_FIELD_H

#include <type_traits>

namespace tavlen {

template <class T>
T load_relaxed(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <class T>
void store_relaxed(T &field, std::type_identity_t<T> value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

/// Adds 1, but never goes beyond `most`.
template <class T>
void raise_relaxed(T &field, std::type_identity_t<T> most)
{
    T seen = load_relaxed(field);
    while (seen < most && !__atomic_compare_exchange_n(&field, &seen, seen + 1, true,
                                                       __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    }
}

/// Takes the value and leaves another in its place, at once.
template <class T>
T exchange_relaxed(T &field, std::type_identity_t<T> value)
{
    return __atomic_exchange_n(&field, value, __ATOMIC_RELAXED);
}

/// The same, for a pointer that hands over what it points to.
template <class T>
T exchange(T &field, std::type_identity_t<T> value)
{
    return __atomic_exchange_n(&field, value, __ATOMIC_ACQ_REL);
}

/// Sees, with the value, what its writer had written before publish().
template <class T>
T load_published(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <class T>
void publish(T &field, T value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

} // namespace tavlen

#endif
