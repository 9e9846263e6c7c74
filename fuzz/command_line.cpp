// Any bytes, split at zero bytes, as the collector's arguments. Its main runs up to where it would listen.
#include "settings.h"
#include <strings.h>
#include <vector>

int collector_main(int argc, char **argv);

namespace {

int steps = 0; // of a start that the settings were given to

/// The values that the settings are to have; none when an option is wrong. A file gives those that no option sets.
std::vector<std::string> expected_values(const Settings &settings, const std::vector<std::string> &arguments)
{
    std::vector<std::string> values(6);
    for (size_t i = 0; i < arguments.size(); i += 2) {
        const std::string &option = arguments[i];
        bool is_known = option == "-c";
        for (size_t at = 0; at < values.size(); ++at) {
            const cfg_entry &e = settings.begin()[at];
            const bool is_meant = strcasecmp(option.c_str(), (std::string("--") + e.key).c_str()) == 0 ||
                                  (e.option != nullptr && option == std::string("-") + e.option);
            if (is_meant && values[at].empty() && i + 1 < arguments.size()) {
                values[at] = "=" + arguments[i + 1];
            }
            is_known |= is_meant;
        }
        if (option[0] != '-' || (i + 1 < arguments.size() && !is_known)) {
            return {};
        }
    }
    return values;
}

[[maybe_unused]] const bool is_quiet = freopen("/dev/null", "w", stdout) != nullptr;

} // namespace

// Stand-ins, so that no file is read and none written, no name looked up and no port taken.
extern "C" {

int32_t __wrap_cfg_parse_file(const char *path, cfg_entry *table)
{
    for (cfg_entry *e = table; e->key != nullptr; ++e) {
        HOLDS(cfg_entry_set(e, "33", CFG_PRIORITY_FILE) == 0);
    }
    steps += path != nullptr;
    return 0;
}

void __wrap_set_log_dest(int32_t mask, const char *file, const char *, const char *port)
{
    const logger_settings *all = config_get_settings();
    steps += mask == all->DefaultLogDest && file == all->LogFileName && port == all->RemoteLoggerPort;
}

sock *__wrap_sock_listen_general(const char *server, const char *port, int32_t type)
{
    const logger_settings *all = config_get_settings();
    steps += server == all->ListenAddr && port == all->ListenPort && type == SOCK_DGRAM;
    return nullptr;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> arguments;
    std::vector<char *> argv = {const_cast<char *>("collector")};
    for (std::string_view left = bytes_of(data, size); !left.empty();) {
        arguments.emplace_back(left.substr(0, left.find('\0')));
        left.remove_prefix(std::min(left.size(), arguments.back().size() + 1));
    }
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    steps = 0;
    logger_close();
    const Settings settings;
    const int status = collector_main(static_cast<int>(argv.size()) - 1, argv.data());
    const std::vector<std::string> values = expected_values(settings, arguments);
    HOLDS(values.empty() ? status == 255 && steps == 0 : status == 4 && steps == 3);
    for (size_t i = 0; i < values.size(); ++i) {
        const std::string text = values[i].empty() ? "33" : values[i].substr(1);
        const auto number = static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
        const cfg_entry &e = settings.begin()[i];
        HOLDS(value_of(e) == (e.type == CFG_INT ? std::to_string(number) : text));
    }
    return 0;
}

} // extern "C"
