#include "observations.h"

#include <algorithm>
#include <span>

namespace {

Span extremes(std::span<const Observation> some)
{
    Span span{some.front().resident, some.front().files, some.front().files};
    for (const Observation &observation : some) {
        span.most_resident = std::max(span.most_resident, observation.resident);
        span.fewest_files = std::min(span.fewest_files, observation.files);
        span.most_files = std::max(span.most_files, observation.files);
    }
    return span;
}

size_t tenth(size_t count)
{
    return std::max<size_t>(1, count / 10);
}

} // namespace

bool Observations::add(const ReceiverProcess &process)
{
    const std::optional<double> resident = process.resident();
    const size_t files = process.open_files();
    if (!resident || files == 0) {
        return false;
    }
    all_.push_back({*resident, files});
    return true;
}

Span Observations::first_tenth() const
{
    return extremes(std::span(all_).first(tenth(all_.size())));
}

Span Observations::last_tenth() const
{
    return extremes(std::span(all_).last(tenth(all_.size())));
}
