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

static int fields_travel(void)
{
    clpacket *p = clpacket_log_event("c", "line", 4);
    char *line = 0;
    uint32_t len = 0;
    const int travelled = clpacket_serialize(p) == 0 && clpacket_deserialize(p) == 0 &&
                          clpacket_get_string(p, LOG_EVENT_FIELD_LINE, &line, &len) == 0 &&
                          strcmp(line, "line") == 0;
    clpacket_destroy(p);
    return travelled;
}

static int settings_are_stored(void)
{
    cfg_builder builder;
    int32_t number = 0;
    const int stored = cfg_builder_init(&builder) == 0;
    cfg_add_int(&builder, "number", 1, 3, &number, 0, 0);
    const int set = cfg_set_by_name(builder.entries, "NUMBER", "7", 0) == 0;
    free(builder.entries);
    return stored && set && number == 7;
}

static int objects_live_and_end(void)
{
    com_semaphore *lock = com_semaphore_init();
    sock *s = sock_socket(AF_INET, SOCK_DGRAM, 0);
    mtb_struct *fields = mtb_struct_new(1);
    uint16_t wire = 0;
    const uint16_t host = 0x1234;
    bo_hton_element(&wire, &host, 2);
    const int there = lock && s && fields && mtb_add_enum(1, wire, fields) == MTB_OK;
    com_semaphore_destroy(lock);
    sock_close(s);
    mtb_free_deserialized_packet(fields);
    mtb_struct_destroy(fields);
    return there;
}

int main(void)
{
    if (logger_open() != 0) {
        return 1;
    }
    LPRINTF("from %s", "C11");
    const int good = fields_travel() && settings_are_stored() && objects_live_and_end();
    logger_close();
    return good ? 0 : 1;
}
