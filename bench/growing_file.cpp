#include "growing_file.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t buffer_size = 1 << 20; // many times a line
constexpr size_t hole_size = 16 << 20;  // made at once
constexpr size_t disk_block = 512;      // that st_blocks counts in

bool make_hole(int fd, size_t begin, size_t size)
{
    return fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(begin),
                     static_cast<off_t>(size)) == 0;
}

} // namespace

GrowingFile::GrowingFile(const std::string &path, size_t begin)
    : fd_(open(path.c_str(), O_RDWR | O_CLOEXEC)), position_(begin), given_back_(0),
      buffer_(buffer_size)
{
}

GrowingFile::~GrowingFile()
{
    if (fd_ >= 0) {
        (void)close(fd_);
    }
}

size_t GrowingFile::read_lines(const std::function<void(std::string_view)> &take)
{
    char *const new_bytes = buffer_.data() + buffered_;
    const ssize_t size =
        pread(fd_, new_bytes, buffer_.size() - buffered_, static_cast<off_t>(position_));
    if (size <= 0) {
        return 0;
    }
    position_ += static_cast<size_t>(size);
    const char *const end = new_bytes + size;
    const char *line = buffer_.data();
    size_t lines = 0;
    for (const char *feed = nullptr; (feed = std::find(line, end, '\n')) != end; line = feed + 1) {
        take({line, feed});
        ++lines;
    }
    buffered_ = static_cast<size_t>(end - line);
    if (buffered_ == buffer_.size()) { // no line: given in pieces
        take({line, end});
        buffered_ = 0;
    }
    memmove(buffer_.data(), line, buffered_);
    if (position_ - given_back_ >= hole_size + buffer_size) {
        give_back();
    }
    return lines;
}

/// Whole blocks that lie before the buffer, which is smaller than a hole.
void GrowingFile::give_back()
{
    (void)most_on_disk();
    (void)make_hole(fd_, given_back_, hole_size);
    given_back_ += hole_size;
}

size_t GrowingFile::most_on_disk()
{
    struct stat status = {};
    if (fstat(fd_, &status) == 0) {
        most_on_disk_ = std::max(most_on_disk_, static_cast<size_t>(status.st_blocks) * disk_block);
    }
    return most_on_disk_;
}

bool can_make_holes(const std::string &folder)
{
    const std::string path = folder + "/holes";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        return false;
    }
    (void)unlink(path.c_str());
    const bool can =
        ftruncate(fd, static_cast<off_t>(hole_size)) == 0 && make_hole(fd, 0, hole_size);
    (void)close(fd);
    return can;
}
