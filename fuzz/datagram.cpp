// Any bytes as a datagram: received as they are, written as one record or refused with reports, on both roads alike.
#include "fuzz.h"
#include <optional>
#include <sys/mman.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenLogger/log_event.h>
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

std::string record_of(const char *name, const char *line)
{
    constexpr size_t longest_line = 4095;
    return (std::string(name) + ": " + line + "\n").substr(0, longest_line);
}

/// The record that a packet stands for, by its getters; none when it is no log event.
std::optional<std::string> expected_record(clpacket *p)
{
    int32_t version = 0;
    char *name = nullptr, *line = nullptr;
    uint32_t len = 0;
    if (clpacket_get_int32_signed(p, LOG_EVENT_FIELD_VERSION, &version) != 0 || version != LOG_EVENT_VERSION ||
        clpacket_get_string(p, LOG_EVENT_FIELD_NAME, &name, &len) != 0 ||
        clpacket_get_string(p, LOG_EVENT_FIELD_LINE, &line, &len) != 0) {
        return std::nullopt;
    }
    return record_of(name, std::string(line, len - (len > 0 && line[len - 1] == '\n')).c_str());
}

/// The datagram of a log event, its name the text's first word and its line the rest.
std::string log_event_of(const std::string &text)
{
    const size_t name_end = std::min(text.find(' '), text.size());
    const std::string line = text.substr(name_end);
    const Packet p(
        clpacket_log_event(text.substr(0, name_end).c_str(), line.data(), static_cast<int32_t>(line.size())));
    HOLDS(clpacket_serialize(p.get()) == 0);
    return std::string("\0\0\0\x1d", type_size).append(bytes_of(p.get()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const auto [listener, sender] = connected(SOCK_DGRAM);
    (void)take_written();
    const std::string input(bytes_of(data, size));
    const std::string datagram = input[0] >= ' ' ? log_event_of(input) : input; // most types begin with zeros
    const bool is_long_enough = datagram.size() > type_size;
    const Packet p(clpacket_create()), in_place(is_long_enough ? received(datagram) : nullptr);
    HOLDS(send(sender, datagram.data(), datagram.size(), 0) == static_cast<ssize_t>(datagram.size()));
    HOLDS(clpacket_recvfrom(p.get(), listener.get(), nullptr, nullptr) == (is_long_enough ? 0 : -1));
    if (!is_long_enough) {
        return 0;
    }
    HOLDS(p->type == in_place->type && bytes_of(p.get()) == datagram.substr(type_size));
    const std::optional<std::string> record = expected_record(p.get());
    const bool is_accepted = p->type == CLPACKET_LOG_EVENT && record.has_value();
    (void)take_written();
    HOLDS(msg_extract(received(datagram).get()) == (is_accepted ? 0 : -1));
    const std::string written = take_written();
    HOLDS(is_accepted ? written == *record : are_reports(written));
    log_event_texts texts{};
    const bool is_plain = read_plain_log_event(in_place.get(), &texts);
    HOLDS(is_plain ? record == record_of(texts.name, texts.line) : bytes_of(in_place.get()) == bytes_of(p.get()));
    return 0;
}
