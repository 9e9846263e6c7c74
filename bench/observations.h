/* What a process takes of the system over its lifetime: whether that grows. */
#ifndef TAVLEN_BENCH_OBSERVATIONS_H
#define TAVLEN_BENCH_OBSERVATIONS_H

#include <cstddef>
#include <vector>

#include "receiver_process.h"

struct Observation {
    double resident; // KiB
    size_t files;    // open descriptors
};

/// The extremes of some observations that followed each other.
struct Span {
    double most_resident;
    size_t fewest_files;
    size_t most_files;
};

class Observations {
public:
    /// False when the process has ended.
    bool add(const ReceiverProcess &process);

    const Observation &last() const { return all_.back(); }

    /// Of the first and the last tenth, at least one observation each. There has to be one.
    Span first_tenth() const;
    Span last_tenth() const;

private:
    std::vector<Observation> all_;
};

#endif
