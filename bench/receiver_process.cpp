#include "receiver_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int sleep_polls = 20000; // at most 2 seconds
constexpr useconds_t poll_microseconds = 100;
constexpr int not_started = 127;

/// Where a child leaves the time at which it becomes another program. Shared with all of them, and
/// kept till the end: one starts at a time.
Clock::time_point *exec_time_of_last()
{
    static void *page = mmap(nullptr, sizeof(Clock::time_point), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return page != MAP_FAILED ? static_cast<Clock::time_point *>(page) : nullptr;
}

[[noreturn]] void become(char *const *argv, const char *folder, int output, pid_t parent,
                         Clock::time_point *exec_time)
{
    const bool watched = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    const bool connected = output < 0 || dup2(output, STDOUT_FILENO) >= 0;
    if (watched && connected && exec_time != nullptr && chdir(folder) == 0) {
        *exec_time = Clock::now();
        execv(argv[0], argv);
    }
    perror(argv[0]);
    _exit(not_started);
}

pid_t start(std::vector<std::string> command, const std::string &folder, int output)
{
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (std::string &word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    Clock::time_point *exec_time = exec_time_of_last();
    const pid_t pid = fork();
    if (pid == 0) {
        become(argv.data(), folder.c_str(), output, parent, exec_time);
    }
    return pid;
}

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

ReceiverProcess::ReceiverProcess(const std::vector<std::string> &command, const std::string &folder,
                                 int output)
    : pid_(start(command, folder, output))
{
}

ReceiverProcess::~ReceiverProcess()
{
    if (pid_ > 0) {
        (void)kill(pid_, SIGKILL); // reaches a held one too
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

bool ReceiverProcess::hold()
{
    int status = 0;
    if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0 || waitpid(pid_, &status, WUNTRACED) != pid_) {
        return false;
    }
    if (!WIFSTOPPED(status)) {
        pid_ = -1; // it ended, and is waited for
    }
    return pid_ > 0;
}

bool ReceiverProcess::let_go() const
{
    return pid_ > 0 && kill(pid_, SIGCONT) == 0;
}

bool ReceiverProcess::wait_for_end()
{
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_) {
        return false;
    }
    pid_ = -1;
    return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}

std::chrono::steady_clock::time_point ReceiverProcess::exec_time() const
{
    return *exec_time_of_last();
}

std::optional<uint64_t> ReceiverProcess::cpu_time() const
{
    uint64_t sum = 0;
    if (pid_ <= 0 || !wait_until_asleep(pid_)) {
        return std::nullopt;
    }
    for (const std::filesystem::path &task : entries(proc_path(pid_, "task"))) {
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
    std::ifstream status(proc_path(pid_, "status"));
    for (std::string line; std::getline(status, line);) {
        std::string name;
        double kibibytes = 0;
        std::istringstream(line) >> name >> kibibytes;
        memory.now = name == "VmRSS:" ? kibibytes : memory.now;
        memory.most = name == "VmHWM:" ? kibibytes : memory.most;
    }
    return memory.now > 0 ? std::optional(memory) : std::nullopt;
}

int ReceiverProcess::receive_buffer(uint16_t port) const
{
    int bytes = 0;
    const auto process_fd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    for (const std::filesystem::path &entry : entries(proc_path(pid_, "fd"))) {
        const auto its_fd = static_cast<int>(strtol(entry.filename().c_str(), nullptr, 10));
        bytes = std::max(bytes, peek_receive_buffer(process_fd, its_fd, port));
    }
    if (process_fd >= 0) {
        (void)close(process_fd);
    }
    return bytes > 0 ? bytes : default_receive_buffer();
}
