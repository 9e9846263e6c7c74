/* Numbered records: how senders log them, and the account of the lines that a collector makes of
 * them. */
#ifndef TAVLEN_BENCH_NUMBERED_LINES_H
#define TAVLEN_BENCH_NUMBERED_LINES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

constexpr size_t sender_count = 4; // each named by one digit

/// More than any line of a record has bytes, and any datagram.
constexpr size_t longest_numbered_line = 160;

/// The logger name of a sender, counted from 0.
std::string sender_name(size_t sender);

/// Logs the record of that number, below 10,000,000,000. Its length varies with the number.
void log_numbered_record(uint64_t number);

struct Account {
    uint64_t arrived = 0;      // records, each counted once
    uint64_t twice = 0;        // lines of a record that had arrived before
    uint64_t out_of_order = 0; // records that a later one of their sender overtook
    uint64_t not_whole = 0;    // lines that are not exactly those of a record that was to be sent
};

/// What came between two states of an account.
Account operator-(const Account &later, const Account &earlier);

/// The lines so far. Remembers a bit for each record.
class NumberedLines {
public:
    /// Each sender's records are numbered from 0.
    explicit NumberedLines(uint64_t records_each);

    /// The next line, without its line feed.
    void check(std::string_view line);

    const Account &account() const { return account_; }

    /// One more than the highest number that arrived from that sender.
    uint64_t next(size_t sender) const { return next_[sender]; }

    /// The first line that is counted as not whole.
    const std::string &first_wrong() const { return first_wrong_; }

private:
    struct Record {
        size_t sender;
        uint64_t number;
    };

    bool read(std::string_view line, Record *record);
    void count(const Record &record);

    Account account_;
    std::vector<std::vector<bool>> arrived_; // by sender and number
    std::vector<uint64_t> next_;
    std::string first_wrong_;
    std::string expected_; // the line that a number makes
};

#endif
