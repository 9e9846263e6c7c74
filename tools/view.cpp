/* tavlenctl view: a collector's log, followed, for people. */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <getopt.h>
#include <optional>
#include <poll.h>
#include <string>
#include <unistd.h>

#include "command.h"
#include "diagnostics.h"
#include "follower.h"
#include "log_line.h"
#include "numbers.h"
#include "text.h"

namespace ctl {

namespace {

constexpr char help[] =
    "Usage: tavlenctl view [OPTIONS] [FILE]\n"
    "Shows the end of a collector's log and what is written to it from then on, also when the "
    "file\n"
    "is truncated, or renamed and made anew. Without FILE it is logger.log, here or else in\n"
    "/var/log/tavlenlogger; - is standard input, which is shown to its end.\n\n"
    "  -n, --lines=N      begin with the last N lines (default 10), or with line N when it is +N\n"
    "  -f, -F, --follow   stay with the file (the default)\n"
    "      --no-follow    end at the end of the file\n"
    "  -u, --utc          times in UTC, not in local time\n"
    "  -r, --raw          times as seconds, as they are in the log\n"
    "      --color=WHEN   a colour for each sender: auto (default: on a terminal, unless NO_COLOR\n"
    "                     is set), always or never\n"
    "  -h, --help         this text\n\n"
    "Exit status: 0, 1 when something could not be read or written, 2 wrong usage.\n";

constexpr int look_again_ms = 250;

struct ViewSettings {
    std::string file;
    std::optional<uint64_t> last_lines; ///< of standard input all, when absent
    uint64_t first_line = 0;            ///< counted from 1; 0: not given
    bool follows = true;
    TimeStyle style = TimeStyle::local;
    std::string colours = "auto";
};

bool has_colours(const std::string &when)
{
    const char *unwanted = getenv("NO_COLOR");
    const char *terminal = getenv("TERM");
    const bool is_wanted = (unwanted == nullptr || *unwanted == '\0') &&
                           (terminal == nullptr || strcmp(terminal, "dumb") != 0);
    return when == "always" || (when == "auto" && is_wanted && isatty(STDOUT_FILENO) == 1);
}

/// Shows every line but those in front of the first that is wanted.
class Viewer {
public:
    explicit Viewer(const ViewSettings &settings)
        : printer_(settings.style, has_colours(settings.colours)),
          lines_to_skip_(settings.first_line > 0 ? settings.first_line - 1 : 0)
    {
    }
    /// False when nobody can read it any more.
    bool show(std::string_view line)
    {
        if (lines_to_skip_ > 0) {
            --lines_to_skip_;
            return true;
        }
        const std::string shown = printer_.show(line) + '\n';
        return fwrite(shown.data(), 1, shown.size(), stdout) == shown.size();
    }

private:
    LogLinePrinter printer_;
    uint64_t lines_to_skip_;
};

/// Waits for the next look; false when the reader of a pipe has gone meanwhile.
bool wait_a_while()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    return poll(&output, 1, look_again_ms) <= 0;
}

int follow(Follower &file)
{
    while (file.read_on() && flush_output()) {
        if (!wait_a_while()) {
            return STATUS_GOOD;
        }
        if (!file.look_again()) {
            break;
        }
    }
    return STATUS_TROUBLE;
}

int view_file(const ViewSettings &settings, Viewer &viewer)
{
    Follower file(settings.file, [&viewer](std::string_view line) { return viewer.show(line); });
    const bool is_open = settings.first_line > 0
                             ? file.open_at_start()
                             : file.open_at_end(settings.last_lines.value_or(10));
    if (settings.follows) {
        return follow(file); // one that is not there yet, too
    }
    if (!is_open) {
        complain("%s: %s", harmless(settings.file).c_str(), strerror(errno));
        return STATUS_TROUBLE;
    }
    return file.read_on() && file.finish() ? STATUS_GOOD : STATUS_TROUBLE;
}

/// Keeps the last lines until the input ends.
class LastLines {
public:
    explicit LastLines(uint64_t most) : most_(most) {}
    void take(std::string_view line)
    {
        lines_.emplace_back(line);
        if (lines_.size() > most_) {
            lines_.pop_front();
        }
    }
    bool show(Viewer &viewer) const
    {
        return std::all_of(lines_.begin(), lines_.end(),
                           [&viewer](const std::string &line) { return viewer.show(line); });
    }

private:
    uint64_t most_;
    std::deque<std::string> lines_;
};

/// What comes is shown at once, unless its end has to be known first.
int view_input(const ViewSettings &settings, Viewer &viewer)
{
    LastLines last(settings.last_lines.value_or(0));
    LineSplitter lines([&](std::string_view line) {
        if (settings.last_lines) {
            last.take(line);
            return true;
        }
        return viewer.show(line);
    });
    static char block[65536];
    ssize_t bytes = 0;
    while ((bytes = read(STDIN_FILENO, block, sizeof block)) > 0 || (bytes < 0 && errno == EINTR)) {
        if (bytes > 0 && (!lines.take({block, static_cast<size_t>(bytes)}) || !flush_output())) {
            return STATUS_TROUBLE;
        }
    }
    if (bytes < 0) {
        complain("standard input: %s", strerror(errno));
        return STATUS_TROUBLE;
    }
    return lines.finish() && last.show(viewer) ? STATUS_GOOD : STATUS_TROUBLE;
}

/// That of a collector started in this folder, or else of the system's service.
const char *usual_log()
{
    static constexpr char here[] = "logger.log";
    static constexpr char service[] = "/var/log/tavlenlogger/logger.log";
    return access(here, F_OK) != 0 && access(service, F_OK) == 0 ? service : here;
}

/// N, or +N; false when it is neither.
bool apply_lines(ViewSettings &settings, std::string_view text)
{
    const bool is_from_start = text.substr(0, 1) == "+";
    const auto number = parse_number(text.substr(is_from_start ? 1 : 0));
    settings.first_line = is_from_start ? std::max<uint64_t>(number.value_or(0), 1) : 0;
    settings.last_lines = is_from_start ? std::nullopt : number;
    return number.has_value();
}

/// False when the value is wrong.
bool apply_option(ViewSettings &settings, int option)
{
    switch (option) {
    case 'n':
        return apply_lines(settings, optarg);
    case 'C':
        settings.colours = optarg;
        return settings.colours == "auto" || settings.colours == "always" ||
               settings.colours == "never";
    case 'f':
    case 'F':
        settings.follows = true;
        return true;
    case 'E':
        settings.follows = false;
        return true;
    case 'u':
        settings.style = TimeStyle::utc;
        return true;
    default:
        settings.style = TimeStyle::seconds;
        return true;
    }
}

int run(int argc, char **argv)
{
    static const option long_options[] = {
        {"lines", required_argument, nullptr, 'n'}, {"no-follow", no_argument, nullptr, 'E'},
        {"follow", no_argument, nullptr, 'f'},      {"utc", no_argument, nullptr, 'u'},
        {"raw", no_argument, nullptr, 'r'},         {"color", required_argument, nullptr, 'C'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
    };
    ViewSettings settings;
    for (int c = 0; (c = getopt_long(argc, argv, "n:fFurh", long_options, nullptr)) != -1;) {
        if (c == 'h') {
            return show_help(view_command);
        }
        if (c == '?') {
            return wrong_option();
        }
        if (!apply_option(settings, c)) {
            return wrong_usage("wrong value: %s", harmless(optarg).c_str());
        }
    }
    if (argc - optind > 1) {
        return wrong_usage("one file at a time");
    }
    settings.file = optind < argc ? argv[optind] : usual_log();
    Viewer viewer(settings);
    return settings.file == "-" ? view_input(settings, viewer) : view_file(settings, viewer);
}

} // namespace

const Command view_command{"view", "show a log and follow it, harmless and with times", help, run};

} // namespace ctl
