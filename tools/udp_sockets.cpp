#include "udp_sockets.h"

#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <netinet/in.h>
#include <set>

#include "diagnostics.h"
#include "numbers.h"
#include "owned_handles.h"
#include "text.h"

namespace ctl {

namespace {

constexpr struct {
    const char *path;
    int family;
} lists[] = {{"/proc/net/udp", AF_INET}, {"/proc/net/udp6", AF_INET6}};

std::vector<std::string_view> split_words(std::string_view text)
{
    constexpr char blanks[] = " \t\n";
    std::vector<std::string_view> words;
    for (size_t start = 0; (start = text.find_first_not_of(blanks, start)) != text.npos;) {
        const size_t end = std::min(text.find_first_of(blanks, start), text.size());
        words.push_back(text.substr(start, end - start));
        start = end;
    }
    return words;
}

/// What stands behind the colon, in hexadecimal digits.
std::optional<uint64_t> behind_colon(std::string_view word)
{
    const size_t colon = word.find(':');
    return colon == word.npos ? std::nullopt : parse_number(word.substr(colon + 1), UINT64_MAX, 16);
}

/// The kernel prints an address in words of 32 bits, each as a number of the machine's own order.
std::string address_text(std::string_view digits, int family)
{
    constexpr size_t word_digits = 8;
    uint32_t words[4] = {};
    const size_t count = family == AF_INET ? 1 : 4;
    for (size_t i = 0; i < count; ++i) {
        const auto word = parse_number(
            digits.substr(std::min(i * word_digits, digits.size()), word_digits), UINT32_MAX, 16);
        words[i] = static_cast<uint32_t>(word.value_or(0));
    }
    char text[INET6_ADDRSTRLEN] = "";
    (void)inet_ntop(family, words, text, sizeof text);
    return text;
}

} // namespace

std::optional<UdpSocket> parse_udp_line(std::string_view line, int family)
{
    // sl local remote state queues timer retransmits uid timeout inode references pointer drops
    const auto words = split_words(line);
    if (words.size() < 13) {
        return std::nullopt;
    }
    const auto port = behind_colon(words[1]);
    const auto waiting = behind_colon(words[4]);
    const auto inode = parse_number(words[9]);
    const auto dropped = parse_number(words[12]);
    if (!port || !waiting || !inode || !dropped) {
        return std::nullopt;
    }
    return UdpSocket{address_text(words[1], family), static_cast<uint16_t>(*port), *waiting,
                     *dropped, *inode};
}

bool find_udp_sockets(uint16_t port, std::vector<UdpSocket> *sockets)
{
    bool is_read = false;
    for (const auto &list : lists) {
        const File file(fopen(list.path, "re"));
        char *line = nullptr;
        size_t room = 0;
        while (file != nullptr && getline(&line, &room, file.get()) >= 0) {
            const auto socket = parse_udp_line(line, list.family);
            if (socket && socket->port == port) {
                sockets->push_back(*socket);
            }
        }
        free(line);
        is_read = is_read || file != nullptr; // a machine without IPv6 has one list
    }
    if (!is_read) {
        complain("%s: %s", lists[0].path, strerror(errno));
    }
    return is_read;
}

namespace {

struct CloseFolder {
    void operator()(DIR *folder) const { (void)closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

/// Of a link as "socket:[12345]"; nothing for any other.
std::optional<uint64_t> socket_inode(std::string_view link)
{
    constexpr std::string_view start = "socket:[";
    if (link.substr(0, start.size()) != start || link.back() != ']') {
        return std::nullopt;
    }
    return parse_number(link.substr(start.size(), link.size() - start.size() - 1));
}

/// The sockets that a process holds, of those that are asked for.
std::set<uint64_t> held_by(const std::string &process, const Holders &asked)
{
    const std::string path = "/proc/" + process + "/fd";
    std::set<uint64_t> held;
    const Folder folder(opendir(path.c_str()));
    while (const dirent *entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        char link[64];
        const ssize_t length = readlink((path + "/" + entry->d_name).c_str(), link, sizeof link);
        const auto inode = socket_inode({link, length > 0 ? static_cast<size_t>(length) : 0});
        if (inode && asked.find(*inode) != asked.end()) {
            held.insert(*inode);
        }
    }
    return held;
}

std::string process_name(const std::string &process)
{
    const File file(fopen(("/proc/" + process + "/comm").c_str(), "re"));
    char name[64] = "?";
    if (file != nullptr && fgets(name, sizeof name, file.get()) != nullptr) {
        name[strcspn(name, "\n")] = '\0';
    }
    return harmless(name);
}

} // namespace

Holders holders_of(const std::vector<UdpSocket> &sockets)
{
    Holders holders;
    for (const UdpSocket &socket : sockets) {
        holders[socket.inode];
    }
    const Folder folder(opendir("/proc"));
    while (const dirent *entry = folder != nullptr ? readdir(folder.get()) : nullptr) {
        const std::string process = entry->d_name;
        if (isdigit(static_cast<unsigned char>(process[0])) == 0) {
            continue;
        }
        for (const uint64_t inode : held_by(process, holders)) {
            std::string &names = holders[inode];
            names += (names.empty() ? "" : ",") + process_name(process) + "/" + process;
        }
    }
    return holders;
}

} // namespace ctl
