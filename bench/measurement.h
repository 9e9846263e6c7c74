/* What the scenarios find out, as a table and as JSON. */
#ifndef TAVLEN_BENCH_MEASUREMENT_H
#define TAVLEN_BENCH_MEASUREMENT_H

#include <optional>
#include <string>
#include <vector>

/// One quantity of one receiver over the rounds of a scenario.
struct Measurement {
    std::string scenario;
    std::string receiver;
    std::string quantity;
    std::string unit;
    std::vector<double> values;  // one of each run
    std::optional<double> ratio; // to the receiver it is compared with: the median of the pairs'
};

/// Of at least one value.
double median(std::vector<double> values);

/// The median of the ratios of runs that followed each other, so that both met the same state of
/// the machine: subject[i] to baseline[i].
double median_ratio(const std::vector<double> &subject, const std::vector<double> &baseline);

void print_head();
void print_row(const Measurement &measurement);

/// False when the file cannot be written.
bool write_json(const std::string &path, const std::vector<Measurement> &measurements);

#endif
