/* Sends lines to a collector as log events, and counts those that did not get there. */
#ifndef TAVLEN_TOOLS_RECORD_SENDER_H
#define TAVLEN_TOOLS_RECORD_SENDER_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <TavlenCommon/socket.h>

namespace ctl {

struct CloseSocket {
    void operator()(sock *s) const { sock_close(s); }
};

/**
 * A record fails when the system refuses it, or tells later that nobody listens at the other end.
 * Nothing else of a datagram's fate is known here. Failures are told on standard error, the same
 * reason once in a row.
 */
class RecordSender {
public:
    /// `name` is what the collector writes in front; a raw record has no time and place of its own.
    RecordSender(std::string name, bool is_raw);

    /// False, and told, when there is no such address or no way to it.
    bool connect(const std::string &address, uint16_t port);

    /// Sends a line, which has no line feed. One longer than what the collector writes as one line
    /// travels as several records, cut between characters.
    void send_line(std::string_view line);

    /// Waits for a refusal of what was sent last.
    void finish();

    [[nodiscard]] uint64_t records() const { return records_; }
    [[nodiscard]] uint64_t failed() const { return failed_; }

private:
    void send_record(std::string_view text);
    int try_to_send(const std::string &line);
    void take_refusal();
    void count_failure(int error);

    std::string name_;
    std::string peer_;
    bool is_raw_;
    std::unique_ptr<sock, CloseSocket> socket_;
    uint64_t records_ = 0;
    uint64_t failed_ = 0;
    int last_error_ = 0;
};

} // namespace ctl

#endif
