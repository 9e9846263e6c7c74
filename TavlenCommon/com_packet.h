/*
 * Message catalogue: builders of the messages that the processes of the group exchange.
 *
 * Conventions
 *  1. A builder gives a new packet of its type (buffer_packet.h), ready to be sent, which the
 *     caller destroys; or null. It copies what it is given.
 *  2. No state: any thread may call.
 */
#ifndef TAVLEN_COMMON_COM_PACKET_H
#define TAVLEN_COMMON_COM_PACKET_H

#include <stdint.h>

#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Type codes of the messages. */
enum { CLPACKET_LOG_EVENT = 29, CLPACKET_LOG_EVENT_SEND_EVENT = 48 };

/** Fields of a log event, and the one version of it. */
enum {
    LOG_EVENT_FIELD_VERSION = 1, /**< int32 signed */
    LOG_EVENT_FIELD_NAME = 2,    /**< string: the sender's logger name */
    LOG_EVENT_FIELD_LINE = 3,    /**< string: the sender's line without its line feed */
    LOG_EVENT_VERSION = 1
};

/**
 * A log event: what a process sends to its collector for one line of `line_len` bytes. `name` is a
 * terminated text; a null one gives null. Reports nothing of its own, but the setters do.
 */
TAVLEN_API clpacket *clpacket_log_event(const char *name, const char *line, int32_t line_len);

/**
 * The message of type 48, which the collector does not take: `len` bytes (at least 1) as blob 1 and
 * `value` as int32 signed 0. Bad arguments and lack of memory are reported.
 */
TAVLEN_API clpacket *clpacket_log_event_send_event(const void *buff, uint32_t len, uint32_t value);

#ifdef __cplusplus
}
#endif

#endif
