#include "numbered_lines.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <iterator>
#include <limits>

#include <TavlenCommon/logger.h>

namespace {

constexpr std::string_view name_start = "soak_";
constexpr size_t number_digits = 10;
constexpr size_t time_digits = 10;

/// Texts of 0 to 40 characters: any byte that is lost, moved or of another record shows.
constexpr std::string_view alphabet =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-";
constexpr uint64_t text_lengths = 41;
constexpr uint64_t text_starts = 23;
static_assert(text_lengths + text_starts <= alphabet.size() + 1);

std::string_view text_of(uint64_t number)
{
    return alphabet.substr(number % text_starts, number % text_lengths);
}

constexpr int record_line = __LINE__ + 6; // of LPRINTF
} // namespace

void log_numbered_record(uint64_t number)
{
    const std::string_view text = text_of(number);
    LPRINTF("record %010" PRIu64 " %.*s", number, static_cast<int>(text.size()), text.data());
}

namespace {

/// What lies between the record's time and its number.
const std::string record_place =
    ":numbered_lines.cpp:" + std::to_string(record_line) + ": log_numbered_record: record ";

char digit_of(size_t sender)
{
    return static_cast<char>('0' + sender);
}

/// Cuts a number of that many digits off the text; false when it does not begin with them.
bool cut_number(std::string_view *text, size_t digits, uint64_t *number)
{
    const char *end = text->data() + std::min(digits, text->size());
    const auto [rest, error] = std::from_chars(text->data(), end, *number);
    if (error != std::errc() || rest != text->data() + digits) {
        return false;
    }
    text->remove_prefix(digits);
    return true;
}

void append_number(std::string *text, uint64_t number)
{
    char digits[std::numeric_limits<uint64_t>::digits10 + 1];
    const auto size =
        static_cast<size_t>(std::to_chars(digits, std::end(digits), number).ptr - digits);
    text->append(number_digits - std::min(number_digits, size), '0').append(digits, size);
}

} // namespace

std::string sender_name(size_t sender)
{
    return std::string(name_start) + digit_of(sender);
}

Account operator-(const Account &later, const Account &earlier)
{
    return {later.arrived - earlier.arrived, later.twice - earlier.twice,
            later.out_of_order - earlier.out_of_order, later.not_whole - earlier.not_whole};
}

NumberedLines::NumberedLines(uint64_t records_each)
    : arrived_(sender_count, std::vector<bool>(records_each)), next_(sender_count)
{
}

void NumberedLines::check(std::string_view line)
{
    Record record{};
    if (read(line, &record)) {
        count(record);
        return;
    }
    if (account_.not_whole++ == 0) {
        first_wrong_ = line.substr(0, longest_numbered_line);
    }
}

/// Takes sender, time and number from their places, and compares the line with the one they make.
bool NumberedLines::read(std::string_view line, Record *record)
{
    const size_t time_begin = name_start.size() + sizeof "0: " - 1;
    const size_t number_begin = time_begin + time_digits + record_place.size();
    if (line.size() < number_begin) {
        return false;
    }
    uint64_t seconds = 0;
    std::string_view time = line.substr(time_begin), number = line.substr(number_begin);
    record->sender = static_cast<size_t>(line[name_start.size()] - '0');
    if (record->sender >= sender_count || !cut_number(&time, time_digits, &seconds) ||
        !cut_number(&number, number_digits, &record->number) ||
        record->number >= arrived_[record->sender].size()) {
        return false;
    }
    expected_.assign(name_start).append(1, digit_of(record->sender)).append(": ");
    expected_.append(line, time_begin, time_digits).append(record_place);
    append_number(&expected_, record->number);
    expected_.append(1, ' ').append(text_of(record->number));
    return line == expected_;
}

void NumberedLines::count(const Record &record)
{
    auto arrived = arrived_[record.sender].begin() + static_cast<ptrdiff_t>(record.number);
    if (*arrived) {
        ++account_.twice;
        return;
    }
    *arrived = true;
    ++account_.arrived;
    uint64_t &next = next_[record.sender];
    account_.out_of_order += record.number < next ? 1 : 0;
    next = std::max(next, record.number + 1);
}
