/*
 * Answers every connection's request with a list of parallel servers:
 *     list_server ADDRESS PORT [CONNECTIONS]
 * Ends after that many connections; without the number it goes on.
 */
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

enum { REQUEST = 50 };

static clpacket *make_answer(void)
{
    static char addresses[2][16] = {"192.0.2.1", "192.0.2.2"};
    static char port[] = "27760";
    static parallel_server_entry first = {addresses[0], port, 0};
    static parallel_server_entry second = {addresses[1], port, 0};
    static parallel_server_entry *servers[] = {&first, &second};
    const parallel_server_list list = {2, servers};
    return clpacket_parallel_servers_list(&list);
}

/* Connections are served one after the other: one that stalls is given up after this time. */
static void limit_waiting(sock *connection)
{
    const struct timeval patience = {2, 0};
    sock_setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sock_setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

/* Receives one request on the connection and answers it. */
static void serve(sock *connection)
{
    limit_waiting(connection);
    clpacket *request = clpacket_create();
    if (request != 0 && clpacket_recv(request, connection) == 0 &&
        clpacket_get_type(request) == REQUEST) {
        clpacket *answer = make_answer();
        if (answer != 0) {
            clpacket_send(answer, connection);
            clpacket_destroy(answer);
        }
    }
    if (request != 0) {
        clpacket_destroy(request);
    }
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "Usage: %s ADDRESS PORT [CONNECTIONS]\n", argv[0]);
        return 2;
    }
    long connections_left = argc > 3 ? strtol(argv[3], 0, 10) : -1;
    if (logger_open() != 0) { /* the library reports to standard output from here on */
        return 1;
    }
    sock *listener = sock_listen(argv[1], argv[2]);
    if (listener == 0) {
        logger_close();
        return 1;
    }
    LPRINTF("listening");
    while (connections_left != 0) {
        sock *connection = sock_accept(listener);
        if (connection == 0) {
            sleep(1); /* reported; the listener is as good as before */
            continue;
        }
        serve(connection);
        sock_close(connection);
        connections_left -= connections_left > 0;
    }
    sock_close(listener);
    logger_close();
    return 0;
}
