// The collector's receive side and settings inside this process, where memory can be made to fail.
#include <TavlenLogger/config.h>
#include <TavlenLogger/main.h>

#include <cstdlib>
#include <cstring>
#include <netinet/in.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>

#include "faults.h"
#include "support.h"

namespace {

class Collector : public ReportingTest {
protected:
    void SetUp() override
    {
        ReportingTest::SetUp();
        listener_ = sock_listen_general("127.0.0.1", "0", SOCK_DGRAM);
        sockaddr_in address{};
        socklen_t length = sizeof address;
        sock_getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
        const std::string port = std::to_string(ntohs(address.sin_port));
        sender_ = sock_connect_general("127.0.0.1", port.c_str(), SOCK_DGRAM);
        const timeval no_wait{0, 1000};
        sock_setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &no_wait, sizeof no_wait);
    }
    void TearDown() override
    {
        sock_close(listener_);
        sock_close(sender_);
        ReportingTest::TearDown();
    }
    void send_event(const char *text)
    {
        clpacket *p = clpacket_log_event("n", text, static_cast<int32_t>(strlen(text)));
        EXPECT_EQ(clpacket_sendto(p, sender_, nullptr, 0), 0);
        clpacket_destroy(p);
    }

    sock *listener_ = nullptr;
    sock *sender_ = nullptr;
};

// The loop ends when no packet can be made; until then every lack of memory costs one record.
TEST_F(Collector, LoopGoesOnUntilNoPacketCanBeMade)
{
    for (const bool good : {true, false}) {
        for (int n = 1; n < 40; ++n) {
            good ? send_event("text\n")
                 : (void)send(sender_->fd, "\0\0\0\x1d\0\1\1\0\0\0\1", 10, 0);
            send_event("second");
            Fault fault(allocation, n, Failing::from_then_on);
            EXPECT_EQ(msg_recv_loop(listener_), -1);
            EXPECT_TRUE(fault.struck());
            char rest[256];
            while (recv(listener_->fd, rest, sizeof rest, MSG_DONTWAIT) > 0) {
            }
            EXPECT_EQ(take_reports().back().function, "msg_recv_loop");
        }
    }
    send_event("first");
    send_event("second");
    Fault fault(allocation, 12, Failing::once); // inside the first record's decoding
    const timeval block{0, 50000};
    sock_setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &block, sizeof block);
    clpacket *p = clpacket_create();
    for (int record = 0; record < 2; ++record) {
        EXPECT_EQ(clpacket_recvfrom(p, listener_, nullptr, nullptr), 0);
        EXPECT_EQ(msg_extract(p), fault.struck() ? -1 : 0);
        clpacket_reset_error_state(p);
    }
    clpacket_destroy(p);
    take_reports();
}

TEST_F(Collector, SettingsWithoutMemoryAreNotPublished)
{
    fail_each_allocation([](Fault &fault) {
        const int32_t result = config_init();
        const bool struck = fault.struck();
        logger_settings *settings = config_get_settings();
        EXPECT_EQ(config_e != nullptr, result == 0);
        EXPECT_TRUE(struck || result == 0);
        EXPECT_TRUE(struck || config_init() == -1) << "set once";
        free(config_e);
        config_e = nullptr;
        for (char *text : {settings->ListenAddr, settings->ListenPort, settings->LogFileName,
                           settings->RemoteLoggerAddr, settings->RemoteLoggerPort}) {
            free(text);
        }
        *settings = logger_settings{};
    });
    EXPECT_EQ(config_set_cmd_arg("-p", "1"), -1);
    config_set(nullptr);
    EXPECT_REPORTS({"config_set_cmd_arg", "ERROR: config_e is NULL"});
}

} // namespace
