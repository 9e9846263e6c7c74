#include "receivers.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

namespace {

constexpr char sender_name[] = "bench";
constexpr size_t text_size = 120;

constexpr char log_file[] = "receiver.log"; // relative to the receiver's folder, as is the next
constexpr char config_file[] = "receiver.conf";
constexpr char pid_file[] = "receiver.pid";
constexpr char rsyslogd[] = "/usr/sbin/rsyslogd";

constexpr useconds_t poll_microseconds = 200;
constexpr int polls = 20000; // at least 4 seconds

std::string text()
{
    return std::string(text_size, 'x');
}

/// One log event as it travels: type code, then the serialized fields. Empty without memory.
std::string log_event()
{
    clpacket *p = clpacket_log_event(sender_name, text().c_str(), static_cast<int32_t>(text_size));
    if (p == nullptr || clpacket_serialize(p) != 0) {
        return "";
    }
    std::string datagram{0, 0, 0, CLPACKET_LOG_EVENT};
    datagram.append(static_cast<const char *>(clpacket_get_buffer(p)), clpacket_get_buffer_size(p));
    clpacket_destroy(p);
    return datagram;
}

/// The same record as the syslog protocol's older form (RFC 3164) has it: of a user's process, with
/// the priority "notice".
std::string syslog_message()
{
    return std::string("<13>Jan  1 00:00:00 localhost ") + sender_name + ": " + text();
}

std::vector<std::string> collector_command(const TemporaryFolder &folder, uint16_t port,
                                           int destination)
{
    std::ofstream(folder.file(config_file))
        << "ListenAddr = 127.0.0.1\nListenPort = " << port << "\nLogFileName = " << log_file
        << "\nDefaultLogDest = " << destination << "\n";
    return {program_path("TavlenLogger"), "-c", config_file};
}

// --------------------------------------------------------------------------------------- rsyslog

struct RsyslogSettings {
    const char *title;
    const char *main_queue; // parameters
    const char *input_module;
    const char *file_action;
    bool lingers;
};

// As it comes; tuned for throughput, where lines may reach the file up to a second late; and one
// that hands each line to the kernel before it takes the next, as the collector does.
const RsyslogSettings rsyslog_settings[] = {
    {"rsyslog, default", "", "", "", false},
    {"rsyslog, tuned",
     R"(queue.type="FixedArray" queue.size="200000" queue.dequeueBatchSize="1024")",
     R"(batchSize="128")",
     R"(ioBufferSize="256k" flushOnTXEnd="off" asyncWriting="on" )"
     R"(flushInterval="1")",
     true},
    {"rsyslog, each line", R"(queue.type="Direct")", R"(batchSize="1")", R"(flushOnTXEnd="on")",
     false},
};

/// What the records go through is a ruleset of its own, so that its own messages, which go to the
/// default one, do not turn up in the file.
void write_rsyslog_config(const RsyslogSettings &settings, const TemporaryFolder &folder,
                          uint16_t port)
{
    std::ofstream(folder.file(config_file))
        << "global(workDirectory=\"" << folder.path() << "\" net.enableDNS=\"off\")\n"
        << "main_queue(" << settings.main_queue << ")\n"
        << "module(load=\"imudp\" " << settings.input_module << ")\n"
        << "template(name=\"line\" type=\"string\" string=\"%programname%:%msg%\\n\")\n"
        << "ruleset(name=\"records\") {\n  action(type=\"omfile\" file=\"" << folder.file(log_file)
        << "\" template=\"line\" " << settings.file_action << ")\n}\n"
        << "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" << port
        << "\" ruleset=\"records\")\n";
}

Receiver rsyslog(const RsyslogSettings &settings)
{
    const auto command = [settings](const TemporaryFolder &folder, uint16_t port) {
        write_rsyslog_config(settings, folder, port);
        return std::vector<std::string>{
            rsyslogd,
            "-n",                               // in the foreground
            "-f",     folder.file(config_file), // paths may not be relative
            "-i",     folder.file(pid_file)};
    };
    return {settings.title, command, syslog_message(), false, settings.lingers};
}

} // namespace

const size_t line_size = sizeof sender_name - 1 + 2 + text_size + 1;

Receiver collector()
{
    const auto command = [](const TemporaryFolder &folder, uint16_t port) {
        return collector_command(folder, port, LOG_DEST_FILE);
    };
    return {"collector", command, log_event()};
}

Receiver collector_to_stdout()
{
    const auto command = [](const TemporaryFolder &folder, uint16_t port) {
        return collector_command(folder, port, LOG_DEST_STDOUT);
    };
    return {"collector", command, log_event()};
}

Receiver limit_loop(int receive_buffer)
{
    const auto command = [receive_buffer](const TemporaryFolder &, uint16_t port) {
        return std::vector<std::string>{program_path("limit_loop"), std::to_string(port), log_file,
                                        std::to_string(line_size),
                                        std::to_string(receive_buffer / 2)}; // it is doubled
    };
    return {"limit_loop", command, log_event()};
}

Receiver empty_program()
{
    const auto command = [](const TemporaryFolder &, uint16_t) {
        return std::vector<std::string>{program_path("empty_program")};
    };
    return {"empty_program", command, ""};
}

std::vector<Receiver> peers()
{
    if (access(rsyslogd, X_OK) != 0) {
        fprintf(stderr, "collector_bench: rsyslog is not installed, and left out\n");
        return {};
    }
    std::vector<Receiver> receivers;
    for (const RsyslogSettings &settings : rsyslog_settings) {
        receivers.push_back(rsyslog(settings));
    }
    return receivers;
}

// --------------------------------------------------------------------------------------- at work

namespace {

/// The folder's log file, without what the run before left in it.
std::string fresh_log_file(const TemporaryFolder &folder)
{
    std::string path = folder.file(log_file);
    (void)unlink(path.c_str());
    return path;
}

} // namespace

Running::Running(const Receiver &receiver, const TemporaryFolder &folder)
    : receiver_(receiver), file_(fresh_log_file(folder)), port_(find_free_port()),
      process_(receiver.command(folder, port_), folder.path())
{
}

bool Running::ready()
{
    const bool bound =
        poll_until([this] { return queued_bytes(port_).has_value(); }, poll_microseconds, polls);
    // The line is written when the socket is bound, but not in the same moment.
    if (!bound || (receiver_.greets && !wait_for_size(file_, 1))) {
        return false;
    }
    first_size_ = file_size(file_);
    return sender_.connect_to(port_);
}

size_t Running::safe_window() const
{
    const auto buffer = static_cast<size_t>(receive_buffer());
    return std::max<size_t>(1, buffer / buffer_charge(datagram()) * 5 / 8);
}

size_t Running::written() const
{
    const size_t size = file_size(file_);
    return size > first_size_ ? (size - first_size_) / line_size : 0;
}

bool Running::has_taken(size_t records) const
{
    if (!receiver_.lingers) {
        return wait_for_size(file_, size_with(records));
    }
    return poll_until([this] { return queued_bytes(port_) == 0; }, poll_microseconds, polls);
}

bool Running::has_written(size_t records) const
{
    return wait_for_size(file_, size_with(records)) && file_size(file_) == size_with(records);
}
