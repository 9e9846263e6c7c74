#include "child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

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

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string> &command, const std::string &folder,
                           int output)
    : pid_(start(command, folder, output))
{
}

ChildProcess::~ChildProcess()
{
    if (pid_ > 0) {
        (void)kill(pid_, SIGKILL); // reaches a held one too
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

bool ChildProcess::hold()
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

bool ChildProcess::let_go() const
{
    return pid_ > 0 && kill(pid_, SIGCONT) == 0;
}

bool ChildProcess::has_ended() const
{
    siginfo_t info{};
    const auto id = static_cast<id_t>(pid_);
    return pid_ <= 0 || waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid == pid_;
}

bool ChildProcess::wait_for_end()
{
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, 0) == pid_) {
        pid_ = -1;
        succeeded_ = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
    }
    return succeeded_;
}

std::chrono::steady_clock::time_point ChildProcess::exec_time() const
{
    return *exec_time_of_last();
}
