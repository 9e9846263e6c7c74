/* Messages on standard error, all in the form "tavlenctl SUBCOMMAND: text". */
#ifndef TAVLEN_TOOLS_DIAGNOSTICS_H
#define TAVLEN_TOOLS_DIAGNOSTICS_H

namespace ctl {

/// What every message begins with; lives as long as the process.
void set_message_prefix(const char *prefix);

/// One line, which the caller gives without line feed and has made harmless (text.h).
void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// complain, then where help is to be had; STATUS_USAGE.
int wrong_usage(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// The same when getopt_long has said what is wrong.
int wrong_option();

/// Flushes standard output; false, and told, when something could not be written. A reader that has
/// gone away is no news.
bool flush_output();

} // namespace ctl

#endif
