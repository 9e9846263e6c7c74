/* Logs a number of records to a file: log_calls FILE COUNT */
#include <TavlenCommon/logger.h>

#include <stdlib.h>

int main(int argc, char **argv)
{
    const char message[] = "connection from 192.0.2.17:49152 refused: the certificate has expired "
                           "(serial 4711, valid until last midnight), trying next";
    if (argc != 3 || logger_open() != 0) {
        return 1;
    }
    set_log_dest(LOG_DEST_FILE, argv[1], NULL, NULL);
    for (long left = strtol(argv[2], NULL, 10); left > 0; --left) {
        LPRINTF("%s", message);
    }
    logger_close();
    return 0;
}
