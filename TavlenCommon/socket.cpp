#include <TavlenCommon/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>
#include <utility>

#include <TavlenCommon/atomic_field.h>
#include <TavlenCommon/com_semaphore_internal.h>
#include <TavlenCommon/error_text.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/report_as.h>
#include <TavlenCommon/wire_order.h>

using tavlen::load_relaxed;
using tavlen::owned;
using tavlen::store_relaxed;

// ---------------------------------------------------------------------------------------- object

namespace {

constexpr int32_t no_descriptor = -1;

/// For an object without a descriptor, and for locks that were never made, too.
struct FreeSock {
    void operator()(sock *s) const
    {
        for (com_semaphore **lock : {&s->sem_read, &s->sem_write, &s->sem_ref}) {
            if (*lock != nullptr) {
                com_semaphore_destroy(*lock);
                *lock = nullptr;
            }
        }
        free(s);
    }
};
using owned_sock = std::unique_ptr<sock, FreeSock>;

class LockGuard {
public:
    explicit LockGuard(com_semaphore *lock) : lock_(lock) { tavlen::lock(lock_); }
    ~LockGuard() { tavlen::unlock(lock_); }
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

private:
    com_semaphore *lock_;
};

/// The descriptor, which a thread that disconnects may take away at the same time.
int32_t descriptor_of(const sock *s)
{
    return s != nullptr ? load_relaxed(s->fd) : no_descriptor;
}

void keep_error(sock *s, int error)
{
    store_relaxed(s->error, error);
}

/// Passes the result of a platform call on; a failure leaves its errno in the object.
int32_t keep_failure(sock *s, int result)
{
    if (result == -1) {
        keep_error(s, errno);
    }
    return result;
}

} // namespace

sock *socket_create(void)
{
    owned_sock s(tavlen::allocate<sock>().release());
    if (s == nullptr) {
        LPRINTF("ERROR: low mem");
        return nullptr;
    }
    *s = sock{no_descriptor, 0, nullptr, nullptr, nullptr, 1};
    s->sem_read = com_semaphore_init();
    if (s->sem_read == nullptr) {
        LPRINTF("ERROR: sock->sem_read init failed");
        return nullptr;
    }
    s->sem_write = com_semaphore_init();
    if (s->sem_write == nullptr) {
        LPRINTF("ERROR: sock->sem_write init failed");
        return nullptr;
    }
    s->sem_ref = com_semaphore_init();
    if (s->sem_ref == nullptr) {
        LPRINTF("ERROR: sock->sem_ref init failed");
        return nullptr;
    }
    return s.release();
}

sock *sock_socket(int32_t domain, int32_t type, int32_t protocol)
{
    owned_sock s(socket_create());
    if (s == nullptr) {
        LPRINTF("ERROR: failed to create socket");
        return nullptr;
    }
    s->fd = keep_failure(s.get(), socket(domain, type | SOCK_CLOEXEC, protocol));
    return s->fd != no_descriptor ? s.release() : nullptr;
}

void socket_close(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return;
    }
    const int32_t fd = tavlen::exchange_relaxed(s->fd, no_descriptor);
    if (fd == no_descriptor) {
        LPRINTF("WARNING: socket is closed");
        return;
    }
    if (close(fd) != 0) {
        LPRINTF("ERROR: unable to close the socket");
    }
}

void sock_disconnect(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return;
    }
    (void)shutdown(descriptor_of(s), SHUT_RDWR);
    com_semaphore_lock(s->sem_read);
    com_semaphore_lock(s->sem_write);
    socket_close(s);
    com_semaphore_unlock(s->sem_read);
    com_semaphore_unlock(s->sem_write);
}

void sock_close(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: invalid arguments");
        return;
    }
    if (load_relaxed(s->ref_count) >= 2) {
        LPRINTF("WARNING: sock in use");
        return;
    }
    (void)shutdown(s->fd, SHUT_RDWR);
    socket_close(s);
    FreeSock()(s);
}

void sock_ref(sock *s)
{
    if (s == nullptr) {
        LPRINTF("WARNING: sock is NULL");
        return;
    }
    if (s->sem_ref == nullptr) {
        LPRINTF("WARNING: sem_ref is NULL");
        return;
    }
    const LockGuard lock(s->sem_ref);
    store_relaxed(s->ref_count, s->ref_count + 1);
}

void sock_unref(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return;
    }
    if (s->sem_ref == nullptr) {
        return;
    }
    {
        const LockGuard lock(s->sem_ref);
        store_relaxed(s->ref_count, s->ref_count - 1);
        if (s->ref_count < 0) {
            LPRINTF("WARNING: sock ref_count < 0");
        }
        if (s->ref_count > 0) {
            return;
        }
        (void)shutdown(s->fd, SHUT_RDWR);
        socket_close(s);
    }
    FreeSock()(s);
}

#define DEFINE_LOCK_WRAPPER(function, operation, lock)                                             \
    void function(sock *s)                                                                         \
    {                                                                                              \
        if (s == nullptr) {                                                                        \
            LPRINTF("ERROR: invalid arguments");                                                   \
        } else {                                                                                   \
            operation(s->lock);                                                                    \
        }                                                                                          \
    }
DEFINE_LOCK_WRAPPER(sock_lock_r, com_semaphore_lock, sem_read)
DEFINE_LOCK_WRAPPER(sock_unlock_r, com_semaphore_unlock, sem_read)
DEFINE_LOCK_WRAPPER(sock_lock_w, com_semaphore_lock, sem_write)
DEFINE_LOCK_WRAPPER(sock_unlock_w, com_semaphore_unlock, sem_write)
#undef DEFINE_LOCK_WRAPPER

// --------------------------------------------------------------------------------------- queries

int32_t sock_socket_get_error(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    return load_relaxed(s->error);
}

char *sock_socket_strerror(sock *s, char *buf, size_t size)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return nullptr;
    }
    if (buf == nullptr) {
        LPRINTF("ERROR: buf is NULL");
        return nullptr;
    }
    tavlen::write_error_text(load_relaxed(s->error), buf, size);
    return buf;
}

int32_t sock_get_sock_type(sock *s)
{
    if (s == nullptr) {
        LPRINTF("ERROR: invalid arguments");
        return -1;
    }
    int32_t type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(descriptor_of(s), SOL_SOCKET, SO_TYPE, &type, &length) != 0) {
        LPRINTF("ERROR: could not get socket type");
        return -1;
    }
    return type;
}

int32_t sock_setsockopt(sock *s, int32_t level, int32_t name, const void *value, socklen_t len)
{
    if (s == nullptr) {
        LPRINTF("ERROR: NULL param: sock");
        return -1;
    }
    return keep_failure(s, setsockopt(descriptor_of(s), level, name, value, len));
}

int32_t sock_getsockname(sock *s, struct sockaddr *addr, socklen_t *len)
{
    if (s == nullptr) {
        LPRINTF("ERROR: NULL param: sock");
        return -1;
    }
    return keep_failure(s, getsockname(descriptor_of(s), addr, len));
}

int32_t sock_getpeername_str(sock *s, char *buf, size_t size)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return -1;
    }
    if (buf == nullptr) {
        LPRINTF("ERROR: buf is NULL");
        return -1;
    }
    sockaddr_storage address;
    socklen_t length = sizeof address;
    auto *peer = reinterpret_cast<sockaddr *>(&address);
    if (keep_failure(s, getpeername(descriptor_of(s), peer, &length)) != 0) {
        return -1;
    }
    char host[NI_MAXHOST];
    char service[NI_MAXSERV];
    const int result = getnameinfo(peer, length, host, sizeof host, service, sizeof service,
                                   NI_NUMERICHOST | NI_NUMERICSERV);
    if (result == 0) {
        (void)snprintf(buf, size, "%s:%s", host, service);
    }
    return result;
}

// -------------------------------------------------------------------------------- descriptor sets

sock_fd_set *sock_fd_set_init(void)
{
    auto *set = static_cast<sock_fd_set *>(calloc(1, sizeof(sock_fd_set)));
    if (set == nullptr) {
        LPRINTF("ERROR: low mem");
    }
    return set;
}

void sock_fd_set_destroy(sock_fd_set *set)
{
    if (set == nullptr) {
        LPRINTF("ERROR: NULL param: set");
    }
    free(set);
}

void sock_FD_ZERO(sock_fd_set *set)
{
    if (set == nullptr) {
        LPRINTF("ERROR: NULL param: set");
        return;
    }
    FD_ZERO(&set->fds);
    set->max_fd = 0;
}

namespace {

bool is_settable(int32_t fd, const sock_fd_set *set)
{
    return set != nullptr && fd >= 0 && fd < FD_SETSIZE;
}

} // namespace

/// Says, under the name of the function it stands in, why a descriptor is not settable.
#define REPORT_UNSETTABLE(s, set, fd)                                                              \
    if ((s) == nullptr) {                                                                          \
        LPRINTF("ERROR: NULL param: sock");                                                        \
    } else if ((set) == nullptr) {                                                                 \
        LPRINTF("ERROR: NULL param: set");                                                         \
    } else {                                                                                       \
        LPRINTF("ERROR: invalid descriptor %i", fd);                                               \
    }

void sock_FD_SET(sock *s, sock_fd_set *set)
{
    const int32_t fd = descriptor_of(s);
    if (!is_settable(fd, set)) {
        REPORT_UNSETTABLE(s, set, fd)
        return;
    }
    FD_SET(fd, &set->fds);
    set->max_fd = std::max(set->max_fd, fd);
}

void sock_FD_CLR(sock *s, sock_fd_set *set)
{
    const int32_t fd = descriptor_of(s);
    if (!is_settable(fd, set)) {
        REPORT_UNSETTABLE(s, set, fd)
        return;
    }
    FD_CLR(fd, &set->fds);
}

int32_t sock_FD_ISSET(sock *s, sock_fd_set *set)
{
    const int32_t fd = descriptor_of(s);
    if (!is_settable(fd, set)) {
        REPORT_UNSETTABLE(s, set, fd)
        return s == nullptr || set == nullptr ? -1 : 0;
    }
    return FD_ISSET(fd, &set->fds) ? 1 : 0;
}

int32_t sock_select(sock_fd_set *rd, sock_fd_set *wr, sock_fd_set *ex, struct timeval *timeout)
{
    int32_t highest = 0;
    for (const sock_fd_set *set : {rd, wr, ex}) {
        highest = std::max(highest, set != nullptr ? set->max_fd : 0);
    }
    const auto fds = [](sock_fd_set *set) { return set != nullptr ? &set->fds : nullptr; };
    return select(highest + 1, fds(rd), fds(wr), fds(ex), timeout);
}

// --------------------------------------------------------------------------------------- opening

namespace {

constexpr int listen_backlog = 128;

struct FreeAddresses {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, FreeAddresses>;

/// The resolver's addresses, in its order; null when it knows none.
address_list resolve(const char *server, const char *port, int32_t sock_type, int flags)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = sock_type;
    hints.ai_flags = flags;
    addrinfo *list = nullptr;
    return address_list(getaddrinfo(server, port, &hints, &list) == 0 ? list : nullptr);
}

bool open_descriptor(sock *s, const addrinfo *address)
{
    s->fd = socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
    return s->fd != no_descriptor;
}

bool bind_to(sock *s, const addrinfo *address)
{
    const int32_t on = 1;
    return setsockopt(s->fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           bind(s->fd, address->ai_addr, address->ai_addrlen) == 0;
}

/// Leaves the object with a bound descriptor, or with none.
void bind_to_first(sock *s, const addrinfo *list)
{
    for (const addrinfo *address = list; address != nullptr; address = address->ai_next) {
        if (!open_descriptor(s, address)) {
            continue;
        }
        if (bind_to(s, address)) {
            return;
        }
        socket_close(s);
    }
}

} // namespace

sock *sock_listen_general(const char *server, const char *port, int32_t sock_type)
{
    if (server == nullptr) {
        LPRINTF("ERROR: server is NULL");
        return nullptr;
    }
    if (port == nullptr) {
        LPRINTF("ERROR: port is NULL");
        return nullptr;
    }
    owned_sock s(socket_create());
    if (s == nullptr) {
        LPRINTF("ERROR: failed to create socket");
        return nullptr;
    }
    const address_list list = resolve(server, port, sock_type, AI_CANONNAME);
    if (list != nullptr) {
        bind_to_first(s.get(), list.get());
        if (s->fd == no_descriptor) {
            LPRINTF("ERROR: unable to bind on port %s", port);
        } else if (sock_type == SOCK_DGRAM || listen(s->fd, listen_backlog) == 0) {
            return s.release();
        } else {
            const int error = errno;
            LPRINTF("ERROR: unable to listen %d %d", error, s->fd);
        }
    }
    socket_close(s.get()); // warns where no descriptor was opened
    return nullptr;
}

namespace {

struct ConnectFailure {
    int32_t error;
    int32_t family;
};

/// The addresses that refused, in the order in which they were tried.
struct ConnectFailures {
    owned<ConnectFailure> list;
    size_t count = 0;

    bool reserve(const addrinfo *addresses)
    {
        size_t capacity = 0;
        for (const addrinfo *address = addresses; address != nullptr; address = address->ai_next) {
            ++capacity;
        }
        list = tavlen::allocate_bytes<ConnectFailure>(capacity * sizeof(ConnectFailure));
        return list != nullptr;
    }

    void add(int32_t error, int32_t family) { list.get()[count++] = {error, family}; }
};

const char *family_name(int32_t family)
{
    switch (family) {
    case PF_INET:
        return "PF_INET";
    case PF_INET6:
        return "PF_INET6";
    default:
        return "UNMATCHED";
    }
}

/// Readies a descriptor before it is connected; false passes the address over.
using Prepare = bool (*)(int fd);

/// Leaves the object connected, or without a descriptor and the refusals in `failures`.
bool connect_to_first(sock *s, const addrinfo *list, Prepare prepare, ConnectFailures *failures)
{
    for (const addrinfo *address = list; address != nullptr; address = address->ai_next) {
        if (!open_descriptor(s, address)) {
            continue;
        }
        if (!prepare(s->fd)) {
            socket_close(s);
            continue;
        }
        if (connect(s->fd, address->ai_addr, address->ai_addrlen) == 0) {
            return true;
        }
        failures->add(errno, address->ai_family);
        socket_close(s);
    }
    return false;
}

struct ConnectReports {
    ratelimit_slot no_server, no_port, no_object, no_memory, refused, unable;
};

void report_refusals(const char *function, ConnectReports *reports, const char *server,
                     const char *port, const ConnectFailures &failures)
{
    for (size_t i = 0; i < failures.count; ++i) {
        const ConnectFailure &failure = failures.list.get()[i];
        char reason[tavlen::error_text_size];
        tavlen::write_error_text(failure.error, reason, sizeof reason);
        LPRINTF_AS(function, reports->refused,
                   "connect to %s, port: %s, protocol family: %s returned: %s", server, port,
                   family_name(failure.family), reason);
    }
    LPRINTF_AS(function, reports->unable, "ERROR: unable to connect");
}

sock *connect_as(const char *function, ConnectReports *reports, const char *server,
                 const char *port, int32_t sock_type, Prepare prepare)
{
    if (server == nullptr) {
        LPRINTF_AS(function, reports->no_server, "ERROR: server is NULL");
        return nullptr;
    }
    if (port == nullptr) {
        LPRINTF_AS(function, reports->no_port, "ERROR: port is NULL");
        return nullptr;
    }
    owned_sock s(socket_create());
    if (s == nullptr) {
        LPRINTF_AS(function, reports->no_object, "ERROR: failed to create socket");
        return nullptr;
    }
    const address_list list = resolve(server, port, sock_type, 0);
    ConnectFailures failures;
    if (list != nullptr && !failures.reserve(list.get())) {
        LPRINTF_AS(function, reports->no_memory, "ERROR: low memory");
    } else if (list != nullptr) {
        if (connect_to_first(s.get(), list.get(), prepare, &failures)) {
            return s.release();
        }
        report_refusals(function, reports, server, port, failures);
    }
    socket_close(s.get()); // warns: no descriptor is open
    return nullptr;
}

bool prepare_nothing(int)
{
    return true;
}

/// Makes a dead peer known within seconds. Every option is tried, whatever became of the others.
bool prepare_fail_fast(int fd)
{
    constexpr struct {
        int level, name;
        int32_t value;
    } options[] = {
        {SOL_SOCKET, SO_KEEPALIVE, 1},           {IPPROTO_TCP, TCP_SYNCNT, 4},
        {IPPROTO_TCP, TCP_KEEPCNT, 10},          {IPPROTO_TCP, TCP_KEEPIDLE, 2}, // seconds
        {IPPROTO_TCP, TCP_KEEPINTVL, 1},                                         // seconds
        {IPPROTO_TCP, TCP_USER_TIMEOUT, 10'000},                                 // milliseconds
    };
    bool all_set = true;
    for (const auto &option : options) {
        const int result =
            setsockopt(fd, option.level, option.name, &option.value, sizeof option.value);
        all_set = all_set && result == 0;
    }
    return all_set;
}

} // namespace

sock *sock_connect_general(const char *server, const char *port, int32_t sock_type)
{
    static ConnectReports reports;
    return connect_as(__func__, &reports, server, port, sock_type, prepare_nothing);
}

sock *sock_connect_fail_fast(const char *server, const char *port)
{
    static ConnectReports reports;
    return connect_as(__func__, &reports, server, port, SOCK_STREAM, prepare_fail_fast);
}

sock *sock_listen(const char *server, const char *port)
{
    return sock_listen_general(server, port, SOCK_STREAM);
}

sock *sock_connect(const char *server, const char *port)
{
    return sock_connect_general(server, port, SOCK_STREAM);
}

namespace {

/// Waits for a connection under the listener's read lock; false with the errno in the object.
bool accept_into(sock *s, sock *listener)
{
    sockaddr_in6 peer{};
    socklen_t length = sizeof peer;
    const LockGuard lock(listener->sem_read);
    s->fd = accept4(descriptor_of(listener), reinterpret_cast<sockaddr *>(&peer), &length,
                    SOCK_CLOEXEC);
    return keep_failure(s, s->fd) != no_descriptor;
}

} // namespace

sock *sock_accept(sock *listener)
{
    if (listener == nullptr) {
        LPRINTF("ERROR: argument is NULL");
        return nullptr;
    }
    owned_sock s(socket_create());
    if (s == nullptr) {
        LPRINTF("ERROR: failed to create socket");
        return nullptr;
    }
    if (!accept_into(s.get(), listener)) {
        char reason[tavlen::error_text_size];
        LPRINTF("ERROR: unable to accept: %s",
                sock_socket_strerror(s.get(), reason, sizeof reason));
        return nullptr;
    }
    return s.release();
}

// ------------------------------------------------------------------------------------- datagrams

namespace {

constexpr size_t type_size = sizeof(uint32_t); // in front of every datagram's payload
constexpr size_t longest_datagram = 65535;
constexpr size_t receive_buffer_size = longest_datagram + 1;
constexpr size_t short_payload = 1024; // a log event's, and a size that malloc has at hand

} // namespace

int32_t sock_sendto(sock *s, const void *data, size_t data_size, uint32_t type,
                    const struct sockaddr *addr, socklen_t addr_len)
{
    if (data_size > std::numeric_limits<uint32_t>::max()) {
        LPRINTF("WARNING: data_size too big");
        return -1;
    }
    if (data_size > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        LPRINTF("WARNING: data_size too large");
        return -1;
    }
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return -1;
    }
    if (data == nullptr) {
        LPRINTF("ERROR: data NULL");
        return -1;
    }
    if (data_size == 0) {
        LPRINTF("ERROR: data_size is too small");
        return -1;
    }
    const size_t size = data_size + type_size;
    if (size > longest_datagram) {
        LPRINTF("ERROR: data size too large to fit in datagram (%u)", static_cast<unsigned>(size));
        return -1;
    }
    const auto datagram = tavlen::allocate_bytes<uint8_t>(size);
    if (datagram == nullptr) {
        LPRINTF("ERROR: low memory");
        return -1;
    }
    const LockGuard lock(s->sem_write);
    tavlen::store_wire(datagram.get(), type);
    memcpy(datagram.get() + type_size, data, data_size);
    if (sendto(descriptor_of(s), datagram.get(), size, 0, addr, addr_len) !=
        static_cast<ssize_t>(size)) {
        keep_error(s, errno);
        return -1;
    }
    return static_cast<int32_t>(size);
}

namespace {

struct ReceiveReports {
    ratelimit_slot no_sock, no_size, no_type;
};

void report_missing(const char *function, ReceiveReports *reports, const sock *s,
                    const uint32_t *size)
{
    if (s == nullptr) {
        LPRINTF_AS(function, reports->no_sock, "ERROR: sock is NULL");
    } else if (size == nullptr) {
        LPRINTF_AS(function, reports->no_size, "ERROR: size is NULL");
    } else {
        LPRINTF_AS(function, reports->no_type, "ERROR: type is NULL");
    }
}

/// The checks that the receives of a whole payload share.
bool has_outputs(const char *function, ReceiveReports *reports, const sock *s, const uint32_t *size,
                 const uint32_t *type)
{
    const bool all_there = s != nullptr && size != nullptr && type != nullptr;
    if (!all_there) [[unlikely]] {
        report_missing(function, reports, s, size);
    }
    return all_there;
}

/**
 * The block that a datagram is received into: it holds the longest one. One block is kept from
 * receive to receive, as most payloads are short and move to blocks of their own; a thread that
 * finds none kept, another being at it, gets a new one.
 */
class ReceiveBlock {
public:
    ReceiveBlock() : block_(tavlen::exchange(kept_, nullptr))
    {
        if (block_ == nullptr) {
            block_ = tavlen::allocate_bytes<uint8_t>(receive_buffer_size).release();
        }
    }
    ~ReceiveBlock()
    {
        if (block_ != nullptr) {
            free(tavlen::exchange(kept_, block_));
        }
    }
    ReceiveBlock(const ReceiveBlock &) = delete;
    ReceiveBlock &operator=(const ReceiveBlock &) = delete;

    /// Null without memory.
    uint8_t *get() const { return block_; }
    owned<uint8_t> release() { return owned<uint8_t>(std::exchange(block_, nullptr)); }

private:
    static inline uint8_t *kept_ = nullptr;
    uint8_t *block_;
};

/// The payload moved to the block's start and the block cut to it; null when it cannot be cut.
owned<uint8_t> cut_to_payload(owned<uint8_t> datagram, size_t payload_size)
{
    memmove(datagram.get(), datagram.get() + type_size, payload_size);
    void *cut = realloc(datagram.get(), payload_size);
    if (cut == nullptr) {
        return nullptr;
    }
    (void)datagram.release();
    return owned<uint8_t>(static_cast<uint8_t *>(cut));
}

} // namespace

void *sock_recvfrom(sock *s, uint32_t *size, uint32_t *type, struct sockaddr *addr,
                    socklen_t *addr_len)
{
    static ReceiveReports reports;
    if (!has_outputs(__func__, &reports, s, size, type)) {
        return nullptr;
    }
    // Both are there before the datagram is taken, so that no lack of memory can lose a short one.
    auto payload = tavlen::allocate_bytes<uint8_t>(short_payload);
    ReceiveBlock datagram;
    if (payload == nullptr || datagram.get() == nullptr) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    const bool wants_sender = addr != nullptr && addr_len != nullptr;
    const LockGuard lock(s->sem_read);
    const ssize_t received =
        recvfrom(descriptor_of(s), datagram.get(), longest_datagram, 0,
                 wants_sender ? addr : nullptr, wants_sender ? addr_len : nullptr);
    if (received <= static_cast<ssize_t>(type_size)) {
        keep_error(s, received != 0 ? errno : 0);
        return nullptr;
    }
    *type = tavlen::load_wire<uint32_t>(datagram.get());
    *size = static_cast<uint32_t>(received) - static_cast<uint32_t>(type_size);
    if (*size <= short_payload) {
        memcpy(payload.get(), datagram.get() + type_size, *size);
        return payload.release();
    }
    payload = cut_to_payload(datagram.release(), *size);
    if (payload == nullptr) {
        LPRINTF("ERROR: low memory");
    }
    return payload.release();
}

// --------------------------------------------------------------------------------------- streams

int64_t sock_send(sock *s, const void *data, size_t len, int32_t flags)
{
    if (s == nullptr) {
        LPRINTF("ERROR: NULL param: sock");
        return -1;
    }
    if (data == nullptr) {
        LPRINTF("ERROR: NULL param: data");
        return -1;
    }
    if (len == 0) {
        LPRINTF("WARNING: data_size is zero");
        return -1;
    }
    const ssize_t sent = send(descriptor_of(s), data, len, flags);
    if (sent == -1) {
        keep_error(s, errno);
    }
    return sent;
}

int64_t sock_recv(sock *s, void *buf, uint32_t len, int32_t flags)
{
    if (s == nullptr) {
        LPRINTF("ERROR: NULL param: sock");
        return -1;
    }
    if (buf == nullptr) {
        LPRINTF("ERROR: NULL param: data");
        return -1;
    }
    if (len == 0) {
        LPRINTF("ERROR: data_size is zero");
        return -1;
    }
    const ssize_t received = recv(descriptor_of(s), buf, len, flags);
    keep_error(s, received != 0 ? errno : 0);
    return received;
}

namespace {

struct SendReports {
    ratelimit_slot too_big, too_large, no_sock, no_data, too_small;
};

/// The checks that the sends of a whole block share.
bool is_sendable(const char *function, SendReports *reports, const sock *s, const void *data,
                 size_t data_size)
{
    if (data_size > std::numeric_limits<uint32_t>::max()) {
        LPRINTF_AS(function, reports->too_big, "WARNING: data_size too big");
    } else if (data_size > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
        LPRINTF_AS(function, reports->too_large, "WARNING: data_size too large");
    } else if (s == nullptr) {
        LPRINTF_AS(function, reports->no_sock, "ERROR: sock is NULL");
    } else if (data == nullptr) {
        LPRINTF_AS(function, reports->no_data, "ERROR: data is NULL");
    } else if (data_size == 0) {
        LPRINTF_AS(function, reports->too_small, "ERROR: data_size is too small");
    } else {
        return true;
    }
    return false;
}

} // namespace

int64_t sock_send_all(sock *s, const void *data, size_t data_size, int32_t flags)
{
    static SendReports reports;
    if (!is_sendable(__func__, &reports, s, data, data_size)) {
        return -1;
    }
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (size_t done = 0; done < data_size;) {
        const ssize_t sent =
            send(descriptor_of(s), bytes + done, data_size - done, flags | MSG_NOSIGNAL);
        if (sent <= 0) {
            const int error = errno;
            keep_error(s, error); // which a receiver may change before the report is made
            char reason[tavlen::error_text_size];
            tavlen::write_error_text(error, reason, sizeof reason);
            LPRINTF("ERROR: unable to send: %s", reason);
            return -1;
        }
        done += static_cast<size_t>(sent);
    }
    return static_cast<int64_t>(data_size);
}

int32_t sock_recv_all(sock *s, void *data, int32_t data_size, int32_t flags)
{
    if (s == nullptr) {
        LPRINTF("ERROR: sock is NULL");
        return -1;
    }
    if (data == nullptr) {
        LPRINTF("ERROR: data is NULL");
        return -1;
    }
    if (data_size <= 0) {
        LPRINTF("ERROR: data_size is too small");
        return -1;
    }
    auto *bytes = static_cast<uint8_t *>(data);
    for (int32_t done = 0; done < data_size;) {
        const ssize_t received = recv(descriptor_of(s), bytes + done,
                                      static_cast<size_t>(data_size - done), flags | MSG_WAITALL);
        if (received <= 0) {
            const int error = received != 0 ? errno : 0;
            const bool peer_is_gone = error == ECONNRESET || error == ENOTCONN;
            keep_error(s, peer_is_gone ? 0 : error); // as after an orderly end
            return -1;
        }
        done += static_cast<int32_t>(received);
    }
    return data_size;
}

namespace {

constexpr int32_t frame_head_size = 8; // length of the payload, type

} // namespace

int64_t sock_send_packet(sock *s, const void *data, size_t data_size, uint32_t type)
{
    static SendReports reports;
    if (!is_sendable(__func__, &reports, s, data, data_size)) {
        return -1;
    }
    uint8_t head[frame_head_size];
    tavlen::store_wire(head, static_cast<uint32_t>(data_size));
    tavlen::store_wire(head + sizeof(uint32_t), type);
    const LockGuard lock(s->sem_write);
    if (sock_send_all(s, head, sizeof head, MSG_MORE) == -1 ||
        sock_send_all(s, data, data_size, 0) == -1) {
        LPRINTF("ERROR: unable to send");
        return -1;
    }
    return static_cast<int64_t>(data_size) + frame_head_size;
}

void *sock_recv_packet_nolock(sock *s, uint32_t *size, uint32_t *type)
{
    static ReceiveReports reports;
    if (!has_outputs(__func__, &reports, s, size, type)) {
        return nullptr;
    }
    uint8_t head[frame_head_size];
    if (sock_recv_all(s, head, frame_head_size, 0) == -1) {
        return nullptr;
    }
    const auto length = static_cast<int32_t>(tavlen::load_wire<uint32_t>(head));
    auto payload = length >= 0 ? tavlen::allocate_bytes(static_cast<size_t>(length)) : nullptr;
    if (payload == nullptr) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    if (sock_recv_all(s, payload.get(), length, 0) == -1) {
        return nullptr;
    }
    *size = static_cast<uint32_t>(length);
    *type = tavlen::load_wire<uint32_t>(head + sizeof(uint32_t));
    return payload.release();
}

void *sock_recv_packet(sock *s, uint32_t *size, uint32_t *type)
{
    if (s == nullptr) {
        LPRINTF("ERROR: invalid arguments");
        return nullptr;
    }
    const LockGuard lock(s->sem_read);
    return sock_recv_packet_nolock(s, size, type);
}
