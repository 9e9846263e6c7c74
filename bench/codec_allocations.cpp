// Prints for every case of codec_cases.h how many blocks a round takes from the C library's
// allocator: lines of CASE COUNT. A program of its own, as counting makes the small messages slower
// by a tenth.
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "codec_cases.h"

namespace {

/// Calls of malloc, calloc and realloc by any module of the process, in which there is one thread.
uint64_t taken = 0;

} // namespace

// The program's definitions come before those of the C library, which can still be reached by their
// other names. Blocks are freed as ever. A sanitizer has an allocator of its own: nothing is
// counted there.
#ifdef TAVLEN_COUNT_ALLOCATIONS
extern "C" {

void *__libc_malloc(size_t size) noexcept;
void *__libc_calloc(size_t count, size_t size) noexcept;
void *__libc_realloc(void *block, size_t size) noexcept;

void *malloc(size_t size) noexcept
{
    ++taken;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    ++taken;
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) noexcept
{
    ++taken;
    return __libc_realloc(block, size);
}
}
#endif

int main()
{
    for (const CodecCase &codec : codec_cases()) {
        codec.round(); // so that what it prepares is there
        const uint64_t before = taken;
        codec.round();
        printf("%s %" PRIu64 "\n", codec.name, taken - before);
    }
    return 0;
}
