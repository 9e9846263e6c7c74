// The record of log_bench.cpp by spdlog.
#include <memory>

#include "library_bench.h"
#include "spdlog_way.h"

namespace {

struct SpdlogFile {
    ScratchFile file;
    std::shared_ptr<spdlog::logger> logger = make_spdlog(file.path());
};

void LogSpdlog(benchmark::State &state)
{
    static std::unique_ptr<SpdlogFile> opened;
    const char *text = record_text().c_str();
    if (state.thread_index() == 0) {
        opened = std::make_unique<SpdlogFile>();
    }
    for ([[maybe_unused]] auto _ : state) {
        SPDLOG_LOGGER_CALL(opened->logger, spdlog::level::info, "{}", text);
    }
    if (state.thread_index() == 0) {
        check_lines(state, opened->file);
        opened.reset();
    }
    count_items(state, 1);
}
BENCHMARK(LogSpdlog);
BENCHMARK(LogSpdlog)->Threads(many_threads)->UseRealTime();

} // namespace
