/* A C11 program that includes every public header, links with the library and uses each module. */
#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/com_byteorder.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/com_semaphore.h>
#include <TavlenCommon/config_store.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/socket.h>

#include <stdlib.h>
#include <string.h>

int main(void)
{
    int good = logger_open() == 0;
    LPRINTF("from %s", "C11");
    clpacket *p = clpacket_log_event("c", "line", 4);
    char *line = 0;
    uint32_t len = 0;
    good &= clpacket_serialize(p) == 0 && clpacket_deserialize(p) == 0;
    good &= clpacket_get_string(p, LOG_EVENT_FIELD_LINE, &line, &len) == 0 && strcmp(line, "line") == 0;
    clpacket_destroy(p);
    cfg_builder builder;
    int32_t number = 0;
    good &= cfg_builder_init(&builder) == 0;
    cfg_add_int(&builder, "number", 1, 3, &number, 0, 0);
    good &= cfg_set_by_name(builder.entries, "NUMBER", "7", 0) == 0 && number == 7;
    free(builder.entries);
    com_semaphore *lock = com_semaphore_init();
    sock *s = sock_socket(AF_INET, SOCK_DGRAM, 0);
    mtb_struct *fields = mtb_struct_new(1);
    const uint16_t host = 0x1234;
    uint16_t wire = 0;
    bo_hton_element(&wire, &host, 2);
    good &= lock && s && fields && mtb_add_enum(1, wire, fields) == MTB_OK;
    com_semaphore_destroy(lock);
    sock_close(s);
    mtb_free_deserialized_packet(fields);
    mtb_struct_destroy(fields);
    logger_close();
    return good ? 0 : 1;
}
