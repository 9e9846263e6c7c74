/* Datagrams over the loopback interface, and what the kernel tells about their receiver's socket.
 */
#ifndef TAVLEN_BENCH_LOOPBACK_H
#define TAVLEN_BENCH_LOOPBACK_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// A datagram socket that is closed with the object.
class DatagramSocket {
public:
    DatagramSocket();
    ~DatagramSocket();
    DatagramSocket(const DatagramSocket &) = delete;
    DatagramSocket &operator=(const DatagramSocket &) = delete;

    int fd() const { return fd_; }

    bool connect_to(uint16_t port) const;

    /// Sends the same datagram `count` times, one call each.
    bool send_one_by_one(const std::string &datagram, size_t count) const;

    /// The same with as few calls as can be: the fastest that one thread can send.
    bool send_in_bulk(const std::string &datagram, size_t count) const;

private:
    int fd_;
};

/// A port that nobody receives on just now; 0 when there is none.
uint16_t find_free_port();

/// What the kernel tells about a socket: bytes that wait in it, as it counts them, and datagrams
/// that it dropped because there was no room for them.
struct SocketState {
    size_t queued;
    uint64_t drops;
};

/// Of the socket bound to that port; none while nobody has bound it.
std::optional<SocketState> socket_state(uint16_t port);

/// Datagrams on their way to any socket that the kernel dropped before they reached it: its queues
/// between a device and the sockets have an end, too.
uint64_t backlog_drops();

/// Bytes that wait in the socket bound to that port, as the kernel counts them; none while nobody
/// has bound it.
std::optional<size_t> queued_bytes(uint16_t port);

/// What such a datagram takes of a receive buffer: more than its bytes.
size_t buffer_charge(const std::string &datagram);

#endif
