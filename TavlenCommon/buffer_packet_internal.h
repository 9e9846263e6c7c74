/*
 * Internal: what the message catalogue needs beside the public functions of the packet. The setters
 * are the public ones of their names with one argument more, and report as those.
 */
#ifndef TAVLEN_COMMON_BUFFER_PACKET_INTERNAL_H
#define TAVLEN_COMMON_BUFFER_PACKET_INTERNAL_H

#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/map_to_buffer_internal.h>

#define DECLARE_SETTER(suffix, ctype, code, member)                                                \
    int32_t clpacket_set_##suffix(clpacket *p, int32_t name, ctype value, tavlen::Lookup lookup);
TAVLEN_SCALAR_TYPES(DECLARE_SETTER)
#undef DECLARE_SETTER

int32_t clpacket_set_blob(clpacket *p, int32_t name, const void *data, uint32_t len,
                          tavlen::Lookup lookup);
int32_t clpacket_set_string(clpacket *p, int32_t name, const char *text, int32_t len,
                            tavlen::Lookup lookup);

/// Makes a value packet a view of a structure that another packet owns (or of none, when null).
void clpacket_borrow(clpacket *val, mtb_struct *structr);

#endif
