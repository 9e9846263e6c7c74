/* A synchronous file logger of spdlog, set up to write what LPRINTF writes. */
#ifndef TAVLEN_BENCH_SPDLOG_WAY_H
#define TAVLEN_BENCH_SPDLOG_WAY_H

#include <memory>
#include <string>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

/// Time, level, file and line before the text; every record is flushed.
inline std::shared_ptr<spdlog::logger> make_spdlog(const std::string &path)
{
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
    auto logger = std::make_shared<spdlog::logger>("bench", std::move(sink));
    logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%l] [%s:%#] %v");
    logger->flush_on(spdlog::level::trace);
    return logger;
}

#endif
