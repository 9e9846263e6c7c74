/* Whether datagrams to one address arrive at a socket that listens on another of this machine. */
#ifndef TAVLEN_TOOLS_LOCAL_ADDRESS_H
#define TAVLEN_TOOLS_LOCAL_ADDRESS_H

#include <optional>
#include <string>

namespace ctl {

/// An address and port of a UDP socket, as the system's resolver gives them.
struct Endpoint {
    int family = 0;      ///< AF_INET or AF_INET6
    std::string address; ///< 4 or 16 bytes
    uint16_t port = 0;   ///< in host order
};

/// The first that the resolver gives, which is the one the collector takes; `reason` tells why
/// there is none.
std::optional<Endpoint> resolve(const std::string &host, const std::string &port,
                                std::string *reason);

/// A wildcard address listens on every interface; :: hears IPv4 as well.
bool arrives_at(const Endpoint &sent_to, const Endpoint &listener);

} // namespace ctl

#endif
