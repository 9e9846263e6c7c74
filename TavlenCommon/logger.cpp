#include <TavlenCommon/logger.h>
#include <TavlenCommon/logger_internal.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <limits>
#include <string_view>
#include <syslog.h>
#include <unistd.h>

#include <TavlenCommon/atomic_field.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/com_semaphore_internal.h>
#include <TavlenCommon/error_text.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/socket.h>

using namespace std::string_view_literals;
using tavlen::load_relaxed;
using tavlen::log_lock_token;
using tavlen::store_relaxed;

namespace {

constexpr size_t line_size = 4096; // of a line and of a message, with the terminator
constexpr size_t longest_line = line_size - 1;
constexpr uint32_t highest_mask = 31;
constexpr char not_open_warning[] = "WARNING: logger not initialized, logging to stderr:";

int32_t log_initialized = 0; // publishes log_lock
com_semaphore *log_lock = nullptr;
uint32_t log_dest TAVLEN_GUARDED_BY(log_lock_token) = LOG_DEST_STDOUT;
int log_file TAVLEN_GUARDED_BY(log_lock_token) = -1; // descriptor
sock *log_remote_sock TAVLEN_GUARDED_BY(log_lock_token) = nullptr;
char *log_name TAVLEN_GUARDED_BY(log_lock_token) = nullptr;
// As last given to set_log_dest: the caller's texts, not read once that has returned.
const char *log_file_name TAVLEN_GUARDED_BY(log_lock_token) = nullptr;
const char *log_remote_addr TAVLEN_GUARDED_BY(log_lock_token) = nullptr;
const char *log_remote_port TAVLEN_GUARDED_BY(log_lock_token) = nullptr;
int32_t log_syslog_opened TAVLEN_GUARDED_BY(log_lock_token) = 0;
char log_line[line_size] TAVLEN_GUARDED_BY(log_lock_token);
int32_t log_rl_max = 0;      // relaxed
int64_t log_rl_interval = 0; // relaxed, seconds

/**
 * Says that this thread is inside the library. A report raised then (by the lock, the packet layer
 * or the socket layer on the way to the collector) must not wait for the lock that this thread
 * holds: it passes the limiter and goes straight to standard error. Every record asks for it
 * several times, so it lives where no call is needed to find it.
 */
constinit thread_local bool inside_library [[gnu::tls_model("initial-exec")]] = false;

class InsideMark {
public:
    InsideMark() : previous_(inside_library) { inside_library = true; }
    ~InsideMark() { inside_library = previous_; }
    InsideMark(const InsideMark &) = delete;
    InsideMark &operator=(const InsideMark &) = delete;

private:
    bool previous_;
};

/// Holds log_lock. The mark goes up before the lock is asked for and comes down after the unlock.
class TAVLEN_LOCK_HOLDER LogLock {
public:
    LogLock() TAVLEN_ACQUIRES(log_lock_token) { tavlen::lock_mutex(log_lock); }
    ~LogLock() TAVLEN_RELEASES(log_lock_token) { tavlen::unlock_mutex(log_lock); }
    LogLock(const LogLock &) = delete;
    LogLock &operator=(const LogLock &) = delete;

private:
    InsideMark mark_;
};

class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int saved_ = errno;
};

bool is_open()
{
    return tavlen::load_published(log_initialized) != 0;
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

/// The part after the last '/'; the whole path when that part is empty.
const char *base_name(const char *path)
{
    const char *slash = path != nullptr ? strrchr(path, '/') : nullptr;
    return slash != nullptr && slash[1] != '\0' ? slash + 1 : printable(path);
}

unsigned long long now_seconds()
{
    return static_cast<unsigned long long>(time(nullptr));
}

/// A failure of the library itself, which may hold its own lock: formatted without allocating, and
/// cut like any other message.
__attribute__((format(printf, 3, 4))) void report_to_stderr(int32_t line, const char *func,
                                                            const char *format, ...)
{
    char message[line_size];
    va_list args;
    va_start(args, format);
    if (vsnprintf(message, sizeof message, format, args) < 0) {
        message[0] = '\0';
    }
    va_end(args);
    (void)_lprintf_stderr(__FILE__, line, func, message, nullptr);
}

#define REPORT_TO_STDERR(...) report_to_stderr(__LINE__, __func__, __VA_ARGS__)

void write_and_flush(FILE *stream, const char *text, size_t length)
{
    (void)fwrite(text, 1, length, stream);
    (void)fflush(stream);
}

/// In one write, unless the system cuts it. What it refuses is lost, and does not come up later.
void write_to_file(int fd, const char *text, size_t length)
{
    for (size_t done = 0; done < length;) {
        const ssize_t written = write(fd, text + done, length - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

} // namespace

char *_lprintf_fmt(const char *format, ...)
{
    const ErrnoKeeper errno_keeper;
    auto message = tavlen::allocate_bytes<char>(line_size);
    if (message == nullptr) {
        return nullptr;
    }
    va_list args;
    va_start(args, format);
    if (vsnprintf(message.get(), line_size, format, args) < 0) {
        *message = '\0';
    }
    va_end(args);
    return message.release();
}

int32_t _lprintf_stderr(const char *file, int32_t line, const char *func, const char *message,
                        void *to_free)
{
    const ErrnoKeeper errno_keeper;
    const int32_t written = fprintf(stderr, "%llu:%s:%d: %s: %s\n", now_seconds(), base_name(file),
                                    line, printable(func), printable(message));
    free(to_free);
    return written;
}

namespace {

/// The seconds since the epoch as text. Most records come in the same second as the last one.
std::string_view now_text() TAVLEN_REQUIRES(log_lock_token)
{
    static unsigned long long second = 0; // log_lock guards all three
    static char digits[std::numeric_limits<unsigned long long>::digits10 + 1] = "0";
    static size_t length = 1;
    const unsigned long long now = now_seconds();
    if (now != second) [[unlikely]] {
        second = now;
        length = static_cast<size_t>(std::to_chars(digits, std::end(digits), now).ptr - digits);
    }
    return {digits, length};
}

char *append(char *end, std::string_view text)
{
    memcpy(end, text.data(), text.size());
    return end + text.size();
}

/// Puts the parts into log_line, one behind the other, as far as they fit; gives the length of the
/// whole.
template <class... Part>
size_t compose(Part... parts) TAVLEN_REQUIRES(log_lock_token)
{
    const size_t whole = (parts.size() + ...);
    char *end = log_line;
    if (whole <= longest_line) [[likely]] {
        ((end = append(end, parts)), ...);
    } else {
        char *const last = log_line + longest_line;
        ((end = append(end, parts.substr(0, static_cast<size_t>(last - end)))), ...);
    }
    *end = '\0';
    return whole;
}

/// Composes a record into log_line; gives the length of the whole line.
size_t compose_record(const char *name, const char *file, int32_t line, const char *func,
                      const char *message) TAVLEN_REQUIRES(log_lock_token)
{
    const std::string_view text = printable(message);
    if (file == nullptr && line == 0 && func == nullptr) {
        return compose(std::string_view(printable(name)), ": "sv, text, "\n"sv);
    }
    char number[std::numeric_limits<int32_t>::digits10 + 2] = {}; // one more, and a sign
    const char *number_end = std::to_chars(number, std::end(number), line).ptr;
    const std::string_view lead = name != nullptr ? name : "";
    return compose(lead, name != nullptr ? ":"sv : ""sv, now_text(), ":"sv,
                   std::string_view(base_name(file)), ":"sv, std::string_view(number, number_end),
                   ": "sv, std::string_view(printable(func)), ": "sv, text, "\n"sv);
}

/// As callers are told it: -1 when it is more than the number can say.
int32_t told_length(size_t whole)
{
    return whole <= std::numeric_limits<int32_t>::max() ? static_cast<int32_t>(whole) : -1;
}

} // namespace

int32_t _lprintf(const char *name, const char *file, int32_t line, const char *func,
                 const char *message, void *to_free)
{
    const ErrnoKeeper errno_keeper;
    if (inside_library) {
        return _lprintf_stderr(file, line, func, message, to_free);
    }
    if (!is_open()) {
        (void)_lprintf_stderr(__FILE__, __LINE__, __func__, not_open_warning, nullptr);
        (void)_lprintf_stderr(file, line, func, message, to_free);
        return -1;
    }
    size_t whole = 0;
    {
        const LogLock lock;
        whole = compose_record(name, file, line, func, message);
        log_msg_dest(log_line, static_cast<int32_t>(std::min(whole, longest_line)));
    }
    free(to_free);
    return told_length(whole);
}

int32_t _lprintf_raw(const char *text, int32_t len)
{
    const ErrnoKeeper errno_keeper;
    if (!is_open()) {
        (void)_lprintf_stderr(__FILE__, __LINE__, __func__, not_open_warning, nullptr);
        (void)_lprintf_stderr(__FILE__, __LINE__, __func__, text, nullptr);
        return -1;
    }
    if (inside_library) {
        (void)_lprintf_stderr(__FILE__, __LINE__, __func__, text, nullptr);
        return 0;
    }
    const LogLock lock;
    log_msg_dest(text, len);
    return 0;
}

void log_msg_dest(const char *text, int32_t length)
{
    if (log_dest == 0 || text == nullptr) {
        return;
    }
    const size_t bytes = length > 0 ? static_cast<size_t>(length) : 0;
    if ((log_dest & LOG_DEST_STDOUT) != 0) {
        write_and_flush(stdout, text, bytes);
    }
    if ((log_dest & LOG_DEST_STDERR) != 0) {
        write_and_flush(stderr, text, bytes);
    }
    if ((log_dest & LOG_DEST_SYSLOG) != 0) {
        syslog(LOG_DEBUG, "%s", text);
    }
    if ((log_dest & LOG_DEST_FILE) != 0 && log_file != -1) {
        write_to_file(log_file, text, bytes);
    }
    if ((log_dest & LOG_DEST_REMOTE) != 0 && log_remote_sock != nullptr) {
        log_msg_dest_remote(text, static_cast<int32_t>(bytes));
    }
}

void log_msg_dest_remote(const char *text, int32_t length)
{
    if (length > 0 && text[length - 1] == '\n') {
        --length;
    }
    const char *name = log_name != nullptr ? log_name : program_invocation_short_name;
    clpacket *event = clpacket_log_event(name, text, length);
    if (event == nullptr) {
        REPORT_TO_STDERR("ERROR: unable to build packet");
        return;
    }
    if (clpacket_sendto(event, log_remote_sock, nullptr, 0) != 0) {
        REPORT_TO_STDERR("ERROR: unable to send packet (remote logger not started?)");
    }
    clpacket_destroy(event);
}

namespace {

void open_syslog_once() TAVLEN_REQUIRES(log_lock_token)
{
    if (log_syslog_opened == 0 && (log_dest & LOG_DEST_SYSLOG) != 0) {
        openlog("Tavlen", LOG_CONS, LOG_USER);
        log_syslog_opened = 1;
    }
}

void close_log_file() TAVLEN_REQUIRES(log_lock_token)
{
    if (log_file != -1) {
        (void)close(log_file);
        log_file = -1;
    }
}

void close_remote() TAVLEN_REQUIRES(log_lock_token)
{
    if (log_remote_sock != nullptr) {
        sock_close(log_remote_sock);
        log_remote_sock = nullptr;
    }
}

} // namespace

void set_log_dest(int32_t mask, const char *file_name, const char *remote_addr,
                  const char *remote_port)
{
    if (!is_open()) {
        return;
    }
    const ErrnoKeeper errno_keeper;
    const LogLock lock;
    if (static_cast<uint32_t>(mask) <= highest_mask) {
        store_relaxed(log_dest, static_cast<uint32_t>(mask));
    } else {
        REPORT_TO_STDERR("wrong log destination (%i) ignored (using: %i)%s", mask,
                         static_cast<int>(log_dest),
                         mask > 0 ? ": log destination number is too high" : "");
    }
    open_syslog_once();
    setup_file_log_dest(file_name);
    setup_remote_log_dest(remote_addr, remote_port);
}

void setup_file_log_dest(const char *file_name)
{
    close_log_file();
    log_file_name = file_name;
    if ((log_dest & LOG_DEST_FILE) == 0) {
        return;
    }
    if (file_name == nullptr) {
        REPORT_TO_STDERR("file logging disabled: NULL file name ignored");
        return;
    }
    constexpr mode_t all_may = 0666; // what the umask leaves of it
    log_file = open(file_name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, all_may);
    if (log_file == -1) {
        char reason[tavlen::error_text_size];
        tavlen::write_error_text(errno, reason, sizeof reason);
        REPORT_TO_STDERR("file logging disabled: log file (%s) not opened: %s", file_name, reason);
    }
}

void setup_remote_log_dest(const char *remote_addr, const char *remote_port)
{
    close_remote();
    log_remote_addr = remote_addr;
    log_remote_port = remote_port;
    if ((log_dest & LOG_DEST_REMOTE) == 0) {
        return;
    }
    if (remote_addr == nullptr || remote_port == nullptr) {
        REPORT_TO_STDERR("remote logging disabled: wrong address ([%s]:%s) ignored",
                         printable(remote_addr), printable(remote_port));
        return;
    }
    log_remote_sock = sock_connect_general(remote_addr, remote_port, SOCK_DGRAM);
    if (log_remote_sock == nullptr) {
        REPORT_TO_STDERR("remote logging disabled: log socket ([%s]:%s) not created",
                         log_remote_addr, log_remote_port);
    }
}

/// The mask is read as a whole, without waiting for a line that is being written.
TAVLEN_UNCHECKED int32_t get_log_dest(void)
{
    return is_open() ? static_cast<int32_t>(load_relaxed(log_dest)) : -1;
}

int32_t logger_open(void)
{
    if (is_open()) {
        LPRINTF("WARNING: logger is already initialized");
        return -1;
    }
    log_lock = com_semaphore_init();
    if (log_lock == nullptr) {
        REPORT_TO_STDERR("ERROR: low mem");
        return -1;
    }
    tavlen::publish(log_initialized, 1);
    return 0;
}

namespace {

/// Before the library is open there is no lock, and nobody else.
void assume_alone() TAVLEN_TAKES_AS_HELD(log_lock_token) {}

/// The old name may be the text that the new one was copied from, so it goes last.
void replace_name(char *name) TAVLEN_REQUIRES(log_lock_token)
{
    free(log_name);
    log_name = name;
}

} // namespace

int32_t logger_set_name(const char *name)
{
    if (name == nullptr) {
        REPORT_TO_STDERR("ERROR: wrong arg");
        return -1;
    }
    char *copy = strdup(name);
    if (copy == nullptr) {
        REPORT_TO_STDERR("ERROR: low mem");
    }
    if (!is_open()) {
        assume_alone();
        replace_name(copy);
    } else {
        const LogLock lock;
        replace_name(copy);
    }
    return copy != nullptr ? 0 : -1;
}

int32_t logger_set_config(int32_t max_records, int32_t interval_seconds)
{
    if (!is_open()) {
        REPORT_TO_STDERR("WARNING: logger is not initialized");
    }
    store_relaxed(log_rl_max, max_records);
    store_relaxed(log_rl_interval, interval_seconds);
    return 0;
}

void logger_close(void)
{
    if (log_lock == nullptr) {
        return;
    }
    const InsideMark mark; // up to the end: a report must not ask for a lock that is going
    {
        const LogLock lock;
        close_log_file();
        close_remote();
        replace_name(nullptr);
        tavlen::publish(log_initialized, 0);
    }
    com_semaphore_destroy(log_lock);
    log_lock = nullptr;
}

namespace {

/// The limiter's settings, read once for a call: they may change meanwhile.
struct Limits {
    int32_t max_records = load_relaxed(log_rl_max);
    int64_t interval = load_relaxed(log_rl_interval); // seconds

    bool are_on() const { return max_records >= 1 && interval >= 1; }
};

/// The site's period goes on at that time, and has had all its records. Without log_lock, too: a
/// new period's start is published after its count.
bool is_used_up(const ratelimit_slot *slot, int64_t now, const Limits &limits)
{
    const bool is_over = now - limits.interval > tavlen::load_published(slot->period_start);
    return !is_over && load_relaxed(slot->count) >= limits.max_records;
}

void count_refusal(ratelimit_slot *slot)
{
    tavlen::raise_relaxed(slot->suppressed, std::numeric_limits<int32_t>::max());
}

struct Verdict {
    int32_t result;  // 0 write, -1 refuse
    int32_t carried; // refusals of a period that has just ended
};

/// With log_lock held. Refusals that are counted without it meanwhile go to one period or the next.
Verdict count_record(ratelimit_slot *slot, int64_t now, const Limits &limits)
{
    Verdict verdict{};
    if (slot->period_start == 0) {
        tavlen::publish(slot->period_start, now);
    }
    if (now - limits.interval > slot->period_start) {
        verdict.carried = tavlen::exchange_relaxed(slot->suppressed, 0);
        store_relaxed(slot->count, 0);
        tavlen::publish(slot->period_start, now);
    }
    if (is_used_up(slot, now, limits)) {
        count_refusal(slot);
        verdict.result = -1;
    } else {
        store_relaxed(slot->count, slot->count + 1);
    }
    return verdict;
}

/// Under the name that its caller reports by.
[[gnu::noinline]] void report_suppressed(int32_t count, const char *file, int32_t line,
                                         const char *func)
{
    char *message = _lprintf_fmt("WARNING: %d messages suppressed", count);
    if (message == nullptr) {
        report_to_stderr(__LINE__, "_lprintf_ratelimit", "ERROR: low memory");
        return;
    }
    (void)_lprintf(nullptr, file, line, func, message, message);
}

} // namespace

int32_t _lprintf_ratelimit(ratelimit_slot *slot, const char *file, int32_t line, const char *func)
{
    const Limits limits;
    if (!limits.are_on() || slot == nullptr || inside_library || !is_open()) {
        return 0;
    }
    const int64_t now = time(nullptr);
    // A site that is at its limit need not wait for a lock, which is held while a line is written.
    if (is_used_up(slot, now, limits)) {
        count_refusal(slot);
        return -1;
    }
    Verdict verdict{};
    {
        const LogLock lock;
        verdict = count_record(slot, now, limits);
    }
    if (verdict.carried > 0) [[unlikely]] {
        report_suppressed(verdict.carried, file, line, func);
    }
    return verdict.result;
}
