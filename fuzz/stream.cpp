// Any bytes as a stream that its sender then ends: each frame gives what it announced, and the end is told as such.
#include "fuzz.h"
#include <unistd.h>

// A frame may announce 2 GiB less one byte, which are asked for and not touched, but the sanitizer marks each of them:
// what is asked for beyond this is noted and not given.
constexpr size_t memory_there_is = 1 << 20;
static size_t refused_size = 0;

extern "C" void *__real_malloc(size_t size);
extern "C" void *__wrap_malloc(size_t size)
{
    refused_size = size > memory_there_is ? size : refused_size;
    return size > memory_there_is ? nullptr : __real_malloc(size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t head_size = 8;
    constexpr int32_t untouched = 99;
    [[maybe_unused]] static const bool log_is_open = open_log();
    const auto [s, peer] = connected(SOCK_STREAM);
    const bool is_reset = size % 2 != 0; // as the peer leaves a byte unread; else it just closes
    HOLDS(size == 0 || send(peer, data, size, 0) == static_cast<ssize_t>(size));
    HOLDS((!is_reset || send(s->fd, "", 1, 0) == 1) && close(peer) == 0);
    std::string_view left = bytes_of(data, size);
    const Packet p(clpacket_create());
    refused_size = 0;
    while ((s->error = untouched, clpacket_recv(p.get(), s.get())) == 0) {
        HOLDS(left.size() >= head_size && p->buffer_size == number_at(left, 0) && p->type == number_at(left, 4));
        HOLDS(bytes_of(p.get()) == left.substr(head_size, p->buffer_size));
        left.remove_prefix(head_size + p->buffer_size);
    }
    HOLDS(p->buffer == nullptr && p->buffer_size == 0);
    const size_t announced = left.size() >= head_size ? number_at(left, 0) : 1;
    const bool is_refused = announced == 0 || announced > memory_there_is;
    HOLDS(is_refused || left.size() < head_size + announced);
    HOLDS(refused_size == (is_refused && announced <= INT32_MAX ? announced : 0));
    HOLDS(s->error == (is_refused ? untouched : 0));
    left.remove_prefix(is_refused ? head_size : left.size()); // what is behind a refused head was left where it was
    std::string rest(left.size() + 1, '\0');
    const int64_t count = sock_recv(s.get(), rest.data(), static_cast<uint32_t>(rest.size()), 0);
    HOLDS(left.empty() ? count <= 0 : rest.substr(0, static_cast<size_t>(count)) == left);
    return 0;
}
