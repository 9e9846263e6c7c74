#include "local_address.h"

#include <arpa/inet.h>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "owned_handles.h"

namespace ctl {

namespace {

struct FreeInterfaces {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};

Endpoint endpoint_of(const sockaddr *address)
{
    Endpoint endpoint;
    endpoint.family = address->sa_family;
    if (address->sa_family == AF_INET) {
        sockaddr_in in{};
        memcpy(&in, address, sizeof in);
        endpoint.address.assign(reinterpret_cast<const char *>(&in.sin_addr), sizeof in.sin_addr);
        endpoint.port = ntohs(in.sin_port);
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 in6{};
        memcpy(&in6, address, sizeof in6);
        endpoint.address.assign(reinterpret_cast<const char *>(&in6.sin6_addr),
                                sizeof in6.sin6_addr);
        endpoint.port = ntohs(in6.sin6_port);
    }
    return endpoint;
}

bool is_wildcard(const Endpoint &endpoint)
{
    return endpoint.address.find_first_not_of('\0') == std::string::npos;
}

/// Also in its IPv6 form, an IPv4 address is itself.
Endpoint without_mapping(const Endpoint &endpoint)
{
    constexpr char prefix[] = "\0\0\0\0\0\0\0\0\0\0\xff\xff";
    constexpr size_t prefix_size = 12;
    if (endpoint.family != AF_INET6 || memcmp(endpoint.address.data(), prefix, prefix_size) != 0) {
        return endpoint;
    }
    return {AF_INET, endpoint.address.substr(prefix_size), endpoint.port};
}

bool is_loopback(const Endpoint &endpoint)
{
    if (endpoint.family == AF_INET) {
        return endpoint.address[0] == 127;
    }
    return memcmp(endpoint.address.data(), &in6addr_loopback, sizeof in6addr_loopback) == 0;
}

bool is_of_interface(const Endpoint &endpoint)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        return false;
    }
    const std::unique_ptr<ifaddrs, FreeInterfaces> owner(list);
    for (const ifaddrs *one = list; one != nullptr; one = one->ifa_next) {
        if (one->ifa_addr != nullptr && one->ifa_addr->sa_family == endpoint.family &&
            endpoint_of(one->ifa_addr).address == endpoint.address) {
            return true;
        }
    }
    return false;
}

} // namespace

std::optional<Endpoint> resolve(const std::string &host, const std::string &port,
                                std::string *reason)
{
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *list = nullptr;
    const int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
    if (result != 0) {
        *reason = gai_strerror(result);
        return std::nullopt;
    }
    const Addresses owner(list);
    return endpoint_of(list->ai_addr);
}

bool arrives_at(const Endpoint &sent_to, const Endpoint &listener)
{
    const Endpoint to = without_mapping(sent_to);
    const Endpoint at = without_mapping(listener);
    if (to.port != at.port ||
        (to.family != at.family && !(is_wildcard(at) && at.family == AF_INET6))) {
        return false;
    }
    if (is_wildcard(to)) { // goes to the loopback interface
        return is_wildcard(at) || is_loopback(at);
    }
    return to.address == at.address ||
           (is_wildcard(at) && (is_loopback(to) || is_of_interface(to)));
}

} // namespace ctl
