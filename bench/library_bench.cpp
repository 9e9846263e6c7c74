// What the library's own work costs: a record to a file (log_bench.cpp), a message to bytes and
// back (codec_bench.cpp), and both against its size (growth_bench.cpp).
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <sys/resource.h>

#include <benchmark/benchmark.h>

#include "codec_cases.h"
#include "library_bench.h"

namespace {

/// The limit's signal is ignored, so that the write fails and is told about.
void limit_files()
{
    const rlimit most{most_file_bytes, most_file_bytes};
    if (signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &most) != 0) {
        perror("library_bench: no limit on files");
        exit(EXIT_FAILURE);
    }
}

/// A process that has had a second thread pays for its locks, also those of the allocator, as one
/// that never had does not. All benchmarks are to pay alike, whichever runs first.
void become_threaded()
{
    std::thread([] {}).join();
}

} // namespace

int main(int argc, char **argv)
{
    limit_files();
    become_threaded();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    check_codec_sides();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return EXIT_SUCCESS;
}
