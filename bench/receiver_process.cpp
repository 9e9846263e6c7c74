#include "receiver_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int sleep_polls = 20000; // at most 2 seconds
constexpr useconds_t poll_microseconds = 100;
constexpr int not_started = 127;

[[noreturn]] void become(char *const *argv, const char *folder, pid_t parent)
{
    const bool watched = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    if (watched && chdir(folder) == 0) {
        execv(argv[0], argv);
    }
    perror(argv[0]);
    _exit(not_started);
}

pid_t start(std::vector<std::string> command, const std::string &folder)
{
    std::vector<char *> argv;
    for (std::string &word : command) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        become(argv.data(), folder.c_str(), parent);
    }
    return pid;
}

std::string proc_path(pid_t pid, const char *file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

/// The letter behind the parenthesised program name: 'S' for one that waits.
bool is_asleep(pid_t pid)
{
    std::string line;
    std::ifstream stat(proc_path(pid, "stat"));
    std::getline(stat, line);
    const size_t name_end = line.rfind(')');
    return name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0;
}

bool wait_until_asleep(pid_t pid)
{
    for (int poll = 0; poll < sleep_polls; ++poll) {
        if (is_asleep(pid)) {
            return true;
        }
        usleep(poll_microseconds);
    }
    return false;
}

} // namespace

ReceiverProcess::ReceiverProcess(const std::vector<std::string> &command, const std::string &folder)
    : pid_(start(command, folder))
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

std::optional<uint64_t> ReceiverProcess::cpu_time() const
{
    uint64_t nanoseconds = 0;
    if (pid_ <= 0 || !wait_until_asleep(pid_)) {
        return std::nullopt;
    }
    std::ifstream schedstat(proc_path(pid_, "schedstat"));
    if (!(schedstat >> nanoseconds)) {
        return std::nullopt;
    }
    return nanoseconds;
}
