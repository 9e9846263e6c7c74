/* Texts: composing them, and showing those of strangers without harm to a terminal. */
#ifndef TAVLEN_TOOLS_TEXT_H
#define TAVLEN_TOOLS_TEXT_H

#include <string>
#include <string_view>

namespace ctl {

/// A text as printf composes it.
std::string compose(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * The text with everything in it shown that a terminal would obey or hide: ASCII controls as ^X
 * (the tab stays), bytes that are no UTF-8 and C1 controls as \xNN, line separators and marks of
 * direction or of no width as \uNNNN. Bytes that stand in `marked` get a backslash in front.
 */
std::string harmless(std::string_view text, std::string_view marked = {});

/// How many bytes the UTF-8 character at the start of a text has; 0 when it is none.
size_t utf8_length(std::string_view text);

} // namespace ctl

#endif
