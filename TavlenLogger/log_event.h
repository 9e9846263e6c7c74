/* A log event as senders write it, read where it lies. */
#ifndef TAVLEN_LOGGER_LOG_EVENT_H
#define TAVLEN_LOGGER_LOG_EVENT_H

#include <TavlenCommon/buffer_packet.h>

/// Both texts are the packet's, and end in a zero byte.
struct log_event_texts {
    const char *name;
    const char *line; ///< without its final line feed
};

/**
 * Reads a received log event of version 1 whose bytes are those that clpacket_log_event gives:
 * these three fields in this order, and nothing else. False, and the packet as it was, for any
 * other packet, good or bad: the packet's getters tell which.
 *
 * Nothing is copied or allocated; the line is ended within the packet's bytes, which are no message
 * any more after that.
 */
bool read_plain_log_event(clpacket *p, log_event_texts *texts);

#endif
