// The collector's receive side and settings inside this process, where memory can be made to fail.
#include <gmock/gmock.h>
#include <TavlenCommon/com_packet.h>
#include <TavlenLogger/config.h>
#include <TavlenLogger/main.h>

#include "faults.h"
#include "network.h"

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

TEST_F(Collector, SettingsWithoutMemoryAreNotPublished)
{
    fail_each_allocation([](Fault &fault) {
        const int32_t result = config_init();
        const bool struck = fault.struck();
        EXPECT_EQ(config_e != nullptr, result == 0);
        EXPECT_TRUE(struck || (result == 0 && config_init() == -1)) << "set once";
        EXPECT_TRUE(struck || strcmp(config_get_settings()->ListenAddr, "0.0.0.0") == 0);
        free(config_e);
        config_e = nullptr;
        logger_settings *all = config_get_settings();
        for (char *text :
             {all->ListenAddr, all->ListenPort, all->LogFileName, all->RemoteLoggerAddr, all->RemoteLoggerPort}) {
            free(text);
        }
        *all = logger_settings{};
    });
    config_set(nullptr);
    EXPECT_REPORTED(config_set_cmd_arg("-p", "1"), -1, "config_set_cmd_arg: ERROR: config_e is NULL");
}

} // namespace
