#include "config_lines.h"

#include <cstring>
#include <string_view>

namespace ctl {

namespace {

/// Of one read of the parser, whose buffer has room for a terminator as well.
constexpr size_t longest_piece = 2047;

/// As fgets: up to a line feed, which is kept, or as much as fits.
std::string read_piece(FILE *file)
{
    std::string piece;
    while (piece.size() < longest_piece) {
        const int c = getc(file);
        if (c == EOF) {
            break;
        }
        piece += static_cast<char>(c);
        if (c == '\n') {
            break;
        }
    }
    return piece;
}

std::string_view trim(std::string_view text)
{
    const size_t start = text.find_first_not_of(" \t");
    const size_t end = text.find_last_not_of(" \t");
    return start == std::string_view::npos ? std::string_view{}
                                           : text.substr(start, end - start + 1);
}

/// The first byte stays, as in the parser.
std::string_view without_line_end(std::string_view text)
{
    while (text.size() > 1 && (text.back() == '\r' || text.back() == '\n')) {
        text.remove_suffix(1);
    }
    return text;
}

ConfigLine split(std::string_view piece)
{
    ConfigLine line;
    const size_t zero = piece.find('\0');
    line.has_zero = zero != std::string_view::npos;
    std::string_view text = without_line_end(piece.substr(0, zero));
    const size_t comment = text.find('#');
    line.has_comment = comment != std::string_view::npos;
    text = text.substr(0, comment);
    line.is_cut = line.has_comment && !text.empty() && strchr(" \t=", text.back()) == nullptr;
    line.is_blank = text.find_first_not_of(" \t\r\n") == std::string_view::npos;
    const size_t equals = text.find('=');
    line.has_equals = equals != std::string_view::npos;
    line.key = trim(text.substr(0, equals));
    line.value = line.has_equals ? trim(text.substr(equals + 1)) : std::string_view{};
    return line;
}

} // namespace

std::optional<std::vector<ConfigLine>> read_config_lines(FILE *file)
{
    std::vector<ConfigLine> lines;
    size_t number = 1;
    bool is_rest = false;
    for (std::string piece; !(piece = read_piece(file)).empty();) {
        ConfigLine line = split(piece);
        const bool is_end = piece.back() == '\n';
        line.number = number;
        line.is_rest = is_rest;
        number += is_end ? 1 : 0;
        is_rest = !is_end;
        lines.push_back(std::move(line));
    }
    if (ferror(file) != 0) {
        return std::nullopt;
    }
    return lines;
}

} // namespace ctl
