// One sender of the soak test: logs numbered records to a collector on 127.0.0.1, as far as it is
// allowed to. Started by soak, in its folder.
//
// Usage: soak_sender ALLOWANCES SENDER RECORDS PORT
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <TavlenCommon/logger.h>

#include "allowances.h"
#include "numbered_lines.h"

namespace {

constexpr useconds_t wait_microseconds = 100;
constexpr int most_refusals = 1000; // of one record
constexpr auto relaxed = std::memory_order_relaxed;

uint64_t sent_datagrams = 0;

} // namespace

/// The library sends through the program's definition, which comes before that of the C library: a
/// logging call tells nobody whether its record was sent.
extern "C" ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *address,
                          socklen_t address_size)
{
    const ssize_t sent = syscall(SYS_sendto, fd, data, size, flags, address, address_size);
    sent_datagrams += sent == static_cast<ssize_t>(size) ? 1 : 0;
    return sent;
}

namespace {

void wait_until_allowed(const Allowance &allowance, uint64_t number)
{
    while (number >= allowance.records.load(relaxed)) {
        usleep(wait_microseconds);
    }
}

/// A record that the system does not take is logged again, so that the numbers have no gaps.
bool send_record(uint64_t number, Allowance &allowance)
{
    for (int refusals = 0; refusals < most_refusals; ++refusals) {
        log_numbered_record(number);
        if (sent_datagrams > number) {
            allowance.sent.store(sent_datagrams, relaxed);
            return true;
        }
        allowance.refused.fetch_add(1, relaxed);
        usleep(wait_microseconds);
    }
    return false;
}

bool send_records(uint64_t records, Allowance &allowance)
{
    for (uint64_t number = 0; number < records; ++number) {
        wait_until_allowed(allowance, number);
        if (!send_record(number, allowance)) {
            return false;
        }
    }
    return sent_datagrams == records;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5) {
        fprintf(stderr, "Usage: soak_sender ALLOWANCES SENDER RECORDS PORT\n");
        return 2;
    }
    const Allowances allowances(argv[1]);
    const size_t sender = strtoul(argv[2], nullptr, 10);
    if (!allowances.usable() || sender >= sender_count || logger_open() != 0) {
        perror("soak_sender");
        return EXIT_FAILURE;
    }
    // The limit of records per call site stays off, as it is at first.
    (void)logger_set_name(sender_name(sender).c_str());
    set_log_dest(LOG_DEST_REMOTE, nullptr, "127.0.0.1", argv[4]);
    const bool complete = send_records(strtoull(argv[3], nullptr, 10), allowances.of(sender));
    logger_close();
    return complete ? EXIT_SUCCESS : EXIT_FAILURE;
}
