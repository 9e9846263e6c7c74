// What the collector costs, as a whole process, against the least that any receiver could spend
// (limit_loop). bench/run tells how and why.
//
// Usage: collector_bench [--peers] [--json FILE] [--only REGEX] [RECORDS [ROUNDS]]
//
// --only leaves out scenarios whose name the regular expression (extended) does not match. RECORDS
// and ROUNDS are those of the scenarios that measure processor time. Fails when a record is lost
// where none may be, or a line is longer or shorter than it has to be.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "scenarios.h"

namespace {

// Many short runs rather than few long ones: those of a round then meet the same state of a machine
// that has other work too.
constexpr size_t default_records = 40000;
constexpr size_t most_records = 1000000;
constexpr size_t default_rounds = 15;
constexpr size_t most_rounds = 100;

struct CommandLine {
    Options options{default_records, default_rounds, false};
    std::string json_path; // empty: no such file
    std::string only = ".";
};

/// The number in that text, kept between 1 and `most`.
size_t number(const char *text, size_t most)
{
    return std::clamp<size_t>(strtoul(text, nullptr, 10), 1, most);
}

CommandLine parse(int argc, char **argv)
{
    CommandLine line;
    int numbers = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (word == "--peers") {
            line.options.with_peers = true;
        } else if (word == "--json" && i + 1 < argc) {
            line.json_path = argv[++i];
        } else if (word == "--only" && i + 1 < argc) {
            line.only = argv[++i];
        } else if (++numbers == 1) {
            line.options.records = number(argv[i], most_records);
        } else {
            line.options.rounds = number(argv[i], most_rounds);
        }
    }
    return line;
}

/// The scenarios whose names match.
std::vector<Scenario> choose(std::vector<Scenario> scenarios, const std::string &only)
{
    const std::regex pattern(only, std::regex::extended);
    std::erase_if(scenarios, [&pattern](const Scenario &scenario) {
        return !std::regex_search(scenario.name, pattern);
    });
    return scenarios;
}

void report(const std::vector<Measurement> &some, std::vector<Measurement> *all)
{
    std::for_each(some.begin(), some.end(), print_row);
    all->insert(all->end(), some.begin(), some.end());
}

/// Measures and prints, conditions first; false as soon as a run fails.
bool measure_all(const TemporaryFolder &folder, const std::vector<Scenario> &scenarios,
                 std::vector<Measurement> *results)
{
    if (scenarios.empty()) {
        return true;
    }
    print_head();
    report(granted_buffers(folder), results);
    for (const Scenario &scenario : scenarios) {
        const auto measurements = compare(scenario);
        if (!measurements) {
            return false;
        }
        report(*measurements, results);
    }
    return true;
}

bool measure(const TemporaryFolder &folder, const CommandLine &line)
{
    std::vector<Measurement> results;
    const auto scenarios = choose(make_scenarios(folder, line.options), line.only);
    if (!measure_all(folder, scenarios, &results)) {
        fprintf(stderr, "collector_bench: %s\n",
                interrupted() ? "interrupted" : "a record was lost, or a receiver failed");
        return false;
    }
    if (!line.json_path.empty() && !write_json(line.json_path, results)) {
        perror(line.json_path.c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
try {
    watch_interruptions();
    const CommandLine line = parse(argc, argv);
    const TemporaryFolder folder("collector_bench");
    if (folder.path().empty()) {
        perror("collector_bench: temporary folder");
        return EXIT_FAILURE;
    }
    return measure(folder, line) ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::regex_error &error) {
    fprintf(stderr, "collector_bench: --only: %s\n", error.what());
    return 2;
}
