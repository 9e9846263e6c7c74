/* Packets written as hexadecimal digits, as docs/protocol.md, xxd, hexdump -C and od show them. */
#ifndef TAVLEN_TOOLS_HEX_TEXT_H
#define TAVLEN_TOOLS_HEX_TEXT_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// False ends the reading.
using BytesHandler = std::function<bool(std::vector<uint8_t> bytes)>;

/**
 * Lines of digits in pairs or larger groups, perhaps behind an offset; a column of characters
 * behind them, as those programs write it, and a "*" for repeated lines are understood. A packet
 * ends at a line that is none of this, an empty one say, and where the next begins: at offset 0, or
 * without offsets behind lines that had some.
 */
class HexReader {
public:
    explicit HexReader(BytesHandler handler) : handler_(std::move(handler)) {}

    /// False when no more is wanted.
    bool take_line(std::string_view line);
    void finish();

private:
    void start_at(uint64_t offset);

    BytesHandler handler_;
    std::vector<uint8_t> packet_;
    std::vector<uint8_t> last_line_;
    bool repeats_ = false;     ///< the last line, up to the next offset
    bool has_offsets_ = false; ///< this packet's lines
    bool goes_on_ = true;
};

/// Hands on every packet of a text; false when it could not be read that far.
bool read_hex_text(FILE *file, const BytesHandler &handler);

} // namespace ctl

#endif
