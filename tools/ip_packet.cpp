#include "ip_packet.h"

#include <iterator>
#include <netinet/in.h>
#include <pcap/dlt.h>
#include <sys/socket.h>

namespace ctl {

namespace {

// ----------------------------------------------------------------------------------------- links

enum { ETHERTYPE_IPV4 = 0x0800, ETHERTYPE_IPV6 = 0x86dd };
enum { ETHERTYPE_VLAN = 0x8100, ETHERTYPE_SERVICE_VLAN = 0x88a8 };

bool is_ip(uint16_t ethertype)
{
    return ethertype == ETHERTYPE_IPV4 || ethertype == ETHERTYPE_IPV6;
}

/// Behind the tags of virtual networks, if there are any.
Bytes behind_ethertype(Bytes frame, size_t place)
{
    uint16_t type = frame.pair(place);
    Bytes rest = frame.behind(place + 2);
    while (type == ETHERTYPE_VLAN || type == ETHERTYPE_SERVICE_VLAN) {
        type = rest.pair(2);
        rest = rest.behind(4);
    }
    return is_ip(type) ? rest : rest.first(0);
}

} // namespace

bool is_known_link_type(int link_type)
{
    constexpr int known[] = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_NULL,
                             DLT_LOOP,   DLT_RAW,       DLT_IPV4,       DLT_IPV6};
    return std::find(std::begin(known), std::end(known), link_type) != std::end(known);
}

Bytes find_ip_packet(int link_type, Bytes frame)
{
    switch (link_type) {
    case DLT_EN10MB:
        return behind_ethertype(frame, 12);
    case DLT_LINUX_SLL:
        return behind_ethertype(frame, 14);
    case DLT_LINUX_SLL2: // its ethertype stands in front
        return is_ip(frame.pair(0)) ? frame.behind(20) : frame.first(0);
    case DLT_NULL:
    case DLT_LOOP:
        return frame.behind(4);
    default:
        return frame;
    }
}

// -------------------------------------------------------------------------------------------- IP

namespace {

/// Cuts the link's padding off; `length` is what the IP header says of the bytes.
void limit_bytes(IpPayload &ip, size_t length)
{
    ip.missing = length > ip.bytes.size() ? length - ip.bytes.size() : 0;
    ip.bytes = ip.bytes.first(length);
}

/// Of the 16 bits with a fragment's place, in units of 8 bytes.
constexpr size_t place_unit = 8;

std::optional<IpPayload> parse_ipv4(Bytes packet)
{
    const size_t header = (packet.byte(0) & size_t{0xf}) * 4;
    const size_t length = packet.pair(2);
    if (header < 20 || packet.size() < header || length < header) {
        return std::nullopt;
    }
    IpPayload ip;
    ip.family = AF_INET;
    ip.source = packet.text(12, 4);
    ip.destination = packet.text(16, 4);
    ip.protocol = packet.byte(9);
    ip.bytes = packet.behind(header);
    limit_bytes(ip, length - header);
    ip.id = packet.text(4, 2);
    ip.place = (packet.pair(6) & 0x1fffU) * place_unit;
    ip.has_more = (packet.pair(6) & 0x2000U) != 0;
    ip.is_fragment = ip.place != 0 || ip.has_more;
    return ip;
}

void take_fragment_header(IpPayload &ip)
{
    ip.id = ip.bytes.text(4, 4);
    ip.place = ip.bytes.pair(2) & 0xfff8U;
    ip.has_more = (ip.bytes.pair(2) & 1U) != 0;
    ip.is_fragment = ip.place != 0 || ip.has_more;
    ip.protocol = ip.bytes.byte(0);
    ip.bytes = ip.bytes.behind(8);
}

std::optional<IpPayload> parse_ipv6(Bytes packet)
{
    constexpr size_t header = 40;
    if (packet.size() < header) {
        return std::nullopt;
    }
    IpPayload ip;
    ip.family = AF_INET6;
    ip.source = packet.text(8, 16);
    ip.destination = packet.text(24, 16);
    ip.protocol = packet.byte(6);
    ip.bytes = packet.behind(header);
    limit_bytes(ip, packet.pair(4));
    for (; ip.bytes.size() > 0 && !ip.is_fragment;) {
        if (ip.protocol == IPPROTO_FRAGMENT) {
            take_fragment_header(ip);
        } else if (ip.protocol == IPPROTO_HOPOPTS || ip.protocol == IPPROTO_ROUTING ||
                   ip.protocol == IPPROTO_DSTOPTS) { // its length is in units of 8 bytes
            ip.protocol = ip.bytes.byte(0);
            ip.bytes = ip.bytes.behind((ip.bytes.byte(1) + size_t{1}) * 8);
        } else {
            return ip;
        }
    }
    return ip.is_fragment ? std::optional(ip) : std::nullopt;
}

} // namespace

std::optional<IpPayload> parse_ip(Bytes packet)
{
    switch (packet.byte(0) >> 4) {
    case 4:
        return parse_ipv4(packet);
    case 6:
        return parse_ipv6(packet);
    default:
        return std::nullopt;
    }
}

} // namespace ctl
