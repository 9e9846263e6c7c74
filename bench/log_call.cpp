// Logs records of 120 characters to a file in one way and ends: bench/instructions counts what a
// record takes.
//
// Usage: log_call lprintf|fprintf|write|spdlog COUNT FILE
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>

#include "log_ways.h"
#ifdef TAVLEN_BENCH_PEERS
#include "spdlog_way.h"
#endif

namespace {

const std::string text(120, 'x');

bool log_lprintf(long count, const char *path)
{
    if (logger_open() != 0) {
        return false;
    }
    set_log_dest(LOG_DEST_FILE, path, nullptr, nullptr);
    for (long i = 0; i < count; ++i) {
        LPRINTF("%s", text.c_str());
    }
    logger_close();
    return true;
}

bool log_fprintf(long count, const char *path)
{
    FprintfLog log(path);
    for (long i = 0; i < count; ++i) {
        log.record("log_call.cpp", __LINE__, __func__, text.c_str());
    }
    return true;
}

bool log_write(long count, const char *path)
{
    const std::string line = ready_line(text);
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    bool good = fd >= 0;
    for (long i = 0; i < count && good; ++i) {
        good = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    }
    return good && close(fd) == 0;
}

#ifdef TAVLEN_BENCH_PEERS
bool log_spdlog(long count, const char *path)
{
    const auto logger = make_spdlog(path);
    for (long i = 0; i < count; ++i) {
        SPDLOG_LOGGER_CALL(logger, spdlog::level::info, "{}", text.c_str());
    }
    return true;
}
#endif

struct Way {
    const char *name;
    bool (*log)(long count, const char *path);
};

const Way ways[] = {
    {"lprintf", log_lprintf},
    {"fprintf", log_fprintf},
    {"write", log_write},
#ifdef TAVLEN_BENCH_PEERS
    {"spdlog", log_spdlog},
#endif
};

constexpr long most_records = 1'000'000;

} // namespace

int main(int argc, char **argv)
{
    const long count = argc == 4 ? strtol(argv[2], nullptr, 10) : 0;
    for (const Way &way : ways) {
        if (count > 0 && count <= most_records && strcmp(way.name, argv[1]) == 0) {
            return way.log(count, argv[3]) ? EXIT_SUCCESS : EXIT_FAILURE;
        }
    }
    fprintf(stderr, "Usage: log_call lprintf|fprintf|write|spdlog COUNT FILE\n");
    return 2;
}
