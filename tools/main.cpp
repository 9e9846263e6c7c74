/* tavlenctl: sends to the collector, checks its settings, shows its log, its packets, its losses.
 */
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "command.h"
#include "diagnostics.h"
#include "text.h"

namespace ctl {

namespace {

const Command *const commands[] = {&send_command, &check_command, &view_command, &dump_command,
                                   &drops_command};

/// A standard descriptor that was closed before the start would go to a socket or a file, which
/// would then get what is printed; now that fails, and is told.
void occupy_standard_descriptors()
{
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (fd != -1 && fd <= STDERR_FILENO);
    if (fd != -1) {
        (void)close(fd);
    }
}

int show_general_help()
{
    printf("Usage: tavlenctl SUBCOMMAND [OPTIONS] [ARGUMENTS]\n"
           "       tavlenctl SUBCOMMAND --help\n"
           "       tavlenctl --version\n\n"
           "Subcommands:\n");
    for (const Command *command : commands) {
        printf("  %-6s %s\n", command->name, command->summary);
    }
    return STATUS_GOOD;
}

int show_version()
{
    printf("tavlenctl %s\n", TAVLENCTL_VERSION);
    return STATUS_GOOD;
}

const Command *find_command(const char *name)
{
    for (const Command *command : commands) {
        if (strcmp(command->name, name) == 0) {
            return command;
        }
    }
    return nullptr;
}

int run_command(const Command &command, int argc, char **argv)
{
    static std::string name; // kept: messages begin with it
    name = std::string("tavlenctl ") + command.name;
    set_message_prefix(name.c_str());
    argv[0] = name.data(); // getopt_long's messages begin with it, too
    return command.run(argc, argv);
}

int run(int argc, char **argv)
{
    if (argc < 2) {
        return wrong_usage("a subcommand is needed");
    }
    const std::string word = argv[1];
    if (word == "--help" || word == "-h" || word == "help") {
        return show_general_help();
    }
    if (word == "--version" || word == "-V") {
        return show_version();
    }
    const Command *command = find_command(argv[1]);
    if (command == nullptr) {
        return wrong_usage("no such subcommand: %s", harmless(argv[1]).c_str());
    }
    return run_command(*command, argc - 1, argv + 1);
}

} // namespace

int show_help(const Command &command)
{
    (void)fputs(command.help, stdout);
    return STATUS_GOOD;
}

} // namespace ctl

int main(int argc, char **argv)
{
    ctl::occupy_standard_descriptors();
    const int status = ctl::run(argc, argv);
    return ctl::flush_output() ? status : ctl::STATUS_TROUBLE;
}
