#include "text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace ctl {

std::string compose(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char *composed = nullptr;
    const int length = vasprintf(&composed, format, arguments);
    va_end(arguments);
    std::string text;
    if (length >= 0) {
        text.assign(composed, static_cast<size_t>(length));
        free(composed);
    }
    return text;
}

namespace {

uint8_t byte_at(std::string_view text, size_t i)
{
    return static_cast<uint8_t>(text[i]);
}

size_t length_by_first_byte(uint8_t first)
{
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xc2 && first < 0xe0) {
        return 2;
    }
    if (first >= 0xe0 && first < 0xf0) {
        return 3;
    }
    return first >= 0xf0 && first < 0xf5 ? 4 : 0;
}

/// Of a character whose length is known.
uint32_t code_point(std::string_view character)
{
    if (character.size() == 1) {
        return byte_at(character, 0);
    }
    uint32_t code = byte_at(character, 0) & (0xffU >> (character.size() + 1));
    for (size_t i = 1; i < character.size(); ++i) {
        code = code << 6 | (byte_at(character, i) & 0x3fU);
    }
    return code;
}

bool is_in_range(uint32_t code, size_t length)
{
    constexpr uint32_t first_of_length[] = {0, 0, 0x80, 0x800, 0x10000};
    return code >= first_of_length[length] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff);
}

/// Prints nothing of its own, but changes how what is around it looks, or hides in it.
bool is_deceptive(uint32_t code)
{
    static constexpr struct {
        uint32_t first;
        uint32_t last;
    } ranges[] = {{0xad, 0xad},      {0x34f, 0x34f},   {0x61c, 0x61c},     {0x115f, 0x1160},
                  {0x17b4, 0x17b5},  {0x180b, 0x180f}, {0x200b, 0x200f},   {0x2028, 0x202e},
                  {0x2060, 0x206f},  {0x3164, 0x3164}, {0xfe00, 0xfe0f},   {0xfeff, 0xfeff},
                  {0xffa0, 0xffa0},  {0xfff0, 0xfffb}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a},
                  {0xe0000, 0xe0fff}};
    return std::any_of(std::begin(ranges), std::end(ranges), [code](const auto &range) {
        return code >= range.first && code <= range.last;
    });
}

void append_bytes_as_hex(std::string &shown, std::string_view bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i) {
        shown += compose("\\x%02x", byte_at(bytes, i));
    }
}

void append_character(std::string &shown, std::string_view character)
{
    const uint32_t code = code_point(character);
    if (code != '\t' && (code < 0x20 || code == 0x7f)) {
        shown += {'^', static_cast<char>(code ^ 0x40)};
    } else if (code >= 0x80 && code < 0xa0) {
        append_bytes_as_hex(shown, character);
    } else if (is_deceptive(code)) {
        shown += compose("\\u%04x", code);
    } else {
        shown += character;
    }
}

/// Bytes at the start of the text that need no look at a second one.
size_t plain_length(std::string_view text, std::string_view marked)
{
    size_t i = 0;
    while (i < text.size() && byte_at(text, i) >= 0x20 && byte_at(text, i) < 0x7f &&
           marked.find(text[i]) == std::string_view::npos) {
        ++i;
    }
    return i;
}

} // namespace

size_t utf8_length(std::string_view text)
{
    const size_t length = text.empty() ? 0 : length_by_first_byte(byte_at(text, 0));
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte_at(text, i) & 0xc0U) != 0x80) {
            return 0;
        }
    }
    return is_in_range(code_point(text.substr(0, length)), length) ? length : 0;
}

std::string harmless(std::string_view text, std::string_view marked)
{
    std::string shown;
    while (!text.empty()) {
        size_t length = plain_length(text, marked);
        shown += text.substr(0, length);
        text.remove_prefix(length);
        if (text.empty()) {
            break;
        }
        length = utf8_length(text);
        if (length == 0) {
            length = 1;
            append_bytes_as_hex(shown, text.substr(0, 1));
        } else {
            shown += marked.find(text[0]) != std::string_view::npos ? "\\" : "";
            append_character(shown, text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return shown;
}

} // namespace ctl
