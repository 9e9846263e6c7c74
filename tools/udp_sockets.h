/* The UDP sockets of this machine, as the kernel counts them. */
#ifndef TAVLEN_TOOLS_UDP_SOCKETS_H
#define TAVLEN_TOOLS_UDP_SOCKETS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

struct UdpSocket {
    std::string address;
    uint16_t port = 0;
    uint64_t waiting = 0; ///< bytes of memory that unread datagrams take, more than they carry
    uint64_t dropped = 0; ///< datagrams since the socket was made
    uint64_t inode = 0;
};

/// One line of /proc/net/udp or udp6; nothing for the heading.
std::optional<UdpSocket> parse_udp_line(std::string_view line, int family);

/// The sockets on a port. False, and told, when the kernel's list cannot be read.
bool find_udp_sockets(uint16_t port, std::vector<UdpSocket> *sockets);

/// By inode, "name/pid" of each process that holds the socket, joined by commas; empty when none is
/// to be seen.
using Holders = std::map<uint64_t, std::string>;

/// Goes once through the processes, however many sockets there are.
Holders holders_of(const std::vector<UdpSocket> &sockets);

} // namespace ctl

#endif
