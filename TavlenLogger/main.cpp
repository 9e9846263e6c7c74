#include <cstdio>
#include <cstring>

#include <TavlenCommon/logger.h>
#include <TavlenLogger/config.h>

namespace {

constexpr char revision[] = "164281";
constexpr char revision_suffix[] = "";
constexpr char default_config_path[] = "TavlenLogger.conf";

enum { EXIT_USAGE = 255, EXIT_NO_SOCKET = 4 };

void print_usage(const char *program)
{
    printf("Usage: %s [params]\n"
           "     (revision: %s%s)\n\n"
           "params: \n"
           "   -p <port for incoming log messages>\n"
           "   -a <interface address for incoming log messages>\n"
           "   -c <configuration file>\n"
           "   -l <log file name> (if logging to file is wanted)\n"
           "   -o log to STDOUT\n"
           "   -s log to syslog\n"
           "   -h display this help\n",
           program, revision, revision_suffix);
}

/// Applies the options in pairs; gives the configuration file's path, null when they are wrong.
const char *apply_command_line(int argc, char **argv)
{
    const char *config_path = default_config_path;
    for (int i = 1; i < argc; i += 2) {
        const char *option = argv[i];
        if (option[0] != '-') {
            return nullptr;
        }
        if (i + 1 == argc) { // no value follows: ignored, whatever it is
            break;
        }
        const char *value = argv[i + 1];
        if (strcmp(option, "-c") == 0) {
            config_path = value;
        } else if (config_set_cmd_arg(option, value) != 0) {
            return nullptr;
        }
    }
    return config_path;
}

} // namespace

int main(int argc, char **argv)
{
    (void)config_init(); // a failure shows as soon as a setting is needed
    if (logger_open() != 0 || logger_set_name("logger") != 0) {
        return EXIT_USAGE;
    }
    const char *config_path = apply_command_line(argc, argv);
    if (config_path == nullptr) {
        print_usage(argv[0]);
        return EXIT_USAGE;
    }
    config_set(config_path);
    const logger_settings *settings = config_get_settings();
    set_log_dest(settings->DefaultLogDest, settings->LogFileName, settings->RemoteLoggerAddr,
                 settings->RemoteLoggerPort);
    return EXIT_NO_SOCKET;
}
