#include "receiver_process.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int sleep_polls = 20000; // at most 2 seconds
constexpr useconds_t poll_microseconds = 100;

std::filesystem::path proc_path(pid_t pid, const char *name)
{
    return std::filesystem::path("/proc") / std::to_string(pid) / name;
}

/// The entries of a folder of /proc; an ended process has none.
std::vector<std::filesystem::path> entries(const std::filesystem::path &folder)
{
    std::error_code gone;
    std::vector<std::filesystem::path> paths;
    for (std::filesystem::directory_iterator entry(folder, gone), end; !gone && entry != end;
         entry.increment(gone)) {
        paths.push_back(entry->path());
    }
    return paths;
}

/// The letter behind the parenthesised program name: 'S' for one that waits.
bool is_asleep(const std::filesystem::path &task)
{
    std::string line;
    std::ifstream stat(task / "stat");
    std::getline(stat, line);
    const size_t name_end = line.rfind(')');
    return name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0;
}

bool wait_until_asleep(pid_t pid)
{
    for (int poll = 0; poll < sleep_polls; ++poll) {
        const auto tasks = entries(proc_path(pid, "task"));
        if (!tasks.empty() && std::all_of(tasks.begin(), tasks.end(), is_asleep)) {
            return true;
        }
        usleep(poll_microseconds);
    }
    return false;
}

bool receives_on(int fd, uint16_t port)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    return getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
           address.sin_family == AF_INET && address.sin_port == htons(port);
}

int receive_buffer_of(int fd)
{
    int bytes = 0;
    socklen_t size = sizeof bytes;
    return getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, &size) == 0 ? bytes : 0;
}

/// Through a copy of the other process's descriptor, which ends here; 0 when it is another file.
int peek_receive_buffer(int process_fd, int its_fd, uint16_t port)
{
    const auto copy = static_cast<int>(syscall(SYS_pidfd_getfd, process_fd, its_fd, 0));
    if (copy < 0) {
        return 0;
    }
    const int bytes = receives_on(copy, port) ? receive_buffer_of(copy) : 0;
    (void)close(copy);
    return bytes;
}

int default_receive_buffer()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int bytes = receive_buffer_of(fd);
    (void)close(fd);
    return bytes;
}

} // namespace

std::optional<uint64_t> ReceiverProcess::cpu_time() const
{
    uint64_t sum = 0;
    if (pid() <= 0 || !wait_until_asleep(pid())) {
        return std::nullopt;
    }
    for (const std::filesystem::path &task : entries(proc_path(pid(), "task"))) {
        uint64_t nanoseconds = 0;
        std::ifstream schedstat(task / "schedstat");
        if (!(schedstat >> nanoseconds)) {
            return std::nullopt;
        }
        sum += nanoseconds;
    }
    return sum;
}

std::optional<Memory> ReceiverProcess::memory() const
{
    Memory memory{};
    std::ifstream status(proc_path(pid(), "status"));
    for (std::string line; std::getline(status, line);) {
        std::string name;
        double kibibytes = 0;
        std::istringstream(line) >> name >> kibibytes;
        memory.now = name == "VmRSS:" ? kibibytes : memory.now;
        memory.most = name == "VmHWM:" ? kibibytes : memory.most;
    }
    return memory.now > 0 ? std::optional(memory) : std::nullopt;
}

std::optional<double> ReceiverProcess::resident() const
{
    std::ifstream rollup(proc_path(pid(), "smaps_rollup"));
    for (std::string line; std::getline(rollup, line);) {
        std::string name;
        double kibibytes = 0;
        std::istringstream(line) >> name >> kibibytes;
        if (name == "Rss:") {
            return kibibytes;
        }
    }
    return std::nullopt;
}

size_t ReceiverProcess::open_files() const
{
    return entries(proc_path(pid(), "fd")).size();
}

int ReceiverProcess::receive_buffer(uint16_t port) const
{
    int bytes = 0;
    const auto process_fd = static_cast<int>(syscall(SYS_pidfd_open, pid(), 0));
    for (const std::filesystem::path &entry : entries(proc_path(pid(), "fd"))) {
        const auto its_fd = static_cast<int>(strtol(entry.filename().c_str(), nullptr, 10));
        bytes = std::max(bytes, peek_receive_buffer(process_fd, its_fd, port));
    }
    if (process_fd >= 0) {
        (void)close(process_fd);
    }
    return bytes > 0 ? bytes : default_receive_buffer();
}
