/* A receiver under measurement: a child process that is never left behind. */
#ifndef TAVLEN_BENCH_RECEIVER_PROCESS_H
#define TAVLEN_BENCH_RECEIVER_PROCESS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// Started in a working folder of its own by the constructor, killed and waited for by the
/// destructor; the kernel kills it too when this process ends in any other way.
class ReceiverProcess {
public:
    ReceiverProcess(const std::vector<std::string> &command, const std::string &folder);
    ~ReceiverProcess();
    ReceiverProcess(const ReceiverProcess &) = delete;
    ReceiverProcess &operator=(const ReceiverProcess &) = delete;

    /// Stops it, so that datagrams gather in its socket; comes back when it stands still.
    bool hold();

    /// Lets a held one go on.
    bool let_go() const;

    /// Processor time it has used so far, in nanoseconds. Waits until it sleeps in its next
    /// receive: the kernel's number is exact then, and the last record is paid for. None when it
    /// never does.
    std::optional<uint64_t> cpu_time() const;

private:
    pid_t pid_;
};

#endif
