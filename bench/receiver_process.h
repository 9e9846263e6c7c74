/* A receiver under measurement. */
#ifndef TAVLEN_BENCH_RECEIVER_PROCESS_H
#define TAVLEN_BENCH_RECEIVER_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <optional>

#include "child_process.h"

/// Resident memory in KiB: now, and the most there ever was.
struct Memory {
    double now;
    double most;
};

class ReceiverProcess : public ChildProcess {
public:
    using ChildProcess::ChildProcess;

    /// Processor time that its threads have used so far, in nanoseconds. Waits until all of them
    /// sleep, one in its next receive: the kernel's number is exact then, and the last record is
    /// paid for. None when they never do.
    std::optional<uint64_t> cpu_time() const;

    std::optional<Memory> memory() const;

    /// Resident memory in KiB, counted page by page: what memory() tells may be late by some dozens
    /// of pages. None when the process has ended.
    std::optional<double> resident() const;

    /// Descriptors that it has open; 0 when it has ended.
    size_t open_files() const;

    /// The receive buffer that it was granted for the socket on that port, in bytes as the kernel
    /// counts: what was asked for, doubled. The system's default where the kernel lets nobody look.
    int receive_buffer(uint16_t port) const;
};

#endif
