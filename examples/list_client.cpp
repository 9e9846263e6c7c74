// Asks a list_server for its list of parallel servers and prints it: list_client ADDRESS PORT
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

namespace {

struct Release {
    void operator()(clpacket *p) const { clpacket_destroy(p); }
    void operator()(sock *s) const { sock_close(s); }
    void operator()(parallel_server_list *list) const
    {
        for (int32_t i = 0; i < list->count; ++i) {
            free(list->servers[i]->address);
            free(list->servers[i]->port);
            free(list->servers[i]);
        }
        free(list->servers);
        free(list);
    }
};
using Packet = std::unique_ptr<clpacket, Release>;
using Socket = std::unique_ptr<sock, Release>;
using Servers = std::unique_ptr<parallel_server_list, Release>;

Servers ask(sock *connection)
{
    const Packet request(clpacket_create_type50());
    const Packet answer(clpacket_create());
    if (request == nullptr || answer == nullptr || clpacket_send(request.get(), connection) != 0 ||
        clpacket_recv(answer.get(), connection) != 0) {
        return nullptr;
    }
    return Servers(clpacket_extract_parallel_servers_list(answer.get()));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "Usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    if (logger_open() != 0) {
        return 1;
    }
    const Socket connection(sock_connect_fail_fast(argv[1], argv[2]));
    const Servers servers = connection != nullptr ? ask(connection.get()) : nullptr;
    for (int32_t i = 0; servers != nullptr && i < servers->count; ++i) {
        printf("%s %s\n", servers->servers[i]->address, servers->servers[i]->port);
    }
    return servers != nullptr ? 0 : 1;
}
