#include "record_sender.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <utility>

#include <TavlenCommon/com_packet.h>

#include "diagnostics.h"
#include "library_reports.h"
#include "local_address.h"
#include "log_line.h"
#include "text.h"

namespace ctl {

namespace {

/// On a network of one's own the refusal of a datagram takes less.
constexpr int refusal_wait_ms = 20;

struct DestroyPacket {
    void operator()(clpacket *p) const { clpacket_destroy(p); }
};

/// What a record of a process begins with, so that every line of the log begins alike.
std::string time_and_place()
{
    return compose("%lld:tavlenctl:0: send: ", static_cast<long long>(time(nullptr)));
}

/// The most bytes, up to `room`, that do not end inside a character.
size_t piece_length(std::string_view text, size_t room)
{
    if (text.size() <= room) {
        return text.size();
    }
    size_t length = room;
    while (length > room - 4 && (static_cast<uint8_t>(text[length]) & 0xc0U) == 0x80) {
        --length;
    }
    return length;
}

} // namespace

RecordSender::RecordSender(std::string name, bool is_raw) : name_(std::move(name)), is_raw_(is_raw)
{
}

bool RecordSender::connect(const std::string &address, uint16_t port)
{
    peer_ = compose("%s port %u", harmless(address).c_str(), unsigned{port});
    const std::string number = std::to_string(port);
    std::string reason;
    if (!resolve(address, number, &reason)) { // the library does not say why
        complain("%s: %s", peer_.c_str(), reason.c_str());
        return false;
    }
    socket_.reset(sock_connect_general(address.c_str(), number.c_str(), SOCK_DGRAM));
    for (const std::string &report : take_library_reports()) {
        complain("%s: %s", peer_.c_str(), report.c_str());
    }
    return socket_ != nullptr;
}

void RecordSender::send_line(std::string_view line)
{
    const std::string start = is_raw_ ? "" : time_and_place();
    const size_t room = longest_log_line - name_.size() - strlen(": \n") - start.size();
    do {
        const size_t length = piece_length(line, room);
        send_record(start + std::string(line.substr(0, length)));
        line.remove_prefix(length);
    } while (!line.empty());
}

void RecordSender::send_record(std::string_view text)
{
    ++records_;
    const std::string line(text);
    int error = try_to_send(line);
    if (error == ECONNREFUSED) { // told with this call of the record before
        count_failure(error);
        error = try_to_send(line);
    }
    if (error != 0) {
        count_failure(error);
    }
    take_refusal();
}

/// 0, or the errno of the failure.
int RecordSender::try_to_send(const std::string &line)
{
    const auto length = static_cast<int32_t>(line.size());
    const std::unique_ptr<clpacket, DestroyPacket> packet(
        clpacket_log_event(name_.c_str(), line.c_str(), length));
    if (packet == nullptr) {
        return ENOMEM;
    }
    const bool is_sent = clpacket_sendto(packet.get(), socket_.get(), nullptr, 0) == 0;
    return is_sent ? 0 : sock_socket_get_error(socket_.get());
}

void RecordSender::take_refusal()
{
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket_->fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0) {
        count_failure(error);
    }
}

void RecordSender::count_failure(int error)
{
    failed_ = std::min(failed_ + 1, records_);
    if (error != last_error_) {
        complain("record %llu to %s: %s%s", static_cast<unsigned long long>(records_),
                 peer_.c_str(), strerror(error), error == ECONNREFUSED ? ", nobody listens" : "");
    }
    last_error_ = error;
}

void RecordSender::finish()
{
    pollfd socket{socket_->fd, 0, 0};
    if (poll(&socket, 1, refusal_wait_ms) > 0) {
        take_refusal();
    }
}

} // namespace ctl
