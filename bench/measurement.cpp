#include "measurement.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

/// A value's digits, enough of them for small and large ones.
std::string digits(double value)
{
    char text[32];
    (void)snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::string list(const std::vector<double> &values)
{
    std::string text;
    for (const double value : values) {
        text += (text.empty() ? "" : ", ") + digits(value);
    }
    return "[" + text + "]";
}

/// A measurement as a JSON object; its names hold nothing that would have to be escaped.
std::string object(const Measurement &m)
{
    return "{\"scenario\": \"" + m.scenario + "\", \"receiver\": \"" + m.receiver +
           "\", \"quantity\": \"" + m.quantity + "\", \"unit\": \"" + m.unit +
           "\", \"median\": " + digits(median(m.values)) +
           ", \"ratio\": " + (m.ratio ? digits(*m.ratio) : "null") +
           ", \"values\": " + list(m.values) + "}";
}

} // namespace

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double median_ratio(const std::vector<double> &subject, const std::vector<double> &baseline)
{
    std::vector<double> ratios(subject.size());
    std::transform(subject.begin(), subject.end(), baseline.begin(), ratios.begin(),
                   [](double a, double b) { return a / b; });
    return median(ratios);
}

void print_head()
{
    printf("%-22s %-20s %-22s %12s %-10s %8s\n", "scenario", "receiver", "quantity", "median",
           "unit", "ratio");
}

void print_row(const Measurement &m)
{
    char ratio[16] = "";
    if (m.ratio) {
        (void)snprintf(ratio, sizeof ratio, "%.3f", *m.ratio);
    }
    printf("%-22s %-20s %-22s %12s %-10s %8s\n", m.scenario.c_str(), m.receiver.c_str(),
           m.quantity.c_str(), digits(median(m.values)).c_str(), m.unit.c_str(), ratio);
    (void)fflush(stdout);
}

bool write_json(const std::string &path, const std::vector<Measurement> &measurements)
{
    std::ofstream file(path);
    const char *separator = "";
    file << "{\"measurements\": [";
    for (const Measurement &measurement : measurements) {
        file << separator << "\n  " << object(measurement);
        separator = ",";
    }
    file << "\n]}\n";
    return static_cast<bool>(file.flush());
}
