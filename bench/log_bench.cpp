// A record of 120 characters to a file, by LPRINTF and in other ways; and one that is refused.
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include <pthread.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>

#include "library_bench.h"
#include "log_ways.h"

namespace {

/// The library logging to a file of its own while the object is.
class LibraryLog {
public:
    LibraryLog()
    {
        (void)logger_open();
        set_log_dest(LOG_DEST_FILE, file_.path(), nullptr, nullptr);
    }
    ~LibraryLog() { logger_close(); }
    LibraryLog(const LibraryLog &) = delete;
    LibraryLog &operator=(const LibraryLog &) = delete;

    const ScratchFile &file() const { return file_; }

private:
    ScratchFile file_;
};

/// The first thread opens before the loop and closes behind it; the loop's start and end are where
/// the threads wait for each other.
void LogLprintf(benchmark::State &state)
{
    static std::unique_ptr<LibraryLog> log;
    const char *text = record_text().c_str();
    if (state.thread_index() == 0) {
        log = std::make_unique<LibraryLog>();
    }
    for ([[maybe_unused]] auto _ : state) {
        LPRINTF("%s", text);
    }
    if (state.thread_index() == 0) {
        check_lines(state, log->file());
        log.reset();
    }
    count_items(state, 1);
}
BENCHMARK(LogLprintf);
BENCHMARK(LogLprintf)->Threads(many_threads)->UseRealTime();

struct FprintfFile {
    ScratchFile file;
    FprintfLog log{file.path()};
};

void LogFprintf(benchmark::State &state)
{
    static std::unique_ptr<FprintfFile> opened;
    const char *text = record_text().c_str();
    if (state.thread_index() == 0) {
        opened = std::make_unique<FprintfFile>();
    }
    for ([[maybe_unused]] auto _ : state) {
        opened->log.record("log_bench.cpp", __LINE__, __func__, text);
    }
    if (state.thread_index() == 0) {
        check_lines(state, opened->file);
        opened.reset();
    }
    count_items(state, 1);
}
BENCHMARK(LogFprintf);
BENCHMARK(LogFprintf)->Threads(many_threads)->UseRealTime();

/// The part of it that is the kernel's.
void LogWrite(benchmark::State &state)
{
    const ScratchFile file;
    const std::string line = ready_line(record_text());
    for ([[maybe_unused]] auto _ : state) {
        if (write(file.fd(), line.data(), line.size()) < 0) {
            state.SkipWithError("write failed");
        }
    }
    check_lines(state, file);
    count_items(state, 1);
}
BENCHMARK(LogWrite);

/// A site whose limit is used up: one record in an hour. What it costs to be told no.
void LogRefused(benchmark::State &state)
{
    const LibraryLog log;
    const char *text = record_text().c_str();
    constexpr int32_t hour = 3600;
    (void)logger_set_config(1, hour);
    for ([[maybe_unused]] auto _ : state) {
        LPRINTF("%s", text);
    }
    (void)logger_set_config(0, 0);
    if (log.file().size() > static_cast<off_t>(record_text_size) * 4) {
        state.SkipWithError("records were not refused");
    }
    count_items(state, 1);
}
BENCHMARK(LogRefused);

/// The least that a limiter by the clock can do: look at the time under a lock nobody else holds.
void LockTime(benchmark::State &state)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    for ([[maybe_unused]] auto _ : state) {
        pthread_mutex_lock(&lock);
        const time_t now = time(nullptr);
        pthread_mutex_unlock(&lock);
        benchmark::DoNotOptimize(now);
    }
    count_items(state, 1);
}
BENCHMARK(LockTime);

} // namespace
