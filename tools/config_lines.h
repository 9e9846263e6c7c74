/* A configuration file, line by line as the library's parser takes it, with what it passes over. */
#ifndef TAVLEN_TOOLS_CONFIG_LINES_H
#define TAVLEN_TOOLS_CONFIG_LINES_H

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

/// What the parser takes as one line; a long one of the file is several of these.
struct ConfigLine {
    size_t number = 0;     ///< of the file's line, from 1
    bool is_rest = false;  ///< the file's line began in an earlier piece
    bool has_zero = false; ///< a zero byte, at which the parser stops
    bool has_equals = false;
    bool has_comment = false;
    bool is_cut = false;  ///< by a comment that no blank sets apart from the value
    bool is_blank = true; ///< nothing in front of the comment
    std::string key;      ///< without '=': the whole text
    std::string value;
};

/// All lines of the file; none when it cannot be read to its end.
std::optional<std::vector<ConfigLine>> read_config_lines(FILE *file);

} // namespace ctl

#endif
