#include "loopback.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t bulk_size = 64;
constexpr size_t usual_charge = 1280; // more than any kernel takes for a small datagram

sockaddr_in loopback_address(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// Binds a socket to a port of the system's choice; 0 when it cannot be.
uint16_t bind_anywhere(const DatagramSocket &socket)
{
    sockaddr_in address = loopback_address(0);
    socklen_t size = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    const bool bound =
        bind(socket.fd(), any, size) == 0 && getsockname(socket.fd(), any, &size) == 0;
    return bound ? ntohs(address.sin_port) : uint16_t{0};
}

size_t number_after_colon(const std::string &hexadecimal)
{
    return strtoul(hexadecimal.c_str() + hexadecimal.find(':') + 1, nullptr, 16);
}

} // namespace

DatagramSocket::DatagramSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

DatagramSocket::~DatagramSocket()
{
    (void)close(fd_);
}

bool DatagramSocket::connect_to(uint16_t port) const
{
    const sockaddr_in address = loopback_address(port);
    return connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool DatagramSocket::send_one_by_one(const std::string &datagram, size_t count) const
{
    for (size_t i = 0; i < count; ++i) {
        const ssize_t sent = send(fd_, datagram.data(), datagram.size(), 0);
        if (sent != static_cast<ssize_t>(datagram.size())) {
            return false;
        }
    }
    return true;
}

bool DatagramSocket::send_in_bulk(const std::string &datagram, size_t count) const
{
    std::string bytes = datagram; // a message's parts are not const
    iovec part{bytes.data(), bytes.size()};
    std::array<mmsghdr, bulk_size> messages{};
    for (mmsghdr &message : messages) {
        message.msg_hdr.msg_iov = &part;
        message.msg_hdr.msg_iovlen = 1;
    }
    for (size_t done = 0; done < count;) {
        const auto now = static_cast<unsigned>(std::min(bulk_size, count - done));
        const int sent = sendmmsg(fd_, messages.data(), now, 0);
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

uint16_t find_free_port()
{
    return bind_anywhere(DatagramSocket());
}

std::optional<SocketState> socket_state(uint16_t port)
{
    constexpr size_t local = 1, queues = 4, drops = 12; // columns; QUEUES is SENT:RECEIVED
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
        if (columns.size() > drops && number_after_colon(columns[local]) == port) {
            return {{number_after_colon(columns[queues]),
                     strtoull(columns[drops].c_str(), nullptr, 10)}};
        }
    }
    return std::nullopt;
}

uint64_t backlog_drops()
{
    std::ifstream table("/proc/net/softnet_stat"); // a line for each processor: taken, dropped, ...
    uint64_t sum = 0;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        uint64_t taken = 0, dropped = 0;
        words >> std::hex >> taken >> dropped;
        sum += dropped;
    }
    return sum;
}

std::optional<size_t> queued_bytes(uint16_t port)
{
    const std::optional<SocketState> state = socket_state(port);
    return state ? std::optional(state->queued) : std::nullopt;
}

size_t buffer_charge(const std::string &datagram)
{
    const DatagramSocket receiver, sender;
    std::array<uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t size = sizeof memory;
    const bool known = sender.connect_to(bind_anywhere(receiver)) &&
                       sender.send_one_by_one(datagram, 1) &&
                       getsockopt(receiver.fd(), SOL_SOCKET, SO_MEMINFO, &memory, &size) == 0;
    return known && memory[SK_MEMINFO_RMEM_ALLOC] > 0 ? memory[SK_MEMINFO_RMEM_ALLOC]
                                                      : usual_charge;
}
