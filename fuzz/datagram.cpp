// Any bytes as a datagram: received as they are, written as one record or refused with reports, on both roads alike.
#include "fuzz.h"
#include <sys/mman.h>
#include <TavlenLogger/main.h>
#include <unistd.h>

namespace {

/// What the collector has written since the last look.
std::string take_written()
{
    static const int sink = memfd_create("sink", MFD_CLOEXEC);
    static const bool log_is_open = open_log(LOG_DEST_FILE, ("/proc/self/fd/" + std::to_string(sink)).c_str());
    static char text[1 << 20];
    const ssize_t size = pread(sink, text, sizeof text, 0);
    HOLDS(log_is_open && size >= 0 && (size == 0 || ftruncate(sink, 0) == 0));
    return {text, static_cast<size_t>(size)};
}

bool are_reports(std::string_view lines)
{
    const size_t end = lines.find('\n');
    return lines.find(".cpp:") < end && end != std::string_view::npos && isdigit(lines[0]) != 0 &&
           (end + 1 == lines.size() || are_reports(lines.substr(end + 1)));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const auto [listener, sender] = connected(SOCK_DGRAM);
    (void)take_written();
    const std::string_view datagram = bytes_of(data, size);
    const bool is_long_enough = datagram.size() > type_size;
    const Packet p(clpacket_create()), decoded(is_long_enough ? received(datagram) : nullptr);
    HOLDS(send(sender, datagram.data(), datagram.size(), 0) == static_cast<ssize_t>(datagram.size()));
    HOLDS(clpacket_recvfrom(p.get(), listener.get(), nullptr, nullptr) == (is_long_enough ? 0 : -1));
    if (!is_long_enough) {
        return 0;
    }
    HOLDS(p->type == decoded->type && bytes_of(p.get()) == bytes_of(decoded.get()));
    const bool is_whole = clpacket_deserialize(decoded.get()) == 0;
    (void)take_written();
    const int32_t result = msg_extract(received(datagram).get()); // in a block of exactly its size
    const std::string written = take_written();
    HOLDS(result == 0 ? written.find(": ") != std::string::npos : are_reports(written));
    HOLDS(!is_whole || msg_extract(decoded.get()) == result); // through its fields
    HOLDS(!is_whole || result != 0 || take_written() == written);
    return 0;
}
