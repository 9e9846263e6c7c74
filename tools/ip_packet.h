/* The way through a captured frame to what its IP packet carries. */
#ifndef TAVLEN_TOOLS_IP_PACKET_H
#define TAVLEN_TOOLS_IP_PACKET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace ctl {

/// Bytes of others', numbers in them big-endian; what is behind their end reads as 0.
class Bytes {
public:
    Bytes(const uint8_t *start, size_t size) : start_(start), size_(size) {}

    [[nodiscard]] size_t size() const { return size_; }
    [[nodiscard]] const uint8_t *data() const { return start_; }
    [[nodiscard]] uint8_t byte(size_t i) const { return i < size_ ? start_[i] : uint8_t{0}; }
    [[nodiscard]] uint16_t pair(size_t i) const
    {
        return static_cast<uint16_t>(byte(i) << 8 | byte(i + 1));
    }
    [[nodiscard]] std::string text(size_t i, size_t size) const
    {
        const Bytes rest = behind(i);
        return {rest.data(), rest.data() + std::min(size, rest.size())};
    }
    /// None when they end earlier.
    [[nodiscard]] Bytes behind(size_t size) const
    {
        return size <= size_ ? Bytes(start_ + size, size_ - size) : Bytes(start_, 0);
    }
    [[nodiscard]] Bytes first(size_t size) const { return {start_, std::min(size, size_)}; }

private:
    const uint8_t *start_;
    size_t size_;
};

/// What an IP packet carries, or a part of it.
struct IpPayload {
    int family = 0;          ///< AF_INET or AF_INET6
    std::string source;      ///< 4 or 16 bytes
    std::string destination; ///< the same
    uint8_t protocol = 0;
    Bytes bytes{nullptr, 0};
    size_t missing = 0; ///< bytes that were sent, but not captured

    bool is_fragment = false;
    std::string id;       ///< that its fragments have in common
    size_t place = 0;     ///< of this fragment's bytes in the whole
    bool has_more = true; ///< behind this one
};

/// Whether find_ip_packet knows the link type, a DLT_* of libpcap.
bool is_known_link_type(int link_type);

/// Nothing when the frame carries something else.
Bytes find_ip_packet(int link_type, Bytes frame);

/// Nothing when this is no IP packet, or ends too early.
std::optional<IpPayload> parse_ip(Bytes packet);

} // namespace ctl

#endif
