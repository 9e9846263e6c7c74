#include "faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/time.h>

FakePlatform fake_platform;
thread_local std::vector<int> sent_flags;

static std::atomic<Fault *> active_fault = nullptr; // one at a time

Fault::Fault(const char *function, int n, Failing failing, int64_t result, int error)
    : function_(function), calls_until_(n), failing_(failing), result_(result), error_(error)
{
    active_fault = this;
}

bool Fault::struck()
{
    active_fault = nullptr;
    return struck_;
}

bool Fault::strikes(const char *function, int64_t *result)
{
    Fault *fault = active_fault;
    if (fault == nullptr || strcmp(function, fault->function_) != 0) {
        return false;
    }
    const int calls_until = --fault->calls_until_;
    if (calls_until > 0 || (calls_until < 0 && fault->failing_ == Failing::once)) {
        return false;
    }
    fault->struck_ = true;
    *result = fault->result_;
    errno = function == allocation ? ENOMEM : fault->error_;
    return true;
}

// The linker gives these names: a call arrives at __wrap_, and the platform's function is __real_.
#define WRAP(type, function, parameters, ...)                                                                          \
    extern "C" type __real_##function parameters;                                                                      \
    extern "C" type __wrap_##function parameters;                                                                      \
    type __wrap_##function parameters                                                                                  \
    {                                                                                                                  \
        __VA_ARGS__                                                                                                    \
    }
#define FAULTABLE_AS(kind, type, function, parameters, arguments)                                                      \
    WRAP(type, function, parameters, int64_t result = 0;                                                               \
         return Fault::strikes(kind, &result) ? (type)result : __real_##function arguments;)
#define FAULTABLE(type, function, parameters, arguments) FAULTABLE_AS(#function, type, function, parameters, arguments)

/// The part of so many bytes that the platform takes or gives at once.
static size_t piece(size_t size)
{
    return std::min(size, fake_platform.most_bytes);
}

#define ALLOCATING(type, function, parameters, arguments, is_new)                                                      \
    WRAP(type, function, parameters, int64_t none = 0;                                                                 \
         type given = Fault::strikes(allocation, &none) ? nullptr : __real_##function arguments;                       \
         fake_platform.blocks += given != nullptr && (is_new); return given;)

ALLOCATING(void *, malloc, (size_t size), (size), true)
ALLOCATING(void *, calloc, (size_t count, size_t size), (count, size), true)
ALLOCATING(void *, realloc, (void *block, size_t size), (block, size), block == nullptr)
ALLOCATING(char *, strdup, (const char *text), (text), true)
WRAP(void, free, (void *block), fake_platform.blocks -= block != nullptr; __real_free(block);)
FAULTABLE(int, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a))
FAULTABLE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
FAULTABLE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))
FAULTABLE(int, pthread_mutex_trylock, (pthread_mutex_t * m), (m))
FAULTABLE(int, pthread_mutex_destroy, (pthread_mutex_t * m), (m))
FAULTABLE(int, sem_init, (sem_t * s, int shared, unsigned value), (s, shared, value))
FAULTABLE(int, sem_wait, (sem_t * s), (s))
FAULTABLE(int, sem_post, (sem_t * s), (s))
FAULTABLE(int, sem_destroy, (sem_t * s), (s))
FAULTABLE(int, pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t *a), (c, a))
FAULTABLE(int, pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t *m), (c, m))
FAULTABLE(int, pthread_cond_timedwait, (pthread_cond_t * c, pthread_mutex_t *m, const timespec *t), (c, m, t))
FAULTABLE(int, pthread_cond_signal, (pthread_cond_t * c), (c))
FAULTABLE(int, pthread_cond_destroy, (pthread_cond_t * c), (c))
FAULTABLE(int, gettimeofday, (timeval * t, void *zone), (t, zone))
FAULTABLE(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAULTABLE(int, close, (int fd), (fd))
FAULTABLE(int, setsockopt, (int fd, int l, int o, const void *v, socklen_t n),
          (((o == SO_RCVBUF ? memcpy(&fake_platform.receive_buffer, v, n) : nullptr), ++fake_platform.options, fd), l,
           o, v, n))
FAULTABLE(int, bind, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
FAULTABLE(int, listen, (int fd, int backlog), (fd, backlog))
FAULTABLE(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
FAULTABLE(int, accept4, (int fd, sockaddr *address, socklen_t *size, int flags), (fd, address, size, flags))
FAULTABLE(int, getsockname, (int fd, sockaddr *address, socklen_t *size), (fd, address, size))
FAULTABLE(int, getpeername, (int fd, sockaddr *address, socklen_t *size), (fd, address, size))
FAULTABLE(int, getnameinfo, (const sockaddr *a, socklen_t n, char *h, socklen_t hn, char *s, socklen_t sn, int f),
          (a, n, h, hn, s, sn, f))
FAULTABLE(ssize_t, send, (int fd, const void *data, size_t n, int f),
          (fd, data, piece(n), (sent_flags.push_back(f), f)))
FAULTABLE(ssize_t, recv, (int fd, void *data, size_t n, int f), (fd, data, piece(n), f))
FAULTABLE(ssize_t, write, (int fd, const void *data, size_t n), (fd, data, piece(n)))
FAULTABLE(ssize_t, sendto, (int fd, const void *data, size_t n, int f, const sockaddr *a, socklen_t an),
          (fd, data, n, f, a, an))
FAULTABLE(ssize_t, recvfrom, (int fd, void *data, size_t n, int f, sockaddr *a, socklen_t *an), (fd, data, n, f, a, an))
FAULTABLE(int, pthread_setspecific, (pthread_key_t key, const void *value), (key, value))
FAULTABLE(int, vsnprintf, (char *text, size_t size, const char *format, va_list args), (text, size, format, args))
FAULTABLE_AS("vsnprintf", int, __vsnprintf_chk,
             (char *text, size_t size, int flag, size_t room, const char *format, va_list args),
             (text, size, flag, room, format, args))

static addrinfo *made_up_addresses(const std::vector<int> &families, int type)
{
    static addrinfo list[4];
    for (size_t i = 0; i < families.size(); ++i) {
        list[i] = {0, families[i], type, 0, 0, nullptr, nullptr, i + 1 < families.size() ? &list[i + 1] : nullptr};
    }
    return list;
}

WRAP(int, getaddrinfo, (const char *server, const char *port, const addrinfo *hints, addrinfo **list),
     *list = made_up_addresses(fake_platform.families, hints->ai_socktype);
     return !fake_platform.families.empty() ? 0 : __real_getaddrinfo(server, port, hints, list);)
WRAP(void, freeaddrinfo, (addrinfo * list), if (fake_platform.families.empty()) __real_freeaddrinfo(list);)
FAULTABLE(int, select, (int count, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout),
          (fake_platform.selected = count, rd, wr, ex, timeout))
WRAP(unsigned, sleep, (unsigned), ++fake_platform.sleeps; return 0;)
WRAP(time_t, time, (time_t * t), return fake_platform.now != 0 ? fake_platform.now : __real_time(t);)

WRAP(void, openlog, (const char *identity, int option, int facility),
     fake_platform.opened +=
     std::string(identity) + " " + std::to_string(option) + " " + std::to_string(facility) + "\n";)

/// Notes a call whose format has one text to fill in; a fortified build calls the second function.
#define WRAP_SYSLOG(function, parameters)                                                                              \
    WRAP(void, function, parameters, va_list args; va_start(args, format);                                             \
         fake_platform.syslog += fake_platform.opened.empty() ? "not opened: " : "";                                   \
         fake_platform.syslog += std::to_string(priority) + " " + format + " " + va_arg(args, const char *);           \
         va_end(args);)
WRAP_SYSLOG(syslog, (int priority, const char *format, ...))
WRAP_SYSLOG(__syslog_chk, (int priority, int, const char *format, ...))
