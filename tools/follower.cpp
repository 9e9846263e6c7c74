#include "follower.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "diagnostics.h"
#include "log_line.h"
#include "text.h"

namespace ctl {

// ----------------------------------------------------------------------------------------- lines

bool LineSplitter::take(std::string_view bytes)
{
    while (!bytes.empty()) {
        if (std::exchange(is_cut_, false) && bytes[0] == '\n') { // another program's longer line
            bytes.remove_prefix(1);
            continue;
        }
        const size_t room = longest_log_line - pending_.size();
        const std::string_view part = bytes.substr(0, room);
        const size_t end = part.find('\n');
        if (end == std::string_view::npos && part.size() < room) {
            pending_ += part;
            return true;
        }
        is_cut_ = end == std::string_view::npos;
        const std::string_view line = part.substr(0, end);
        bytes.remove_prefix(line.size() + (is_cut_ ? 0 : 1));
        if (!hand_on(line)) {
            return false;
        }
    }
    return true;
}

bool LineSplitter::hand_on(std::string_view end)
{
    if (pending_.empty()) {
        return handler_(end);
    }
    pending_ += end;
    const bool goes_on = handler_(pending_);
    pending_.clear();
    return goes_on;
}

bool LineSplitter::finish()
{
    const std::string rest = std::exchange(pending_, std::string());
    return rest.empty() || handler_(rest);
}

// ------------------------------------------------------------------------------------------ file

namespace {

constexpr size_t block_size = 65536;

Descriptor open_file(const std::string &path)
{
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

/// Where the last so many lines of a file begin. A line feed at the very end ends the last one.
off_t start_of_last_lines(int fd, uint64_t lines)
{
    const off_t size = lseek(fd, 0, SEEK_END);
    std::string block(block_size, '\0');
    uint64_t ends = 0;
    for (off_t block_end = size; block_end > 0 && lines > 0;) {
        const off_t start = std::max<off_t>(0, block_end - static_cast<off_t>(block_size));
        const ssize_t bytes =
            pread(fd, block.data(), static_cast<size_t>(block_end - start), start);
        for (ssize_t i = bytes - 1; i >= 0; --i) {
            const bool is_end = block[static_cast<size_t>(i)] == '\n' && start + i != size - 1;
            ends += is_end ? 1 : 0;
            if (is_end && ends == lines) {
                return start + i + 1;
            }
        }
        block_end = start;
    }
    return lines > 0 ? 0 : std::max<off_t>(size, 0);
}

} // namespace

Follower::Follower(std::string path, LineHandler handler)
    : path_(std::move(path)), lines_(std::move(handler))
{
}

bool Follower::open_at_start()
{
    file_ = open_file(path_);
    return file_.is_open();
}

bool Follower::open_at_end(uint64_t lines)
{
    if (!open_at_start()) {
        return false;
    }
    struct stat state {};
    if (fstat(file_.get(), &state) == 0 && S_ISREG(state.st_mode)) {
        (void)lseek(file_.get(), start_of_last_lines(file_.get(), lines), SEEK_SET);
    }
    return true;
}

bool Follower::read_on()
{
    static char block[block_size];
    while (file_.is_open()) {
        const ssize_t bytes = read(file_.get(), block, sizeof block);
        if (bytes < 0 && errno != EINTR) {
            complain("%s: %s", harmless(path_).c_str(), strerror(errno));
            return false;
        }
        if (bytes == 0) {
            return true;
        }
        if (bytes > 0 && !lines_.take({block, static_cast<size_t>(bytes)})) {
            return false;
        }
    }
    return true;
}

void Follower::tell_once(const std::string &news)
{
    if (news != last_news_) {
        complain("%s: %s", harmless(path_).c_str(), news.c_str());
    }
    last_news_ = news;
}

/// What the old file still got belongs in front of the new one's lines.
bool Follower::change_file(Descriptor next)
{
    if (!read_on() || !lines_.finish()) {
        return false;
    }
    tell_once("a new file");
    file_ = std::move(next);
    return true;
}

bool Follower::look_again()
{
    struct stat named {};
    if (stat(path_.c_str(), &named) != 0) {
        tell_once(strerror(errno));
        return true; // until it is there again, lines may still come to the old one
    }
    struct stat open {};
    if (file_.is_open() && fstat(file_.get(), &open) == 0 && open.st_ino == named.st_ino &&
        open.st_dev == named.st_dev) {
        if (S_ISREG(open.st_mode) && open.st_size < lseek(file_.get(), 0, SEEK_CUR)) {
            const bool goes_on = lines_.finish();
            complain("%s: the file has been truncated", harmless(path_).c_str());
            (void)lseek(file_.get(), 0, SEEK_SET);
            return goes_on;
        }
        last_news_.clear();
        return true;
    }
    Descriptor next = open_file(path_);
    if (!next.is_open()) {
        tell_once(strerror(errno));
        return true;
    }
    return change_file(std::move(next));
}

} // namespace ctl
