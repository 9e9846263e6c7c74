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

// A packet that was decoded before is read through its fields.
TEST_F(Collector, ReadsInPlaceAsItWouldDecode)
{
    const auto compare = [this](const std::vector<uint8_t> &wire) {
        const Packet plain = received(wire), decoded = received(wire);
        EXPECT_EACH(0, clpacket_set_type(plain, CLPACKET_LOG_EVENT), clpacket_set_type(decoded, CLPACKET_LOG_EVENT));
        const bool is_whole = clpacket_deserialize(decoded) == 0;
        take_reports();
        const int32_t result = msg_extract(plain);
        const Reports reports = take_reports();
        EXPECT_EQ(msg_extract(decoded), result);
        const Reports expected = take_reports();
        EXPECT_TRUE(!is_whole || reports == expected) << testing::PrintToString(wire);
        return result == 0;
    };
    size_t accepted = 0;
    for (const std::string text : {"line\n\n", "line", "\n", ""}) {
        const std::vector<uint8_t> wire =
            wire_of(Packet(clpacket_log_event("na", text.data(), static_cast<int32_t>(text.size()))));
        EXPECT_TRUE(compare(wire));
        for (size_t i = 0; i < wire.size(); ++i) {
            compare({wire.begin(), wire.begin() + static_cast<ptrdiff_t>(i) + 1});
            for (const uint8_t value : bytes("00 01 02 03 0e 7f ff")) {
                std::vector<uint8_t> changed = wire;
                changed[i] = value;
                accepted += compare(changed);
            }
        }
    }
    EXPECT_GT(accepted, 200U);
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
    EXPECT_EQ(start_collector({"c", "-h", "c"}), 255);
    logger_open();
    take_reports();
}

TEST_F(Collector, SettingsWithoutMemoryAreNotPublished)
{
    fail_each_allocation([](Fault &fault) {
        const int32_t result = config_init();
        const bool struck = fault.struck();
        EXPECT_EQ(config_e != nullptr, result == 0);
        EXPECT_TRUE(struck || (result == 0 && config_init() == -1)) << "set once";
        EXPECT_TRUE(struck || strcmp(config_get_settings()->ListenAddr, "0.0.0.0") == 0);
        forget_settings();
    });
    config_set(nullptr);
    EXPECT_REPORTED(config_set_cmd_arg("-p", "1"), -1, "config_set_cmd_arg: ERROR: config_e is NULL");
}

} // namespace
