/* Reads a log file line by line, its end first, and stays with it while it grows and is rotated. */
#ifndef TAVLEN_TOOLS_FOLLOWER_H
#define TAVLEN_TOOLS_FOLLOWER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "owned_handles.h"

namespace ctl {

/// Gets each line without its line feed; false ends the reading.
using LineHandler = std::function<bool(std::string_view line)>;

/// Cuts bytes as they come into lines.
class LineSplitter {
public:
    explicit LineSplitter(LineHandler handler) : handler_(std::move(handler)) {}

    bool take(std::string_view bytes);

    /// What has no line feed yet is a line, too.
    bool finish();

private:
    bool hand_on(std::string_view end);

    LineHandler handler_;
    std::string pending_;
    bool is_cut_ = false; ///< the last line was, for its length
};

/// One log file, known by its name.
class Follower {
public:
    Follower(std::string path, LineHandler handler);

    /// Opens the file at its last `lines` lines, or at its start; false, with errno set, when it
    /// cannot.
    bool open_at_end(uint64_t lines);
    bool open_at_start();

    /// Reads what there is, and hands on each whole line; false when the handler said so, or the
    /// file cannot be read.
    bool read_on();

    /// Looks whether the name stands for another file now, or the file has shrunk, and if so goes
    /// to its start; tells on standard error. False when the handler said so.
    bool look_again();

    /// Hands on what has no line feed.
    bool finish() { return lines_.finish(); }

private:
    void tell_once(const std::string &news);
    bool change_file(Descriptor next);

    std::string path_;
    LineSplitter lines_;
    Descriptor file_;
    std::string last_news_;
};

} // namespace ctl

#endif
