// The least that a receiver can do for a record: one receive and one write, and nothing between.
// What the collector costs above it is what its own code costs.
//
// Usage: limit_loop PORT FILE LINE_SIZE [RECEIVE_BUFFER]
//
// Appends a line of LINE_SIZE bytes per datagram: the datagram's last bytes and a line feed, so
// that the kernel copies as much as it does for the collector's line. A line "ready" comes first.
// Asks for a receive buffer of RECEIVE_BUFFER bytes, and takes what is granted; 0, or none: it does
// not ask.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t longest_datagram = 65535;
constexpr char ready_line[] = "ready\n";

int open_socket(uint16_t port, int receive_buffer)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        perror("limit_loop: socket");
        return -1;
    }
    if (receive_buffer > 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    }
    return fd;
}

int open_file(const char *path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, ready_line, strlen(ready_line)) < 0) {
        perror("limit_loop: file");
        return -1;
    }
    return fd;
}

/// Ends when a receive or a write fails; the one who started this process ends it otherwise.
void receive_and_write(int receive_fd, int write_fd, size_t line_size)
{
    static char datagram[longest_datagram + 1]; // one more for the line feed
    for (;;) {
        const ssize_t received =
            recvfrom(receive_fd, datagram, longest_datagram, 0, nullptr, nullptr);
        if (received < 0) {
            return;
        }
        char *end = datagram + received;
        *end++ = '\n';
        const bool whole = static_cast<size_t>(end - datagram) >= line_size;
        if (whole && write(write_fd, end - line_size, line_size) < 0) {
            return;
        }
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4 && argc != 5) {
        fprintf(stderr, "Usage: limit_loop PORT FILE LINE_SIZE [RECEIVE_BUFFER]\n");
        return 2;
    }
    const size_t line_size = strtoul(argv[3], nullptr, 10);
    const auto port = static_cast<uint16_t>(strtoul(argv[1], nullptr, 10));
    const int receive_fd = open_socket(port, argc == 5 ? atoi(argv[4]) : 0);
    const int write_fd = receive_fd >= 0 ? open_file(argv[2]) : -1;
    if (write_fd >= 0) {
        receive_and_write(receive_fd, write_fd, line_size);
    }
    perror("limit_loop");
    return 1;
}
