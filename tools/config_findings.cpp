#include "config_findings.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <TavlenCommon/logger.h>

#include "local_address.h"
#include "numbers.h"
#include "text.h"

namespace ctl {

namespace {

constexpr int32_t highest_mask = 31;

void add(std::vector<Finding> &findings, const std::string &place, std::string text)
{
    findings.push_back({place, std::move(text)});
}

std::string quoted(const std::string &text)
{
    return "'" + harmless(text) + "'";
}

bool is_key(const cfg_entry &entry, const char *key)
{
    return strcmp(entry.key, key) == 0;
}

// ------------------------------------------------------------------------------------ one value

bool is_quotation_mark(char c)
{
    return c == '"' || c == '\'';
}

/// As the collector's table reads it.
int32_t number_of(const std::string &value)
{
    int32_t number = 0;
    cfg_entry scratch{CFG_INT, "", &number, 1, 0, nullptr};
    (void)cfg_entry_set(&scratch, value.c_str(), 0);
    return number;
}

void check_mask(const std::string &value, const std::string &place, std::vector<Finding> &findings)
{
    const int32_t mask = number_of(value);
    if (!parse_number(value.substr(value[0] == '-' ? 1 : 0), INT32_MAX)) {
        add(findings, place, quoted(value) + " is read as the number " + std::to_string(mask));
    }
    if (mask < 0 || mask > highest_mask) {
        add(findings, place,
            compose("the destination mask %d is outside 0 to %d, 1 (standard output) stays in use",
                    mask, highest_mask));
    } else if (mask == 0) {
        add(findings, place, "the destination mask 0 writes nowhere");
    }
}

} // namespace

void check_value(const cfg_entry &entry, const std::string &value, const std::string &place,
                 std::vector<Finding> &findings)
{
    if (value.empty()) {
        add(findings, place, std::string(entry.key) + " has an empty value");
        return;
    }
    if (is_quotation_mark(value.front()) || is_quotation_mark(value.back())) {
        add(findings, place, "quotation marks become part of the value " + quoted(value));
    }
    if (entry.type == CFG_INT) {
        check_mask(value, place, findings);
    } else if ((is_key(entry, "ListenPort") || is_key(entry, "RemoteLoggerPort")) &&
               !parse_port(value)) {
        add(findings, place,
            quoted(value) + " is no number from 0 to 65535 and no name of a UDP service");
    }
}

// ------------------------------------------------------------------------------- lines of a file

namespace {

/// How many characters to add, leave out or replace; case does not count.
size_t edit_distance(const std::string &a, const std::string &b)
{
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j < row.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t replaced = diagonal + (tolower(a[i]) == tolower(b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

/// People remember how a key begins.
size_t distance_to_key(const std::string &given, const std::string &key)
{
    constexpr size_t telling = 4;
    const bool is_beginning =
        given.size() >= telling && strncasecmp(given.c_str(), key.c_str(), given.size()) == 0;
    return is_beginning ? 1 : edit_distance(given, key);
}

/// The key that was probably meant; null when none is near.
const char *nearest_key(const cfg_entry *table, const std::string &key)
{
    size_t least = std::min<size_t>(4, key.size() / 2 + 1); // more than this is something else
    const char *nearest = nullptr;
    for (const cfg_entry *e = table; key.size() < 64 && e->key != nullptr; ++e) {
        const size_t distance = distance_to_key(key, e->key);
        if (distance < least) {
            least = distance;
            nearest = e->key;
        }
    }
    return nearest;
}

void check_unknown_key(const std::string &key, const cfg_entry *table, const std::string &place,
                       std::vector<Finding> &findings)
{
    if (key.empty()) {
        add(findings, place, "no key in front of the '='");
        return;
    }
    const char *nearest = nearest_key(table, key);
    const std::string hint = nearest != nullptr ? compose(", %s is meant?", nearest) : "";
    add(findings, place, "unknown key " + quoted(key) + hint);
}

void check_form(const ConfigLine &line, const std::string &place, std::vector<Finding> &findings)
{
    if (line.has_zero) {
        add(findings, place, "a zero byte ends what is read of this line");
    }
    if (!line.has_equals && !line.is_blank) {
        add(findings, place, "no '=' in this line, it is passed over");
    }
    if (line.has_equals && line.is_cut) {
        add(findings, place, "the value ends at the '#', which starts a comment anywhere");
    }
}

} // namespace

const cfg_entry *find_entry(const cfg_entry *table, const std::string &key)
{
    while (table->key != nullptr && strcasecmp(table->key, key.c_str()) != 0) {
        ++table;
    }
    return table->key != nullptr ? table : nullptr;
}

void check_lines(const std::vector<ConfigLine> &lines, const std::string &file,
                 const cfg_entry *table, std::vector<Finding> &findings)
{
    std::map<const cfg_entry *, size_t> given; // on which line
    size_t broken = 0;
    for (const ConfigLine &line : lines) {
        const std::string place = compose("%s:%zu", file.c_str(), line.number);
        if (line.is_rest && broken != line.number && (!line.is_blank || line.has_comment)) {
            add(findings, place, "a line above 2047 bytes is read in pieces");
            broken = line.number;
        }
        check_form(line, place, findings);
        if (!line.has_equals) {
            continue;
        }
        const cfg_entry *entry = find_entry(table, line.key);
        if (entry == nullptr) {
            check_unknown_key(line.key, table, place, findings);
        } else if (const auto [first, is_new] = given.emplace(entry, line.number); is_new) {
            check_value(*entry, line.value, place, findings);
        } else {
            add(findings, place,
                compose("%s is given again, line %zu counts", entry->key, first->second));
        }
    }
}

// --------------------------------------------------------------------------- settings together

namespace {

const Effective &setting(const std::vector<Effective> &settings, const char *key)
{
    return *std::find_if(settings.begin(), settings.end(),
                         [key](const Effective &one) { return is_key(*one.entry, key); });
}

/// Why the collector, as this user, could not append to the file; empty when it could.
std::string reason_not_to_write(const std::string &path)
{
    struct stat state {};
    if (stat(path.c_str(), &state) == 0) {
        if (S_ISDIR(state.st_mode)) {
            return strerror(EISDIR);
        }
        return faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 ? "" : strerror(errno);
    }
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const bool is_writable = faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    return is_writable ? "" : strerror(errno);
}

void check_file(const Effective &name, int32_t mask, std::vector<Finding> &findings)
{
    if (!writes_to(mask, LOG_DEST_FILE)) {
        if (!name.origin.is_default) {
            add(findings, name.origin.place,
                "LogFileName has no effect: DefaultLogDest does not hold 8");
        }
        return;
    }
    const std::string reason = reason_not_to_write(name.value);
    if (!reason.empty()) {
        add(findings, name.origin.place,
            "this user cannot write to the file " + quoted(name.value) + ": " + reason);
    }
}

std::optional<Endpoint> find_endpoint(const Effective &address, const Effective &port,
                                      std::vector<Finding> &findings)
{
    std::string reason;
    auto endpoint = resolve(address.value, port.value, &reason);
    if (!endpoint) {
        add(findings, address.origin.place,
            compose("%s %s with %s %s: ", address.entry->key, quoted(address.value).c_str(),
                    port.entry->key, quoted(port.value).c_str()) +
                reason);
    }
    return endpoint;
}

void check_remote(const std::vector<Effective> &settings, int32_t mask,
                  std::vector<Finding> &findings)
{
    const Effective &address = setting(settings, "RemoteLoggerAddr");
    const Effective &port = setting(settings, "RemoteLoggerPort");
    const auto listener =
        find_endpoint(setting(settings, "ListenAddr"), setting(settings, "ListenPort"), findings);
    if (!writes_to(mask, LOG_DEST_REMOTE)) {
        for (const Effective *one : {&address, &port}) {
            if (!one->origin.is_default) {
                add(findings, one->origin.place,
                    std::string(one->entry->key) +
                        " has no effect: DefaultLogDest does not hold 16");
            }
        }
        return;
    }
    if (address.origin.is_default) {
        add(findings, setting(settings, "DefaultLogDest").origin.place,
            "16 is a further collector, but RemoteLoggerAddr is not set");
        return;
    }
    const auto remote = find_endpoint(address, port, findings);
    if (remote && listener && arrives_at(*remote, *listener)) {
        add(findings, address.origin.place,
            "the further collector is this one: its lines would go round for ever");
    }
}

} // namespace

bool writes_to(int32_t mask, int32_t destination)
{
    const int32_t in_use = mask >= 0 && mask <= highest_mask ? mask : LOG_DEST_STDOUT;
    return (in_use & destination) != 0;
}

void check_together(const std::vector<Effective> &settings, std::vector<Finding> &findings)
{
    const int32_t mask = number_of(setting(settings, "DefaultLogDest").value);
    check_file(setting(settings, "LogFileName"), mask, findings);
    check_remote(settings, mask, findings);
}

} // namespace ctl
