/* Sends one line to a collector: first_sender [ADDRESS [PORT]]. */
#include <TavlenCommon/logger.h>

int main(int argc, char **argv)
{
    const char *address = argc > 1 ? argv[1] : "127.0.0.1";
    const char *port = argc > 2 ? argv[2] : "27759";

    if (logger_open() != 0 || logger_set_name("first_sender") != 0) {
        return 1;
    }
    set_log_dest(LOG_DEST_REMOTE, 0, address, port);
    LPRINTF("hello from C, %s:%s", address, port);
    logger_close();
    return 0;
}
