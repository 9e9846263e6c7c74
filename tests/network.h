/* What the tests of packets, sockets and the collector share: owners, and two connected sockets. */
#ifndef TAVLEN_TESTS_NETWORK_H
#define TAVLEN_TESTS_NETWORK_H

#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <TavlenCommon/buffer_packet.h>

#include "support.h"

/// Owns an object of the library and stands wherever its pointer does.
template <class T, void (*destroy)(T *)>
struct Owner : std::unique_ptr<T, void (*)(T *)> {
    Owner(T *object) : std::unique_ptr<T, void (*)(T *)>(object, destroy) {}
    operator T *() const { return this->get(); }
};
using Packet = Owner<clpacket, clpacket_destroy>;
using Socket = Owner<sock, sock_close>;

/// A packet as a receive leaves it.
inline Packet received(const std::vector<uint8_t> &wire)
{
    Packet p = clpacket_create();
    EXPECT_EQ(clpacket_alloc_buffer(p, wire.size()), 0);
    memcpy(clpacket_get_buffer(p), wire.data(), wire.size());
    return p;
}

inline std::vector<uint8_t> wire_of(clpacket *p)
{
    EXPECT_EQ(clpacket_serialize(p), 0);
    const auto *start = static_cast<uint8_t *>(clpacket_get_buffer(p));
    return {start, start + clpacket_get_buffer_size(p)};
}

inline std::string port_of(sock *s)
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(sock_getsockname(s, reinterpret_cast<sockaddr *>(&address), &length), 0);
    return std::to_string(ntohs(address.sin_port));
}

/// Two datagram sockets on 127.0.0.1, one connected to the other.
struct DatagramTest : ReportingTest {
    Socket listener = sock_listen_general("127.0.0.1", "0", SOCK_DGRAM);
    Socket sender = sock_connect_general("127.0.0.1", port_of(listener).c_str(), SOCK_DGRAM);
};

#endif
