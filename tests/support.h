/* What the tests share: the reports that the code under test makes, in order, and bytes. */
#ifndef TAVLEN_TESTS_SUPPORT_H
#define TAVLEN_TESTS_SUPPORT_H

#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include <TavlenCommon/logger.h>

/// Records as "function: message", without time, file and line number.
using Reports = std::vector<std::string>;

/// Splits text into records; what is no record's first line belongs to the record before it.
Reports parse_records(const std::string &text);

/// The base of what is neither copied nor moved.
struct NotCopied {
    NotCopied() = default;
    NotCopied(NotCopied &&) = delete;
};

std::string read_file(const std::string &path);

/// A file of its own that exists while the object does.
class TemporaryFile : NotCopied {
public:
    explicit TemporaryFile(const std::string &content = "");
    ~TemporaryFile() { (void)remove(path()); }
    const char *path() const { return path_.c_str(); }
    std::string content() const { return read_file(path_); }

private:
    std::string path_;
};

/// Collects what is written to descriptor 1 or 2; a failed test shows it in the end: gtest's words may be among it.
class Capture : NotCopied {
public:
    explicit Capture(int descriptor);
    ~Capture();
    /// What came since the last take.
    std::string take();

private:
    int descriptor_;
    int original_;
    int memory_;
    std::string taken_;
};

/// Opens the logging library with standard error as its one destination and collects the reports.
class ReportingTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(logger_open(), 0);
        set_log_dest(LOG_DEST_STDERR, nullptr, nullptr, nullptr);
    }
    void TearDown() override
    {
        set_log_dest(LOG_DEST_STDOUT, nullptr, nullptr, nullptr);
        logger_close();
        EXPECT_EQ(take_reports(), Reports{}) << "reports that no test asked for";
    }
    Reports take_reports() { return parse_records(errors_.take()); }

    Capture errors_{2};
};

/// The reports since the last look are these.
#define EXPECT_REPORTS(...) EXPECT_EQ(take_reports(), (Reports{__VA_ARGS__}))

/// A call gives this result and makes these reports.
#define EXPECT_REPORTED(call, result, ...)                                                                             \
    do {                                                                                                               \
        EXPECT_EQ(call, result);                                                                                       \
        EXPECT_EQ(take_reports(), (Reports{__VA_ARGS__})) << #call;                                                    \
    } while (0)

/// A call of a function is refused with this result and this report of its own.
#define EXPECT_FAILURE(result, function, arguments, words)                                                             \
    EXPECT_REPORTED(function arguments, result, #function ": ERROR: " words)

/// Calls that are made in this order all give this result.
#define EXPECT_EACH(result, ...)                                                                                       \
    for (const auto given : {__VA_ARGS__}) {                                                                           \
        EXPECT_EQ(given, result);                                                                                      \
    }

/// The bytes that hexadecimal text stands for; blanks do not count.
std::vector<uint8_t> bytes(const std::string &hex);

#endif
