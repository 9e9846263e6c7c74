#include "hex_text.h"

#include <cctype>
#include <optional>

#include "numbers.h"

namespace ctl {

namespace {

/// Far beyond a datagram; bounds what a "*" may stand for.
constexpr uint64_t most_bytes = 1 << 20;

struct HexLine {
    std::optional<uint64_t> offset;
    std::vector<uint8_t> bytes;
};

bool is_hex(std::string_view word)
{
    for (const char c : word) {
        if (isxdigit(static_cast<unsigned char>(c)) == 0) {
            return false;
        }
    }
    return !word.empty();
}

std::string_view take_word(std::string_view &text)
{
    const size_t start = text.find_first_not_of(" \t");
    text.remove_prefix(start == std::string_view::npos ? text.size() : start);
    const std::string_view word = text.substr(0, text.find_first_of(" \t"));
    text.remove_prefix(word.size());
    return word;
}

/// Digits in pairs; false when the word is something else.
bool append_pairs(std::vector<uint8_t> &bytes, std::string_view word)
{
    if (!is_hex(word) || word.size() % 2 != 0) {
        return false;
    }
    for (size_t i = 0; i < word.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(*parse_number(word.substr(i, 2), 255, 16)));
    }
    return true;
}

/// Takes an offset off the line's start: one with a colon, as xxd writes it; or one of at least 6
/// digits with pairs, or nothing, behind it, as hexdump and od do.
std::optional<uint64_t> take_offset(std::string_view &text, size_t bytes_so_far)
{
    constexpr size_t least_digits = 6;
    std::string_view rest = text;
    std::string_view word = take_word(rest);
    const bool has_colon = word.size() > 4 && word.back() == ':';
    word.remove_suffix(has_colon ? 1 : 0);
    const auto offset = is_hex(word) ? parse_number(word, UINT64_MAX, 16) : std::nullopt;
    if (!offset || (!has_colon && word.size() < least_digits)) {
        return std::nullopt;
    }
    if (has_colon) {
        const size_t characters = rest.find("  ", rest.find_first_not_of(' '));
        text = rest.substr(0, characters);
        return offset;
    }
    std::string_view behind = rest;
    const std::string_view next = take_word(behind);
    const bool is_alone = next.empty() && (*offset == bytes_so_far || word.size() % 2 != 0);
    if (next.size() != 2 && !is_alone) {
        return std::nullopt;
    }
    text = rest;
    return offset;
}

/// Nothing for a line that is no line of digits.
std::optional<HexLine> parse_line(std::string_view text, size_t bytes_so_far)
{
    HexLine line;
    line.offset = take_offset(text, bytes_so_far);
    for (std::string_view word = take_word(text); !word.empty(); word = take_word(text)) {
        if (line.offset && (word[0] == '|' || word[0] == '>')) {
            break; // the same as characters
        }
        if (!append_pairs(line.bytes, word)) {
            return std::nullopt;
        }
    }
    if (!line.offset && line.bytes.empty()) {
        return std::nullopt;
    }
    return line;
}

} // namespace

/// Makes the packet as long as the offset says, or ends it when it is the next one's.
void HexReader::start_at(uint64_t offset)
{
    const bool fills = repeats_ && !last_line_.empty() && offset <= most_bytes;
    for (size_t i = 0; fills && packet_.size() < offset; ++i) {
        packet_.push_back(last_line_[i % last_line_.size()]);
    }
    repeats_ = false;
    if (offset == 0) {
        finish();
    }
}

bool HexReader::take_line(std::string_view line)
{
    while (!line.empty() && isspace(static_cast<unsigned char>(line.back())) != 0) {
        line.remove_suffix(1);
    }
    if (line == "*" && !packet_.empty()) {
        repeats_ = true;
        return goes_on_;
    }
    const auto parsed = parse_line(line, packet_.size());
    if (!parsed) {
        finish();
        return goes_on_;
    }
    if (parsed->offset) {
        start_at(*parsed->offset);
    } else if (has_offsets_) {
        finish();
    }
    has_offsets_ = parsed->offset.has_value();
    if (packet_.size() + parsed->bytes.size() > most_bytes) {
        finish();
    }
    packet_.insert(packet_.end(), parsed->bytes.begin(), parsed->bytes.end());
    last_line_ = parsed->bytes;
    return goes_on_;
}

void HexReader::finish()
{
    if (!packet_.empty() && goes_on_) {
        goes_on_ = handler_(std::move(packet_));
    }
    packet_.clear();
    last_line_.clear();
    repeats_ = false;
    has_offsets_ = false;
}

namespace {

/// Reads a line; one longer than any packet's counts as empty. False at the end.
bool read_line(FILE *file, std::string &line)
{
    constexpr size_t longest = 4 * most_bytes;
    size_t length = 0;
    line.clear();
    int c = 0;
    while ((c = getc_unlocked(file)) != EOF && c != '\n') {
        if (++length <= longest) {
            line.push_back(static_cast<char>(c));
        }
    }
    if (length > longest) {
        line.clear();
    }
    return c != EOF || length > 0;
}

} // namespace

bool read_hex_text(FILE *file, const BytesHandler &handler)
{
    HexReader reader(handler);
    for (std::string line; read_line(file, line) && reader.take_line(line);) {
    }
    reader.finish();
    return ferror(file) == 0;
}

} // namespace ctl
