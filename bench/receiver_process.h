/* A receiver under measurement: a child process that is never left behind. */
#ifndef TAVLEN_BENCH_RECEIVER_PROCESS_H
#define TAVLEN_BENCH_RECEIVER_PROCESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// Resident memory in KiB: now, and the most there ever was.
struct Memory {
    double now;
    double most;
};

/// Started in a working folder of its own by the constructor, killed and waited for by the
/// destructor; the kernel kills it too when this process ends in any other way.
class ReceiverProcess {
public:
    /// Its standard output is `output`, which stays the caller's; negative: the caller's own.
    ReceiverProcess(const std::vector<std::string> &command, const std::string &folder,
                    int output = -1);
    ~ReceiverProcess();
    ReceiverProcess(const ReceiverProcess &) = delete;
    ReceiverProcess &operator=(const ReceiverProcess &) = delete;

    /// Stops it, so that datagrams gather in its socket; comes back when it stands still.
    bool hold();

    /// Lets a held one go on.
    bool let_go() const;

    /// Waits until it ends by itself; false unless it succeeds.
    bool wait_for_end();

    /// When its program took the child process over: what a fork costs lies before that.
    std::chrono::steady_clock::time_point exec_time() const;

    /// Processor time that its threads have used so far, in nanoseconds. Waits until all of them
    /// sleep, one in its next receive: the kernel's number is exact then, and the last record is
    /// paid for. None when they never do.
    std::optional<uint64_t> cpu_time() const;

    std::optional<Memory> memory() const;

    /// The receive buffer that it was granted for the socket on that port, in bytes as the kernel
    /// counts: what was asked for, doubled. The system's default where the kernel lets nobody look.
    int receive_buffer(uint16_t port) const;

private:
    pid_t pid_;
};

#endif
