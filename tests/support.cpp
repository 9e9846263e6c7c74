#include "support.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

// Sanitizers report to the terminal even while standard error is collected; a pointer carries the number.
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *descriptor);
[[maybe_unused]] static const bool reports_apart =
    __sanitizer_set_report_fd != nullptr &&
    (__sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)})), true);

Reports parse_records(const std::string &text)
{
    Reports reports;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int start = 0; // behind time, file and line number
        (void)sscanf(line.c_str(), "%*[0-9]:%*[^:]:%*[0-9]: %n", &start);
        if (start > 0 || reports.empty()) {
            reports.push_back(line.substr(static_cast<size_t>(start)));
        } else {
            reports.back() += "\n" + line;
        }
    }
    return reports;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TemporaryFile::TemporaryFile(const std::string &content) : path_("/tmp/tavlen-test-XXXXXX") // mkstemp fills it in
{
    close(mkstemp(path_.data()));
    std::ofstream(path_) << content;
}

Capture::Capture(int descriptor)
    : descriptor_(descriptor), original_(dup(descriptor)), memory_(memfd_create("capture", MFD_CLOEXEC))
{
    fcntl(memory_, F_SETFL, O_APPEND);
    dup2(memory_, descriptor_);
}

Capture::~Capture()
{
    (void)fflush(nullptr);
    (void)take();
    dup2(original_, descriptor_);
    close(original_);
    close(memory_);
    if (testing::Test::HasFailure()) {
        (void)fwrite(taken_.data(), 1, taken_.size(), descriptor_ == STDOUT_FILENO ? stdout : stderr);
    }
}

std::string Capture::take()
{
    const std::string text = read_file("/proc/self/fd/" + std::to_string(memory_));
    EXPECT_EQ(ftruncate(memory_, 0), 0);
    taken_ += text;
    return text;
}

std::vector<uint8_t> bytes(const std::string &hex)
{
    std::vector<uint8_t> result;
    std::istringstream digits(hex);
    for (std::string byte; digits >> byte;) {
        result.push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
    }
    return result;
}
