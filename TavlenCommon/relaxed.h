/*
 * Internal: relaxed atomic access to plain fields that other threads may change at the same time
 * (flags, reference counts, error numbers). No ordering is promised, only a whole value.
 */
#ifndef TAVLEN_COMMON_RELAXED_H
#define TAVLEN_COMMON_RELAXED_H

namespace tavlen {

template <class T>
T load_relaxed(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <class T, class Value>
void store_relaxed(T &field, Value value)
{
    __atomic_store_n(&field, static_cast<T>(value), __ATOMIC_RELAXED);
}

} // namespace tavlen

#endif
