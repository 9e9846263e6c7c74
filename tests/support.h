/* What the tests share: the reports that the code under test makes, in order. */
#ifndef TAVLEN_TESTS_SUPPORT_H
#define TAVLEN_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

/// One record, without its time and line number.
struct Report {
    std::string function;
    std::string message;
    bool operator==(const Report &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Report &report);

using Reports = std::vector<Report>;

/// Splits text into records; what is no record's first line belongs to the record before it.
Reports parse_records(const std::string &text);

/// A file of its own that exists while the object does.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string &content = "");
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;
    const char *path() const { return path_.c_str(); }
    std::string content() const;

private:
    std::string path_;
};

/// Collects what is written to a descriptor of this process (1 or 2) while the object exists; a
/// failed test shows all of it in the end, for gtest's own words may be among it.
class Capture {
public:
    explicit Capture(int descriptor);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;
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
    void SetUp() override;
    void TearDown() override;
    Reports take_reports() { return parse_records(errors_.take()); }

private:
    Capture errors_{2};
};

/// The bytes that hexadecimal text stands for; blanks do not count.
std::vector<uint8_t> bytes(const std::string &hex);

/// A copy of bytes that ends where the readable memory ends, so that reading on crashes.
class EdgeBuffer {
public:
    explicit EdgeBuffer(const std::vector<uint8_t> &content);
    ~EdgeBuffer();
    EdgeBuffer(const EdgeBuffer &) = delete;
    EdgeBuffer &operator=(const EdgeBuffer &) = delete;
    uint8_t *begin() const { return begin_; }

private:
    uint8_t *pages_;
    size_t size_;
    uint8_t *begin_;
};

#define EXPECT_REPORTS(...) EXPECT_EQ(take_reports(), (Reports{__VA_ARGS__}))

#endif
