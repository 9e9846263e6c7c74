/* Internal: owners for memory of the malloc family; error paths need no free of their own. */
#ifndef TAVLEN_COMMON_OWNED_H
#define TAVLEN_COMMON_OWNED_H

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace tavlen {

struct Free {
    void operator()(void *block) const { free(block); }
};

/// Frees its block with `free`; release() hands it to a caller of the C interface.
template <class T>
using owned = std::unique_ptr<T, Free>;

/// An uninitialised block of at least one byte: a request for nothing is never lack of memory.
template <class T = void>
owned<T> allocate_bytes(size_t size)
{
    return owned<T>(static_cast<T *>(malloc(size != 0 ? size : 1)));
}

/// One uninitialised plain record.
template <class T>
owned<T> allocate()
{
    return allocate_bytes<T>(sizeof(T));
}

} // namespace tavlen

#endif
