// Accounts for every one of many records: senders that link the library log numbered records to the
// collector, which writes them to a file, and each line of it is checked while it grows.
//
// Usage: soak [RECORDS]
//
//   held   RECORDS records, no more on their way at a time than the receive buffer holds for
//          certain. All have to arrive, once, whole and in their sender's order.
//   above  a tenth of that again, or what fills the receive buffer some times, as fast as the
//          senders can; the collector stands still until the kernel has dropped some. What does not
//          arrive has to be as much as the kernel says that it dropped, to the record.
//
// Meanwhile the collector's memory and descriptors have to stay as they are. Fails, and says why,
// when a promise is broken. Its files are in a temporary folder (TMPDIR).
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <optional>
#include <string>

#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "allowances.h"
#include "growing_file.h"
#include "numbered_lines.h"
#include "observations.h"
#include "receivers.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint64_t usual_records = 20'000'000;
constexpr uint64_t fewest_records = 10'000;
constexpr uint64_t most_records = 2'000'000'000; // remembering them takes 280 MB

constexpr double allowed_growth = 64;    // KiB of the collector's memory
constexpr size_t needed_disk = 64 << 20; // bytes, where holes can be made

constexpr milliseconds look_interval(50);
constexpr milliseconds terminal_interval(500);
constexpr milliseconds plain_interval(10'000);
constexpr milliseconds patience(30'000); // without any progress
constexpr useconds_t idle_microseconds = 200;

constexpr char allowances_file[] = "allowances"; // relative to the folder

void clear_progress()
{
    if (isatty(STDERR_FILENO) == 1) {
        fputs("\r\33[K", stderr);
    }
}

/// Prints in the place of the line of progress.
[[gnu::format(printf, 1, 2)]] void say(const char *format, ...)
{
    clear_progress();
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    (void)fflush(stdout);
}

/// Tells of each broken promise at once; the test goes on where it can.
class Verdict {
public:
    [[gnu::format(printf, 2, 3)]] void broken(const char *format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        clear_progress();
        fputs("soak: BROKEN: ", stdout);
        vprintf(format, arguments);
        va_end(arguments);
        (void)puts("");
        (void)fflush(stdout);
        held_ = false;
    }

    bool held() const { return held_; }

private:
    bool held_ = true;
};

/// A phase's records, and what became of them.
struct Phase {
    const char *name;
    uint64_t end; // of each sender's numbers
    Account before{};
    uint64_t drops_before = 0;
    uint64_t sent_before = 0;
    uint64_t backlog_before = 0;
    Clock::time_point begin = Clock::now();
    Clock::time_point last_line = begin;

    double seconds() const
    {
        constexpr double shortest = 1e-3; // where nothing arrived
        return std::max(shortest, std::chrono::duration<double>(last_line - begin).count());
    }
};

class Soak {
public:
    Soak(const TemporaryFolder &folder, const Receiver &receiver, uint64_t records);

    /// False when a promise is broken or the test could not be made.
    bool run();

private:
    bool start();
    bool start_senders();
    void run_held();
    void run_above();
    void judge_growth();

    template <class Question>
    bool work_until(Question done);
    bool work();
    bool look();
    bool everyone_lives();
    bool is_settled();
    bool settle();

    void begin_phase(const char *name, uint64_t end);
    Account judge_phase(uint64_t drops);
    void allow_held();
    void allow_all(uint64_t end);
    bool all_arrived() const;
    bool all_ended() const;
    uint64_t sum(std::atomic<uint64_t> Allowance::*count) const; // of all senders
    uint64_t sent() const { return sum(&Allowance::sent); }
    void show_progress();

    const TemporaryFolder &folder_;
    const uint64_t held_each_;
    uint64_t all_each_ = 0;
    size_t window_each_ = 0;
    Allowances allowances_;
    Running running_;
    std::list<ChildProcess> senders_;
    std::optional<GrowingFile> file_;
    std::optional<NumberedLines> lines_;
    Observations observations_;
    SocketState socket_{};
    size_t most_queued_ = 0;
    Phase phase_{};
    Verdict verdict_;
    bool above_ = false; // senders are not held back any more, and may end
    Clock::time_point next_look_{}, next_progress_{};
    const bool on_terminal_ = isatty(STDERR_FILENO) == 1;
};

Soak::Soak(const TemporaryFolder &folder, const Receiver &receiver, uint64_t records)
    : folder_(folder), held_each_((records + sender_count - 1) / sender_count),
      allowances_(folder.file(allowances_file)), running_(receiver, folder)
{
}

// -------------------------------------------------------------------------------------- the course

bool Soak::run()
{
    if (!start()) {
        if (verdict_.held()) { // nobody has told why yet
            verdict_.broken("%s", interrupted() ? "interrupted" : "the collector did not start");
        }
        return false;
    }
    run_held();
    if (verdict_.held()) {
        run_above();
    }
    judge_growth();
    return verdict_.held();
}

bool Soak::start()
{
    if (!allowances_.usable() || !running_.ready()) {
        return false;
    }
    const size_t window = running_.safe_window();
    window_each_ = std::max<size_t>(1, window / sender_count);
    all_each_ = held_each_ + std::max<uint64_t>(held_each_ / 10, 4 * window_each_);
    file_.emplace(running_.file(), running_.first_size());
    lines_.emplace(all_each_);
    say("%zu senders; at most %zu records on their way in the held phase, receive buffer %d "
        "bytes\n",
        sender_count, window_each_ * sender_count, running_.receive_buffer());
    begin_phase("held", held_each_);
    return start_senders() && look();
}

bool Soak::start_senders()
{
    for (size_t sender = 0; sender < sender_count; ++sender) {
        const std::vector<std::string> command = {program_path("soak_sender"), allowances_file,
                                                  std::to_string(sender), std::to_string(all_each_),
                                                  std::to_string(running_.port())};
        senders_.emplace_back(command, folder_.path());
    }
    return !interrupted();
}

void Soak::run_held()
{
    const bool went = work_until([this] { return all_arrived() || socket_.drops > 0; });
    const bool settled = went && socket_.drops == 0 && settle();
    if (socket_.drops > 0) {
        verdict_.broken("held: the kernel dropped %" PRIu64
                        " records at a rate that has to be held",
                        socket_.drops);
        return;
    }
    if (!settled) {
        return;
    }
    const uint64_t missing = sent() - judge_phase(0).arrived;
    if (missing > 0) {
        verdict_.broken("held: %" PRIu64 " records are missing", missing);
    }
}

void Soak::run_above()
{
    begin_phase("above", all_each_);
    above_ = true;
    const uint64_t enough = (all_each_ - held_each_) * sender_count / 100;
    if (!running_.process().hold()) {
        verdict_.broken("the collector could not be stopped");
        return;
    }
    allow_all(all_each_);
    const bool dropped =
        work_until([&] { return socket_.drops >= enough || all_ended(); }) && look();
    const bool went = running_.process().let_go() && dropped;
    if (!went || !work_until([this] { return all_ended(); }) || !settle()) {
        return;
    }
    const uint64_t drops = socket_.drops - phase_.drops_before;
    const uint64_t missing = sent() - phase_.sent_before - judge_phase(drops).arrived;
    if (drops == 0) {
        verdict_.broken("above: the kernel dropped nothing, so nothing is proved");
    }
    if (missing != drops) {
        verdict_.broken("above: %" PRIu64 " records are missing, and the kernel dropped %" PRIu64
                        " at the socket (and on the way to any socket %" PRIu64 ")",
                        missing, drops, backlog_drops() - phase_.backlog_before);
    }
}

void Soak::judge_growth()
{
    if (senders_.empty() || interrupted()) {
        return;
    }
    const Span first = observations_.first_tenth(), last = observations_.last_tenth();
    const double growth = last.most_resident - first.most_resident;
    say("memory: %.0f KiB in the first tenth, %.0f in the last (may grow by %.0f)\n"
        "descriptors: %zu to %zu in the first tenth, %zu to %zu in the last\n"
        "disk: %zu MiB at most; sends that failed and were tried again: %" PRIu64 "\n",
        first.most_resident, last.most_resident, allowed_growth, first.fewest_files,
        first.most_files, last.fewest_files, last.most_files, file_->most_on_disk() >> 20,
        sum(&Allowance::refused));
    if (growth > allowed_growth) {
        verdict_.broken("the collector's memory grew by %.0f KiB", growth);
    }
    if (first.fewest_files != last.most_files || first.most_files != last.fewest_files) {
        verdict_.broken("the collector's descriptors did not stay the same");
    }
}

// -------------------------------------------------------------------------------------- the phases

void Soak::begin_phase(const char *name, uint64_t end)
{
    phase_ = {name, end, lines_->account(), socket_.drops, sent(), backlog_drops()};
    most_queued_ = 0;
}

/// Prints what became of the phase's records, and gives it.
Account Soak::judge_phase(uint64_t drops)
{
    const Account account = lines_->account() - phase_.before;
    const uint64_t in_phase = sent() - phase_.sent_before;
    say("%s: %" PRIu64 " records in %.1f s, %.0f/s arrived; dropped %" PRIu64 ", missing %" PRIu64
        ", twice %" PRIu64 ", out of order %" PRIu64 ", not whole %" PRIu64
        "; queue up to %zu KiB\n",
        phase_.name, in_phase, phase_.seconds(),
        static_cast<double>(account.arrived) / phase_.seconds(), drops, in_phase - account.arrived,
        account.twice, account.out_of_order, account.not_whole, most_queued_ >> 10);
    if (sent() != phase_.end * sender_count) {
        verdict_.broken("%s: only %" PRIu64 " records could be sent", phase_.name, in_phase);
    }
    if (account.twice > 0) {
        verdict_.broken("%s: %" PRIu64 " lines came twice", phase_.name, account.twice);
    }
    if (account.out_of_order > 0) {
        verdict_.broken("%s: %" PRIu64 " records are out of order", phase_.name,
                        account.out_of_order);
    }
    if (account.not_whole > 0) {
        verdict_.broken("%s: %" PRIu64 " lines are none of a record that was sent; the first: %s",
                        phase_.name, account.not_whole, lines_->first_wrong().c_str());
    }
    return account;
}

/// Each sender may be a window ahead of its line that arrived last.
void Soak::allow_held()
{
    for (size_t sender = 0; sender < sender_count; ++sender) {
        allowances_.of(sender).records.store(
            std::min(held_each_, lines_->next(sender) + window_each_), std::memory_order_relaxed);
    }
}

void Soak::allow_all(uint64_t end)
{
    for (size_t sender = 0; sender < sender_count; ++sender) {
        allowances_.of(sender).records.store(end, std::memory_order_relaxed);
    }
}

/// A sender says that it has sent a record a moment after that may have arrived.
bool Soak::all_arrived() const
{
    size_t complete = 0;
    while (complete < sender_count && lines_->next(complete) >= phase_.end) {
        ++complete;
    }
    return complete == sender_count && sent() == phase_.end * sender_count;
}

bool Soak::all_ended() const
{
    return std::all_of(senders_.begin(), senders_.end(),
                       [](const ChildProcess &sender) { return sender.has_ended(); });
}

uint64_t Soak::sum(std::atomic<uint64_t> Allowance::*count) const
{
    uint64_t all = 0;
    for (size_t sender = 0; sender < sender_count; ++sender) {
        all += (allowances_.of(sender).*count).load(std::memory_order_relaxed);
    }
    return all;
}

// ---------------------------------------------------------------------------------------- the work

/// Reads lines, lets senders go on and looks around until it is done, or nothing has happened for
/// long, which the account shows then. False when the test cannot go on.
template <class Question>
bool Soak::work_until(Question done)
{
    Clock::time_point last_progress = Clock::now();
    uint64_t before = 0;
    while (!done()) {
        if (!work()) {
            return false;
        }
        const uint64_t progress = sent() + lines_->account().arrived + socket_.drops;
        if (progress != before) {
            before = progress;
            last_progress = Clock::now();
        } else if (Clock::now() - last_progress > patience) {
            return true;
        }
    }
    return true;
}

bool Soak::work()
{
    if (file_->read_lines([this](std::string_view line) { lines_->check(line); }) > 0) {
        phase_.last_line = Clock::now();
    } else {
        usleep(idle_microseconds);
    }
    if (!above_) {
        allow_held();
    }
    return Clock::now() < next_look_ || look();
}

bool Soak::look()
{
    next_look_ = Clock::now() + look_interval;
    if (!everyone_lives()) {
        return false;
    }
    const std::optional<SocketState> state = socket_state(running_.port());
    if (!state || !observations_.add(running_.process())) {
        verdict_.broken("the collector cannot be looked at");
        return false;
    }
    socket_ = *state;
    most_queued_ = std::max(most_queued_, socket_.queued);
    show_progress();
    return true;
}

bool Soak::everyone_lives()
{
    if (interrupted()) {
        verdict_.broken("interrupted");
    } else if (running_.process().has_ended()) {
        verdict_.broken("the collector ended");
    } else {
        for (ChildProcess &sender : senders_) {
            if (sender.has_ended() && !(above_ && sender.wait_for_end())) {
                verdict_.broken("a sender ended, or could not send");
                return false;
            }
        }
        return true;
    }
    return false;
}

/// Every record that the socket took is in the file: it is empty, and the collector waits in a
/// receive.
bool Soak::is_settled()
{
    return queued_bytes(running_.port()) == 0 && running_.process().cpu_time() &&
           queued_bytes(running_.port()) == 0;
}

/// Works until then, and up to the file's end.
bool Soak::settle()
{
    if (!work_until([this] { return is_settled(); })) {
        return false;
    }
    while (file_->read_lines([this](std::string_view line) { lines_->check(line); }) > 0) {
        phase_.last_line = Clock::now();
    }
    if (file_->left_over() > 0) {
        verdict_.broken("%s: the file ends within a line", phase_.name);
    }
    return look();
}

void Soak::show_progress()
{
    if (Clock::now() < next_progress_) {
        return;
    }
    next_progress_ = Clock::now() + (on_terminal_ ? terminal_interval : plain_interval);
    const Account account = lines_->account() - phase_.before;
    const std::chrono::duration<double> seconds = Clock::now() - phase_.begin;
    fprintf(stderr,
            "%s%s: %" PRIu64 " of %" PRIu64 " sent, %" PRIu64 " arrived, %.0f/s, dropped %" PRIu64
            ", queue %zu KiB, memory %.0f KiB, descriptors %zu%s",
            on_terminal_ ? "\r\33[K" : "", phase_.name, sent(), phase_.end * sender_count,
            lines_->account().arrived, static_cast<double>(account.arrived) / seconds.count(),
            socket_.drops, socket_.queued >> 10, observations_.last().resident,
            observations_.last().files, on_terminal_ ? "" : "\n");
}

// ----------------------------------------------------------------------------------------- the
// disk

/// Bytes that the file may grow to; holes count as well. Twice what the lines should take.
uint64_t largest_file(uint64_t records)
{
    return records * 2 * longest_numbered_line + needed_disk;
}

bool has_room(const TemporaryFolder &folder, uint64_t records)
{
    const bool holes = can_make_holes(folder.path());
    const uint64_t needed = holes ? needed_disk : largest_file(records) / 2;
    struct statvfs status = {};
    if (statvfs(folder.path().c_str(), &status) != 0) {
        return false;
    }
    const uint64_t free = static_cast<uint64_t>(status.f_bavail) * status.f_frsize;
    if (free < needed) {
        fprintf(stderr,
                "soak: %s has room for %" PRIu64 " MiB, and %" PRIu64
                " are needed%s. Set TMPDIR to "
                "another folder, or send fewer records.\n",
                folder.path().c_str(), free >> 20, needed >> 20,
                holes ? "" : " where files cannot have holes made in them");
    }
    return free >= needed;
}

/// A collector that writes without end is ended by this.
void limit_files(uint64_t records)
{
    const rlimit limit{largest_file(records), largest_file(records)};
    (void)setrlimit(RLIMIT_FSIZE, &limit);
}

bool run(uint64_t records)
{
    const TemporaryFolder folder("soak");
    if (folder.path().empty()) {
        perror("soak: temporary folder");
        return false;
    }
    if (!has_room(folder, records)) {
        return false;
    }
    limit_files(records);
    const Receiver receiver = collector();
    return Soak(folder, receiver, records).run();
}

} // namespace

int main(int argc, char **argv)
{
    const uint64_t records = argc > 1 ? strtoull(argv[1], nullptr, 10) : usual_records;
    if (argc > 2 || records < fewest_records || records > most_records) {
        fprintf(stderr, "Usage: soak [RECORDS], %" PRIu64 " to %" PRIu64 "\n", fewest_records,
                most_records);
        return 2;
    }
    watch_interruptions();
    const bool held = run(records);
    say("soak: %s\n", held ? "every promise was kept" : "FAILED");
    return held ? EXIT_SUCCESS : EXIT_FAILURE;
}
