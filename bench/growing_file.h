/* Reads a file line by line while another process appends to it, and gives its disk space back. */
#ifndef TAVLEN_BENCH_GROWING_FILE_H
#define TAVLEN_BENCH_GROWING_FILE_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// What has been read becomes a hole in the file, so that the disk holds some 16 MiB and what was
/// not read yet. Nothing is moved and the size stays, so the writer notices nothing. Where the file
/// system knows no holes the file stays as it is.
class GrowingFile {
public:
    /// Reads from that offset on.
    GrowingFile(const std::string &path, size_t begin);
    ~GrowingFile();
    GrowingFile(const GrowingFile &) = delete;
    GrowingFile &operator=(const GrowingFile &) = delete;

    /// Gives the lines that came since, without line feeds, as many as fit a buffer; how many.
    size_t read_lines(const std::function<void(std::string_view)> &take);

    /// Bytes behind the last line that was read: of one without its line feed.
    size_t left_over() const { return buffered_; }

    /// The most bytes that the file was seen to take on the disk.
    size_t most_on_disk();

private:
    void give_back();

    int fd_;
    size_t position_;   // behind what is in the buffer
    size_t given_back_; // up to here
    size_t buffered_ = 0;
    size_t most_on_disk_ = 0;
    std::vector<char> buffer_;
};

/// Whether files in that folder can have holes made in them.
bool can_make_holes(const std::string &folder);

#endif
