/* What the fuzz targets share. libFuzzer brings every input in a block of exactly its size. */
#ifndef TAVLEN_FUZZ_FUZZ_H
#define TAVLEN_FUZZ_FUZZ_H
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/logger.h>

/// Ends the run, and makes the input a finding, when an invariant is broken.
#define HOLDS(condition)                                                                                               \
    ((condition) ? void() : (fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition), abort()))

/// Opens the log. Without a destination, reports are formatted and go nowhere.
inline bool open_log(int32_t mask = 0, const char *file = nullptr)
{
    HOLDS(logger_open() == 0);
    set_log_dest(mask, file, nullptr, nullptr);
    return true;
}

template <auto release>
struct Call {
    void operator()(auto *object) const { release(object); }
};
using Packet = std::unique_ptr<clpacket, Call<clpacket_destroy>>;
using Socket = std::unique_ptr<sock, Call<sock_close>>;

/// A socket, and the descriptor of its peer.
inline std::pair<Socket, int> connected(int type)
{
    int ends[2];
    HOLDS(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) == 0);
    Socket s(socket_create());
    s->fd = ends[0];
    return {std::move(s), ends[1]};
}

inline std::string_view bytes_of(const void *start, size_t size)
{
    return {static_cast<const char *>(start), size};
}
inline std::string_view bytes_of(const clpacket *p)
{
    return bytes_of(p->buffer, p->buffer_size);
}

inline uint32_t number_at(std::string_view bytes, size_t at)
{
    uint32_t number = 0;
    memcpy(&number, bytes.substr(at).data(), sizeof number);
    return __builtin_bswap32(number);
}

constexpr size_t type_size = 4; // of a datagram

/// A packet as a receive leaves it, its bytes in a block of exactly their size. There is one at least.
inline Packet received(std::string_view datagram)
{
    Packet p(clpacket_create());
    p->type = number_at(datagram, 0);
    HOLDS(clpacket_alloc_buffer(p.get(), datagram.size() - type_size) == 0);
    memcpy(p->buffer, datagram.data() + type_size, p->buffer_size);
    return p;
}
#endif
