#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <netdb.h>
#include <TavlenCommon/owned.h>
#include <unistd.h>

#include "faults.h"
#include "network.h"

namespace {

using Sockets = DatagramTest;

const std::string closed = "socket_close: WARNING: socket is closed";

TEST_F(Sockets, BadArgumentsInOrder)
{
    const std::string invalid = ": ERROR: invalid arguments", is_null = ": ERROR: sock is NULL";
    for (const auto call : {socket_close, sock_disconnect, sock_close, sock_ref, sock_unref, sock_lock_r, sock_unlock_r,
                            sock_lock_w, sock_unlock_w}) {
        call(nullptr);
    }
    EXPECT_REPORTS("socket_close" + is_null, "sock_disconnect" + is_null, "sock_close" + invalid,
                   "sock_ref: WARNING: sock is NULL", "sock_unref" + is_null, "sock_lock_r" + invalid,
                   "sock_unlock_r" + invalid, "sock_lock_w" + invalid, "sock_unlock_w" + invalid);
    EXPECT_FAILURE(-1, sock_socket_get_error, (nullptr), "invalid argument");
    EXPECT_FAILURE(-1, sock_get_sock_type, (nullptr), "invalid arguments");
    EXPECT_FAILURE(-1, sock_getsockname, (nullptr, nullptr, nullptr), "NULL param: sock");
    EXPECT_FAILURE(-1, sock_setsockopt, (nullptr, 0, 0, nullptr, 0), "NULL param: sock");
    EXPECT_FAILURE(-1, sock_getpeername_str, (nullptr, nullptr, 0), "sock is NULL");
    EXPECT_FAILURE(-1, sock_getpeername_str, (sender, nullptr, 0), "buf is NULL");
    EXPECT_FAILURE(nullptr, sock_socket_strerror, (nullptr, nullptr, 0), "sock is NULL");
    EXPECT_FAILURE(nullptr, sock_socket_strerror, (sender, nullptr, 0), "buf is NULL");
    EXPECT_FAILURE(nullptr, sock_listen_general, (nullptr, nullptr, 2), "server is NULL");
    EXPECT_FAILURE(nullptr, sock_listen_general, ("x", nullptr, 2), "port is NULL");
    EXPECT_FAILURE(nullptr, sock_connect_general, (nullptr, nullptr, 2), "server is NULL");
    EXPECT_FAILURE(nullptr, sock_connect_general, ("x", nullptr, 2), "port is NULL");
    const auto send = [](sock *s, const char *data, size_t size) { return sock_sendto(s, data, size, 0, nullptr, 0); };
    EXPECT_REPORTED(send(nullptr, nullptr, size_t{1} << 32), -1, "sock_sendto: WARNING: data_size too big");
    EXPECT_REPORTED(send(nullptr, nullptr, size_t{1} << 31), -1, "sock_sendto: WARNING: data_size too large");
    EXPECT_REPORTED(send(nullptr, nullptr, 0), -1, "sock_sendto: ERROR: sock is NULL");
    EXPECT_REPORTED(send(sender, nullptr, 0), -1, "sock_sendto: ERROR: data NULL");
    EXPECT_REPORTED(send(sender, "", 0), -1, "sock_sendto: ERROR: data_size is too small");
    EXPECT_REPORTED(send(sender, "", 65532), -1, "sock_sendto: ERROR: data size too large to fit in datagram (65536)");
    uint32_t size = 0;
    EXPECT_FAILURE(nullptr, sock_recvfrom, (nullptr, nullptr, nullptr, nullptr, nullptr), "sock is NULL");
    EXPECT_FAILURE(nullptr, sock_recvfrom, (sender, nullptr, nullptr, nullptr, nullptr), "size is NULL");
    EXPECT_FAILURE(nullptr, sock_recvfrom, (sender, &size, nullptr, nullptr, nullptr), "type is NULL");
}

TEST_F(Sockets, LifeAndReferences)
{
    sock *s = sock_socket(AF_INET, SOCK_STREAM, 0);
    const int descriptor = s->fd;
    EXPECT_EACH(FD_CLOEXEC, fcntl(descriptor, F_GETFD), fcntl(listener->fd, F_GETFD), fcntl(sender->fd, F_GETFD));
    sock_ref(s);
    EXPECT_REPORTED((sock_close(s), s->ref_count), 2, "sock_close: WARNING: sock in use");
    EXPECT_REPORTED((sock_unref(s), s->ref_count), 1);
    EXPECT_EQ(sock_get_sock_type(s), 1);
    sock_unref(s);
    sock_close(sock_socket(AF_INET, SOCK_STREAM, 0)); // under the same number
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "the last holder closes";

    s = sock_socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(with("close", -1, EIO, [s] { return socket_close(s), s->fd; }), -1);
    EXPECT_EQ(with("socket", -1, EMFILE, sock_socket, AF_INET, 2, 0), nullptr);
    EXPECT_EQ(sock_get_sock_type(s), -1);
    EXPECT_EQ((sock_disconnect(s), s->error), 0);
    com_semaphore *const lock = std::exchange(s->sem_ref, nullptr);
    EXPECT_EQ((sock_ref(s), sock_unref(s), s->ref_count), 1);
    s->sem_ref = lock;
    s->ref_count = 0;
    EXPECT_REPORTED((sock_unref(s), sock_socket(-1, 0, 0)), nullptr, "socket_close: ERROR: unable to close the socket",
                    "sock_get_sock_type: ERROR: could not get socket type", closed,
                    "sock_ref: WARNING: sem_ref is NULL", "sock_unref: WARNING: sock ref_count < 0", closed);
}

TEST_F(Sockets, ThreadsTakeAndDropReferences)
{
    sock *s = sock_socket(AF_INET, SOCK_DGRAM, 0);
    const int descriptor = s->fd;
    const auto take_and_drop = [s] {
        for (int i = 0; i < 5000; ++i) {
            sock_ref(s), sock_unref(s);
        }
        sock_unref(s); // its own
    };
    sock_ref(s), sock_ref(s);
    std::thread a(take_and_drop), b(take_and_drop);
    sock_unref(s);
    a.join(), b.join();
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "whoever was last closed it";
}

TEST_F(Sockets, TextsOfErrorsAndPeers)
{
    char text[128] = "untouched";
    EXPECT_EQ(sock_getpeername_str(listener, text, sizeof text), -1);
    EXPECT_EQ(sock_socket_get_error(listener), ENOTCONN);
    EXPECT_STREQ(sock_socket_strerror(listener, text, sizeof text), "Transport endpoint is not connected");
    EXPECT_STREQ(sock_socket_strerror(listener, text, 10), "Transport");
    EXPECT_STREQ(sock_socket_strerror(listener, text, 0), "Transport");
    listener->error = 12345;
    EXPECT_STREQ(sock_socket_strerror(listener, text, sizeof text), "Unknown error 12345");
    EXPECT_EQ(sock_getpeername_str(sender, text, sizeof text), 0);
    EXPECT_EQ(text, "127.0.0.1:" + port_of(listener));
}

// What a platform's call gives when it fails or does less, by the object's error (77 before).
TEST_F(Sockets, FailedCallsLeaveTheirErrorAndNoLock)
{
    uint32_t size = 77, type = 77;
    char text[64] = "";
    const sockaddr_in any{};
    socklen_t length = sizeof any;
    const auto peer = [&] { return sock_getpeername_str(sender, text, sizeof text); };
    const auto name = [&] { return sock_getsockname(sender, nullptr, &length); };
    const auto option = [&] { return sock_setsockopt(sender, SOL_SOCKET, SO_KEEPALIVE, &length, sizeof length); };
    const auto transmit = [&] { return sock_sendto(sender, "data", 4, 1, nullptr, 0); };
    const auto part = [&] { return static_cast<int32_t>(sock_send(sender, "data", 4, 0)); };
    const auto some = [&] { return static_cast<int32_t>(sock_recv(sender, text, 4, 0)); };
    const auto receive = [&] { return sock_recvfrom(sender, &size, &type, nullptr, nullptr) == nullptr ? -1 : 0; };
    const struct {
        const char *function;
        int64_t gives;
        int error;
        std::function<int32_t()> call;
        int32_t result, kept;
    } cases[] = {
        {"getpeername", -1, ENOBUFS, peer, -1, ENOBUFS},
        {"getnameinfo", EAI_FAMILY, 0, peer, EAI_FAMILY, 77},
        {"getsockname", -1, ENOBUFS, name, -1, ENOBUFS},
        {"setsockopt", -1, EPERM, option, -1, EPERM},
        {"sendto", -1, ECONNREFUSED, transmit, -1, ECONNREFUSED},
        {"sendto", 7, ENOBUFS, transmit, -1, ENOBUFS},
        {"send", -1, EAGAIN, part, -1, EAGAIN},
        {"send", 3, EAGAIN, part, 3, 77},
        {"recv", -1, EINTR, some, -1, EINTR},
        {"recv", 0, EINTR, some, 0, 0},
        {"recvfrom", -1, ECONNREFUSED, receive, -1, ECONNREFUSED},
        {"recvfrom", 0, EINTR, receive, -1, 0},
        {"recvfrom", 4, EAGAIN, receive, -1, EAGAIN},
    };
    for (const auto &c : cases) {
        sender->error = 77;
        EXPECT_EQ(with(c.function, c.gives, c.error, c.call), c.result);
        EXPECT_EQ(sender->error, c.kept) << c.function << " " << c.gives;
        for (com_semaphore *lock : {sender->sem_read, sender->sem_write}) {
            EXPECT_EQ(pthread_mutex_trylock(&lock->mutex), 0) << c.function;
            pthread_mutex_unlock(&lock->mutex);
        }
    }
    EXPECT_TRUE(size == 77 && type == 77);
}

TEST_F(Sockets, DescriptorSets)
{
    const std::string null_set = ": ERROR: NULL param: set";
    sock_fd_set *set = sock_fd_set_init();
    timeval none{0, 0};
    sock_FD_SET(listener, set);
    EXPECT_EQ(sock_select(nullptr, nullptr, set, &none), 0);
    EXPECT_EQ(fake_platform.selected, listener->fd + 1);
    EXPECT_EQ(send(sender->fd, "x", 1, 0), 1);
    sock_FD_SET(listener, set);
    EXPECT_EACH(1, sock_select(set, nullptr, nullptr, nullptr), sock_FD_ISSET(listener, set));
    sock s{}; // only its number counts
    for (const int32_t fd : {1023, 5}) {
        s.fd = fd;
        EXPECT_EQ((sock_FD_SET(&s, set), sock_FD_ISSET(&s, set)), 1);
    }
    sock_FD_CLR(&s, set);
    EXPECT_TRUE(set->max_fd == 1023 && sock_FD_ISSET(&s, set) == 0);
    sock_FD_ZERO(set);
    EXPECT_EACH(0, set->max_fd, sock_FD_ISSET(listener, set));
    for (const int32_t fd : {1024, -1}) {
        s.fd = fd;
        const std::string bad = ": ERROR: invalid descriptor " + std::to_string(fd);
        EXPECT_REPORTED((sock_FD_SET(&s, set), sock_FD_CLR(&s, set), sock_FD_ISSET(&s, set)), 0, "sock_FD_SET" + bad,
                        "sock_FD_CLR" + bad, "sock_FD_ISSET" + bad);
    }
    sock_fd_set_destroy(set), sock_fd_set_destroy(nullptr);
    sock_FD_SET(nullptr, nullptr), sock_FD_CLR(&s, nullptr), sock_FD_ZERO(nullptr);
    EXPECT_EACH(-1, sock_FD_ISSET(nullptr, nullptr), sock_FD_ISSET(&s, nullptr));
    EXPECT_REPORTED(with(allocation, 0, 0, sock_fd_set_init), nullptr, "sock_fd_set_destroy" + null_set,
                    "sock_FD_SET: ERROR: NULL param: sock", "sock_FD_CLR" + null_set, "sock_FD_ZERO" + null_set,
                    "sock_FD_ISSET: ERROR: NULL param: sock", "sock_FD_ISSET" + null_set,
                    "sock_fd_set_init: ERROR: low mem");
}

TEST_F(Sockets, FailedOpenings)
{
    const std::string port = port_of(listener); // which no stream socket has
    const std::string unbound = "sock_listen_general: ERROR: unable to bind on port " + port;
    const std::string unconnected = "sock_connect_general: ERROR: unable to connect";
    const auto open_listener = [&port] { return sock_listen_general("127.0.0.1", port.c_str(), 2); };
    const auto open_stream = [&port] { return sock_connect_general("127.0.0.1", port.c_str(), 1); };
    const auto refused = [&port](const std::string &family) {
        return "sock_connect_general: connect to 127.0.0.1, port: " + port + ", protocol family: " + family +
               " returned: Connection refused";
    };
    EXPECT_NE(Socket(open_listener()), nullptr) << "the address is shared";
    const int next = dup(2); // descriptor: where one stays open, the numbers below differ
    close(next);
    EXPECT_REPORTED(open_stream(), nullptr, refused("PF_INET"), unconnected, closed);
    EXPECT_REPORTED(sock_connect_general("127.0.0.1", "no such port", 2), nullptr, closed);
    for (const char *function : {"socket", "setsockopt", "bind"}) {
        EXPECT_REPORTED(with(function, -1, EADDRINUSE, open_listener), nullptr, unbound, closed);
    }
    EXPECT_REPORTED(with("listen", -1, EADDRINUSE, sock_listen, "127.0.0.1", "0"), nullptr,
                    "sock_listen_general: ERROR: unable to listen 98 " + std::to_string(next));
    EXPECT_EQ(fcntl(next, F_GETFD), -1) << "closed";
    fake_platform.families = {AF_INET6, AF_INET, -1, AF_UNIX}; // what cannot be opened is passed over without a word
    const Fault fault("connect", -1, ECONNREFUSED);
    Reports reports{refused("PF_INET6"), refused("PF_INET"), refused("UNMATCHED"), unconnected, closed};
    reports.erase(reports.begin(),
                  reports.begin() + (Socket(sock_socket(AF_INET6, 1, 0)) == nullptr)); // not everywhere
    EXPECT_REPORTED(open_stream(), nullptr, reports);
    fake_platform.families.clear();
}

TEST_F(Sockets, LackOfMemoryWhileOpening)
{
    EXPECT_REPORTED(with(allocation, 0, 0, sock_socket, AF_INET, 2, 0), nullptr, "socket_create: ERROR: low mem",
                    "sock_socket: ERROR: failed to create socket");
    int n = 1; // the object, then each lock
    for (const std::string lock : {"read", "write", "ref"}) {
        const Fault fault(allocation, ++n, Failing::once);
        EXPECT_REPORTED(socket_create(), nullptr, "com_semaphore_init: ERROR: low mem",
                        "socket_create: ERROR: sock->sem_" + lock + " init failed");
    }
}

TEST_F(Sockets, Datagrams)
{
    uint32_t size = 0, type = 0;
    sockaddr address; // without a place for its length it is not asked for
    const auto receive = [&] { return tavlen::owned<void>(sock_recvfrom(listener, &size, &type, &address, nullptr)); };
    const std::string largest(65503, 'x'); // what IPv4 carries, less the type
    for (const std::string &payload : {std::string("y"), largest}) {
        EXPECT_EQ(sock_sendto(sender, payload.data(), payload.size(), 0xfffffffe, nullptr, 0),
                  static_cast<int32_t>(payload.size() + 4));
        const auto data = receive();
        EXPECT_EQ(std::string(static_cast<char *>(data.get()), size), payload);
    }
    EXPECT_EQ(sock_sendto(sender, largest.data(), largest.size() + 1, 1, nullptr, 0), -1);
    EXPECT_EQ(sender->error, EMSGSIZE);
    EXPECT_EQ(sock_sendto(sender, largest.data(), 2000, 0xfffffffe, nullptr, 0), 2004);
    Fault no_room_to_cut(allocation, 3, Failing::once);
    EXPECT_EQ(receive(), nullptr);
    EXPECT_TRUE(no_room_to_cut.struck());
    EXPECT_REPORTS("sock_recvfrom: ERROR: low memory");
    EXPECT_EACH(0, send(sender->fd, "1234", 4, 0) - 4, send(sender->fd, "", 0, 0));
    EXPECT_EQ(receive(), nullptr) << "a type alone";
    listener->error = 99;
    EXPECT_EQ(receive(), nullptr) << "an empty datagram";
    const timeval short_wait{0, 1000};
    EXPECT_EACH(0, listener->error, sock_setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &short_wait, sizeof short_wait));
    EXPECT_EQ(receive(), nullptr);
    EXPECT_EQ(listener->error, EAGAIN);
    EXPECT_TRUE(size == 2000 && type == 0xfffffffe) << "failed receives leave them";
    com_semaphore *const lock = std::exchange(sender->sem_write, nullptr);
    EXPECT_REPORTED(sock_sendto(sender, "x", 1, 1, nullptr, 0), 5, "com_semaphore_lock_ex: ERROR: argument is NULL",
                    "com_semaphore_unlock_ex: ERROR: argument is NULL");
    sender->sem_write = lock;
}

} // namespace
