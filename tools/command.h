/* What each subcommand is to main: its name, its words, and its own main function. */
#ifndef TAVLEN_TOOLS_COMMAND_H
#define TAVLEN_TOOLS_COMMAND_H

namespace ctl {

/// Exit statuses; the help text of a subcommand says what counts as trouble.
enum { STATUS_GOOD = 0, STATUS_TROUBLE = 1, STATUS_USAGE = 2 };

struct Command {
    const char *name;
    const char *summary;
    const char *help;                  ///< begins with the synopsis
    int (*run)(int argc, char **argv); ///< gives an exit status; argv[0] is the subcommand's
};

/// Prints the help text; STATUS_GOOD.
int show_help(const Command &command);

extern const Command send_command;
extern const Command check_command;
extern const Command view_command;
extern const Command dump_command;
extern const Command drops_command;

} // namespace ctl

#endif
