/* A C11 program that includes every public header and links with the library. */
#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/com_byteorder.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/com_semaphore.h>
#include <TavlenCommon/config_store.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/socket.h>

int main(void)
{
    const int opened = logger_open();
    LPRINTF("from %s", "C11");
    clpacket_destroy(clpacket_log_event("c", "line", 4));
    logger_close();
    return opened;
}
