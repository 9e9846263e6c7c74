#include <TavlenCommon/reserve.h>

#include <cstdlib>
#include <pthread.h>

#if defined(__SANITIZE_ADDRESS__)
#define TAVLEN_KEEPS_RECORDS 0 // the sanitizer tells a released record from its next use
#elif defined(__has_feature)
#define TAVLEN_KEEPS_RECORDS !__has_feature(address_sanitizer)
#else
#define TAVLEN_KEEPS_RECORDS 1
#endif

namespace {

pthread_key_t key; // a thread's value: the reserve that it was asked to watch last
bool has_key = false;

/// At a thread's end. A record that is released even later begins a new reserve.
void free_kept(void *last_watched)
{
    auto *reserve = static_cast<tavlen::Reserve *>(last_watched);
    while (reserve != nullptr) {
        while (void *record = reserve->first) {
            memcpy(&reserve->first, record, sizeof reserve->first);
            free(record);
        }
        tavlen::Reserve *before = reserve->watched_before;
        *reserve = tavlen::Reserve{};
        reserve = before;
    }
}

/// Sees to it that the thread's end frees what is kept there; false when that cannot be.
bool watch(tavlen::Reserve *reserve)
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, [] { has_key = pthread_key_create(&key, free_kept) == 0; });
    if (!has_key) {
        return false;
    }
    reserve->watched_before = static_cast<tavlen::Reserve *>(pthread_getspecific(key));
    reserve->is_watched = pthread_setspecific(key, reserve) == 0;
    return reserve->is_watched;
}

} // namespace

void tavlen::release_to_new_reserve(Reserve *reserve, uint32_t most, void *record)
{
    if (!TAVLEN_KEEPS_RECORDS || reserve->is_watched || !watch(reserve)) {
        free(record);
        return;
    }
    memcpy(record, &reserve->first, sizeof reserve->first);
    reserve->first = record;
    reserve->room = most - 1;
}
