#include "faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

FakePlatform fake_platform;

namespace {

std::atomic<Fault *> active_fault = nullptr; // one at a time

} // namespace

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

#define WRAP_AS(kind, type, function, parameters, arguments)                                       \
    extern "C" type __real_##function parameters;                                                  \
    extern "C" type __wrap_##function parameters;                                                  \
    type __wrap_##function parameters                                                              \
    {                                                                                              \
        int64_t result = 0;                                                                        \
        return Fault::strikes(kind, &result) ? (type)result : __real_##function arguments;         \
    }
#define WRAP(type, function, parameters, arguments)                                                \
    WRAP_AS(#function, type, function, parameters, arguments)

WRAP_AS(allocation, void *, malloc, (size_t size), (size))
WRAP_AS(allocation, void *, calloc, (size_t count, size_t size), (count, size))
WRAP_AS(allocation, void *, realloc, (void *block, size_t size), (block, size))
WRAP_AS(allocation, char *, strdup, (const char *text), (text))
WRAP(int, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a))
WRAP(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
WRAP(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))
WRAP(int, pthread_mutex_trylock, (pthread_mutex_t * m), (m))
WRAP(int, pthread_mutex_destroy, (pthread_mutex_t * m), (m))
WRAP(int, sem_init, (sem_t * s, int shared, unsigned value), (s, shared, value))
WRAP(int, sem_wait, (sem_t * s), (s))
WRAP(int, sem_post, (sem_t * s), (s))
WRAP(int, sem_destroy, (sem_t * s), (s))
WRAP(int, socket, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(int, close, (int descriptor), (descriptor))
WRAP(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size),
     (fd, level, name, value, size))
WRAP(int, bind, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))
WRAP(int, listen, (int fd, int backlog), (fd, backlog))
WRAP(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size))

extern "C" {

int __wrap_select(int count, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout);
int __real_select(int count, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout);
int __wrap_select(int count, fd_set *rd, fd_set *wr, fd_set *ex, timeval *timeout)
{
    fake_platform.selected = count;
    return __real_select(count, rd, wr, ex, timeout);
}

int __wrap_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **list);
int __real_getaddrinfo(const char *, const char *, const addrinfo *, addrinfo **list);
int __wrap_getaddrinfo(const char *server, const char *port, const addrinfo *hints, addrinfo **list)
{
    static addrinfo made_up[4];
    const size_t count = fake_platform.families.size();
    for (size_t i = 0; i < count; ++i) {
        made_up[i] = {0,
                      fake_platform.families[i],
                      hints->ai_socktype,
                      0,
                      0,
                      nullptr,
                      nullptr,
                      i + 1 < count ? &made_up[i + 1] : nullptr};
    }
    *list = made_up;
    return count != 0 ? 0 : __real_getaddrinfo(server, port, hints, list);
}

void __wrap_freeaddrinfo(addrinfo *list);
void __real_freeaddrinfo(addrinfo *list);
void __wrap_freeaddrinfo(addrinfo *list)
{
    if (fake_platform.families.empty()) {
        __real_freeaddrinfo(list);
    }
}

unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned)
{
    ++fake_platform.sleeps;
    return 0;
}

time_t __real_time(time_t *result);
time_t __wrap_time(time_t *result);
time_t __wrap_time(time_t *result)
{
    return fake_platform.now != 0 ? fake_platform.now : __real_time(result);
}

void __wrap_openlog(const char *identity, int option, int facility);
void __wrap_openlog(const char *identity, int option, int facility)
{
    fake_platform.syslog += "openlog " + std::string(identity) + " " + std::to_string(option) +
                            " " + std::to_string(facility) + "\n";
}

__attribute__((format(printf, 2, 0))) static void note_syslog(int priority, const char *format,
                                                              va_list args)
{
    char text[8192];
    (void)vsnprintf(text, sizeof text, format, args);
    fake_platform.syslog += std::to_string(priority) + " " + format + " " + text;
}

__attribute__((format(printf, 2, 3))) void __wrap_syslog(int priority, const char *format, ...);
void __wrap_syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    note_syslog(priority, format, args);
    va_end(args);
}

/// What a fortified build calls.
__attribute__((format(printf, 3, 4))) void __wrap___syslog_chk(int priority, int flag,
                                                               const char *format, ...);
void __wrap___syslog_chk(int priority, int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    note_syslog(priority, format, args);
    va_end(args);
}

} // extern "C"
