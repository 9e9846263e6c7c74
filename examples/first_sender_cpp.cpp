// Sends one line to a collector and writes it to standard output too: first_sender_cpp [ADDRESS
// [PORT]].
#include <string>

#include <TavlenCommon/logger.h>

int main(int argc, char **argv)
{
    const std::string address = argc > 1 ? argv[1] : "127.0.0.1";
    const std::string port = argc > 2 ? argv[2] : "27759";

    if (logger_open() != 0 || logger_set_name("first_sender_cpp") != 0) {
        return 1;
    }
    set_log_dest(LOG_DEST_STDOUT | LOG_DEST_REMOTE, nullptr, address.c_str(), port.c_str());
    LPRINTF("hello from C++, %s:%s", address.c_str(), port.c_str());
    logger_close();
    return 0;
}
