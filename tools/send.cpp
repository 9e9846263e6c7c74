/* tavlenctl send: records from a shell, and numbered ones to try a collector's strength. */
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "command.h"
#include "diagnostics.h"
#include "library_reports.h"
#include "numbers.h"
#include "record_sender.h"
#include "text.h"

namespace ctl {

namespace {

constexpr char help[] =
    "Usage: tavlenctl send [OPTIONS] [TEXT...]\n"
    "Sends TEXT, joined by blanks, to a collector as a record; without TEXT each line of standard\n"
    "input as one.\n\n"
    "  -n, --name=NAME        the name that the collector writes in front (default: the user's)\n"
    "  -a, --address=ADDRESS  where the collector listens (default 127.0.0.1); best as a number\n"
    "  -p, --port=PORT        its port (default 27759)\n"
    "  -r, --raw              without time and place in front of the text\n"
    "  -c, --count=N          send TEXT N times, numbered, and tell how that went\n"
    "  -R, --rate=R           with --count: R records per second (0 or absent: without a pause)\n"
    "  -h, --help             this text\n\n"
    "Exit status: 0, or 1 when a record did not get there as far as can be known, 2 wrong usage.\n";

/// Longer ones would leave little of a line for the text.
constexpr size_t longest_name = 255;
/// With --count, so that each number is a record.
constexpr size_t longest_numbered = 3000;
constexpr double slowest_rate = 1e-6;

struct SendSettings {
    std::string name;
    std::string address = "127.0.0.1";
    uint16_t port = 27759;
    bool is_raw = false;
    uint64_t count = 0; ///< 0: no load test
    double rate = 0;    ///< records per second; 0: as many as go
};

std::string user_name()
{
    const passwd *user = getpwuid(getuid());
    return user != nullptr ? user->pw_name : std::to_string(getuid());
}

/// False when the value is wrong.
bool apply_option(SendSettings &settings, int option)
{
    if (option == 'n') {
        settings.name = optarg;
        return !settings.name.empty() && settings.name.size() <= longest_name &&
               harmless(settings.name) == settings.name;
    }
    if (option == 'a') {
        settings.address = optarg;
        return true;
    }
    if (option == 'p') {
        const auto port = parse_port(optarg);
        settings.port = port.value_or(0);
        return settings.port != 0;
    }
    if (option == 'c') {
        settings.count = parse_number(optarg).value_or(0);
        return settings.count != 0;
    }
    settings.rate = parse_decimal(optarg).value_or(-1);
    return settings.rate == 0 || settings.rate >= slowest_rate;
}

double now()
{
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void sleep_until(double due)
{
    double whole = 0;
    const double fraction = modf(due, &whole);
    const timespec time{static_cast<time_t>(whole), static_cast<long>(fraction * 1e9)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

/// A line on the terminal of whoever waits, once a second.
class Progress {
public:
    explicit Progress(uint64_t count) : count_(count), is_shown_(isatty(STDERR_FILENO) == 1) {}
    ~Progress()
    {
        if (is_drawn_) {
            (void)fputs("\r\033[K", stderr);
        }
    }
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void tell(const RecordSender &sender, double time)
    {
        if (!is_shown_ || time < next_) {
            return;
        }
        if (next_ != 0) {
            (void)fprintf(stderr, "\r%llu of %llu, %llu failed\033[K",
                          static_cast<unsigned long long>(sender.records()),
                          static_cast<unsigned long long>(count_),
                          static_cast<unsigned long long>(sender.failed()));
            is_drawn_ = true;
        }
        next_ = time + 1;
    }

private:
    uint64_t count_;
    bool is_shown_;
    bool is_drawn_ = false;
    double next_ = 0;
};

void print_summary(const RecordSender &sender, double seconds)
{
    const auto sent = static_cast<double>(sender.records() - sender.failed());
    printf("sent %.0f, failed %llu, %.3f seconds, %.0f records per second\n", sent,
           static_cast<unsigned long long>(sender.failed()), seconds,
           seconds > 0 ? sent / seconds : 0);
}

void send_numbered(RecordSender &sender, const SendSettings &settings, const std::string &text)
{
    const double start = now();
    {
        Progress progress(settings.count);
        for (uint64_t i = 0; i < settings.count; ++i) {
            const double due =
                settings.rate > 0 ? start + static_cast<double>(i) / settings.rate : 0;
            double time = now();
            if (time < due) {
                progress.tell(sender, time);
                sleep_until(due);
                time = due;
            }
            progress.tell(sender, time);
            sender.send_line(text + " " + std::to_string(i + 1));
        }
    }
    const double seconds = now() - start;
    sender.finish();
    print_summary(sender, seconds);
}

/// The text with its zero bytes as ^@, told once: the collector ends a line at one.
std::string without_zeros(std::string_view given)
{
    static bool is_told = false;
    std::string text;
    for (size_t zero = 0; (zero = given.find('\0')) != std::string_view::npos;) {
        text.append(given.substr(0, zero)).append("^@");
        given.remove_prefix(zero + 1);
        if (!std::exchange(is_told, true)) {
            complain("zero bytes are sent as ^@");
        }
    }
    return text.append(given);
}

/// Sends a text, each line of it as a record.
void send_lines(RecordSender &sender, std::string_view given)
{
    const std::string text = without_zeros(given);
    size_t start = 0;
    for (size_t end = 0; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        sender.send_line(std::string_view(text).substr(start, end - start));
    }
    if (start < text.size()) {
        sender.send_line(std::string_view(text).substr(start));
    }
}

/// Sends each line as it comes. False, and told, when the input cannot be read.
bool send_input(RecordSender &sender)
{
    constexpr size_t longest_kept = 1 << 20; // a line beyond that goes off in parts
    std::string pending;
    char block[65536];
    for (;;) {
        const ssize_t bytes = read(STDIN_FILENO, block, sizeof block);
        if (bytes < 0 && errno == EINTR) {
            continue;
        }
        if (bytes < 0) {
            complain("standard input: %s", strerror(errno));
        }
        if (bytes <= 0) {
            send_lines(sender, pending);
            return bytes == 0;
        }
        pending.append(block, static_cast<size_t>(bytes));
        const size_t last = pending.rfind('\n');
        const size_t whole = last == std::string::npos ? 0 : last + 1;
        const size_t length = whole == 0 && pending.size() > longest_kept ? pending.size() : whole;
        send_lines(sender, pending.substr(0, length));
        pending.erase(0, length);
    }
}

std::string join_words(int count, char **words)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += (i != 0 ? " " : "") + std::string(words[i]);
    }
    return text;
}

int send_all(const SendSettings &settings, int word_count, char **words)
{
    const std::string text = join_words(word_count, words);
    if (settings.count != 0 &&
        (text.size() > longest_numbered || text.find('\n') != std::string::npos)) {
        return wrong_usage("with --count the text is one short line");
    }
    keep_library_reports();
    RecordSender sender(settings.name.empty() ? user_name() : settings.name, settings.is_raw);
    if (!sender.connect(settings.address, settings.port)) {
        return STATUS_TROUBLE;
    }
    bool is_read = true;
    if (settings.count != 0) {
        send_numbered(sender, settings, word_count > 0 ? text : "test record");
    } else if (word_count > 0) {
        send_lines(sender, text.empty() ? "\n" : text);
    } else {
        is_read = send_input(sender);
    }
    sender.finish();
    return is_read && sender.failed() == 0 ? STATUS_GOOD : STATUS_TROUBLE;
}

int run(int argc, char **argv)
{
    static const option long_options[] = {
        {"name", required_argument, nullptr, 'n'},  {"address", required_argument, nullptr, 'a'},
        {"port", required_argument, nullptr, 'p'},  {"raw", no_argument, nullptr, 'r'},
        {"count", required_argument, nullptr, 'c'}, {"rate", required_argument, nullptr, 'R'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
    };
    SendSettings settings;
    for (int c = 0; (c = getopt_long(argc, argv, "n:a:p:rc:R:h", long_options, nullptr)) != -1;) {
        if (c == 'h') {
            return show_help(send_command);
        }
        if (c == '?') {
            return wrong_option();
        }
        if (c == 'r') {
            settings.is_raw = true;
        } else if (!apply_option(settings, c)) {
            return wrong_usage("wrong value for -%c: %s", c, harmless(optarg).c_str());
        }
    }
    if (settings.rate > 0 && settings.count == 0) {
        return wrong_usage("--rate goes with --count");
    }
    return send_all(settings, argc - optind, argv + optind);
}

} // namespace

const Command send_command{"send", "send records from a shell, or many as a load test", help, run};

} // namespace ctl
