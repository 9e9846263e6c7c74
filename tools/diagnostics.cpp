#include "diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "command.h"

namespace ctl {

namespace {

const char *message_prefix = "tavlenctl";

__attribute__((format(printf, 1, 0))) void print_message(const char *format, va_list arguments)
{
    (void)fflush(stdout); // what came before it stands before it
    (void)fprintf(stderr, "%s: ", message_prefix);
    (void)vfprintf(stderr, format, arguments);
    (void)fputc('\n', stderr);
}

} // namespace

void set_message_prefix(const char *prefix)
{
    message_prefix = prefix;
}

void complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_message(format, arguments);
    va_end(arguments);
}

int wrong_usage(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    print_message(format, arguments);
    va_end(arguments);
    return wrong_option();
}

int wrong_option()
{
    (void)fprintf(stderr, "Try '%s --help'.\n", message_prefix);
    return STATUS_USAGE;
}

bool flush_output()
{
    static bool is_told = false;
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return true;
    }
    if (!is_told && errno != EPIPE) {
        complain("standard output: %s", strerror(errno));
    }
    is_told = true;
    return false;
}

} // namespace ctl
