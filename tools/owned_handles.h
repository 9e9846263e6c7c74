/* Owners of what the system hands out: streams, descriptors, lists of addresses. */
#ifndef TAVLEN_TOOLS_OWNED_HANDLES_H
#define TAVLEN_TOOLS_OWNED_HANDLES_H

#include <cstdio>
#include <memory>
#include <netdb.h>
#include <unistd.h>
#include <utility>

namespace ctl {

struct CloseFile {
    void operator()(FILE *file) const { (void)fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct FreeAddresses {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

/// A descriptor, closed at the end; -1 is none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor()
    {
        if (fd_ != -1) {
            (void)close(fd_);
        }
    }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool is_open() const { return fd_ != -1; }

private:
    int fd_;
};

} // namespace ctl

#endif
