// The collector's receive side and settings inside this process, where memory can be made to fail.
#include <gmock/gmock.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenLogger/config.h>
#include <TavlenLogger/main.h>

#include "faults.h"
#include "network.h"

int collector_main(int argc, char **argv);

namespace {

using Collector = DatagramTest;

TEST_F(Collector, LoopGoesOnUntilNoPacketCanBeMade)
{
    const timeval short_wait{0, 1000};
    sock_setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &short_wait, sizeof short_wait);
    const Packet event = clpacket_log_event("n", "text\n", 5);
    Reports reports;
    for (int n = 1; n < 40; ++n) {
        char rest[256];
        while (recv(listener->fd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
        }
        EXPECT_EQ(send(sender->fd, "\0\0\0\x1d\0\1\1\0\0\0\1", 11, 0), 11);
        EXPECT_EQ(clpacket_sendto(event, sender, nullptr, 0), 0);
        Fault fault(allocation, n, Failing::from_then_on);
        EXPECT_EQ(msg_recv_loop(listener), -1);
        EXPECT_TRUE(fault.struck());
        reports = take_reports();
        EXPECT_TRUE(reports.back().starts_with("msg_recv_loop: ")) << reports.back();
    }
    EXPECT_THAT(reports, testing::Contains("msg_recv_loop: wrong message ignored\nn: text"));
}

// Any other bytes, on both roads, are the inputs of fuzz/datagram.cpp.
TEST_F(Collector, ReadsInPlaceAndThroughFieldsAlike)
{
    for (const std::string line : {"line\n", "line"}) {
        const Packet built = clpacket_log_event("na", line.data(), static_cast<int32_t>(line.size()));
        const Packet plain = received(wire_of(built));
        EXPECT_EQ(clpacket_set_type(plain, CLPACKET_LOG_EVENT), 0);
        plain->error_state = MTB_BAD_DATA;
        EXPECT_REPORTED(msg_extract(plain), -1, "msg_extract: packet decode error");
        EXPECT_EQ(clpacket_reset_error_state(plain), 0);
        EXPECT_REPORTED(msg_extract(plain), 0, "na: line");
        EXPECT_REPORTED(msg_extract(built), 0, "na: line");
        EXPECT_EQ(clpacket_set_int32_signed(built, LOG_EVENT_FIELD_VERSION, 2), 0);
        EXPECT_REPORTED(msg_extract(built), -1, "msg_extract: wrong version (2 instead of 1)");
    }
}

/// As before the start.
void forget_settings()
{
    free(std::exchange(config_e, nullptr));
    const logger_settings all = std::exchange(*config_get_settings(), {});
    for (char *text : {all.ListenAddr, all.ListenPort, all.LogFileName, all.RemoteLoggerAddr, all.RemoteLoggerPort}) {
        free(text);
    }
}

/// The exit status, when it ends.
int32_t start_collector(std::vector<const char *> arguments)
{
    logger_close();
    const int32_t status = collector_main(static_cast<int>(arguments.size()), const_cast<char **>(arguments.data()));
    forget_settings();
    return status & 255;
}

// It ends with a status, and listens only with all that it was told.
TEST_F(Collector, StartsWholeOrEnds)
{
    Capture output(STDOUT_FILENO);
    const TemporaryFile config("ListenPort=0\nDefaultLogDest=3\n");
    fail_each_allocation([&](Fault &fault) {
        const int32_t status = start_collector({"c", "-a", "127.0.0.1", "-p", "none", "-c", config.path()});
        const bool struck = fault.struck();
        EXPECT_TRUE(status == 4 || (status == 255 && struck)) << status;
    });
    bool started = false;
    for (int n = 1; !started && n < 100; ++n) { // with one more it would wait for a datagram
        Fault fault(allocation, n, Failing::from_then_on);
        const int32_t status = start_collector({"c", "-a", "127.0.0.1", "-c", config.path()});
        EXPECT_TRUE((status == 255 || status == 4) && fault.struck());
        const std::string said = testing::PrintToString(take_reports());
        started = said.find("main: Logger started") != std::string::npos;
        EXPECT_TRUE(!started || said.find("msg_recv_loop: ") != std::string::npos) << said;
    }
    EXPECT_TRUE(started) << "with that much memory";
    EXPECT_EQ(fake_platform.receive_buffer, 8 << 20) << "for bursts";
    EXPECT_EQ(start_collector({"c", "-h", "c"}), 255);
    logger_open();
    char *name[] = {nullptr};
    EXPECT_EQ(collector_main(1, name) & 255, 255) << "the log is open already";
    forget_settings();
    take_reports();
}

TEST_F(Collector, SettingsAreMadeOnce)
{
    EXPECT_TRUE(config_init() == 0 && config_init() == -1);
    const logger_settings *all = config_get_settings();
    EXPECT_EQ(std::string(all->ListenAddr) + " " + all->RemoteLoggerAddr + " " + all->RemoteLoggerPort,
              "0.0.0.0 dont_use_localhost 27759");
    EXPECT_EQ(config_set_cmd_arg(nullptr, "1"), -1);
    forget_settings();
    config_set(nullptr);
    EXPECT_REPORTED(config_set_cmd_arg("-p", "1"), -1, "config_set_cmd_arg: ERROR: config_e is NULL");
}

} // namespace
