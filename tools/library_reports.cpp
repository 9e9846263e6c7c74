#include "library_reports.h"

#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>

#include "text.h"

namespace ctl {

namespace {

/// The library's log file: one in memory, which nothing else sees. A pipe would fill up.
int kept_reports = -1;

std::string read_and_clear(int fd)
{
    struct stat state {};
    if (fstat(fd, &state) != 0 || state.st_size == 0) {
        return {};
    }
    std::string text(static_cast<size_t>(state.st_size), '\0');
    const ssize_t bytes = pread(fd, text.data(), text.size(), 0);
    text.resize(bytes > 0 ? static_cast<size_t>(bytes) : 0);
    return ftruncate(fd, 0) == 0 ? text : std::string();
}

/// Without time, file and line, which are the library's own business.
std::string_view without_place(std::string_view report)
{
    const size_t place = report.find(": ");
    return place == std::string_view::npos ? report : report.substr(place + 2);
}

void append_counted(std::vector<std::string> &reports, std::string_view report, size_t count)
{
    if (count > 0) {
        reports.push_back(harmless(report) + (count > 1 ? compose(" (%zu times)", count) : ""));
    }
}

} // namespace

void keep_library_reports()
{
    (void)logger_open();
    kept_reports = memfd_create("reports", MFD_CLOEXEC);
    const std::string path = compose("/proc/self/fd/%d", kept_reports);
    const bool is_kept = kept_reports != -1 && access(path.c_str(), W_OK) == 0;
    set_log_dest(is_kept ? LOG_DEST_FILE : LOG_DEST_STDERR, path.c_str(), nullptr, nullptr);
}

std::vector<std::string> take_library_reports()
{
    const std::string text = kept_reports != -1 ? read_and_clear(kept_reports) : "";
    std::vector<std::string> reports;
    std::string_view rest = text;
    std::string_view last;
    size_t count = 0;
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        const std::string_view report = without_place(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (report != last) {
            append_counted(reports, last, count);
            count = 0;
        }
        last = report;
        ++count;
    }
    append_counted(reports, last, count);
    return reports;
}

} // namespace ctl
