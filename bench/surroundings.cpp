#include "surroundings.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <sched.h>
#include <sys/stat.h>

namespace {

constexpr useconds_t poll_microseconds = 50;
constexpr int growth_polls = 60000; // at least 3 seconds

constexpr useconds_t settle_microseconds = 150000;
constexpr int settle_polls = 100;

volatile sig_atomic_t interruptions = 0;

void note_interruption(int)
{
    interruptions = 1;
}

} // namespace

void watch_interruptions()
{
    struct sigaction action = {};
    action.sa_handler = note_interruption;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaction(signal, &action, nullptr);
    }
}

bool interrupted()
{
    return interruptions != 0;
}

TemporaryFolder::TemporaryFolder(const std::string &program)
{
    const char *parent = getenv("TMPDIR");
    // What mkdtemp fills in.
    std::string name = std::string(parent != nullptr ? parent : "/tmp") + "/" + program + ".XXXXXX";
    path_ = mkdtemp(name.data()) != nullptr ? name : "";
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string program_path(const char *name)
{
    std::error_code ignored; // a wrong path shows when it is started
    return std::filesystem::read_symlink("/proc/self/exe", ignored).replace_filename(name).string();
}

size_t file_size(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? static_cast<size_t>(status.st_size) : 0;
}

bool wait_for_size(const std::string &path, size_t bytes)
{
    return poll_until([&] { return file_size(path) >= bytes; }, poll_microseconds, growth_polls);
}

bool watch_for_size(const std::string &path, size_t bytes)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (file_size(path) < bytes) {
        if (interrupted() || std::chrono::steady_clock::now() > end) {
            return false;
        }
        sched_yield();
    }
    return true;
}

size_t settled_size(const std::string &path)
{
    size_t last = file_size(path);
    (void)poll_until(
        [&] {
            usleep(settle_microseconds);
            const size_t before = last;
            last = file_size(path);
            return last == before;
        },
        0, settle_polls);
    return last;
}
