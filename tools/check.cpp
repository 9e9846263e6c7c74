/* tavlenctl check: the collector's settings, where each comes from, and what is odd about them. */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <map>
#include <sys/stat.h>

#include <TavlenCommon/logger.h>
#include <TavlenLogger/config.h>

#include "command.h"
#include "config_findings.h"
#include "config_lines.h"
#include "diagnostics.h"
#include "owned_handles.h"
#include "text.h"

namespace ctl {

namespace {

constexpr char help[] =
    "Usage: tavlenctl check FILE [-- COLLECTOR-OPTIONS]\n"
    "Prints the settings that a collector has which is started with this configuration file and\n"
    "these options, and where each comes from. On standard error it warns of what is probably not\n"
    "meant. FILE stands in for an option -c.\n\n"
    "  -h, --help  this text\n\n"
    "Exit status: 0, 1 with warnings, 2 wrong usage or a file that cannot be read.\n";

/// The option that set each entry.
using Options = std::map<const cfg_entry *, std::string>;

/// Remembers and checks what an option has set, once it has.
void note_option(const std::string &option, const char *value, Options &options,
                 std::vector<Finding> &findings)
{
    for (const cfg_entry *e = config_e; e->key != nullptr; ++e) {
        if (e->priority == 0 && options.emplace(e, "option " + option).second) {
            check_value(*e, value, "option " + option, findings);
            return;
        }
    }
    findings.push_back({"option " + option, "has been given before, the first counts"});
}

/// Applies the options in pairs, as the collector does; false when it would refuse them.
bool apply_options(int count, char **words, Options &options, std::vector<Finding> &findings)
{
    for (int i = 0; i < count; i += 2) {
        const std::string option = harmless(words[i]);
        if (words[i][0] == '-' && i + 1 == count) {
            findings.push_back({"option " + option, "has no value and is ignored"});
        } else if (words[i][0] != '-' || (strcmp(words[i], "-c") != 0 &&
                                          config_set_cmd_arg(words[i], words[i + 1]) != 0)) {
            complain("the collector refuses the option %s", option.c_str());
            return false;
        } else if (strcmp(words[i], "-c") != 0) {
            note_option(option, words[i + 1], options, findings);
        }
    }
    return true;
}

/// A setting's first line counts.
std::string place_in_file(const cfg_entry *entry, const std::vector<ConfigLine> &lines,
                          const std::string &file)
{
    for (const ConfigLine &line : lines) {
        if (line.has_equals && find_entry(config_e, line.key) == entry) {
            return compose("%s:%zu", file.c_str(), line.number);
        }
    }
    return file;
}

std::string value_of(const cfg_entry &entry)
{
    if (entry.type == CFG_INT) {
        return std::to_string(*static_cast<const int32_t *>(entry.target));
    }
    const char *text = *static_cast<char *const *>(entry.target);
    return text != nullptr ? text : "";
}

std::vector<Effective> collect(const Options &options, const std::vector<ConfigLine> &lines,
                               const std::string &file)
{
    std::vector<Effective> settings;
    for (const cfg_entry *e = config_e; e->key != nullptr; ++e) {
        Origin origin;
        if (const auto option = options.find(e); option != options.end()) {
            origin = {false, option->second};
        } else if (e->priority == CFG_PRIORITY_FILE) {
            origin = {false, place_in_file(e, lines, file)};
        }
        settings.push_back({e, value_of(*e), origin});
    }
    return settings;
}

/// What the bits of the mask stand for.
std::string destinations(int32_t mask)
{
    static constexpr struct {
        int32_t bit;
        const char *name;
    } names[] = {{LOG_DEST_STDOUT, "standard output"},
                 {LOG_DEST_STDERR, "standard error"},
                 {LOG_DEST_SYSLOG, "syslog"},
                 {LOG_DEST_FILE, "file"},
                 {LOG_DEST_REMOTE, "further collector"}};
    std::string text;
    for (const auto &one : names) {
        text += writes_to(mask, one.bit) ? (text.empty() ? "" : ", ") + std::string(one.name) : "";
    }
    return text.empty() ? "nowhere" : text;
}

void print_settings(const std::vector<Effective> &settings)
{
    for (const Effective &one : settings) {
        std::string value = harmless(one.value);
        if (one.entry->type == CFG_INT) {
            value += " (" + destinations(*static_cast<const int32_t *>(one.entry->target)) + ")";
        }
        printf("%-16s = %-24s  %s\n", one.entry->key, value.c_str(), one.origin.place.c_str());
    }
}

/// A plain file, as it is read twice; null, and told, when it is none.
File open_plain_file(const char *path)
{
    File file(fopen(path, "rbe"));
    struct stat state {};
    if (file == nullptr || fstat(fileno(file.get()), &state) != 0) {
        complain("%s: %s", harmless(path).c_str(), strerror(errno));
        return nullptr;
    }
    if (!S_ISREG(state.st_mode)) {
        complain("%s: not a plain file", harmless(path).c_str());
        return nullptr;
    }
    return file;
}

int check(const char *path, int option_count, char **words)
{
    const File file = open_plain_file(path);
    const auto lines = file != nullptr ? read_config_lines(file.get()) : std::nullopt;
    std::vector<Finding> findings;
    Options options;
    if (!lines || config_init() != 0 || !apply_options(option_count, words, options, findings) ||
        cfg_parse_file(path, config_e) != 0) {
        return STATUS_USAGE;
    }
    const std::string name = harmless(path);
    const auto settings = collect(options, *lines, name);
    check_lines(*lines, name, config_e, findings);
    check_together(settings, findings);
    print_settings(settings);
    (void)flush_output();
    for (const Finding &finding : findings) {
        (void)fprintf(stderr, "%s: warning: %s\n", finding.place.c_str(), finding.text.c_str());
    }
    return findings.empty() ? STATUS_GOOD : STATUS_TROUBLE;
}

int run(int argc, char **argv)
{
    static const option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    const int c = getopt_long(argc, argv, "h", long_options, nullptr);
    if (c == 'h') {
        return show_help(check_command);
    }
    if (c != -1) {
        return wrong_option();
    }
    if (optind == argc) {
        return wrong_usage("a configuration file is needed");
    }
    return check(argv[optind], argc - optind - 1, argv + optind + 1);
}

} // namespace

const Command check_command{"check", "show a collector's settings and what is odd about them", help,
                            run};

} // namespace ctl
