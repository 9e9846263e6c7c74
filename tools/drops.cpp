/* tavlenctl drops: what the kernel has dropped, and what waits, on a collector's sockets. */
#include <cstdio>
#include <ctime>
#include <getopt.h>
#include <map>
#include <string>
#include <unistd.h>

#include "command.h"
#include "diagnostics.h"
#include "numbers.h"
#include "text.h"
#include "udp_sockets.h"

namespace ctl {

namespace {

constexpr char help[] =
    "Usage: tavlenctl drops [OPTIONS] [PORT]\n"
    "Shows the UDP sockets on PORT (default 27759): the bytes of memory that unread datagrams "
    "take\n"
    "there, and how many datagrams the kernel has dropped since the socket was made.\n\n"
    "  -w, --watch[=SECONDS]  look again every so many seconds (default 1), and show in front of\n"
    "                         the drops how many came since the look before\n"
    "  -h, --help             this text\n\n"
    "Exit status: 0, 1 when there is no such socket, 2 wrong usage.\n";

constexpr double most_seconds = 1e6;

std::string time_of_day()
{
    const time_t now = time(nullptr);
    tm parts{};
    char text[16] = "";
    if (localtime_r(&now, &parts) != nullptr) {
        (void)strftime(text, sizeof text, "%H:%M:%S", &parts);
    }
    return text;
}

/// Prints the sockets of one look after the other.
class DropsTable {
public:
    explicit DropsTable(bool is_watch) : is_watch_(is_watch) {}

    void print(const std::vector<UdpSocket> &sockets)
    {
        print_heading();
        const Holders holders = holders_of(sockets);
        std::map<uint64_t, uint64_t> dropped;
        for (const UdpSocket &socket : sockets) {
            const std::string address = compose("%s:%u", socket.address.c_str(), socket.port);
            printf("%s%-24s %10llu ", is_watch_ ? (time_of_day() + "  ").c_str() : "",
                   address.c_str(), static_cast<unsigned long long>(socket.waiting));
            print_difference(socket);
            const std::string &names = holders.at(socket.inode);
            printf("%10llu %10llu  %s\n", static_cast<unsigned long long>(socket.dropped),
                   static_cast<unsigned long long>(socket.inode),
                   names.empty() ? "-" : names.c_str());
            dropped[socket.inode] = socket.dropped;
        }
        dropped_before_ = dropped;
    }

private:
    void print_heading()
    {
        constexpr int looks_per_heading = 20;
        if (looks_++ % looks_per_heading == 0) {
            printf("%s%-24s %10s %s%10s %10s  %s\n", is_watch_ ? "time      " : "", "socket",
                   "waiting", is_watch_ ? "      new " : "", "dropped", "inode", "process");
        }
    }

    /// Since the last look, at a socket that was there then.
    void print_difference(const UdpSocket &socket) const
    {
        if (!is_watch_) {
            return;
        }
        const auto before = dropped_before_.find(socket.inode);
        const std::string difference =
            before == dropped_before_.end() ||
                    socket.dropped < before->second // the counter went round
                ? "-"
                : compose("+%llu",
                          static_cast<unsigned long long>(socket.dropped - before->second));
        printf("%9s ", difference.c_str());
    }

    bool is_watch_;
    int looks_ = 0;
    std::map<uint64_t, uint64_t> dropped_before_; ///< by inode
};

/// Looks once, or again and again; a socket that goes and comes back is a collector's new start.
int show_drops(uint16_t port, double seconds)
{
    DropsTable table(seconds > 0);
    std::vector<UdpSocket> sockets;
    for (bool is_first = true;; is_first = false) {
        sockets.clear();
        if (!find_udp_sockets(port, &sockets)) {
            return STATUS_TROUBLE;
        }
        if (sockets.empty()) {
            complain("no UDP socket on port %u", unsigned{port});
            if (is_first) {
                return STATUS_TROUBLE;
            }
        }
        table.print(sockets);
        if (seconds <= 0 || !flush_output()) {
            return STATUS_GOOD;
        }
        const auto whole = static_cast<time_t>(seconds);
        const timespec pause{whole,
                             static_cast<long>((seconds - static_cast<double>(whole)) * 1e9)};
        (void)nanosleep(&pause, nullptr);
    }
}

int run(int argc, char **argv)
{
    static const option long_options[] = {{"watch", optional_argument, nullptr, 'w'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    double seconds = 0;
    for (int c = 0; (c = getopt_long(argc, argv, "w::h", long_options, nullptr)) != -1;) {
        if (c == 'h') {
            return show_help(drops_command);
        }
        if (c == '?') {
            return wrong_option();
        }
        const char *text = optarg != nullptr ? optarg : "1";
        seconds = parse_decimal(text).value_or(0);
        if (seconds <= 0 || seconds > most_seconds) {
            return wrong_usage("wrong number of seconds: %s", harmless(text).c_str());
        }
    }
    if (argc - optind > 1) {
        return wrong_usage("one port at a time");
    }
    const char *port_text = optind < argc ? argv[optind] : "27759";
    const auto port = parse_port(port_text);
    if (!port) {
        return wrong_usage("no such port: %s", harmless(port_text).c_str());
    }
    return show_drops(*port, seconds);
}

} // namespace

const Command drops_command{"drops", "show what the kernel has dropped on a collector's port", help,
                            run};

} // namespace ctl
