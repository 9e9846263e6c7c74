/* The situations in which receivers are compared. bench/run tells what each is for. */
#ifndef TAVLEN_BENCH_SCENARIOS_H
#define TAVLEN_BENCH_SCENARIOS_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "measurement.h"
#include "receivers.h"

struct Quantity {
    const char *name;
    const char *unit;
};

/// A receiver is run once; gives a value for each quantity. None when the run failed: a record was
/// lost where none may be, a line was too long or too short, or the receiver ended.
using Run = std::function<std::optional<std::vector<double>>(const Receiver &)>;

struct Scenario {
    std::string name;
    std::vector<Quantity> quantities;
    Receiver baseline;
    std::vector<Receiver> subjects; // each is compared with the baseline
    size_t rounds;
    Run run;
};

struct Options {
    size_t records; // of a run that measures processor time
    size_t rounds;
    bool with_peers;
};

/// The folder has to outlive them.
std::vector<Scenario> make_scenarios(const TemporaryFolder &folder, const Options &options);

/// Runs each subject and the baseline in turn, for as many rounds as the scenario has; none as soon
/// as a run fails.
std::optional<std::vector<Measurement>> compare(const Scenario &scenario);

/// The receive buffers that both sides were granted, as they stand; empty when a receiver failed.
std::vector<Measurement> granted_buffers(const TemporaryFolder &folder);

#endif
