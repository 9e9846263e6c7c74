/* What a benchmark of whole processes needs around it: a folder, a way to stop, a look at files. */
#ifndef TAVLEN_BENCH_SURROUNDINGS_H
#define TAVLEN_BENCH_SURROUNDINGS_H

#include <cstddef>
#include <string>

#include <unistd.h>

/// From then on an interruption ends every wait below, and so cleans up as any other way out does.
void watch_interruptions();
bool interrupted();

/// A folder that exists while the object does, in TMPDIR, with a name that begins with the
/// program's; its path is empty when it could not be made.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::string &program);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// Of a program of this build: it stands beside the running one.
std::string program_path(const char *name);

/// Bytes in a file; 0 before it is there.
size_t file_size(const std::string &path);

/// Waits, not for ever, until the file holds that many bytes.
bool wait_for_size(const std::string &path, size_t bytes);

/// The same without sleeping between two looks: exact to microseconds, at the cost of a processor.
bool watch_for_size(const std::string &path, size_t bytes);

/// Waits until the file has not grown for a while; gives its size.
size_t settled_size(const std::string &path);

/// Asks `done` every `microseconds`, `most` times at the most; false when it never was.
template <class Question>
bool poll_until(Question done, useconds_t microseconds, int most)
{
    for (int poll = 0; poll < most && !interrupted(); ++poll) {
        if (done()) {
            return true;
        }
        usleep(microseconds);
    }
    return false;
}

#endif
