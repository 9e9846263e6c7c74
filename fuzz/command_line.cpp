// Any bytes, split at zero bytes, as the collector's arguments. Its main runs up to where it would listen.
#include "settings.h"
#include <vector>

int collector_main(int argc, char **argv);

namespace {

int steps = 0; // of a start that the settings were given to

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
    HOLDS(status == 255 ? steps == 0 : status == 4 && steps == 3);
    const std::string_view all = bytes_of(data, size);
    for (const cfg_entry &e : settings) { // one that no argument has set is the file's
        const std::string value = value_of(e);
        HOLDS(e.priority != 0 ? status == 255 || value == "33" : e.type == CFG_INT || all.find(value) != all.npos);
    }
    return 0;
}

} // extern "C"
