/* The collector's receive side. */
#ifndef TAVLEN_LOGGER_MAIN_H
#define TAVLEN_LOGGER_MAIN_H

#include <stdint.h>

#include <TavlenCommon/buffer_packet.h>

extern "C" {

/**
 * Receives datagrams one at a time and writes each log event; reports what is none and goes on. No
 * state passes from one to the next. Returns, with -1, only when memory for a packet is lacking.
 */
int32_t msg_recv_loop(sock *s);

/// Writes a received log event to the destinations under its sender's name. -1 when it is none. The
/// packet is used up: its line is ended where it lies, which may be in the packet's bytes.
int32_t msg_extract(clpacket *p);

} // extern "C"

#endif
