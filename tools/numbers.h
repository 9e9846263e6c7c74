/* Numbers and ports as people write them on a command line. */
#ifndef TAVLEN_TOOLS_NUMBERS_H
#define TAVLEN_TOOLS_NUMBERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ctl {

/// Digits of base 10 (or 16), nothing else, from 0 to `most`.
std::optional<uint64_t> parse_number(std::string_view text, uint64_t most = UINT64_MAX,
                                     int base = 10);

/// A port's number, or its name among the system's UDP services.
std::optional<uint16_t> parse_port(const std::string &text);

/// Seconds, or records in one, as a decimal number of at least 0, with a fraction perhaps.
std::optional<double> parse_decimal(const char *text);

} // namespace ctl

#endif
