#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/socket.h>
#include <TavlenLogger/config.h>
#include <TavlenLogger/log_event.h>
#include <TavlenLogger/main.h>

namespace {

constexpr char revision[] = "164281";
constexpr char revision_suffix[] = "";
constexpr char default_config_path[] = "TavlenLogger.conf";

enum { EXIT_FAILED = 255, EXIT_NO_SOCKET = 4 };

void print_usage(const char *program)
{
    printf("Usage: %s [params]\n"
           "     (revision: %s%s)\n\n"
           "params: \n"
           "   -p <port for incoming log messages>\n"
           "   -a <interface address for incoming log messages>\n"
           "   -c <configuration file>\n"
           "   -l <log file name> (if logging to file is wanted)\n"
           "   -o log to STDOUT\n"
           "   -s log to syslog\n"
           "   -h display this help\n",
           program, revision, revision_suffix);
}

/// A standard descriptor that was closed before the start would go to the log file or to a socket,
/// which would then get what standard output is meant to.
void occupy_standard_descriptors()
{
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd != -1 && fd <= STDERR_FILENO);
    if (fd != -1) {
        (void)close(fd);
    }
}

/// Room for a whole line, which is written at once then: the usual buffer of a terminal, and of a
/// file in small blocks, is shorter.
void widen_standard_output()
{
    static char buffer[8192];
    (void)setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

/// Applies the options in pairs; gives the configuration file's path, null when they are wrong.
const char *apply_command_line(int argc, char **argv)
{
    const char *config_path = default_config_path;
    for (int i = 1; i < argc; i += 2) {
        const char *option = argv[i];
        if (option[0] != '-') {
            return nullptr;
        }
        if (i + 1 == argc) { // no value follows: ignored, whatever it is
            break;
        }
        const char *value = argv[i + 1];
        if (strcmp(option, "-c") == 0) {
            config_path = value;
        } else if (config_set_cmd_arg(option, value) != 0) {
            return nullptr;
        }
    }
    return config_path;
}

/// Room for bursts: the usual buffer holds some 250 short records. Where net.core.rmem_max allows
/// this one, the kernel reserves twice as much, and 20,000 fit; any buffer will do.
void ask_for_receive_buffer(sock *listener)
{
    constexpr int32_t bytes = 8 << 20;
    int32_t usual = 0;
    socklen_t size = sizeof usual;
    if (getsockopt(listener->fd, SOL_SOCKET, SO_RCVBUF, &usual, &size) == 0 && usual < bytes) {
        (void)sock_setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
}

/// The record's time is its sender's, inside the line.
void write_record(const char *name, const char *line)
{
    (void)_lprintf(name, nullptr, 0, nullptr, line, nullptr);
}

} // namespace

int32_t msg_extract(clpacket *p)
{
    if (clpacket_get_type(p) != CLPACKET_LOG_EVENT) {
        LPRINTF("wrong type");
        return -1;
    }
    if (log_event_texts texts{}; read_plain_log_event(p, &texts)) {
        write_record(texts.name, texts.line);
        return 0;
    }
    int32_t version = 0;
    char *name = nullptr;
    char *text = nullptr;
    uint32_t name_len = 0;
    uint32_t text_len = 0;
    (void)clpacket_get_int32_signed(p, LOG_EVENT_FIELD_VERSION, &version);
    (void)clpacket_get_string(p, LOG_EVENT_FIELD_NAME, &name, &name_len);
    (void)clpacket_get_string(p, LOG_EVENT_FIELD_LINE, &text, &text_len);
    if (clpacket_get_error_state(p) != 0) {
        LPRINTF("packet decode error");
        return -1;
    }
    if (text_len > 0 && text[text_len - 1] == '\n') {
        text[text_len - 1] = '\0';
    }
    if (version != LOG_EVENT_VERSION) {
        LPRINTF("wrong version (%i instead of 1)", version);
        return -1;
    }
    write_record(name, text);
    return 0;
}

int32_t msg_recv_loop(sock *s)
{
    for (;;) {
        clpacket *p = clpacket_create();
        if (p == nullptr) {
            LPRINTF("low mem");
            return -1;
        }
        if (clpacket_recvfrom(p, s, nullptr, nullptr) == 0 && msg_extract(p) != 0) {
            LPRINTF("wrong message ignored");
        }
        clpacket_destroy(p);
    }
}

int main(int argc, char **argv)
{
    occupy_standard_descriptors();
    widen_standard_output();
    // Without memory for the settings an option fails, and without one so does the listening
    // socket, or the collector runs on what settings there are.
    (void)config_init();
    if (logger_open() != 0 || logger_set_name("logger") != 0) {
        return EXIT_FAILED;
    }
    const char *config_path = apply_command_line(argc, argv);
    if (config_path == nullptr) {
        print_usage(argv[0]);
        return EXIT_FAILED;
    }
    config_set(config_path);
    const logger_settings *settings = config_get_settings();
    set_log_dest(settings->DefaultLogDest, settings->LogFileName, settings->RemoteLoggerAddr,
                 settings->RemoteLoggerPort);
    sock *listener = sock_listen_general(settings->ListenAddr, settings->ListenPort, SOCK_DGRAM);
    if (listener == nullptr) {
        return EXIT_NO_SOCKET;
    }
    ask_for_receive_buffer(listener);
    LPRINTF("Logger started (revision %s)...", revision);
    const int32_t status = msg_recv_loop(listener);
    sock_close(listener);
    return status;
}
