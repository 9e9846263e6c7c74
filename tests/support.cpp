#include "support.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>

// Sanitizers report to the terminal even while standard error is collected.
extern "C" __attribute__((weak)) void __sanitizer_set_report_fd(void *descriptor);

std::ostream &operator<<(std::ostream &out, const Report &report)
{
    return out << report.function << ": \"" << report.message << '"';
}

Reports parse_records(const std::string &text)
{
    Reports reports;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        char function[128];
        int message_start = 0;
        if (sscanf(line.c_str(), "%*u:%*[^:]:%*d: %127[^:]: %n", function, &message_start) == 1 &&
            message_start > 0) {
            reports.push_back({function, line.substr(static_cast<size_t>(message_start))});
        } else if (!reports.empty()) {
            reports.back().message += "\n" + line;
        } else {
            reports.push_back({"", line});
        }
    }
    return reports;
}

TemporaryFile::TemporaryFile(const std::string &content) : path_("/tmp/tavlen-test-XXXXXX")
{
    const int descriptor = mkstemp(path_.data());
    if (write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        abort();
    }
    close(descriptor);
}

TemporaryFile::~TemporaryFile()
{
    unlink(path());
}

std::string TemporaryFile::content() const
{
    std::ostringstream content;
    content << std::ifstream(path_).rdbuf();
    return content.str();
}

Capture::Capture(int descriptor)
    : descriptor_(descriptor), original_(dup(descriptor)),
      memory_(memfd_create("capture", MFD_CLOEXEC))
{
    fcntl(memory_, F_SETFL, O_APPEND);
    dup2(memory_, descriptor_);
    if (descriptor == STDERR_FILENO && __sanitizer_set_report_fd != nullptr) {
        // The sanitizers take the descriptor's number in a pointer's clothes.
        __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<intptr_t>(original_)));
    }
}

Capture::~Capture()
{
    (void)fflush(nullptr);
    (void)take();
    dup2(original_, descriptor_);
    if (descriptor_ == STDERR_FILENO && __sanitizer_set_report_fd != nullptr) {
        __sanitizer_set_report_fd(reinterpret_cast<void *>(intptr_t{STDERR_FILENO}));
    }
    close(original_);
    close(memory_);
    if (testing::Test::HasFailure()) {
        (void)fwrite(taken_.data(), 1, taken_.size(),
                     descriptor_ == STDOUT_FILENO ? stdout : stderr);
    }
}

std::string Capture::take()
{
    std::string text(static_cast<size_t>(lseek(memory_, 0, SEEK_END)), '\0');
    if (pread(memory_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()) ||
        ftruncate(memory_, 0) != 0) {
        abort();
    }
    taken_ += text;
    return text;
}

void ReportingTest::SetUp()
{
    ASSERT_EQ(logger_open(), 0);
    set_log_dest(LOG_DEST_STDERR, nullptr, nullptr, nullptr);
}

void ReportingTest::TearDown()
{
    set_log_dest(LOG_DEST_STDOUT, nullptr, nullptr, nullptr);
    logger_close();
    EXPECT_EQ(take_reports(), Reports{}) << "reports that no test asked for";
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

EdgeBuffer::EdgeBuffer(const std::vector<uint8_t> &content)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t readable = (content.size() + page - 1) / page * page;
    size_ = readable + page;
    void *pages = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        abort();
    }
    pages_ = static_cast<uint8_t *>(pages);
    mprotect(pages_ + readable, page, PROT_NONE);
    begin_ = pages_ + readable - content.size();
    std::copy(content.begin(), content.end(), begin_);
}

EdgeBuffer::~EdgeBuffer()
{
    munmap(pages_, size_);
}
