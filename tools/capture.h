/* UDP datagrams out of a capture file. */
#ifndef TAVLEN_TOOLS_CAPTURE_H
#define TAVLEN_TOOLS_CAPTURE_H

#include <cstdint>
#include <functional>
#include <string>
#include <sys/time.h>
#include <vector>

#include "owned_handles.h"

namespace ctl {

struct CapturedDatagram {
    timeval time;     ///< microseconds are whole
    std::string from; ///< "127.0.0.1:27759"
    std::string to;
    std::vector<uint8_t> bytes;
    size_t missing = 0; ///< bytes at the end that were sent but not captured
};

/// False ends the reading.
using DatagramHandler = std::function<bool(CapturedDatagram datagram)>;

/// What of the port's traffic is not handed on.
struct LeftOut {
    size_t tcp_segments = 0;
    size_t fragments = 0; ///< of packets that are not whole in the capture, on whichever port
};

/// Whether a file that begins with these 4 bytes is a capture.
bool is_capture(const uint8_t *start);

/// Hands on every datagram of a port, or all for port 0. False, and told, when the file cannot be
/// read that far.
bool read_capture(File file, uint16_t port, const DatagramHandler &handler, LeftOut *left_out);

} // namespace ctl

#endif
