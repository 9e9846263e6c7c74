// What one record costs the collector, as a whole process, against the least that any receiver
// could spend on it (limit_loop). bench/run tells how and why.
//
// Usage: collector_bench [RECORDS [ROUNDS]]
//
// Fails when a record is lost, or a line is longer or shorter than it has to be.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

#include "receiver_process.h"

namespace {

constexpr char sender_name[] = "bench";
constexpr size_t text_size = 120;
constexpr size_t line_size = sizeof sender_name - 1 + 2 + text_size + 1; // "name: text\n"

constexpr char log_file[] = "receiver.log"; // both names are relative to the receiver's folder
constexpr char config_file[] = "collector.conf";

// A window fits the default receive buffer (212,992 bytes) three times over, whatever the kernel
// charges for a small datagram, so that nothing is ever dropped.
constexpr size_t window_size = 64;

constexpr useconds_t poll_microseconds = 50;
constexpr int growth_polls = 60000; // at least 3 seconds

// Many short runs rather than few long ones: those of a round then meet the same state of a machine
// that has other work too.
constexpr size_t default_records = 40000;
constexpr size_t most_records = 1000000;
constexpr size_t default_rounds = 15;
constexpr size_t most_rounds = 100;

volatile sig_atomic_t interrupted = 0;

void note_interruption(int)
{
    interrupted = 1;
}

/// From then on an interruption ends the loops below, and so cleans up as every other way out does.
void watch_interruptions()
{
    struct sigaction action = {};
    action.sa_handler = note_interruption;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaction(signal, &action, nullptr);
    }
}

// --------------------------------------------------------------------------------- surroundings

/// A folder that exists while the object does; its path is empty when it could not be made.
class TemporaryFolder {
public:
    TemporaryFolder()
    {
        const char *parent = getenv("TMPDIR");
        std::string name =
            std::string(parent != nullptr ? parent : "/tmp") + "/collector_bench.XXXXXX";
        path_ = mkdtemp(name.data()) != nullptr ? name : "";
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const char *name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// A datagram socket that is closed with the object.
class DatagramSocket {
public:
    DatagramSocket() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}
    ~DatagramSocket() { (void)close(fd_); }
    DatagramSocket(const DatagramSocket &) = delete;
    DatagramSocket &operator=(const DatagramSocket &) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

sockaddr_in loopback_address(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A port that nobody receives on just now; 0 when there is none.
uint16_t find_free_port()
{
    const DatagramSocket probe;
    sockaddr_in address = loopback_address(0);
    socklen_t size = sizeof address;
    auto *any = reinterpret_cast<sockaddr *>(&address);
    const bool found = bind(probe.fd(), any, size) == 0 && getsockname(probe.fd(), any, &size) == 0;
    return found ? ntohs(address.sin_port) : uint16_t{0};
}

bool connect_to(const DatagramSocket &sender, uint16_t port)
{
    const sockaddr_in address = loopback_address(port);
    return connect(sender.fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// ----------------------------------------------------------------------------------- the record

/// One log event as it travels: type code, then the serialized fields. Empty without memory.
std::string make_datagram()
{
    const std::string text(text_size, 'x');
    clpacket *p = clpacket_log_event(sender_name, text.c_str(), static_cast<int32_t>(text.size()));
    if (p == nullptr || clpacket_serialize(p) != 0) {
        return "";
    }
    std::string datagram{0, 0, 0, CLPACKET_LOG_EVENT};
    datagram.append(static_cast<const char *>(clpacket_get_buffer(p)), clpacket_get_buffer_size(p));
    clpacket_destroy(p);
    return datagram;
}

bool send_window(const DatagramSocket &sender, const std::string &datagram, size_t records)
{
    for (size_t i = 0; i < records; ++i) {
        const ssize_t sent = send(sender.fd(), datagram.data(), datagram.size(), 0);
        if (sent != static_cast<ssize_t>(datagram.size())) {
            return false;
        }
    }
    return true;
}

/// Bytes in the receiver's file; 0 before it is there.
size_t file_size(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

/// Waits, not for ever, until the receiver's file holds that many bytes.
bool wait_for_growth(const std::string &path, size_t bytes)
{
    for (int poll = 0; poll < growth_polls && interrupted == 0; ++poll) {
        if (file_size(path) >= bytes) {
            return true;
        }
        usleep(poll_microseconds);
    }
    return false;
}

// ------------------------------------------------------------------------------------- receivers

struct Receiver {
    const char *title;
    std::function<std::vector<std::string>(uint16_t port)> command;
};

/// The build's own programs stand beside this one.
std::string program_path(const char *name)
{
    std::error_code ignored; // a wrong path shows when it is started
    return std::filesystem::read_symlink("/proc/self/exe", ignored).replace_filename(name).string();
}

std::vector<std::string> limit_command(uint16_t port)
{
    return {program_path("limit_loop"), std::to_string(port), log_file, std::to_string(line_size)};
}

std::vector<std::string> collector_command(const TemporaryFolder &folder, uint16_t port)
{
    std::ofstream(folder.file(config_file))
        << "ListenAddr = 127.0.0.1\nListenPort = " << port << "\nLogFileName = " << log_file
        << "\nDefaultLogDest = " << LOG_DEST_FILE << "\n";
    return {program_path("TavlenLogger"), "-c", config_file};
}

// ----------------------------------------------------------------------------------- measurement

/// How records reach the receiver: a window lies in its socket before it may read the first record,
/// or they come one by one while it runs.
enum class Arrival { burst, stream };

/// Of one run, per record.
struct Cost {
    double cpu_microseconds;
    double wall_microseconds;
};

/// Sends the records window by window; false when one does not turn up in the file.
bool feed(ReceiverProcess &process, const DatagramSocket &sender, const std::string &path,
          Arrival arrival, size_t records)
{
    const std::string datagram = make_datagram();
    const size_t first_size = file_size(path);
    for (size_t done = 0; done < records;) {
        const size_t window = std::min(window_size, records - done);
        if (arrival == Arrival::burst && !process.hold()) {
            return false;
        }
        const bool sent = send_window(sender, datagram, window);
        if (arrival == Arrival::burst && !process.let_go()) {
            return false;
        }
        done += window;
        if (!sent || !wait_for_growth(path, first_size + done * line_size)) {
            return false;
        }
    }
    return file_size(path) == first_size + records * line_size;
}

std::optional<Cost> measure(const Receiver &receiver, const TemporaryFolder &folder,
                            Arrival arrival, size_t records)
{
    const std::string path = folder.file(log_file);
    (void)unlink(path.c_str()); // of the run before
    const uint16_t port = find_free_port();
    ReceiverProcess process(receiver.command(port), folder.path());
    const DatagramSocket sender;
    // The first line is written when the socket is bound.
    if (!wait_for_growth(path, 1) || !connect_to(sender, port)) {
        return std::nullopt;
    }
    const std::optional<uint64_t> cpu_before = process.cpu_time();
    const auto begin = std::chrono::steady_clock::now();
    const bool complete = feed(process, sender, path, arrival, records);
    const std::chrono::duration<double, std::micro> wall = std::chrono::steady_clock::now() - begin;
    const std::optional<uint64_t> cpu_after = process.cpu_time();
    if (!complete || !cpu_before || !cpu_after) {
        return std::nullopt;
    }
    const auto count = static_cast<double>(records);
    return Cost{static_cast<double>(*cpu_after - *cpu_before) / 1000 / count, wall.count() / count};
}

/// Pairs of runs that followed each other, so that both met the same state of the machine.
struct Rounds {
    std::vector<Cost> collector, limit;
};

bool run_round(const Receiver (&receivers)[2], const TemporaryFolder &folder, Arrival arrival,
               size_t records, Rounds *rounds)
{
    const bool collector_first = rounds->collector.size() % 2 == 0;
    const std::optional<Cost> first =
        measure(receivers[collector_first ? 0 : 1], folder, arrival, records);
    const std::optional<Cost> second =
        first ? measure(receivers[collector_first ? 1 : 0], folder, arrival, records) : first;
    if (!second) {
        return false;
    }
    rounds->collector.push_back(collector_first ? *first : *second);
    rounds->limit.push_back(collector_first ? *second : *first);
    return true;
}

std::optional<Rounds> run_rounds(const Receiver (&receivers)[2], const TemporaryFolder &folder,
                                 Arrival arrival, size_t records, size_t count)
{
    Rounds rounds;
    for (size_t i = 0; i < count; ++i) {
        if (!run_round(receivers, folder, arrival, records, &rounds)) {
            return std::nullopt;
        }
    }
    return rounds;
}

// ----------------------------------------------------------------------------------------- table

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double median_of(const std::vector<Cost> &costs, double Cost::*member)
{
    std::vector<double> values;
    for (const Cost &cost : costs) {
        values.push_back(cost.*member);
    }
    return median(values);
}

double median_cpu_ratio(const Rounds &rounds)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < rounds.limit.size(); ++i) {
        ratios.push_back(rounds.collector[i].cpu_microseconds / rounds.limit[i].cpu_microseconds);
    }
    return median(ratios);
}

void print_row(const char *arrival, const char *title, const std::vector<Cost> &costs, double ratio)
{
    printf("%-8s %-12s %14.3f %14.2f %18.0f\n", arrival, title,
           median_of(costs, &Cost::cpu_microseconds), ratio,
           1e6 / median_of(costs, &Cost::wall_microseconds));
}

void print_head(size_t records, size_t rounds)
{
    printf("Collector: medians of %zu rounds of %zu records, each a line of %zu bytes\n", rounds,
           records, line_size);
    printf("%-8s %-12s %14s %14s %18s\n", "arrival", "receiver", "CPU us/record", "CPU ratio",
           "records/s (wall)");
}

void print_rounds(const char *arrival, const Receiver (&receivers)[2], const Rounds &rounds)
{
    print_row(arrival, receivers[0].title, rounds.collector, median_cpu_ratio(rounds));
    print_row(arrival, receivers[1].title, rounds.limit, 1);
}

/// Measures both ways of arrival; false as soon as a run fails.
bool measure_all(const TemporaryFolder &folder, size_t records, size_t count)
{
    const Receiver receivers[] = {
        {"collector", [&folder](uint16_t port) { return collector_command(folder, port); }},
        {"limit_loop", limit_command}};
    print_head(records, count);
    for (const Arrival arrival : {Arrival::burst, Arrival::stream}) {
        const auto rounds = run_rounds(receivers, folder, arrival, records, count);
        if (!rounds) {
            return false;
        }
        print_rounds(arrival == Arrival::burst ? "burst" : "stream", receivers, *rounds);
    }
    return true;
}

/// The number at that place of the command line, kept between 1 and `most`.
size_t number_argument(int argc, char **argv, int place, size_t usual, size_t most)
{
    const size_t given = argc > place ? strtoul(argv[place], nullptr, 10) : usual;
    return std::clamp<size_t>(given, 1, most);
}

} // namespace

int main(int argc, char **argv)
{
    watch_interruptions();
    const size_t records = number_argument(argc, argv, 1, default_records, most_records);
    const size_t rounds = number_argument(argc, argv, 2, default_rounds, most_rounds);
    const TemporaryFolder folder;
    if (folder.path().empty()) {
        perror("collector_bench: temporary folder");
        return 1;
    }
    if (!measure_all(folder, records, rounds)) {
        fprintf(stderr, "collector_bench: %s\n",
                interrupted != 0 ? "interrupted" : "a record was lost, or a receiver failed");
        return 1;
    }
    return 0;
}
