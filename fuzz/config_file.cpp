// Any bytes as the configuration file: settings are its words or defaults, and of two the first or stronger counts.
#include "settings.h"
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool log_is_open = open_log();
    static const int file = memfd_create("config", MFD_CLOEXEC), highest = dup(file);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    HOLDS(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    const Settings settings;
    std::string defaults, values[2];
    for (const cfg_entry &e : settings) {
        defaults += value_of(e) + '\n';
    }
    for (std::string &all : values) { // reading it twice changes nothing
        config_set(path.c_str());
        for (cfg_entry &e : settings) {
            const std::string value = value_of(e);
            const bool is_default = e.priority != CFG_PRIORITY_FILE && defaults.find(value + '\n') != std::string::npos;
            const bool is_blank = value.find_first_of(" \t") == 0 || value.find_last_of(" \t") + 1 == value.size();
            HOLDS(is_default || e.type == CFG_INT || bytes_of(data, size).find(value) != std::string_view::npos);
            HOLDS(value.size() < 2047 && value.find_first_of("#\n") == std::string::npos);
            HOLDS(value.empty() || !is_blank);
            HOLDS(cfg_entry_set(&e, "other", e.priority) == 0 && value_of(e) == value); // the first counts
            all += value + '\n';
        }
    }
    HOLDS(values[0] == values[1] && config_set_cmd_arg("--DefaultLogDest", "7") == 0);
    config_set(path.c_str());
    HOLDS(config_get_settings()->DefaultLogDest == 7);
    const int next = dup(file);
    HOLDS(next == highest + 1 && close(next) == 0); // each file was closed
    return 0;
}
