#include "scenarios.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

namespace {

using Values = std::optional<std::vector<double>>;
using Clock = std::chrono::steady_clock;

constexpr size_t burst_window = 64; // see feed_windows
constexpr size_t throughput_records = 200000;
constexpr size_t drain_records = 100000;
constexpr size_t flood_records = 300000;
constexpr size_t memory_records = 100000;

constexpr size_t throughput_rounds = 7;
constexpr size_t flood_rounds = 7;
constexpr size_t start_rounds = 41;
constexpr size_t memory_rounds = 3;
constexpr size_t most_peer_rounds = 7;

constexpr int start_milliseconds = 5000;

double seconds_since(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// ------------------------------------------------------------------------------- processor time

/// How records reach the receiver: a window lies in its socket before it may read the first record,
/// or they come one by one while it runs.
enum class Arrival { burst, stream };

/// Sends the records window by window, each when the last one is taken; false when one does not
/// turn up in the file. A window fits the default receive buffer (212,992 bytes) three times over,
/// whatever the kernel charges for a small datagram, so that nothing is ever dropped.
bool feed_windows(Running &running, Arrival arrival, size_t records)
{
    for (size_t done = 0; done < records;) {
        const size_t window = std::min(burst_window, records - done);
        if (arrival == Arrival::burst && !running.process().hold()) {
            return false;
        }
        const bool sent = running.sender().send_one_by_one(running.datagram(), window);
        if (arrival == Arrival::burst && !running.process().let_go()) {
            return false;
        }
        done += window;
        if (!sent || !running.has_taken(done)) {
            return false;
        }
    }
    return running.has_written(records);
}

/// Microseconds of processor time per record.
Values run_cpu(const Receiver &receiver, const TemporaryFolder &folder, Arrival arrival,
               size_t records)
{
    Running running(receiver, folder);
    if (!running.ready()) {
        return std::nullopt;
    }
    const std::optional<uint64_t> before = running.process().cpu_time();
    const bool complete = feed_windows(running, arrival, records);
    const std::optional<uint64_t> after = running.process().cpu_time();
    if (!before || !after || !complete) {
        return std::nullopt;
    }
    return {{static_cast<double>(*after - *before) / 1000 / static_cast<double>(records)}};
}

// ------------------------------------------------------------------------------------ throughput

/// Sends whenever a quarter of the window is free, and as much as is. Not record by record: the
/// looks at the file's size between them would slow the sender down.
bool feed_continuously(const Running &running, size_t window, size_t records)
{
    const auto end = Clock::now() + std::chrono::seconds(30);
    for (size_t sent = 0; sent < records;) {
        if (interrupted() || Clock::now() > end) {
            return false;
        }
        const size_t allowed = std::min(records, running.written() + window);
        if (allowed - sent < window / 4 && allowed < records) {
            sched_yield();
            continue;
        }
        if (!running.sender().send_one_by_one(running.datagram(), allowed - sent)) {
            return false;
        }
        sent = allowed;
    }
    return watch_for_size(running.file(), running.size_with(records));
}

/// Records per second from the first one sent to the last one written, sender included.
Values run_throughput(const Receiver &receiver, const TemporaryFolder &folder)
{
    Running running(receiver, folder);
    if (!running.ready()) {
        return std::nullopt;
    }
    const size_t window = running.safe_window();
    const auto begin = Clock::now();
    const bool complete = feed_continuously(running, window, throughput_records);
    const double seconds = seconds_since(begin);
    if (!complete || !running.has_written(throughput_records)) {
        return std::nullopt;
    }
    return {{throughput_records / seconds}};
}

/// Fills the socket of a held receiver, and gives the seconds from letting it go to the last line;
/// `done` records are in the file already.
std::optional<double> drain_once(Running &running, size_t done, size_t fill)
{
    if (!running.process().hold() || !running.sender().send_one_by_one(running.datagram(), fill)) {
        return std::nullopt;
    }
    const auto begin = Clock::now();
    const bool complete = running.process().let_go() &&
                          watch_for_size(running.file(), running.size_with(done + fill));
    return complete ? std::optional(seconds_since(begin)) : std::nullopt;
}

/// Records per second of the receiver alone: nobody sends while it works.
Values run_drain(const Receiver &receiver, const TemporaryFolder &folder)
{
    Running running(receiver, folder);
    if (!running.ready()) {
        return std::nullopt;
    }
    const size_t fill = running.safe_window();
    double seconds = 0;
    size_t done = 0;
    for (; done < drain_records; done += fill) {
        const std::optional<double> more = drain_once(running, done, fill);
        if (!more) {
            return std::nullopt;
        }
        seconds += *more;
    }
    if (!running.has_written(done)) {
        return std::nullopt;
    }
    return {{static_cast<double>(done) / seconds}};
}

// ----------------------------------------------------------------------------------------- flood

/// Lines written of records that come as fast as one thread can send them, in percent.
Values run_flood(const Receiver &receiver, const TemporaryFolder &folder)
{
    Running running(receiver, folder);
    if (!running.ready() || !running.sender().send_in_bulk(running.datagram(), flood_records)) {
        return std::nullopt;
    }
    const size_t size = settled_size(running.file());
    const size_t lines = running.written();
    if (lines == 0 || size != running.size_with(lines)) {
        return std::nullopt;
    }
    const auto written = static_cast<double>(lines);
    return {{written, 100 * written / flood_records}};
}

// ----------------------------------------------------------------------------- start and memory

/// Waits for the end of the first line.
bool wait_for_line(int fd)
{
    char text[256];
    pollfd reader{fd, POLLIN, 0};
    while (poll(&reader, 1, start_milliseconds) > 0) {
        const ssize_t size = read(fd, text, sizeof text);
        if (size <= 0) {
            return false;
        }
        if (std::find(text, text + size, '\n') != text + size) {
            return true;
        }
    }
    return false;
}

struct Pipe {
    Pipe() { (void)!pipe2(ends, O_CLOEXEC); }
    ~Pipe()
    {
        (void)close(ends[0]);
        (void)close(ends[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    int ends[2] = {-1, -1};
};

/// Milliseconds from a program's exec to its first line, which it writes when it can receive, or to
/// its end where it receives nothing.
Values run_start(const Receiver &receiver, const TemporaryFolder &folder)
{
    const Pipe output;
    const auto command = receiver.command(folder, find_free_port());
    ReceiverProcess process(command, folder.path(), output.ends[1]);
    const bool ends = receiver.datagram.empty();
    if (!(ends ? process.wait_for_end() : wait_for_line(output.ends[0]))) {
        return std::nullopt;
    }
    return {{1e3 * seconds_since(process.exec_time())}};
}

/// KiB of memory after many records.
Values run_memory(const Receiver &receiver, const TemporaryFolder &folder)
{
    Running running(receiver, folder);
    if (!running.ready() || !feed_windows(running, Arrival::stream, memory_records)) {
        return std::nullopt;
    }
    const std::optional<Memory> memory = running.process().memory();
    return memory ? Values({memory->now, memory->most}) : std::nullopt;
}

// -------------------------------------------------------------------------------------- scenarios

/// The receive buffer that a receiver works with, in bytes as the kernel counts; 0 when it fails.
int granted_buffer(const Receiver &receiver, const TemporaryFolder &folder)
{
    Running running(receiver, folder);
    return running.ready() ? running.receive_buffer() : 0;
}

Scenario cpu_scenario(const TemporaryFolder &folder, Arrival arrival, const Options &options)
{
    return {arrival == Arrival::burst ? "collector/burst" : "collector/stream",
            {{"processor time", "us/record"}},
            limit_loop(0),
            {collector()},
            options.rounds,
            [&folder, arrival, records = options.records](const Receiver &receiver) {
                return run_cpu(receiver, folder, arrival, records);
            }};
}

/// The peers under the same load. Their runs are longer, and differ by more than rounds can blur.
Scenario for_peers(Scenario scenario)
{
    scenario.name = "peers" + scenario.name.substr(scenario.name.find('/'));
    scenario.subjects = peers();
    scenario.rounds = std::min(scenario.rounds, most_peer_rounds);
    return scenario;
}

/// A scenario of the collector and the limit loop, both with the receive buffer that the collector
/// was granted.
Scenario buffered_scenario(const TemporaryFolder &folder, int buffer, const char *name,
                           std::vector<Quantity> quantities, size_t rounds,
                           Values (*run)(const Receiver &, const TemporaryFolder &))
{
    return {name,
            std::move(quantities),
            limit_loop(buffer),
            {collector()},
            rounds,
            [&folder, run](const Receiver &receiver) { return run(receiver, folder); }};
}

Scenario start_scenario(const TemporaryFolder &folder)
{
    return {"collector/start",
            {{"exec to ready", "ms"}},
            empty_program(),
            {collector_to_stdout()},
            start_rounds,
            [&folder](const Receiver &receiver) { return run_start(receiver, folder); }};
}

// ------------------------------------------------------------------------------------ comparison

/// A column of values for each quantity.
using Columns = std::vector<std::vector<double>>;

/// Appends the values of a run to those of the rounds before.
bool run_once(const Run &run, const Receiver &receiver, Columns *columns)
{
    const Values values = run(receiver);
    if (!values) {
        fprintf(stderr, "collector_bench: a run of %s failed\n", receiver.title);
        return false;
    }
    columns->resize(values->size());
    for (size_t i = 0; i < values->size(); ++i) {
        (*columns)[i].push_back((*values)[i]);
    }
    return true;
}

/// Runs the two in turn, and changes places from round to round.
bool run_pairs(const Scenario &scenario, const Receiver &subject, Columns *ours, Columns *base)
{
    for (size_t round = 0; round < scenario.rounds; ++round) {
        const bool subject_first = round % 2 == 0;
        const bool complete = subject_first ? run_once(scenario.run, subject, ours) &&
                                                  run_once(scenario.run, scenario.baseline, base)
                                            : run_once(scenario.run, scenario.baseline, base) &&
                                                  run_once(scenario.run, subject, ours);
        if (!complete) {
            return false;
        }
    }
    return true;
}

void append(std::vector<Measurement> *results, const Scenario &scenario, const char *receiver,
            const Columns &values, const Columns &baseline)
{
    for (size_t i = 0; i < values.size(); ++i) {
        results->push_back({scenario.name, receiver, scenario.quantities[i].name,
                            scenario.quantities[i].unit, values[i],
                            median_ratio(values[i], baseline[i])});
    }
}

} // namespace

std::vector<Scenario> make_scenarios(const TemporaryFolder &folder, const Options &options)
{
    const int buffer = granted_buffer(collector(), folder);
    const Scenario burst = cpu_scenario(folder, Arrival::burst, options);
    const Scenario stream = cpu_scenario(folder, Arrival::stream, options);
    std::vector<Scenario> scenarios = {
        burst,
        stream,
        buffered_scenario(folder, buffer, "collector/throughput", {{"lossless", "records/s"}},
                          throughput_rounds, run_throughput),
        buffered_scenario(folder, buffer, "collector/drain", {{"receiver alone", "records/s"}},
                          throughput_rounds, run_drain),
        buffered_scenario(folder, buffer, "collector/flood",
                          {{"lines written", "lines"}, {"share of those sent", "%"}}, flood_rounds,
                          run_flood),
        start_scenario(folder),
        buffered_scenario(folder, buffer, "collector/memory",
                          {{"resident", "KiB"}, {"resident, most", "KiB"}}, memory_rounds,
                          run_memory),
    };
    if (options.with_peers) {
        scenarios.push_back(for_peers(burst));
        scenarios.push_back(for_peers(stream));
    }
    return scenarios;
}

std::optional<std::vector<Measurement>> compare(const Scenario &scenario)
{
    std::vector<Measurement> results;
    Columns all_of_base;
    for (const Receiver &subject : scenario.subjects) {
        Columns ours, base;
        if (!run_pairs(scenario, subject, &ours, &base)) {
            return std::nullopt;
        }
        append(&results, scenario, subject.title, ours, base);
        all_of_base.resize(base.size());
        for (size_t i = 0; i < base.size(); ++i) {
            all_of_base[i].insert(all_of_base[i].end(), base[i].begin(), base[i].end());
        }
    }
    append(&results, scenario, scenario.baseline.title, all_of_base, all_of_base);
    return results;
}

std::vector<Measurement> granted_buffers(const TemporaryFolder &folder)
{
    std::vector<Measurement> results;
    const int asked = granted_buffer(collector(), folder);
    for (const Receiver &receiver : {collector(), limit_loop(asked)}) {
        const double bytes = granted_buffer(receiver, folder);
        results.push_back({"collector/buffer",
                           receiver.title,
                           "receive buffer",
                           "bytes",
                           {bytes},
                           bytes / asked});
    }
    return results;
}
