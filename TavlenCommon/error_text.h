/* Internal: the platform's text for an error number. */
#ifndef TAVLEN_COMMON_ERROR_TEXT_H
#define TAVLEN_COMMON_ERROR_TEXT_H

#include <cstdio>
#include <cstring>

namespace tavlen {

/// Capacity that every text of an error number fits.
constexpr size_t error_text_size = 128;

/**
 * Writes the text into `buffer`, cut to `size` bytes with its terminator; nothing when size is 0.
 * The C library's own function may answer with a text of its own instead of filling the buffer.
 */
inline void write_error_text(int error, char *buffer, size_t size)
{
    if (size == 0) {
        return;
    }
    const char *text = strerror_r(error, buffer, size);
    if (text != buffer) {
        (void)snprintf(buffer, size, "%s", text);
    }
}

} // namespace tavlen

#endif
