// Connections, frames, and packets that travel as frames.
#include <cerrno>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "faults.h"
#include "network.h"

namespace {

/// Two ends of a connection on 127.0.0.1.
struct Streams : ReportingTest {
    Socket listener = sock_listen("127.0.0.1", "0");
    Socket client = sock_connect("127.0.0.1", port_of(listener).c_str());
    Socket server = sock_accept(listener);

    void send_raw(const std::string &hex)
    {
        const std::vector<uint8_t> wire = bytes(hex);
        EXPECT_EQ(sock_send(client, wire.data(), wire.size(), 0), static_cast<int64_t>(wire.size()));
    }
    /// The client's end goes: in order, or by a reset, which a shutdown before would keep from view.
    void end_client(bool reset)
    {
        const linger at_once{reset ? 1 : 0, 0};
        sock_setsockopt(client, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        if (reset) {
            socket_close(client);
        } else {
            client = nullptr;
        }
    }
    /// Nothing comes of a receive, and this is the error afterwards.
    void expect_no_frame(int32_t error)
    {
        uint32_t size = 77, type = 77;
        server->error = 99;
        EXPECT_EQ(sock_recv_packet(server, &size, &type), nullptr);
        EXPECT_EQ(sock_socket_get_error(server), error);
        EXPECT_EQ(size, 77U);
        EXPECT_EQ(type, 77U);
    }
};

TEST_F(Streams, FramesOnTheWire)
{
    uint32_t size = 0, type = 0;
    char raw[32];
    EXPECT_EQ(sock_send_packet(client, "abc", 3, 7), 11);
    EXPECT_EQ(sock_recv_all(server, raw, 11, 0), 11);
    EXPECT_EQ(memcmp(raw, "\0\0\0\3\0\0\0\7abc", 11), 0);
    EXPECT_EQ(sock_send_packet(client, "abc", 3, 0xfffffffe), 11);
    void *payload = sock_recv_packet(server, &size, &type);
    EXPECT_EQ(std::string(static_cast<char *>(payload), size), "abc");
    EXPECT_EQ(type, 0xfffffffe);
    free(payload);
    EXPECT_EQ(sock_send(client, "xyz", 3, 0), 3);
    EXPECT_EQ(sock_recv(server, raw, sizeof raw, 0), 3);
    EXPECT_EQ(sock_recv(server, raw, sizeof raw, MSG_DONTWAIT), -1);
    EXPECT_EQ(server->error, EAGAIN);
    end_client(false);
    EXPECT_EQ(sock_recv(server, raw, sizeof raw, 0), 0);
    EXPECT_EQ(server->error, 0);
}

TEST_F(Streams, RefusedArgumentsInOrder)
{
    uint32_t size = 0;
    char byte = 0;
    EXPECT_REPORTED(sock_send(nullptr, nullptr, 0, 0), -1, "sock_send: ERROR: NULL param: sock");
    EXPECT_REPORTED(sock_send(client, nullptr, 0, 0), -1, "sock_send: ERROR: NULL param: data");
    EXPECT_REPORTED(sock_send(client, &byte, 0, 0), -1, "sock_send: WARNING: data_size is zero");
    EXPECT_REPORTED(sock_recv(nullptr, nullptr, 0, 0), -1, "sock_recv: ERROR: NULL param: sock");
    EXPECT_REPORTED(sock_recv(client, nullptr, 0, 0), -1, "sock_recv: ERROR: NULL param: data");
    EXPECT_REPORTED(sock_recv(client, &byte, 0, 0), -1, "sock_recv: ERROR: data_size is zero");
    EXPECT_REPORTED(sock_recv_all(nullptr, nullptr, 0, 0), -1, "sock_recv_all: ERROR: sock is NULL");
    EXPECT_REPORTED(sock_recv_all(client, nullptr, 0, 0), -1, "sock_recv_all: ERROR: data is NULL");
    EXPECT_REPORTED(sock_recv_all(client, &byte, -1, 0), -1, "sock_recv_all: ERROR: data_size is too small");
    EXPECT_REPORTED(sock_send_all(nullptr, nullptr, size_t{1} << 32, 0), -1,
                    "sock_send_all: WARNING: data_size too big");
    EXPECT_REPORTED(sock_send_all(nullptr, nullptr, size_t{1} << 31, 0), -1,
                    "sock_send_all: WARNING: data_size too large");
    EXPECT_REPORTED(sock_send_packet(nullptr, nullptr, 0, 1), -1, "sock_send_packet: ERROR: sock is NULL");
    EXPECT_REPORTED(sock_send_packet(client, nullptr, 0, 1), -1, "sock_send_packet: ERROR: data is NULL");
    EXPECT_REPORTED(sock_send_packet(client, &byte, 0, 1), -1, "sock_send_packet: ERROR: data_size is too small");
    EXPECT_REPORTED(sock_recv_packet(nullptr, nullptr, nullptr), nullptr, "sock_recv_packet: ERROR: invalid arguments");
    EXPECT_REPORTED(sock_recv_packet(client, nullptr, nullptr), nullptr,
                    "sock_recv_packet_nolock: ERROR: size is NULL");
    EXPECT_REPORTED(sock_recv_packet(client, &size, nullptr), nullptr, "sock_recv_packet_nolock: ERROR: type is NULL");
    EXPECT_REPORTED(sock_recv_packet_nolock(nullptr, nullptr, nullptr), nullptr,
                    "sock_recv_packet_nolock: ERROR: sock is NULL");
    EXPECT_REPORTED(sock_connect_fail_fast("x", nullptr), nullptr, "sock_connect_fail_fast: ERROR: port is NULL");
    EXPECT_REPORTED(sock_accept(nullptr), nullptr, "sock_accept: ERROR: argument is NULL");
    EXPECT_REPORTED(sock_accept(client), nullptr, "sock_accept: ERROR: unable to accept: Invalid argument");
}

TEST_F(Streams, PeerThatEndsOrLies)
{
    send_raw("00 00 00 00 00 00 00 01"); // consumed, told, and the next frame is read well
    expect_no_frame(99);
    EXPECT_REPORTS("sock_recv_all: ERROR: data_size is too small");
    send_raw("80 00 00 00 00 00 00 01");
    expect_no_frame(99);
    EXPECT_REPORTS("sock_recv_packet_nolock: ERROR: low memory");
    send_raw("7f ff ff ff 00 00 00 01 41 42"); // 2 GiB announced, two bytes sent
    end_client(false);
    expect_no_frame(0);
    expect_no_frame(0); // between frames
    EXPECT_REPORTS();
}

TEST_F(Streams, PeerThatResets)
{
    EXPECT_EQ(sock_send(server, "unread", 6, 0), 6);
    end_client(true);
    expect_no_frame(0);
    EXPECT_REPORTS();
    EXPECT_REPORTED(sock_send_packet(server, "x", 1, 1), -1, "sock_send_all: ERROR: unable to send: Broken pipe",
                    "sock_send_packet: ERROR: unable to send");
    EXPECT_EQ(server->error, EPIPE);
}

TEST_F(Streams, FailFastConnect)
{
    const Socket fast = sock_connect_fail_fast("127.0.0.1", port_of(listener).c_str());
    ASSERT_NE(fast, nullptr);
    const std::pair<int, int> options[] = {
        {TCP_SYNCNT, 4}, {TCP_KEEPCNT, 10}, {TCP_KEEPIDLE, 2}, {TCP_KEEPINTVL, 1}, {TCP_USER_TIMEOUT, 10000}};
    for (const auto &[name, expected] : options) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(fast->fd, IPPROTO_TCP, name, &value, &length), 0);
        EXPECT_EQ(value, expected);
    }
    const std::string port = port_of(listener);
    Fault fault("setsockopt", 3, Failing::once, -1, ENOPROTOOPT);
    EXPECT_REPORTED(sock_connect_fail_fast("127.0.0.1", port.c_str()), nullptr,
                    "sock_connect_fail_fast: ERROR: unable to connect", "socket_close: WARNING: socket is closed");
    EXPECT_TRUE(fault.struck());
    const int32_t keep_alive = 1;
    int32_t value = 0;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fast->fd, SOL_SOCKET, SO_KEEPALIVE, &value, &length), 0);
    EXPECT_EQ(value, keep_alive);
    listener = nullptr;
    EXPECT_REPORTED(sock_connect_fail_fast("127.0.0.1", port.c_str()), nullptr,
                    "sock_connect_fail_fast: connect to 127.0.0.1, port: " + port +
                        ", protocol family: PF_INET returned: Connection refused",
                    "sock_connect_fail_fast: ERROR: unable to connect", "socket_close: WARNING: socket is closed");
}

TEST_F(Streams, PacketsTravelAsFrames)
{
    const Packet sent = clpacket_create();
    clpacket_set_type(sent, 7);
    clpacket_set_int32_signed(sent, 1, 5);
    const Packet got = clpacket_create();
    clpacket_set_string(got, 9, "old", 3);
    int32_t value = 0;
    EXPECT_EQ(clpacket_send(sent, client), 0);
    EXPECT_EQ(clpacket_recv(got, server), 0);
    EXPECT_EQ(clpacket_get_type(got), 7);
    EXPECT_EQ(clpacket_get_int32_signed(got, 1, &value), 0);
    EXPECT_EQ(clpacket_has_string(got, 9), 0);
    EXPECT_REPORTED(clpacket_recv(got, nullptr), -1, "sock_lock_r: ERROR: invalid arguments",
                    "clpacket_recv_prepare: ERROR: invalid argument: sock", "sock_unlock_r: ERROR: invalid arguments");
    EXPECT_REPORTED(clpacket_send(nullptr, client), -1, "clpacket_send_prepare: ERROR: invalid argument: clpacket");
    const timeval soon{0, 1000};
    sock_setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon);
    EXPECT_REPORTED(clpacket_recv(got, server), -1,
                    "clpacket_recv: ERROR: 127.0.0.1:" + port_of(client) +
                        " : receive error: Resource temporarily unavailable");
    EXPECT_EQ(got->buffer_size, 0U);
    EXPECT_EQ(pthread_mutex_trylock(&server->sem_read->mutex), 0) << "the lock is given back";
    pthread_mutex_unlock(&server->sem_read->mutex);
    const Socket lonely = sock_socket(AF_INET, SOCK_DGRAM, 0); // whose peer has no name
    sock_setsockopt(lonely, SOL_SOCKET, SO_RCVTIMEO, &soon, sizeof soon);
    EXPECT_REPORTED(clpacket_recv(got, lonely), -1,
                    "clpacket_recv: ERROR: unknown : receive error: Resource temporarily unavailable");
    EXPECT_EQ(lonely->error, EAGAIN);
    const Socket unconnected = sock_socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_REPORTED(clpacket_recv(got, unconnected), -1);
    EXPECT_EQ(unconnected->error, 0);
    end_client(true);
    EXPECT_REPORTED(clpacket_recv(got, server), -1);
    EXPECT_EQ(server->error, 0);
    EXPECT_REPORTED(clpacket_send(sent, server), -1, "sock_send_all: ERROR: unable to send: Broken pipe",
                    "sock_send_packet: ERROR: unable to send");
}

TEST_F(Streams, FramesOfThreadsNeverMix)
{
    constexpr int senders = 4, frames = 20, large = 300000; // larger than a socket takes at once
    std::vector<std::thread> threads;
    for (int t = 0; t < senders; ++t) {
        threads.emplace_back([this, t] {
            const std::string payload(static_cast<size_t>(large + t), static_cast<char>('a' + t));
            for (int i = 0; i < frames; ++i) {
                EXPECT_EQ(sock_send_packet(client, payload.data(), payload.size(), static_cast<uint32_t>(t)),
                          static_cast<int64_t>(payload.size() + 8));
            }
        });
    }
    for (int i = 0; i < senders * frames; ++i) {
        uint32_t size = 0, type = 0;
        void *payload = sock_recv_packet(server, &size, &type);
        ASSERT_NE(payload, nullptr);
        EXPECT_EQ(std::string(static_cast<char *>(payload), size),
                  std::string(large + type, static_cast<char>('a' + type)));
        free(payload);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(Streams, DisconnectFreesThreadsInReceiveAndAccept)
{
    const auto expect_blocked = [](sock *s) {
        int tries = 50000;
        while (pthread_mutex_trylock(&s->sem_read->mutex) == 0 && --tries > 0) {
            pthread_mutex_unlock(&s->sem_read->mutex);
            usleep(100);
        }
        EXPECT_GT(tries, 0) << "waits without the lock";
    };
    const Packet got = clpacket_create();
    std::thread receiver([&] { EXPECT_EQ(clpacket_recv(got, server), -1); });
    std::thread frame_receiver([&] {
        uint32_t size = 0, type = 0;
        EXPECT_EQ(sock_recv_packet(client, &size, &type), nullptr);
    });
    std::thread acceptor([&] { EXPECT_EQ(sock_accept(listener), nullptr); });
    for (sock *s : {server.get(), client.get(), listener.get()}) {
        expect_blocked(s);
    }
    for (sock *s : {client.get(), server.get(), listener.get()}) {
        sock_disconnect(s);
    }
    receiver.join();
    frame_receiver.join();
    acceptor.join();
    take_reports(); // which of them waited already when the descriptor went is not certain
}

TEST_F(Streams, LackOfMemory)
{
    fail_each_allocation([this](Fault &fault) {
        const Socket extra = sock_connect_fail_fast("127.0.0.1", port_of(listener).c_str());
        EXPECT_EQ(extra == nullptr, fault.struck());
        take_reports();
    });
    fail_each_allocation([this](Fault &fault) {
        EXPECT_EQ(sock_send_packet(client, "x", 1, 1), 9);
        const Socket waiting = sock_connect("127.0.0.1", port_of(listener).c_str());
        const Socket extra = waiting != nullptr ? sock_accept(listener) : nullptr;
        uint32_t size = 0, type = 0;
        void *payload = sock_recv_packet(server, &size, &type);
        const bool struck = fault.struck();
        EXPECT_EQ(payload == nullptr || extra == nullptr, struck);
        if (payload == nullptr) {
            char unread = 0;
            EXPECT_EQ(sock_recv_all(server, &unread, 1, 0), 1) << "the payload stays in the stream";
        }
        free(payload);
        take_reports();
    });
}

} // namespace
