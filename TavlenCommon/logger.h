/*
 * Logging: one text line per record, to every destination that the process has chosen.
 *
 * A program calls logger_open, logger_set_name, perhaps logger_set_config, then set_log_dest (again
 * whenever its destinations change), then LPRINTF from any thread, and logger_close at the end.
 *
 * Conventions
 *  1. Three line formats, each with a line feed at its end and at most 4095 bytes long (a longer
 *     line is cut, and then has no line feed):
 *       a record of this process     time:file:line: function: message
 *       one with a name              name:time:file:line: function: message
 *       a relayed one                name: message
 *     Time is whole seconds since the epoch, file the base name of the source file. Null texts
 *     print as "(null)".
 *  2. One process-wide lock is held while a line is composed and written, so lines of different
 *     threads never mix, and every destination gets them in the same order.
 *  3. While the library is closed, records go to standard error, each after a warning line.
 *     Failures of the logging library itself, and whatever other modules report while they serve
 *     it, go straight to standard error.
 *  4. Logging leaves errno as it was. Any thread may log, also while another opens the library or
 *     changes its destinations; logger_close is called when no other thread logs any more. A thread
 *     that may be logging is not cancelled, no function here is called from a signal handler, and
 *     after fork a child of a threaded process logs only once it has called exec. A child that
 *     closes the library or changes its destinations shuts its parent's collector socket down, too.
 *  5. Results are 0, or -1, unless said otherwise.
 */
#ifndef TAVLEN_COMMON_LOGGER_H
#define TAVLEN_COMMON_LOGGER_H

#include <stdint.h>

#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Bits of the destination mask. Any sum, 0 to 31, is valid; 0 writes nowhere. */
enum {
    LOG_DEST_STDOUT = 1,
    LOG_DEST_STDERR = 2,
    LOG_DEST_SYSLOG = 4, /**< identity "Tavlen", facility LOG_USER, priority LOG_DEBUG */
    LOG_DEST_FILE = 8,   /**< appended to, flushed after every line */
    LOG_DEST_REMOTE = 16 /**< one datagram per line to a collector, sent once, never waited for */
};

/** Limiter state of one call site; starts as zeros. For the library alone, which reads it and
 * counts refusals without its lock. */
typedef struct ratelimit_slot {
    int64_t period_start; /**< seconds since the epoch; 0: no period yet */
    int32_t count;        /**< records let through in this period */
    int32_t suppressed;   /**< records refused in this period */
} ratelimit_slot;

/**
 * Logs a message, printf-like: LPRINTF("opened %s", path). The message is cut at 4095 characters.
 * Arguments are evaluated only when the limiter lets the record pass.
 */
#define LPRINTF(...)                                                                               \
    do {                                                                                           \
        static ratelimit_slot lprintf_slot_;                                                       \
        if (_lprintf_ratelimit(&lprintf_slot_, __FILE__, __LINE__, __func__) == 0) {               \
            char *lprintf_msg_ = _lprintf_fmt(__VA_ARGS__);                                        \
            (void)_lprintf(0, __FILE__, __LINE__, __func__, lprintf_msg_, lprintf_msg_);           \
        }                                                                                          \
    } while (0)

/**
 * Asks the limiter of a call site: 0 write the record, -1 refuse it. The first call after a period
 * with refusals writes "WARNING: %d messages suppressed" under the site's file, line and function.
 * While the limiter is off or the library closed, everything passes and the slot is untouched.
 */
TAVLEN_API int32_t _lprintf_ratelimit(ratelimit_slot *slot, const char *file, int32_t line,
                                      const char *func);

/** Formats a message into a new text of 4096 bytes, which the caller frees; null without memory. */
TAVLEN_API char *_lprintf_fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * Writes one record to the destinations. Null `file` and `func` with line 0 choose the relayed
 * format; otherwise `name` may be null. `to_free` is freed in every case (null: nothing to free).
 * The length that the whole line would have had; -1 when the library is closed.
 */
TAVLEN_API int32_t _lprintf(const char *name, const char *file, int32_t line, const char *func,
                            const char *message, void *to_free);

/**
 * Writes `len` bytes of `text` to the destinations as they are; the caller brings the line feed.
 * `text` also ends in a zero byte, up to which syslog gets it.
 */
TAVLEN_API int32_t _lprintf_raw(const char *text, int32_t len);

/**
 * Writes one record to standard error, without lock, limiter or destinations, and frees `to_free`.
 * The number of bytes written, or a negative number.
 */
TAVLEN_API int32_t _lprintf_stderr(const char *file, int32_t line, const char *func,
                                   const char *message, void *to_free);

/** Opens the library. -1 when it is open already or without memory. */
TAVLEN_API int32_t logger_open(void);

/** Sets the name under which records reach a collector; copied. -1 on null or without memory. */
TAVLEN_API int32_t logger_set_name(const char *name);

/**
 * Lets each call site write at most `max_records` per period. A period begins with a record and
 * covers `interval_seconds` + 1 seconds of the wall clock. Off while either is below 1, which is
 * the initial state. Always 0.
 */
TAVLEN_API int32_t logger_set_config(int32_t max_records, int32_t interval_seconds);

/**
 * Chooses the destinations: closes the present file and collector socket and opens what `mask`
 * asks for. A mask outside 0 to 31 is reported and the mask in use kept. A destination that cannot
 * be opened is reported, its bit stays set, and its records are dropped. Does nothing while the
 * library is closed. The texts are needed during the call only, and may be null where their bit
 * is clear.
 */
TAVLEN_API void set_log_dest(int32_t mask, const char *file_name, const char *remote_addr,
                             const char *remote_port);

/** The mask in use; -1 while the library is closed. */
TAVLEN_API int32_t get_log_dest(void);

/** Closes file and collector socket and forgets the name; the mask stays for the next open. */
TAVLEN_API void logger_close(void);

#ifdef __cplusplus
}
#endif

#endif
