#include "log_line.h"

#include <cstdint>
#include <ctime>
#include <iterator>

#include "numbers.h"
#include "text.h"

namespace ctl {

namespace {

constexpr std::string_view separator = ": ";
constexpr char digits[] = "0123456789";
/// Relays in a row that a record may have passed.
constexpr int most_names = 8;

/// The length of the seconds of a record that begins here: they are followed by a file, a line and
/// a function. 0 when this is no record.
size_t seconds_length(std::string_view text)
{
    constexpr size_t most_digits = 12;
    const size_t length = text.find_first_not_of(digits);
    if (length == 0 || length > most_digits || text[length] != ':') {
        return 0;
    }
    const size_t file_end = text.find_first_of(": ", length + 1);
    if (file_end == std::string_view::npos || file_end == length + 1 || text[file_end] != ':') {
        return 0;
    }
    const size_t line_end = text.find_first_not_of(digits, file_end + 1);
    const bool is_record = line_end != std::string_view::npos && line_end != file_end + 1 &&
                           text.substr(line_end, separator.size()) == separator;
    return is_record ? length : 0;
}

/// The length of the name that the text begins with and its separator; 0 when there is none.
size_t name_length(std::string_view text)
{
    const size_t end = text.find(separator);
    return end == std::string_view::npos || end == 0 ? 0 : end + separator.size();
}

std::string_view colour_of(std::string_view names)
{
    static constexpr std::string_view colours[] = {"\033[31m", "\033[32m", "\033[33m", "\033[34m",
                                                   "\033[35m", "\033[36m", "\033[91m", "\033[92m",
                                                   "\033[93m", "\033[94m", "\033[95m", "\033[96m"};
    uint32_t hash = 2166136261U;
    for (const char c : names) {
        hash = (hash ^ static_cast<uint8_t>(c)) * 16777619U;
    }
    return colours[(hash ^ hash >> 16) % std::size(colours)];
}

} // namespace

LogLine split_log_line(std::string_view line)
{
    size_t place = 0;
    size_t first_name = 0;
    for (int i = 0; i <= most_names; ++i) {
        const std::string_view rest = line.substr(place);
        if (const size_t length = seconds_length(rest); length > 0) {
            return {line.substr(0, place), rest.substr(0, length), rest.substr(length + 1)};
        }
        const size_t name = name_length(rest);
        // Only the first name may hold blanks: the words of a text are no relays.
        if (name == 0 || (i > 0 && rest.substr(0, name - 1).find(' ') != std::string_view::npos)) {
            break;
        }
        place += name;
        first_name = i == 0 ? name : first_name;
    }
    return {line.substr(0, first_name), {}, line.substr(first_name)};
}

std::string LogLinePrinter::show(std::string_view line)
{
    const LogLine parts = split_log_line(line);
    std::string shown = harmless(parts.names);
    if (has_colours_ && !shown.empty()) {
        shown = std::string(colour_of(parts.names)) + shown + "\033[0m";
    }
    if (!parts.seconds.empty()) {
        shown += show_time(parts.seconds);
    }
    return shown + harmless(parts.rest);
}

std::string LogLinePrinter::show_time(std::string_view seconds)
{
    if (style_ == TimeStyle::seconds) {
        return std::string(seconds) + ':';
    }
    if (seconds == last_seconds_) {
        return last_shown_;
    }
    const auto time = static_cast<time_t>(parse_number(seconds).value_or(0));
    tm parts{};
    const bool is_utc = style_ == TimeStyle::utc;
    const tm *known = is_utc ? gmtime_r(&time, &parts) : localtime_r(&time, &parts);
    char text[64];
    if (known == nullptr ||
        strftime(text, sizeof text, is_utc ? "%Y-%m-%d %H:%M:%SZ " : "%Y-%m-%d %H:%M:%S ", known) ==
            0) {
        return std::string(seconds) + ':';
    }
    last_seconds_ = seconds;
    last_shown_ = text;
    return last_shown_;
}

} // namespace ctl
