/* Logs from a loop that may write two lines per period. */
#include <unistd.h>

#include <TavlenCommon/logger.h>

static void attempt(int number)
{
    LPRINTF("attempt %d failed", number);
}

int main(void)
{
    if (logger_open() != 0) {
        return 1;
    }
    /* Each call site: 2 records in its first second and the one behind. */
    logger_set_config(2, 1);
    for (int i = 0; i < 10; ++i) {
        attempt(i);
    }
    sleep(2);
    attempt(10);
    logger_close();
    return 0;
}
