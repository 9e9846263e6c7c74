#include <TavlenLogger/config.h>

#include <cstdlib>

#include <TavlenCommon/logger.h>

namespace {

enum { PRIORITY_COMMAND_LINE = 0, PRIORITY_DEFAULT = 3 };

logger_settings settings;

} // namespace

cfg_entry *config_e = nullptr;

int32_t config_init(void)
{
    cfg_builder builder;
    if (config_e != nullptr || cfg_builder_init(&builder) != 0) {
        return -1;
    }
    settings = logger_settings{};
    const auto add_text = [&builder](const char *key, const char *def, char **target,
                                     const char *option) {
        cfg_add_string(&builder, key, def, PRIORITY_DEFAULT, target, 0, option);
    };
    add_text("ListenAddr", "0.0.0.0", &settings.ListenAddr, "a");
    add_text("ListenPort", "27759", &settings.ListenPort, "p");
    add_text("LogFileName", "logger.log", &settings.LogFileName, "l");
    cfg_add_int(&builder, "DefaultLogDest", LOG_DEST_STDOUT, PRIORITY_DEFAULT,
                &settings.DefaultLogDest, 0, nullptr);
    add_text("RemoteLoggerAddr", "dont_use_localhost", &settings.RemoteLoggerAddr, nullptr);
    add_text("RemoteLoggerPort", "27759", &settings.RemoteLoggerPort, nullptr);
    if (builder.error != 0) {
        free(builder.entries);
        return -1;
    }
    config_e = builder.entries;
    return 0;
}

logger_settings *config_get_settings(void)
{
    return &settings;
}

int32_t config_set_cmd_arg(const char *option, const char *value)
{
    if (config_e == nullptr) {
        (void)_lprintf_stderr(__FILE__, __LINE__, __func__, "ERROR: config_e is NULL", nullptr);
        return -1;
    }
    if (option == nullptr || option[0] != '-') {
        return -1;
    }
    if (option[1] == '-') {
        return cfg_set_by_name(config_e, option + 2, value, PRIORITY_COMMAND_LINE);
    }
    return cfg_set_by_option(config_e, option + 1, value, PRIORITY_COMMAND_LINE);
}

void config_set(const char *path)
{
    if (path != nullptr && cfg_parse_file(path, config_e) != 0) {
        LPRINTF("WARNING: failed to parse config file, maybe the file does not exist");
    }
}
