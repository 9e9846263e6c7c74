/* Internal steps of the logging library, for its tests. All run with the library's lock held. */
#ifndef TAVLEN_COMMON_LOGGER_INTERNAL_H
#define TAVLEN_COMMON_LOGGER_INTERNAL_H

#include <stdint.h>

extern "C" {

/// Writes a line to every destination of the mask.
void log_msg_dest(const char *text, int32_t length);

/// Sends a line, without its final line feed, to the collector.
void log_msg_dest_remote(const char *text, int32_t length);

/// Closes the log file and, where the mask asks for it, opens the named one for appending.
void setup_file_log_dest(const char *file_name);

/// Closes the collector's socket and, where the mask asks for it, connects to the given one.
void setup_remote_log_dest(const char *remote_addr, const char *remote_port);

} // extern "C"

#endif
