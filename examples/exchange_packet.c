/* Builds a packet, sends it as one datagram to a socket of its own, and reads what arrives. */
#include <arpa/inet.h>
#include <stdio.h>
#include <sys/socket.h>

#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/logger.h>

enum { MEASUREMENT = 1000 };       /* a type code that the library has no message for */
enum { SENSOR = 1, READINGS = 2 }; /* names of its elements */

static clpacket *build_measurement(void)
{
    static const int32_t readings[] = {17, -4, 21};
    clpacket *packet = clpacket_create();
    if (packet == 0) {
        return 0;
    }
    clpacket_set_type(packet, MEASUREMENT);
    clpacket_set_string(packet, SENSOR, "roof", 4);
    clpacket_set_array(packet, READINGS, readings, 3, MTB_TYPE_ARRAY_INT32_SIGNED);
    /* What the first setter that failed has left, if any. */
    if (clpacket_get_error_state(packet) != 0) {
        clpacket_destroy(packet);
        return 0;
    }
    return packet;
}

/* What the getters give belongs to the packet: it is used before the packet is destroyed. */
static int print_measurement(clpacket *packet)
{
    char *sensor;
    void *items;
    uint32_t length, count;
    if (clpacket_get_type(packet) != MEASUREMENT ||
        clpacket_get_string(packet, SENSOR, &sensor, &length) != 0 ||
        clpacket_get_array(packet, READINGS, &items, &count, MTB_TYPE_ARRAY_INT32_SIGNED) != 0) {
        LPRINTF("not a measurement (%d)", clpacket_get_error_state(packet));
        return -1;
    }
    printf("%s:", sensor);
    for (uint32_t i = 0; i < count; ++i) {
        printf(" %d", ((const int32_t *)items)[i]);
    }
    printf("\n");
    return 0;
}

/* A datagram socket that is connected to where the receiver has been bound. */
static sock *connect_to(sock *receiver)
{
    struct sockaddr_in bound;
    socklen_t size = sizeof bound;
    char port[8];
    if (sock_getsockname(receiver, (struct sockaddr *)&bound, &size) != 0) {
        return 0;
    }
    snprintf(port, sizeof port, "%d", ntohs(bound.sin_port));
    return sock_connect_general("127.0.0.1", port, SOCK_DGRAM);
}

static int exchange(sock *sender, sock *receiver)
{
    int result = -1;
    clpacket *sent = build_measurement();
    clpacket *received = clpacket_create();
    if (sent != 0 && received != 0 && clpacket_sendto(sent, sender, 0, 0) == 0 &&
        clpacket_recvfrom(received, receiver, 0, 0) == 0) {
        result = print_measurement(received);
    }
    if (sent != 0) {
        clpacket_destroy(sent);
    }
    if (received != 0) {
        clpacket_destroy(received);
    }
    return result;
}

int main(void)
{
    if (logger_open() != 0) { /* the library's reports go to standard output from here on */
        return 1;
    }
    sock *receiver = sock_listen_general("127.0.0.1", "0", SOCK_DGRAM); /* any free port */
    sock *sender = receiver != 0 ? connect_to(receiver) : 0;
    int result = sender != 0 ? exchange(sender, receiver) : -1;
    if (sender != 0) {
        sock_close(sender);
    }
    if (receiver != 0) {
        sock_close(receiver);
    }
    logger_close();
    return result == 0 ? 0 : 1;
}
