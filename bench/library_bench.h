/* What the parts of library_bench share. */
#ifndef TAVLEN_BENCH_LIBRARY_BENCH_H
#define TAVLEN_BENCH_LIBRARY_BENCH_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

/// No file of the benchmarks grows beyond this many bytes: a longer write fails.
constexpr size_t most_file_bytes = size_t{400} << 20;

constexpr size_t record_text_size = 120;

/// That log at once, where several do. Rounds of less than 0.1 s tell little about those.
constexpr int many_threads = 4;

/// The text of every record that is logged.
inline const std::string &record_text()
{
    static const std::string text(record_text_size, 'x');
    return text;
}

/// A file that is there, and empty, while the object is.
class ScratchFile {
public:
    ScratchFile()
        : path_(folder() + "/library_bench.XXXXXX"), // mkostemp fills it in
          fd_(mkostemp(path_.data(), O_APPEND | O_CLOEXEC))
    {
    }
    ~ScratchFile()
    {
        (void)close(fd_);
        (void)unlink(path_.c_str());
    }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;

    const char *path() const { return path_.c_str(); }
    int fd() const { return fd_; }
    off_t size() const { return lseek(fd_, 0, SEEK_END); }

private:
    static std::string folder()
    {
        const char *chosen = getenv("TMPDIR");
        return chosen != nullptr ? chosen : "/tmp";
    }

    std::string path_;
    int fd_;
};

/// Seconds per item of one round, which stay the same from size to size where the work is linear.
/// With several threads: seconds per item of all of them together, told by the first.
inline void count_items(benchmark::State &state, int64_t items)
{
    if (state.thread_index() != 0) {
        return;
    }
    const auto flags = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
    state.counters["per_item"] = benchmark::Counter(static_cast<double>(items), flags);
}

/// A log that could not be written would look fast. Called by one thread, when all are done.
inline void check_lines(benchmark::State &state, const ScratchFile &file)
{
    const auto lines = static_cast<off_t>(state.iterations()) * state.threads();
    if (file.size() < lines * static_cast<off_t>(record_text_size)) {
        state.SkipWithError("lines are missing");
    }
}

#endif
