/* tavlenctl dump: packets from a capture, a hex dump or a port, each as a tree. */
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <getopt.h>
#include <netdb.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

#include "capture.h"
#include "command.h"
#include "diagnostics.h"
#include "hex_text.h"
#include "library_reports.h"
#include "numbers.h"
#include "owned_handles.h"
#include "packet_text.h"
#include "text.h"

namespace ctl {

namespace {

constexpr char help[] =
    "Usage: tavlenctl dump [OPTIONS] [FILE]\n"
    "       tavlenctl dump [OPTIONS] --listen=[ADDRESS:]PORT\n"
    "Shows packets as trees of their fields. FILE, or standard input, is a capture (pcap, pcapng)\n"
    "or a hex dump of packets (pairs of digits; as xxd, hexdump -C and od -Ax -tx1 write them).\n\n"
    "  -p, --port=PORT    of a capture, the datagrams from and to this port (default 27759; 0: "
    "any)\n"
    "  -l, --listen=[ADDRESS:]PORT\n"
    "                     receive on a free port of this machine (default address 127.0.0.1)\n"
    "  -c, --count=N      end after N packets\n"
    "  -b, --brief        one line for each: type code, then each field as name:type=value\n"
    "  -h, --help         this text\n\n"
    "Exit status: 0, 1 when a packet was malformed, 2 wrong usage or input that cannot be read.\n";

struct DumpSettings {
    uint16_t port = 27759;
    std::string listen; ///< empty: from a file
    uint64_t count = UINT64_MAX;
    bool is_brief = false;
};

std::string time_text(const timeval &time)
{
    tm parts{};
    char text[64] = "";
    if (localtime_r(&time.tv_sec, &parts) != nullptr) {
        (void)strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    }
    return compose("%s.%06ld", text, static_cast<long>(time.tv_usec));
}

/// Shows one packet after the other.
class Dump {
public:
    explicit Dump(const DumpSettings &settings) : settings_(settings) {}

    /// As show_datagram, false when no more is wanted, or nobody reads it.
    bool show_bytes(std::vector<uint8_t> bytes)
    {
        const std::string origin = compose("%zu bytes", bytes.size());
        return show(std::move(bytes), origin, 0);
    }

    bool show_datagram(CapturedDatagram datagram)
    {
        const std::string origin = time_text(datagram.time) + ", " + datagram.from + " > " +
                                   datagram.to + compose(", %zu bytes", datagram.bytes.size());
        return show(std::move(datagram.bytes), origin, datagram.missing);
    }

    [[nodiscard]] uint64_t shown() const { return shown_; }
    [[nodiscard]] bool is_done() const { return shown_ >= settings_.count; }
    [[nodiscard]] bool has_malformed() const { return has_malformed_; }

private:
    bool show(std::vector<uint8_t> bytes, const std::string &origin, size_t missing)
    {
        ++shown_;
        const DecodedPacket packet(std::move(bytes));
        has_malformed_ |= packet.is_malformed();
        if (settings_.is_brief) {
            print(packet.brief() + '\n');
            return !is_done() && ferror(stdout) == 0;
        }
        const std::string note =
            missing > 0 ? compose("  note: %zu bytes more were sent, not captured\n", missing) : "";
        print(compose("packet %llu, ", static_cast<unsigned long long>(shown_)) + origin + '\n' +
              packet.tree() + note);
        return !is_done() && ferror(stdout) == 0;
    }

    static void print(const std::string &text)
    {
        (void)fwrite(text.data(), 1, text.size(), stdout);
    }

    const DumpSettings &settings_;
    uint64_t shown_ = 0;
    bool has_malformed_ = false;
};

// ----------------------------------------------------------------------------------------- files

/// Null, and told, when it cannot be opened.
File open_input(const char *path)
{
    if (path == nullptr || strcmp(path, "-") == 0) {
        return File(stdin);
    }
    File file(fopen(path, "rbe"));
    if (file == nullptr) {
        complain("%s: %s", harmless(path).c_str(), strerror(errno));
    }
    return file;
}

/// Looks at the start of a stream, which may be a pipe, and gives it back.
bool starts_a_capture(FILE *file)
{
    uint8_t start[4] = {};
    size_t size = fread(start, 1, sizeof start, file);
    const bool is_one = size == sizeof start && is_capture(start);
    clearerr(file);
    while (size > 0) {
        (void)ungetc(start[--size], file); // what was read just now always fits
    }
    return is_one;
}

void tell_left_out(const LeftOut &left_out)
{
    if (left_out.tcp_segments > 0) {
        complain("%zu TCP segments are not shown: streams are for the dissector",
                 left_out.tcp_segments);
    }
    if (left_out.fragments > 0) {
        complain("%zu fragments are not shown: the rest of their IP packets is not in the capture",
                 left_out.fragments);
    }
}

bool dump_hex_text(FILE *file, Dump &dump)
{
    const bool is_read = read_hex_text(
        file, [&dump](std::vector<uint8_t> bytes) { return dump.show_bytes(std::move(bytes)); });
    if (!is_read) {
        complain("the input cannot be read: %s", strerror(errno));
    } else if (dump.shown() == 0) {
        complain("neither a capture nor a hex dump");
    }
    return is_read && dump.shown() > 0;
}

bool dump_capture(File file, const DumpSettings &settings, Dump &dump)
{
    LeftOut left_out;
    const bool is_read = read_capture(
        std::move(file), settings.port,
        [&dump](CapturedDatagram datagram) { return dump.show_datagram(std::move(datagram)); },
        &left_out);
    tell_left_out(left_out);
    if (is_read && dump.shown() == 0) {
        complain("no datagrams of port %u in the capture", unsigned{settings.port});
    }
    return is_read;
}

// ------------------------------------------------------------------------------------------ live

/// Of "[ADDRESS:]PORT"; an IPv6 address may stand in brackets. Null when there is none.
Addresses resolve_listen(const std::string &text)
{
    const size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? text : text.substr(colon + 1);
    std::string address = colon == std::string::npos ? "127.0.0.1" : text.substr(0, colon);
    if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *list = nullptr;
    const bool is_found =
        parse_port(port) && getaddrinfo(address.c_str(), port.c_str(), &hints, &list) == 0;
    return Addresses(is_found ? list : nullptr);
}

/// A port that no other socket has: one that is shared would take a collector's records away.
Descriptor open_own_port(const std::string &text)
{
    const Addresses list = resolve_listen(text);
    if (list == nullptr) {
        complain("no such address and port: %s", harmless(text).c_str());
        return Descriptor();
    }
    Descriptor fd(socket(list->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.is_open() || bind(fd.get(), list->ai_addr, list->ai_addrlen) != 0) {
        complain("%s: %s", harmless(text).c_str(), strerror(errno));
        return Descriptor();
    }
    return fd;
}

std::string endpoint_text(const sockaddr_storage &address, socklen_t size)
{
    char host[NI_MAXHOST] = "";
    char port[NI_MAXSERV] = "";
    (void)getnameinfo(reinterpret_cast<const sockaddr *>(&address), size, host, sizeof host, port,
                      sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    return compose(address.ss_family == AF_INET6 ? "[%s]:%s" : "%s:%s", host, port);
}

bool dump_port(const DumpSettings &settings, Dump &dump)
{
    const Descriptor fd = open_own_port(settings.listen);
    if (!fd.is_open()) {
        return false;
    }
    sockaddr_storage own{};
    socklen_t own_size = sizeof own;
    (void)getsockname(fd.get(), reinterpret_cast<sockaddr *>(&own), &own_size);
    static uint8_t block[65536];
    while (!dump.is_done() && flush_output()) {
        sockaddr_storage peer{};
        socklen_t size = sizeof peer;
        const ssize_t bytes =
            recvfrom(fd.get(), block, sizeof block, 0, reinterpret_cast<sockaddr *>(&peer), &size);
        if (bytes < 0 && errno != EINTR) {
            complain("%s: %s", harmless(settings.listen).c_str(), strerror(errno));
            return false;
        }
        if (bytes >= 0) {
            CapturedDatagram datagram{
                {}, endpoint_text(peer, size), endpoint_text(own, own_size), {}, 0};
            (void)gettimeofday(&datagram.time, nullptr);
            datagram.bytes.assign(block, block + bytes);
            (void)dump.show_datagram(std::move(datagram));
        }
    }
    return true;
}

int dump_all(const DumpSettings &settings, const char *path)
{
    keep_library_reports();
    Dump dump(settings);
    bool is_read = false;
    if (!settings.listen.empty()) {
        is_read = dump_port(settings, dump);
    } else if (File file = open_input(path)) {
        is_read = starts_a_capture(file.get()) ? dump_capture(std::move(file), settings, dump)
                                               : dump_hex_text(file.get(), dump);
    }
    if (!is_read) {
        return STATUS_USAGE;
    }
    return dump.has_malformed() ? STATUS_TROUBLE : STATUS_GOOD;
}

/// False when the value is wrong.
bool apply_option(DumpSettings &settings, int option)
{
    if (option == 'p') {
        const auto port = parse_port(optarg);
        settings.port = port.value_or(0);
        return port.has_value();
    }
    if (option == 'c') {
        settings.count = parse_number(optarg).value_or(0);
        return settings.count != 0;
    }
    if (option == 'l') {
        settings.listen = optarg;
        return !settings.listen.empty();
    }
    settings.is_brief = true;
    return true;
}

int run(int argc, char **argv)
{
    static const option long_options[] = {
        {"port", required_argument, nullptr, 'p'},  {"listen", required_argument, nullptr, 'l'},
        {"count", required_argument, nullptr, 'c'}, {"brief", no_argument, nullptr, 'b'},
        {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
    };
    DumpSettings settings;
    for (int c = 0; (c = getopt_long(argc, argv, "p:l:c:bh", long_options, nullptr)) != -1;) {
        if (c == 'h') {
            return show_help(dump_command);
        }
        if (c == '?') {
            return wrong_option();
        }
        if (!apply_option(settings, c)) {
            return wrong_usage("wrong value for -%c: %s", c, harmless(optarg).c_str());
        }
    }
    if (argc - optind > (settings.listen.empty() ? 1 : 0)) {
        return wrong_usage("too many arguments");
    }
    return dump_all(settings, optind < argc ? argv[optind] : nullptr);
}

} // namespace

const Command dump_command{"dump", "show packets of a capture, a hex dump or a port", help, run};

} // namespace ctl
