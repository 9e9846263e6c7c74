#include "capture.h"

#include <algorithm>
#include <arpa/inet.h>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <optional>
#include <pcap/pcap.h>
#include <string_view>

#include "diagnostics.h"
#include "fragments.h"
#include "ip_packet.h"
#include "text.h"

namespace ctl {

namespace {

constexpr size_t udp_header_size = 8;

std::string endpoint_text(const IpPayload &ip, const std::string &address, uint16_t port)
{
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(ip.family, address.data(), text, sizeof text);
    return compose(ip.family == AF_INET6 ? "[%s]:%u" : "%s:%u", text, unsigned{port});
}

/// Of what a UDP header's length says, what was captured.
CapturedDatagram make_datagram(const timeval &time, const IpPayload &ip)
{
    CapturedDatagram datagram{};
    datagram.time = time;
    datagram.from = endpoint_text(ip, ip.source, ip.bytes.pair(0));
    datagram.to = endpoint_text(ip, ip.destination, ip.bytes.pair(2));
    const size_t sent = std::max<size_t>(ip.bytes.pair(4), udp_header_size) - udp_header_size;
    const Bytes body = ip.bytes.behind(udp_header_size).first(sent);
    datagram.bytes.assign(body.data(), body.data() + body.size());
    datagram.missing = sent - body.size();
    return datagram;
}

/// Picks the port's datagrams out of the packets of a capture.
class Picker {
public:
    Picker(uint16_t port, const DatagramHandler &handler) : port_(port), handler_(handler) {}

    /// False when no more is wanted.
    bool take_packet(const timeval &time, Bytes packet)
    {
        auto ip = parse_ip(packet);
        if (!ip || (ip->protocol != IPPROTO_UDP && ip->protocol != IPPROTO_TCP)) {
            return true;
        }
        std::optional<std::vector<uint8_t>> whole;
        if (ip->is_fragment) {
            whole = fragments_.take(*ip);
            if (!whole) {
                return true;
            }
            ip->bytes = Bytes(whole->data(), whole->size());
        }
        return take_payload(time, *ip);
    }

    [[nodiscard]] LeftOut left_out() const { return {tcp_segments_, fragments_.left_over()}; }

private:
    bool take_payload(const timeval &time, const IpPayload &ip)
    {
        if (port_ != 0 && ip.bytes.pair(0) != port_ && ip.bytes.pair(2) != port_) {
            return true;
        }
        if (ip.protocol == IPPROTO_TCP) {
            ++tcp_segments_;
            return true;
        }
        return ip.bytes.size() < udp_header_size || handler_(make_datagram(time, ip));
    }

    uint16_t port_;
    const DatagramHandler &handler_;
    Fragments fragments_;
    size_t tcp_segments_ = 0;
};

struct CloseCapture {
    void operator()(pcap_t *capture) const { pcap_close(capture); }
};

} // namespace

bool is_capture(const uint8_t *start)
{
    static constexpr std::string_view starts[] = {
        "\xa1\xb2\xc3\xd4", "\xd4\xc3\xb2\xa1", // microseconds
        "\xa1\xb2\x3c\x4d", "\x4d\x3c\xb2\xa1", // nanoseconds
        "\xa1\xb2\xcd\x34", "\x34\xcd\xb2\xa1", // with more in each packet's header
        "\x0a\x0d\x0d\x0a",                     // blocks
    };
    const std::string_view given(reinterpret_cast<const char *>(start), 4);
    return std::find(std::begin(starts), std::end(starts), given) != std::end(starts);
}

bool read_capture(File file, uint16_t port, const DatagramHandler &handler, LeftOut *left_out)
{
    char reason[PCAP_ERRBUF_SIZE] = "";
    const std::unique_ptr<pcap_t, CloseCapture> capture(pcap_fopen_offline(file.get(), reason));
    if (capture == nullptr) {
        complain("capture: %s", harmless(reason).c_str());
        return false;
    }
    (void)file.release(); // closed with the capture
    const int link_type = pcap_datalink(capture.get());
    if (!is_known_link_type(link_type)) {
        complain("capture: link type %d is not understood", link_type);
        return false;
    }
    Picker picker(port, handler);
    pcap_pkthdr *header = nullptr;
    const uint8_t *frame = nullptr;
    int result = 0;
    while (
        (result = pcap_next_ex(capture.get(), &header, &frame)) == 1 &&
        picker.take_packet(header->ts, find_ip_packet(link_type, Bytes(frame, header->caplen)))) {
    }
    *left_out = picker.left_out();
    if (result == PCAP_ERROR) {
        complain("capture: %s", harmless(pcap_geterr(capture.get())).c_str());
    }
    return result != PCAP_ERROR;
}

} // namespace ctl
