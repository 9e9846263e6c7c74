#include "numbers.h"

#include <arpa/inet.h>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <netdb.h>

namespace ctl {

std::optional<uint64_t> parse_number(std::string_view text, uint64_t most, int base)
{
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value, base);
    if (parsed.ec != std::errc() || parsed.ptr != end || value > most) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint16_t> parse_port(const std::string &text)
{
    if (const auto number = parse_number(text, UINT16_MAX)) {
        return static_cast<uint16_t>(*number);
    }
    const servent *service = getservbyname(text.c_str(), "udp");
    if (service == nullptr) {
        return std::nullopt;
    }
    return ntohs(static_cast<uint16_t>(service->s_port));
}

std::optional<double> parse_decimal(const char *text)
{
    char *end = nullptr;
    const double value = strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(value) || value < 0) {
        return std::nullopt;
    }
    return value;
}

} // namespace ctl
