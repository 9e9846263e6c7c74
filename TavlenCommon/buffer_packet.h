/*
 * Packets: a message's type code, its fields and their serialized bytes.
 *
 * Conventions
 *  1. A packet is converted when that is needed: one that was built is serialized when it is sent,
 *     one that was received is decoded when a field is first read. A successful setter drops the
 *     bytes; getters keep them, so a received packet is sent on unchanged.
 *  2. The error state is sticky: the first field operation that fails leaves its code there, and
 *     from then on every field operation gives -1 without a report, and the packet is neither
 *     serialized nor sent. So a builder sets its fields and looks at the state once, at the end.
 *     Codes are those of map_to_buffer.h; MTB_NOMEM also stands for a buffer that does not decode,
 *     MTB_NOT_FOUND for a read from an empty packet.
 *  3. Results are 0 or -1, unless said otherwise; failures are reported (logger.h). Setters copy.
 *     What getters give belongs to the packet and is valid until it is changed or destroyed (one
 *     exception: clpacket_get_array of a string array).
 *  4. No locks: a packet is used by one thread at a time.
 *
 * As a datagram a packet is its type code (4 bytes, big-endian) and its bytes, at most 65,531; on a
 * stream the number of its bytes (4 bytes, big-endian), its type code and its bytes.
 */
#ifndef TAVLEN_COMMON_BUFFER_PACKET_H
#define TAVLEN_COMMON_BUFFER_PACKET_H

#include <stdint.h>
#include <sys/socket.h>

#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/socket.h>
#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A packet. Members are for the library. */
typedef struct clpacket {
    mtb_struct *structr;  /**< the fields; null: not built on or decoded yet */
    void *buffer;         /**< the serialized fields, malloc'ed; or null */
    uint64_t buffer_size; /**< bytes in `buffer` */
    int32_t
        structr_borrowed; /**< 1: `structr` is another packet's and not freed through this one */
    uint32_t type;        /**< the message's type code; not part of the bytes */
    int32_t error_state;
} clpacket;

/** A new empty packet of type 0. */
TAVLEN_API clpacket *clpacket_create(void);

/** Frees the packet, its bytes and, unless borrowed, its fields. */
TAVLEN_API void clpacket_destroy(clpacket *p);

TAVLEN_API int32_t clpacket_set_type(clpacket *p, uint32_t type);

/** The type code as a signed number; -1 for null. */
TAVLEN_API int32_t clpacket_get_type(clpacket *p);

/** The error state; -1 for null. */
TAVLEN_API int32_t clpacket_get_error_state(clpacket *p);

/** Takes the packet out of its error state; fields and bytes stay. */
TAVLEN_API int32_t clpacket_reset_error_state(clpacket *p);

/** The serialized bytes; null, with a report, when there are none. */
TAVLEN_API void *clpacket_get_buffer(clpacket *p);

/** How many there are; 0 for null. */
TAVLEN_API uint64_t clpacket_get_buffer_size(clpacket *p);

/** Gives the packet `size` uninitialised bytes (not 0) in the place of those it has. */
TAVLEN_API int32_t clpacket_alloc_buffer(clpacket *p, uint64_t size);

/** Makes the bytes anew from the fields; the error state stays as it is. */
TAVLEN_API int32_t clpacket_serialize(clpacket *p);

/** Makes the fields anew from the bytes, which stay; the error state stays as it is. */
TAVLEN_API int32_t clpacket_deserialize(clpacket *p);

/* Setters of numbers, one per element type. */
TAVLEN_API int32_t clpacket_set_char_signed(clpacket *p, int32_t name, int8_t value);
TAVLEN_API int32_t clpacket_set_char_unsigned(clpacket *p, int32_t name, uint8_t value);
TAVLEN_API int32_t clpacket_set_int16_signed(clpacket *p, int32_t name, int16_t value);
TAVLEN_API int32_t clpacket_set_int16_unsigned(clpacket *p, int32_t name, uint16_t value);
TAVLEN_API int32_t clpacket_set_int32_signed(clpacket *p, int32_t name, int32_t value);
TAVLEN_API int32_t clpacket_set_int32_unsigned(clpacket *p, int32_t name, uint32_t value);
TAVLEN_API int32_t clpacket_set_int64_signed(clpacket *p, int32_t name, int64_t value);
TAVLEN_API int32_t clpacket_set_int64_unsigned(clpacket *p, int32_t name, uint64_t value);
TAVLEN_API int32_t clpacket_set_float(clpacket *p, int32_t name, float value);
TAVLEN_API int32_t clpacket_set_double(clpacket *p, int32_t name, double value);
TAVLEN_API int32_t clpacket_set_enum(clpacket *p, int32_t name, uint32_t value);

/* Getters of numbers; they give 0, -1 for a packet in error, or the code of the failed read. */
TAVLEN_API int32_t clpacket_get_char_signed(clpacket *p, int32_t name, int8_t *val);
TAVLEN_API int32_t clpacket_get_char_unsigned(clpacket *p, int32_t name, uint8_t *val);
TAVLEN_API int32_t clpacket_get_int16_signed(clpacket *p, int32_t name, int16_t *val);
TAVLEN_API int32_t clpacket_get_int16_unsigned(clpacket *p, int32_t name, uint16_t *val);
TAVLEN_API int32_t clpacket_get_int32_signed(clpacket *p, int32_t name, int32_t *val);
TAVLEN_API int32_t clpacket_get_int32_unsigned(clpacket *p, int32_t name, uint32_t *val);
TAVLEN_API int32_t clpacket_get_int64_signed(clpacket *p, int32_t name, int64_t *val);
TAVLEN_API int32_t clpacket_get_int64_unsigned(clpacket *p, int32_t name, uint64_t *val);
TAVLEN_API int32_t clpacket_get_float(clpacket *p, int32_t name, float *val);
TAVLEN_API int32_t clpacket_get_double(clpacket *p, int32_t name, double *val);
TAVLEN_API int32_t clpacket_get_enum(clpacket *p, int32_t name, uint32_t *val);

/** Sets `len` bytes as a blob; `data` may be null when there are none. */
TAVLEN_API int32_t clpacket_set_blob(clpacket *p, int32_t name, const void *data, uint32_t len);

/** Gives the bytes (null when there are none) and their number. Results as the numbers' getters. */
TAVLEN_API int32_t clpacket_get_blob(clpacket *p, int32_t name, void **data, uint32_t *len);

/** Sets `len` bytes as a string; `text` is never null. */
TAVLEN_API int32_t clpacket_set_string(clpacket *p, int32_t name, const char *text, int32_t len);

/** Gives the terminated text and its length. Results as the numbers' getters. */
TAVLEN_API int32_t clpacket_get_string(clpacket *p, int32_t name, char **text, uint32_t *len);

/** Sets an array; see mtb_add_array. `values` is never null. */
TAVLEN_API int32_t clpacket_set_array(clpacket *p, int32_t name, const void *values, uint32_t count,
                                      uint8_t type);

/** Gives the items of an array and their number; see mtb_get_array. 0 or -1. */
TAVLEN_API int32_t clpacket_get_array(clpacket *p, int32_t name, void **values, uint32_t *count,
                                      uint8_t type);

/** Gives the number of an array's items. Results as the numbers' getters. */
TAVLEN_API int32_t clpacket_get_array_len(clpacket *p, int32_t name, uint32_t *count, uint8_t type);

/** Gives one item of an array; see mtb_get_array_element. Results as the numbers' getters. */
TAVLEN_API int32_t clpacket_get_array_el(clpacket *p, int32_t name, void **val, uint32_t index,
                                         uint8_t type);

/** 1 when there is a string of that name, 0 when not; -1 for a packet that cannot be read. */
TAVLEN_API int32_t clpacket_has_string(clpacket *p, int32_t name);

/** 1 when there is an unsigned 32-bit number of that name, 0 when not; -1 as clpacket_has_string.
 */
TAVLEN_API int32_t clpacket_has_int32_unsigned(clpacket *p, int32_t name);

/*
 * Nested structures are handled through a second packet that stands for one, the value packet. It
 * is destroyed by its owner as any other; the structure lives and ends with the packet around it.
 * A value packet never owns what the packet itself is a view of.
 */

/**
 * Moves the fields of `val` into `p` as a nested structure; `val` only borrows them from then on. A
 * packet that borrows its fields, and has no bytes to decode anew, is refused; so is `p` itself.
 */
TAVLEN_API int32_t clpacket_set_complex(clpacket *p, int32_t name, clpacket *val);

/** Moves the fields of `val`, as clpacket_set_complex does, to the end of the array of that name.
 */
TAVLEN_API int32_t clpacket_add_array_el_complex(clpacket *p, int32_t name, clpacket *val);

/**
 * Makes `val` a view of the nested structure of that name; what `val` held is released. A view is
 * for reading: what is set through it does not reach the bytes that its owner already has.
 */
TAVLEN_API int32_t clpacket_get_complex(clpacket *p, int32_t name, clpacket *val);

/** Makes `val` a view of the structure at that index of the array of that name. */
TAVLEN_API int32_t clpacket_get_array_el_complex(clpacket *p, int32_t name, clpacket *val,
                                                 uint32_t index);

/** Readies a packet for a receive: drops its bytes. */
TAVLEN_API int32_t clpacket_recv_prepare(clpacket *p, sock *s);

/** Readies a packet for a send: serializes it, unless it has its bytes already. */
TAVLEN_API int32_t clpacket_send_prepare(clpacket *p, sock *s);

/**
 * Waits for one datagram and takes it as the packet's type and bytes; fields that the packet held
 * are let go. The sender's address is stored when `addr` and `addr_len` are both given. After a
 * failed receive the packet has no bytes; a null `s` leaves them.
 */
TAVLEN_API int32_t clpacket_recvfrom(clpacket *p, sock *s, struct sockaddr *addr,
                                     socklen_t *addr_len);

/**
 * Waits for one frame on a stream and takes it as the packet's type and bytes, as clpacket_recvfrom
 * does. Holds the socket's `sem_read`. A peer that closes or resets the connection is not reported.
 */
TAVLEN_API int32_t clpacket_recv(clpacket *p, sock *s);

/** Sends the packet as one frame on a stream. Holds the socket's `sem_write`. */
TAVLEN_API int32_t clpacket_send(clpacket *p, sock *s);

/** Sends the packet as one datagram, to the connected peer when `addr` is null. */
TAVLEN_API int32_t clpacket_sendto(clpacket *p, sock *s, const struct sockaddr *addr,
                                   uint32_t addr_len);

#ifdef __cplusplus
}
#endif

#endif
