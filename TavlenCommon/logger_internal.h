/* Internal steps of the logging library, for its tests. All run with the library's lock held. */
#ifndef TAVLEN_COMMON_LOGGER_INTERNAL_H
#define TAVLEN_COMMON_LOGGER_INTERNAL_H

#include <stdint.h>

#include <TavlenCommon/lock_annotations.h>

namespace tavlen {

/// Stands for log_lock where it is said what that guards: a C structure cannot say that it is a
/// lock.
inline constexpr struct TAVLEN_LOCK LogLockToken {
} log_lock_token;

} // namespace tavlen

extern "C" {

/// Writes a line to every destination of the mask.
void log_msg_dest(const char *text, int32_t length) TAVLEN_REQUIRES(tavlen::log_lock_token);

/// Sends a line, without its final line feed, to the collector.
void log_msg_dest_remote(const char *text, int32_t length) TAVLEN_REQUIRES(tavlen::log_lock_token);

/// Closes the log file and, where the mask asks for it, opens the named one for appending.
void setup_file_log_dest(const char *file_name) TAVLEN_REQUIRES(tavlen::log_lock_token);

/// Closes the collector's socket and, where the mask asks for it, connects to the given one.
void setup_remote_log_dest(const char *remote_addr, const char *remote_port)
    TAVLEN_REQUIRES(tavlen::log_lock_token);

} // extern "C"

#endif
