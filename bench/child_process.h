/* A program that was started and is never left behind. */
#ifndef TAVLEN_BENCH_CHILD_PROCESS_H
#define TAVLEN_BENCH_CHILD_PROCESS_H

#include <chrono>
#include <string>
#include <vector>

#include <sys/types.h>

/// Started in a working folder of its own by the constructor, killed and waited for by the
/// destructor; the kernel kills it too when this process ends in any other way.
class ChildProcess {
public:
    /// Its standard output is `output`, which stays the caller's; negative: the caller's own.
    ChildProcess(const std::vector<std::string> &command, const std::string &folder,
                 int output = -1);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    /// Stops it, so that datagrams gather in its socket; comes back when it stands still.
    bool hold();

    /// Lets a held one go on.
    bool let_go() const;

    /// Whether it has ended, by itself or not; does not wait.
    bool has_ended() const;

    /// Waits until it ends by itself; false unless it succeeds. May be asked again.
    bool wait_for_end();

    /// When the program of the child started last took it over: what a fork costs lies before that.
    std::chrono::steady_clock::time_point exec_time() const;

protected:
    pid_t pid() const { return pid_; }

private:
    pid_t pid_; // -1 when it has been waited for
    bool succeeded_ = false;
};

#endif
