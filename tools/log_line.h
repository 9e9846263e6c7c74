/* One line of a collector's log, for a reader's eyes. */
#ifndef TAVLEN_TOOLS_LOG_LINE_H
#define TAVLEN_TOOLS_LOG_LINE_H

#include <string>
#include <string_view>

namespace ctl {

/// The collector cuts a line there, its line feed included: the next byte is another record's.
constexpr size_t longest_log_line = 4095;

/// The parts of "names: seconds:file:line: function: message". A collector's own record has no
/// names, a relayed one several; a text that is no record has no time, and is all `rest`.
struct LogLine {
    std::string_view names;   ///< with the ": " behind each
    std::string_view seconds; ///< digits, without the colon behind them
    std::string_view rest;
};

/// Never fails: what is not recognised is `rest`.
LogLine split_log_line(std::string_view line);

enum class TimeStyle { local, utc, seconds };

/// Shows log lines without line feeds, harmless to a terminal.
class LogLinePrinter {
public:
    LogLinePrinter(TimeStyle style, bool has_colours) : style_(style), has_colours_(has_colours) {}

    /// Each sender has its colour, which depends on its names alone.
    std::string show(std::string_view line);

private:
    std::string show_time(std::string_view seconds);

    TimeStyle style_;
    bool has_colours_;
    std::string last_seconds_; ///< many records bear the same time
    std::string last_shown_;
};

} // namespace ctl

#endif
