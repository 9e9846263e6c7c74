/*
 * Sockets: one descriptor with its locks, its holders and the error of its last failed call.
 *
 * Conventions
 *  1. Null arguments and failed openings are reported (logger.h). A failed transfer is not: the
 *     errno is kept in `error`, and the caller decides. Results are 0 or -1, or a pointer that is
 *     null after a failure, unless said otherwise.
 *  2. Any thread may use a socket. Receives hold `sem_read`, sends `sem_write`, so that one of each
 *     may work at once and datagrams and frames never mix; `sem_read` is taken before `sem_write`.
 *     What takes no lock says nothing of one.
 *  3. An object has one holder when it is made. It ends with sock_close, by a sole holder, or with
 *     the sock_unref of the last one. Both shut the connection down, also for a process that shares
 *     the descriptor after fork; socket_close does not.
 *  4. Descriptors are closed on exec.
 */
#ifndef TAVLEN_COMMON_SOCKET_H
#define TAVLEN_COMMON_SOCKET_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <TavlenCommon/com_semaphore.h>
#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A socket. Members are for the library. */
typedef struct sock {
    int32_t fd;               /**< -1: none */
    int32_t error;            /**< errno of the last failed call; 0 after an orderly end */
    com_semaphore *sem_read;  /**< one receiver at a time */
    com_semaphore *sem_write; /**< one sender at a time */
    com_semaphore *sem_ref;   /**< guards ref_count */
    int32_t ref_count;
} sock;

/** Descriptors to wait for; belongs to one thread. */
typedef struct sock_fd_set {
    fd_set fds;
    int32_t max_fd; /**< the highest that was added since the set was zeroed; 0: none */
} sock_fd_set;

/** A new object without a descriptor. */
TAVLEN_API sock *socket_create(void);

/** A new object with a descriptor of its own; the arguments are those of socket(2). */
TAVLEN_API sock *sock_socket(int32_t domain, int32_t type, int32_t protocol);

/** Closes the descriptor; the object stays. A closed one is warned about. */
TAVLEN_API void socket_close(sock *s);

/**
 * Shuts the connection down, which frees threads that are blocked in a transfer, then closes the
 * descriptor under both locks. The object stays.
 */
TAVLEN_API void sock_disconnect(sock *s);

/** Shuts down, closes and frees; refused with a warning while there are two holders or more. */
TAVLEN_API void sock_close(sock *s);

/** One more holder. */
TAVLEN_API void sock_ref(sock *s);

/** One holder fewer; the last one's shuts down, closes and frees. */
TAVLEN_API void sock_unref(sock *s);

/* The locks, for callers that hold one over several operations. */
TAVLEN_API void sock_lock_r(sock *s);
TAVLEN_API void sock_unlock_r(sock *s);
TAVLEN_API void sock_lock_w(sock *s);
TAVLEN_API void sock_unlock_w(sock *s);

/** The `error` of the socket; -1 for null. */
TAVLEN_API int32_t sock_socket_get_error(sock *s);

/** Writes the text of the socket's `error` into `buf` and gives `buf`; null for null arguments. */
TAVLEN_API char *sock_socket_strerror(sock *s, char *buf, size_t size);

/** The type: 1 stream, 2 datagram (SO_TYPE). -1, reported; `error` stays. */
TAVLEN_API int32_t sock_get_sock_type(sock *s);

/** setsockopt(2). */
TAVLEN_API int32_t sock_setsockopt(sock *s, int32_t level, int32_t name, const void *value,
                                   socklen_t len);

/** getsockname(2). */
TAVLEN_API int32_t sock_getsockname(sock *s, struct sockaddr *addr, socklen_t *len);

/**
 * Writes the peer's numeric address and port, joined by a colon and cut to `size`, into `buf`.
 * -1, or the negative code of getnameinfo(3).
 */
TAVLEN_API int32_t sock_getpeername_str(sock *s, char *buf, size_t size);

/* Sets of descriptors from 0 to 1023; another one is reported and left alone. */
TAVLEN_API sock_fd_set *sock_fd_set_init(void);
TAVLEN_API void sock_fd_set_destroy(sock_fd_set *set);
TAVLEN_API void sock_FD_ZERO(sock_fd_set *set);
TAVLEN_API void sock_FD_SET(sock *s, sock_fd_set *set);
TAVLEN_API void sock_FD_CLR(sock *s, sock_fd_set *set);

/** 1 when the descriptor is in the set, 0 when not; -1 for null arguments. */
TAVLEN_API int32_t sock_FD_ISSET(sock *s, sock_fd_set *set);

/** select(2) over the sets, each of which may be null; gives its result. */
TAVLEN_API int32_t sock_select(sock_fd_set *rd, sock_fd_set *wr, sock_fd_set *ex,
                               struct timeval *timeout);

/**
 * A socket bound to the first usable address of a local host name or number and a port name or
 * number; one that is not a datagram socket listens with a backlog of 128. The address may be in
 * use by another process that shares it too (SO_REUSEADDR). `sock_type`: 1 stream, 2 datagram.
 */
TAVLEN_API sock *sock_listen_general(const char *server, const char *port, int32_t sock_type);

/** A socket, 1 stream or 2 datagram, connected to the first address of a host and port to accept.
 */
TAVLEN_API sock *sock_connect_general(const char *server, const char *port, int32_t sock_type);

/**
 * Sends one datagram: `type` (4 bytes, big-endian), then the 1 to 65,531 bytes of `data`; to the
 * connected peer when `addr` is null. Holds `sem_write`. The bytes sent, `data_size` + 4; or -1:
 * bad arguments (a size above 31 bits first) and lack of memory are reported, a failed send is not.
 */
TAVLEN_API int32_t sock_sendto(sock *s, const void *data, size_t data_size, uint32_t type,
                               const struct sockaddr *addr, socklen_t addr_len);

/**
 * Waits for one datagram and gives its bytes behind the type, a new block for the caller to free.
 * The block may be larger than `size`. The sender's address is stored when `addr` and `addr_len`
 * are both given. Holds `sem_read`. Null without a report when the receive fails or brings 4 bytes
 * or fewer.
 */
TAVLEN_API void *sock_recvfrom(sock *s, uint32_t *size, uint32_t *type, struct sockaddr *addr,
                               socklen_t *addr_len);

/*
 * Streams. A frame is the length of its payload and its type, 4 bytes each and big-endian, then the
 * payload of 1 to 2,147,483,647 bytes. After a failed transfer of a frame the place of the next one
 * is lost: end the connection.
 */

/** sock_listen_general for streams. */
TAVLEN_API sock *sock_listen(const char *server, const char *port);

/** sock_connect_general for streams. */
TAVLEN_API sock *sock_connect(const char *server, const char *port);

/**
 * sock_connect that gives up soon: at most 4 repeated requests, and on the connection keep-alive
 * probes after 2 seconds of silence and an end after 10 seconds without an acknowledgement.
 */
TAVLEN_API sock *sock_connect_fail_fast(const char *server, const char *port);

/**
 * Waits for a connection and gives it as a new socket. Holds the listener's `sem_read`, and leaves
 * it usable after a failure, which is reported.
 */
TAVLEN_API sock *sock_accept(sock *listener);

/**
 * send(2), once, with the signal that it raises when the peer is gone. The bytes sent; -1.
 *
 * This one, sock_send_all, sock_recv and sock_recv_all take no lock: where other threads send,
 * receive or disconnect, the caller holds the write lock (sock_lock_w) or the read lock
 * (sock_lock_r) around them.
 */
TAVLEN_API int64_t sock_send(sock *s, const void *data, size_t len, int32_t flags);

/** recv(2), once. The bytes received (`error` then means nothing), 0 at the stream's end; -1. */
TAVLEN_API int64_t sock_recv(sock *s, void *buf, uint32_t len, int32_t flags);

/**
 * Sends every byte (at most 2,147,483,647), without a signal when the peer is gone. `data_size`; or
 * -1, reported.
 */
TAVLEN_API int64_t sock_send_all(sock *s, const void *data, size_t data_size, int32_t flags);

/**
 * Fills the buffer, waiting as long as it takes. `data_size`; or -1, with `error` 0 when the peer
 * has closed or reset the connection or there is none. What had come stays in the buffer. Only bad
 * arguments are reported.
 */
TAVLEN_API int32_t sock_recv_all(sock *s, void *data, int32_t data_size, int32_t flags);

/** Sends one frame. Holds `sem_write`. `data_size` + 8; or -1, reported. */
TAVLEN_API int64_t sock_send_packet(sock *s, const void *data, size_t data_size, uint32_t type);

/**
 * Waits for one frame and gives its payload, a new block for the caller to free. Holds `sem_read`.
 * Null after a failed receive, which is not reported (see sock_recv_all), or for a length of 0 or
 * one that memory does not suffice for, which are; `size` and `type` are left alone then.
 */
TAVLEN_API void *sock_recv_packet(sock *s, uint32_t *size, uint32_t *type);

/** sock_recv_packet for a caller that holds `sem_read` itself (sock_lock_r). */
TAVLEN_API void *sock_recv_packet_nolock(sock *s, uint32_t *size, uint32_t *type);

#ifdef __cplusplus
}
#endif

#endif
