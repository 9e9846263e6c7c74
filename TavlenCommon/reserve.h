/*
 * Internal: released records, kept by the thread that released them for the next ones it needs.
 *
 * A sender makes and releases half a dozen such records for every line; keeping a few costs a sixth
 * of the instructions of malloc and free. Each record stays a block of its own, which free()
 * accepts: who gets one need not know where it came from. What a thread keeps is bounded, and freed
 * when the thread ends.
 */
#ifndef TAVLEN_COMMON_RESERVE_H
#define TAVLEN_COMMON_RESERVE_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include <TavlenCommon/owned.h>

namespace tavlen {

/// What a thread keeps of one type of record: linked through their first bytes. As soon as it is
/// watched, its records and its room together are as many as are kept at most.
struct Reserve {
    void *first;
    uint32_t room;           // for how many more; 0 until the first is released
    Reserve *watched_before; // of this thread; null for its first
    bool is_watched;         // freed when the thread ends
};

/// This thread's. It lives where no call is needed to find it, in the static part of the threads'
/// memory: who loads the library with dlopen needs some hundred bytes of that.
template <class Record>
inline constinit thread_local Reserve reserve_of [[gnu::tls_model("initial-exec")]] = {};

/// How many records of a type a thread keeps.
template <class Record>
constexpr uint32_t most_kept = 0;

/// Keeps a record where there seems to be no room, if the thread has kept none so far; else frees
/// it.
void release_to_new_reserve(Reserve *reserve, uint32_t most, void *record);

/// An uninitialised record, kept or new; null without memory.
template <class Record>
owned<Record> take_record()
{
    Reserve &reserve = reserve_of<Record>;
    void *record = reserve.first;
    if (record == nullptr) [[unlikely]] {
        return allocate<Record>();
    }
    memcpy(&reserve.first, record, sizeof reserve.first);
    ++reserve.room;
    return owned<Record>(static_cast<Record *>(record));
}

/// Releases a record, which is not null.
template <class Record>
inline void release_record(Record *record)
{
    static_assert(most_kept<Record> > 0, "say how many of these a thread keeps");
    Reserve &reserve = reserve_of<Record>;
    if (reserve.room == 0) [[unlikely]] {
        release_to_new_reserve(&reserve, most_kept<Record>, record);
        return;
    }
    memcpy(static_cast<void *>(record), &reserve.first, sizeof reserve.first);
    reserve.first = record;
    --reserve.room;
}

/// Releases a block of any size, which is not null; one that can hold such a record is kept as one.
/// The allocator is asked, as a caller may have put a block of his own in its place.
template <class Record>
void release_block(void *block)
{
    const size_t size = malloc_usable_size(block);
    if (size >= sizeof(Record) && size < 2 * sizeof(Record)) {
        release_record(static_cast<Record *>(block));
    } else {
        free(block);
    }
}

} // namespace tavlen

#endif
