// Connections, frames, and packets that travel as frames.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <TavlenCommon/owned.h>
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
};

TEST_F(Streams, FramesOnTheWire)
{
    uint32_t size = 0, type = 0;
    char raw[32];
    EXPECT_EQ(fcntl(server->fd, F_GETFD), FD_CLOEXEC);
    sent_flags.clear();
    EXPECT_EQ(sock_send_packet(client, "abc", 3, 0xfffffffe), 11);
    EXPECT_EQ(sent_flags, (std::vector<int>{MSG_MORE | MSG_NOSIGNAL, MSG_NOSIGNAL}));
    EXPECT_EQ(sock_recv_all(server, raw, 11, MSG_PEEK), 11);
    EXPECT_EQ(std::vector<uint8_t>(raw, raw + 11), bytes("00 00 00 03 ff ff ff fe 61 62 63"));
    const auto payload = tavlen::owned<char>(static_cast<char *>(sock_recv_packet(server, &size, &type)));
    EXPECT_EQ(std::string(payload.get(), size), "abc");
    EXPECT_EQ(type, 0xfffffffe);
    EXPECT_EACH(int64_t{3}, sock_send(client, "xyz", 3, 0), sock_recv(server, raw, sizeof raw, 0));
    EXPECT_EQ(sock_recv(server, raw, sizeof raw, MSG_DONTWAIT), -1);
    EXPECT_EQ(server->error, EAGAIN);
}

TEST_F(Streams, RefusedArgumentsInOrder)
{
    uint32_t size = 0;
    char byte = 0;
    const auto refused = [this, &byte](auto call) {
        EXPECT_EACH(-1, call(nullptr, nullptr, 0, 0), call(client, nullptr, 0, 0), call(client, &byte, 0, 0));
    };
    refused(sock_send), refused(sock_recv), refused(sock_recv_all), refused(sock_send_all), refused(sock_send_packet);
    EXPECT_REPORTS("sock_send: ERROR: NULL param: sock", "sock_send: ERROR: NULL param: data",
                   "sock_send: WARNING: data_size is zero", "sock_recv: ERROR: NULL param: sock",
                   "sock_recv: ERROR: NULL param: data", "sock_recv: ERROR: data_size is zero",
                   "sock_recv_all: ERROR: sock is NULL", "sock_recv_all: ERROR: data is NULL",
                   "sock_recv_all: ERROR: data_size is too small", "sock_send_all: ERROR: sock is NULL",
                   "sock_send_all: ERROR: data is NULL", "sock_send_all: ERROR: data_size is too small",
                   "sock_send_packet: ERROR: sock is NULL", "sock_send_packet: ERROR: data is NULL",
                   "sock_send_packet: ERROR: data_size is too small");
    EXPECT_EACH(-1, sock_send_all(nullptr, nullptr, size_t{1} << 32, 0),
                sock_send_all(nullptr, nullptr, size_t{1} << 31, 0), int64_t{sock_recv_all(client, &byte, -1, 0)});
    EXPECT_EACH(nullptr, sock_recv_packet(nullptr, nullptr, nullptr), sock_recv_packet(client, nullptr, nullptr),
                sock_recv_packet(client, &size, nullptr), sock_recv_packet_nolock(nullptr, nullptr, nullptr));
    EXPECT_EACH(nullptr, sock_connect_fail_fast("x", nullptr), sock_accept(nullptr), sock_accept(client));
    EXPECT_REPORTS("sock_send_all: WARNING: data_size too big", "sock_send_all: WARNING: data_size too large",
                   "sock_recv_all: ERROR: data_size is too small", "sock_recv_packet: ERROR: invalid arguments",
                   "sock_recv_packet_nolock: ERROR: size is NULL", "sock_recv_packet_nolock: ERROR: type is NULL",
                   "sock_recv_packet_nolock: ERROR: sock is NULL", "sock_connect_fail_fast: ERROR: port is NULL",
                   "sock_accept: ERROR: argument is NULL", "sock_accept: ERROR: unable to accept: Invalid argument");
}

// What such heads leave behind, and an end anywhere, the inputs of fuzz/stream.cpp show.
TEST_F(Streams, NoFrameIsEmptyOrNegative)
{
    uint32_t size = 0, type = 0;
    EXPECT_EQ(sock_send(client, "\0\0\0\0\0\0\0\1\x80\0\0\0\0\0\0\1", 16, 0), 16);
    EXPECT_REPORTED(sock_recv_packet(server, &size, &type), nullptr, "sock_recv_all: ERROR: data_size is too small");
    EXPECT_REPORTED(sock_recv_packet(server, &size, &type), nullptr, "sock_recv_packet_nolock: ERROR: low memory");
}

TEST_F(Streams, FailedAndShortCalls)
{
    fake_platform.most_bytes = 3; // neither sender nor receiver gets on faster
    const Packet sent = clpacket_create(), got = clpacket_create();
    const auto transmit = [&] { return clpacket_send(sent, client); };
    const auto receive = [&] { return clpacket_recv(got, server); };
    EXPECT_EACH(0, clpacket_set_string(sent, 1, "in pieces", 9), transmit(), receive());
    EXPECT_EQ(memcmp(got->buffer, sent->buffer, sent->buffer_size), 0);
    fake_platform.most_bytes = SIZE_MAX;
    const auto text = [](int error) { return std::string(strerror(error)); };
    for (const int error : {EPIPE, ECONNRESET, EAGAIN, EINTR}) {
        for (const int64_t result : {-1, 0}) {
            EXPECT_REPORTED(with("send", result, error, transmit), -1,
                            "sock_send_all: ERROR: unable to send: " + text(error),
                            "sock_send_packet: ERROR: unable to send");
            EXPECT_EQ(client->error, error);
        }
    }
    const std::string peer = "clpacket_recv: ERROR: 127.0.0.1:" + port_of(client) + " : receive error: ";
    for (const int error : {EAGAIN, EINTR, ETIMEDOUT}) {
        EXPECT_REPORTED(with("recv", -1, error, receive), -1, peer + text(error));
        EXPECT_EQ(server->error, error);
    }
    for (const int error : {ECONNRESET, ENOTCONN, 0}) { // the peer is gone
        EXPECT_REPORTED(with("recv", error != 0 ? -1 : 0, error != 0 ? error : EINTR, receive), -1);
        EXPECT_EQ(server->error, 0);
    }
    for (const int error : {EMFILE, ECONNABORTED, EINTR}) {
        EXPECT_REPORTED(with("accept4", -1, error, sock_accept, listener.get()), nullptr,
                        "sock_accept: ERROR: unable to accept: " + text(error));
    }
    EXPECT_EACH(0, transmit(), receive()); // no lock was kept, nothing left in the stream
}

TEST_F(Streams, FailFastConnect)
{
    const std::string port = port_of(listener), closed = "socket_close: WARNING: socket is closed";
    const std::string unable = "sock_connect_fail_fast: ERROR: unable to connect";
    const auto connect = [&port] { return sock_connect_fail_fast("127.0.0.1", port.c_str()); };
    const Socket fast = connect();
    const struct {
        int level, name, value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},   {IPPROTO_TCP, TCP_SYNCNT, 4},
                   {IPPROTO_TCP, TCP_KEEPCNT, 10},  {IPPROTO_TCP, TCP_KEEPIDLE, 2},
                   {IPPROTO_TCP, TCP_KEEPINTVL, 1}, {IPPROTO_TCP, TCP_USER_TIMEOUT, 10000}};
    for (const auto &option : options) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(fast->fd, option.level, option.name, &value, &length), 0);
        EXPECT_EQ(value, option.value);
    }
    fake_platform.options = 0;
    EXPECT_REPORTED(with("setsockopt", -1, ENOPROTOOPT, connect), nullptr, unable, closed);
    EXPECT_EQ(fake_platform.options, 5) << "the others are set";
    const int64_t large = INT32_MAX;
    const auto send_much = [this] { return sock_send(client, "x", size_t{1} << 33, 0); };
    EXPECT_EQ(with("send", int64_t{1} << 33, 0, send_much), int64_t{1} << 33);
    const Fault fault("send", INT32_MAX, 0);
    EXPECT_EQ(sock_send_packet(client, "x", INT32_MAX, 1), large + 8);
    listener = nullptr;
    EXPECT_REPORTED(connect(), nullptr,
                    "sock_connect_fail_fast: connect to 127.0.0.1, port: " + port +
                        ", protocol family: PF_INET returned: Connection refused",
                    unable, closed);
}

TEST_F(Streams, PacketsTravelAsFrames)
{
    const Packet sent = clpacket_create(), got = clpacket_create();
    int32_t value = 0;
    EXPECT_EACH(0, clpacket_set_type(sent, 7), clpacket_set_int32_signed(sent, 1, 5),
                clpacket_set_string(got, 9, "old", 3), clpacket_send(sent, client), clpacket_recv(got, server),
                clpacket_get_int32_signed(got, 1, &value), clpacket_has_string(got, 9));
    EXPECT_EQ(clpacket_get_type(got), 7);
    EXPECT_EACH(-1, clpacket_recv(got, nullptr), clpacket_send(nullptr, client));
    EXPECT_REPORTS("sock_lock_r: ERROR: invalid arguments", "clpacket_recv_prepare: ERROR: invalid argument: sock",
                   "sock_unlock_r: ERROR: invalid arguments",
                   "clpacket_send_prepare: ERROR: invalid argument: clpacket");
    const Socket nameless = sock_socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_REPORTED(with("recv", -1, EAGAIN, [&] { return clpacket_recv(got, nameless); }), -1,
                    "clpacket_recv: ERROR: unknown : receive error: Resource temporarily unavailable");
    EXPECT_TRUE(nameless->error == EAGAIN && got->buffer_size == 0);
    shutdown(server->fd, SHUT_WR); // no signal comes of it
    EXPECT_REPORTED(clpacket_send(sent, server), -1, "sock_send_all: ERROR: unable to send: Broken pipe",
                    "sock_send_packet: ERROR: unable to send");
}

TEST_F(Streams, FramesOfThreadsNeverMix)
{
    constexpr uint32_t senders = 4, frames = 20, large = 300000; // larger than a socket takes at once
    const auto payload_of = [](uint32_t t) { return std::string(large + t, static_cast<char>('a' + t)); };
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < senders; ++t) {
        threads.emplace_back([this, t, payload = payload_of(t)] {
            for (uint32_t i = 0; i < frames; ++i) {
                EXPECT_EQ(sock_send_packet(client, payload.data(), payload.size(), t), int64_t{large} + t + 8);
            }
        });
    }
    for (uint32_t i = 0; i < senders * frames; ++i) {
        uint32_t size = 0, type = 0;
        const auto payload = tavlen::owned<char>(static_cast<char *>(sock_recv_packet(server, &size, &type)));
        ASSERT_NE(payload, nullptr);
        EXPECT_EQ(std::string(payload.get(), size), payload_of(type));
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

TEST_F(Streams, DisconnectFreesThreadsInReceivesAndInAccept)
{
    uint32_t size = 0, type = 0; // never written
    char byte = 0;
    const auto locked = [](sock *s, auto call) { // as those that take no lock ask their callers to
        sock_lock_r(s);
        const bool result = call();
        sock_unlock_r(s);
        return result;
    };
    const auto datagrams = [] { return sock_listen_general("127.0.0.1", "0", SOCK_DGRAM); };
    const auto stream = [this] { return sock_connect("127.0.0.1", port_of(listener).c_str()); };
    struct {
        Socket from;
        std::function<bool(sock *)> receives;
    } cases[] = {
        {sock_listen("127.0.0.1", "0"), [](sock *s) { return sock_accept(s) != nullptr; }},
        {datagrams(), [&](sock *s) { return sock_recvfrom(s, &size, &type, nullptr, nullptr) != nullptr; }},
        {datagrams(), [](sock *s) { return clpacket_recvfrom(Packet(clpacket_create()), s, nullptr, nullptr) == 0; }},
        {stream(), [&](sock *s) { return sock_recv_packet(s, &size, &type) != nullptr; }},
        {stream(), [](sock *s) { return clpacket_recv(Packet(clpacket_create()), s) == 0; }},
        {stream(), [&](sock *s) { return locked(s, [&] { return sock_recv(s, &byte, 1, 0) > 0; }); }},
        {stream(), [&](sock *s) { return locked(s, [&] { return sock_recv_all(s, &byte, 1, 0) > 0; }); }},
    };
    std::vector<std::jthread> threads;
    for (const auto &c : cases) {
        threads.emplace_back([&c] { EXPECT_FALSE(c.receives(c.from)); });
    }
    for (const auto &c : cases) {
        int tries = 50000;
        while (pthread_mutex_trylock(&c.from->sem_read->mutex) == 0 && --tries > 0) {
            pthread_mutex_unlock(&c.from->sem_read->mutex);
            usleep(100);
        }
        EXPECT_GT(tries, 0) << "waits without the lock";
        sock_disconnect(c.from);
    }
    threads.clear();
    for (auto &c : cases) {
        c.from = nullptr;
    }
    take_reports(); // which of them waited already when the descriptor went is not certain
}

TEST_F(Streams, LackOfMemory)
{
    fail_each_allocation([this](Fault &fault) {
        const std::string port = port_of(listener);
        EXPECT_EQ(sock_send_packet(client, "x", 1, 1), 9);
        const Socket waiting = sock_connect_fail_fast("127.0.0.1", port.c_str());
        const Socket extra = waiting != nullptr ? sock_accept(listener) : nullptr;
        uint32_t size = 0, type = 0;
        const tavlen::owned<void> payload(sock_recv_packet(server, &size, &type));
        const bool struck = fault.struck();
        EXPECT_EQ(payload == nullptr || extra == nullptr, struck);
        if (payload == nullptr) {
            char unread = 0;
            EXPECT_EQ(sock_recv_all(server, &unread, 1, 0), 1) << "the payload stays in the stream";
        }
        take_reports();
    });
}

} // namespace
