#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/com_packet.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <netinet/in.h>

#include <TavlenCommon/scalar_types.h>

#include "faults.h"
#include "support.h"

namespace {

struct Destroy {
    void operator()(clpacket *p) const { clpacket_destroy(p); }
};
using Packet = std::unique_ptr<clpacket, Destroy>;

Packet new_packet()
{
    return Packet(clpacket_create());
}

/// A packet as a receive leaves it.
Packet received(const std::vector<uint8_t> &wire)
{
    Packet p = new_packet();
    EXPECT_EQ(clpacket_alloc_buffer(p.get(), wire.size()), 0);
    memcpy(clpacket_get_buffer(p.get()), wire.data(), wire.size());
    return p;
}

std::vector<uint8_t> wire_of(clpacket *p)
{
    EXPECT_EQ(clpacket_serialize(p), 0);
    const auto *start = static_cast<uint8_t *>(clpacket_get_buffer(p));
    return {start, start + clpacket_get_buffer_size(p)};
}

class BufferPacket : public ReportingTest {};

const std::vector<uint8_t> number_5 = bytes("00 01 01 00 00 00 01 00 01 06 00 00 00 05");

TEST_F(BufferPacket, FreshPacketIsEmptyAndNullIsRefused)
{
    const Packet p = new_packet();
    EXPECT_EQ(clpacket_get_type(p.get()), 0);
    EXPECT_EQ(clpacket_get_error_state(p.get()), 0);
    EXPECT_EQ(clpacket_get_buffer_size(p.get()), 0U);
    EXPECT_EQ(clpacket_set_type(p.get(), 0xffffffff), 0);
    EXPECT_EQ(clpacket_get_type(p.get()), -1);
    EXPECT_EQ(clpacket_get_buffer(p.get()), nullptr);
    EXPECT_EQ(clpacket_alloc_buffer(p.get(), 0), -1);
    EXPECT_EQ(clpacket_serialize(p.get()), -1);
    EXPECT_EQ(clpacket_deserialize(p.get()), -1);
    EXPECT_REPORTS({"clpacket_get_buffer", "ERROR: invalid parameter"},
                   {"clpacket_alloc_buffer", "ERROR: invalid parameters"},
                   {"mtb_calc_serialized_packet_size", "ERROR: param 'structr' is uninitialized."},
                   {"clpacket_serialize", "ERROR: failed to calculate serialized packet size"},
                   {"clpacket_deserialize", "ERROR: binary buffer not found"});
    EXPECT_EQ(clpacket_set_type(nullptr, 1), -1);
    EXPECT_EQ(clpacket_get_type(nullptr), -1);
    EXPECT_EQ(clpacket_get_error_state(nullptr), -1);
    EXPECT_EQ(clpacket_reset_error_state(nullptr), -1);
    EXPECT_EQ(clpacket_get_buffer(nullptr), nullptr);
    EXPECT_EQ(clpacket_get_buffer_size(nullptr), 0U);
    EXPECT_EQ(clpacket_alloc_buffer(nullptr, 1), -1);
    EXPECT_EQ(clpacket_serialize(nullptr), -1);
    EXPECT_EQ(clpacket_deserialize(nullptr), -1);
    EXPECT_EQ(clpacket_set_float(nullptr, 1, 1), -1);
    EXPECT_EQ(clpacket_get_float(nullptr, 1, nullptr), -1);
    EXPECT_EQ(clpacket_get_array_el_complex(nullptr, 1, nullptr, 0), -1);
    clpacket_destroy(nullptr);
    EXPECT_REPORTS({"clpacket_set_type", "ERROR: invalid argument"},
                   {"clpacket_get_type", "ERROR: invalid argument"},
                   {"clpacket_get_error_state", "ERROR: invalid argument"},
                   {"clpacket_reset_error_state", "ERROR: invalid argument"},
                   {"clpacket_get_buffer", "ERROR: invalid parameter"},
                   {"clpacket_get_buffer_size", "ERROR: invalid parameter"},
                   {"clpacket_alloc_buffer", "ERROR: invalid parameters"},
                   {"clpacket_serialize", "ERROR: invalid argument: clpacket"},
                   {"clpacket_deserialize", "ERROR: invalid argument: clpacket"},
                   {"check_clpacket_structr_set", "ERROR: invalid argument: clpacket"},
                   {"check_clpacket_structr_get", "ERROR: invalid argument: clpacket"},
                   {"check_clpacket_structr_get", "ERROR: invalid argument: clpacket"},
                   {"clpacket_destroy", "ERROR: already free"});
}

template <class T>
void expect_scalar(int32_t (*set)(clpacket *, int32_t, T), int32_t (*get)(clpacket *, int32_t, T *))
{
    const Packet p = new_packet();
    T value{};
    EXPECT_EQ(set(p.get(), 1, static_cast<T>(3)), 0);
    EXPECT_EQ(clpacket_serialize(p.get()), 0);
    EXPECT_EQ(set(p.get(), 65537, static_cast<T>(-7)), 0);
    EXPECT_EQ(p->buffer, nullptr) << "a set field leaves no stale bytes";
    const Packet copy = received(wire_of(p.get()));
    EXPECT_EQ(get(copy.get(), 1, &value), 0);
    EXPECT_EQ(value, static_cast<T>(-7));
    EXPECT_NE(copy->buffer, nullptr) << "a read field leaves the bytes";
    EXPECT_EQ(get(copy.get(), 2, &value), MTB_NOT_FOUND);
    EXPECT_EQ(get(copy.get(), 1, &value), -1);
    EXPECT_EQ(set(copy.get(), 1, value), -1);
    EXPECT_EQ(clpacket_get_error_state(copy.get()), MTB_NOT_FOUND);
}

TEST_F(BufferPacket, ScalarsOfEveryType)
{
#define EXPECT_SCALAR(suffix, ctype, code, member)                                                 \
    expect_scalar<ctype>(clpacket_set_##suffix, clpacket_get_##suffix);                            \
    EXPECT_REPORTS({"mtb_get_" #suffix, "ERROR: element with name 2 not found"});
    TAVLEN_SCALAR_TYPES(EXPECT_SCALAR)
#undef EXPECT_SCALAR
}

// Each call meets a decodable packet; what it gives, the error state it leaves, and the reports.
TEST_F(BufferPacket, RefusedCallsLeaveTheirCodeAndNothingElse)
{
    char *text = nullptr;
    void *data = nullptr;
    uint32_t len = 0;
    const std::string check_get = "check_clpacket_structr_get";
    const std::string no_value = "ERROR: invalid argument: val";
    const std::string no_len = "ERROR: invalid argument: len";
    const std::string no_text = "ERROR: invalid arguments: len or val";
    const struct {
        std::function<int32_t(clpacket *)> call;
        int32_t result;
        int32_t state;
        Reports reports;
    } cases[] = {
        {[](clpacket *p) { return clpacket_set_string(p, 1, "x", -1); },
         -1,
         -2,
         {{"clpacket_set_string", no_text}}},
        {[](clpacket *p) { return clpacket_set_string(p, 1, nullptr, 0); },
         -1,
         -2,
         {{"clpacket_set_string", no_text}}},
        {[](clpacket *p) { return clpacket_set_blob(p, 1, "x", 0x80000000); },
         -1,
         -2,
         {{"mtb_add_blob", "ERROR: invalid length specified: -2147483648"}}},
        {[](clpacket *p) { return clpacket_set_array(p, 1, nullptr, 0, 19); },
         -1,
         -2,
         {{"clpacket_set_array", no_value}}},
        {[](clpacket *p) { return clpacket_set_array(p, 1, "x", 1, 28); },
         -1,
         -2,
         {{"mtb_add_array", "ERROR: unknown element type specified 28"}}},
        {[&](clpacket *p) { return clpacket_get_string(p, 1, nullptr, nullptr); },
         -1,
         -2,
         {{check_get, no_value}}},
        {[&](clpacket *p) { return clpacket_get_string(p, 1, &text, nullptr); },
         -1,
         -2,
         {{"clpacket_get_string", no_len}}},
        {[&](clpacket *p) { return clpacket_get_blob(p, 1, &data, nullptr); },
         -1,
         -2,
         {{"clpacket_get_blob", no_len}}},
        {[&](clpacket *p) { return clpacket_get_blob(p, 1, &data, &len); },
         -5,
         -5,
         {{"mtb_get_blob", "ERROR: element with name 1 not found"}}},
        {[&](clpacket *p) { return clpacket_get_array(p, 1, &data, nullptr, 19); },
         -1,
         -2,
         {{"clpacket_get_array", no_len}}},
        {[&](clpacket *p) { return clpacket_get_array(p, 1, &data, &len, 19); },
         -1,
         -5,
         {{"mtb_get_array", "ERROR: element with name 1 not found"}}},
        {[&](clpacket *p) { return clpacket_get_array_len(p, 1, nullptr, 19); },
         -1,
         -2,
         {{check_get, no_value}}},
        {[&](clpacket *p) { return clpacket_get_array_len(p, 1, &len, 19); },
         -5,
         -5,
         {{"mtb_get_array_len", "ERROR: element with name 1 and type 19 not found"}}},
        {[&](clpacket *p) { return clpacket_get_array_el(p, 1, &data, 0xffffffff, 6); },
         -3,
         -3,
         {{"mtb_get_array_element", "ERROR: invalid element position parameter -1"}}},
        {[](clpacket *p) { return clpacket_set_complex(p, 1, nullptr); },
         -1,
         -2,
         {{"check_complex_val", no_value}}},
        {[](clpacket *p) { return clpacket_set_complex(p, 1, p); },
         -1,
         -2,
         {{"check_complex_val", no_value}}},
        {[](clpacket *p) { return clpacket_add_array_el_complex(p, 1, new_packet().get()); },
         -1,
         -2,
         {{"check_complex_val", "ERROR: argument \"val\" is empty."}}},
        {[](clpacket *p) { return clpacket_set_complex(p, 1, received({0}).get()); },
         -1,
         -1,
         {{"get_binary_buffer_element_name", "ERROR: wrong buffer size: 1"},
          {"clpacket_deserialize", "ERROR: failed to deserialize packet"},
          {"check_complex_val", "ERROR: deserialize failed."}}},
        {[](clpacket *p) { return clpacket_get_complex(p, 1, nullptr); },
         -1,
         -2,
         {{check_get, no_value}}},
        {[](clpacket *p) { return clpacket_get_complex(p, 1, p); },
         -1,
         -2,
         {{check_get, no_value}}},
        {[](clpacket *p) { return clpacket_get_complex(p, 1, new_packet().get()); },
         -1,
         -5,
         {{"mtb_get_struct", "ERROR: element with name 1 not found"}}},
        {[](clpacket *p) { return clpacket_get_array_el_complex(p, 1, p, 0); },
         -1,
         -2,
         {{"clpacket_get_array_el_complex", "ERROR: invalid argument: el"}}},
        {[](clpacket *p) { return clpacket_has_string(p, 1); }, 0, 0, {}},
        {[](clpacket *p) { return clpacket_has_int32_unsigned(p, 1); }, 0, 0, {}},
    };
    for (const auto &c : cases) {
        const Packet p = received(number_5);
        EXPECT_EQ(c.call(p.get()), c.result);
        EXPECT_EQ(clpacket_get_error_state(p.get()), c.state);
        EXPECT_EQ(take_reports(), c.reports);
        EXPECT_NE(p->buffer, nullptr) << "a failure keeps the bytes";
        if (c.state != 0) {
            EXPECT_EQ(c.call(p.get()), -1) << "in error every call is refused";
            EXPECT_EQ(clpacket_get_error_state(p.get()), c.state);
            EXPECT_REPORTS();
        }
    }
}

TEST_F(BufferPacket, ReadsOfNothingAndOfWhatDoesNotDecode)
{
    int32_t value = 0;
    const Packet p = new_packet();
    EXPECT_EQ(clpacket_get_int32_signed(p.get(), 1, &value), -1);
    EXPECT_EQ(clpacket_get_error_state(p.get()), MTB_NOT_FOUND);
    EXPECT_EQ(clpacket_set_int32_signed(p.get(), 1, 1), -1);
    EXPECT_EQ(clpacket_serialize(p.get()), -1);
    EXPECT_REPORTS(
        {"check_clpacket_structr_get", "ERROR: tried to get element from empty chain"},
        {"clpacket_serialize", "ERROR: can't serialize packet with nonzero error state"});
    EXPECT_EQ(clpacket_reset_error_state(p.get()), 0);
    EXPECT_EQ(clpacket_set_int32_signed(p.get(), 1, 5), 0);
    EXPECT_EQ(wire_of(p.get()), number_5);

    const Report too_short{"get_binary_buffer_element_name", "ERROR: wrong buffer size: 1"};
    const Report failed{"clpacket_deserialize", "ERROR: failed to deserialize packet"};
    const Packet read = received({0});
    EXPECT_EQ(clpacket_has_string(read.get(), 1), -1);
    EXPECT_EQ(clpacket_get_error_state(read.get()), -1);
    EXPECT_REPORTS(too_short, failed);
    const Packet written = received({0});
    EXPECT_EQ(clpacket_set_int32_signed(written.get(), 1, 1), -1);
    EXPECT_EQ(clpacket_get_error_state(written.get()), -1);
    EXPECT_REPORTS(too_short, failed, {"check_clpacket_structr_set", "ERROR: deserialize failed"});
    const Packet huge = received(number_5);
    huge->buffer_size = 0x80000000;
    EXPECT_EQ(clpacket_deserialize(huge.get()), -1);
    EXPECT_REPORTS(failed);
}

TEST_F(BufferPacket, StringsBlobsAndArrays)
{
    const Packet p = new_packet();
    const int32_t numbers[] = {7, -8, 9};
    EXPECT_EQ(clpacket_set_string(p.get(), 1, "text", 2), 0);
    EXPECT_EQ(clpacket_set_blob(p.get(), 1, nullptr, 0), 0);
    EXPECT_EQ(clpacket_set_array(p.get(), 1, numbers, 3, MTB_TYPE_ARRAY_INT32_SIGNED), 0);
    EXPECT_EQ(clpacket_set_int32_unsigned(p.get(), 1, 1), 0);
    EXPECT_EQ(clpacket_set_type(p.get(), 9), 0);
    const Packet copy = received(wire_of(p.get()));
    char *text = nullptr;
    void *data = &text;
    uint32_t len = 0;
    EXPECT_EQ(clpacket_get_string(copy.get(), 1, &text, &len), 0);
    EXPECT_STREQ(text, "te");
    EXPECT_EQ(clpacket_get_blob(copy.get(), 1, &data, &len), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(clpacket_get_array(copy.get(), 1, &data, &len, MTB_TYPE_ARRAY_INT32_SIGNED), 0);
    EXPECT_EQ(len, 3U);
    EXPECT_EQ(memcmp(data, numbers, sizeof numbers), 0);
    EXPECT_EQ(clpacket_get_array_el(copy.get(), 1, &data, 2, MTB_TYPE_ARRAY_INT32_SIGNED), 0);
    EXPECT_EQ(*static_cast<int32_t *>(data), 9);
    EXPECT_EQ(clpacket_get_array_len(copy.get(), 1, &len, MTB_TYPE_STRING), 0);
    EXPECT_EQ(len, 2U);
    EXPECT_EQ(clpacket_has_string(copy.get(), 1), 1);
    EXPECT_EQ(clpacket_has_int32_unsigned(copy.get(), 1), 1);
}

TEST_F(BufferPacket, NestedStructuresAreLentAndViewed)
{
    const Packet parent = new_packet();
    Packet value = new_packet();
    EXPECT_EQ(clpacket_set_int32_signed(value.get(), 1, 10), 0);
    EXPECT_EQ(clpacket_set_complex(parent.get(), 3, value.get()), 0);
    EXPECT_EQ(clpacket_set_int32_signed(value.get(), 2, 11), 0) << "through the lender";
    EXPECT_EQ(clpacket_set_complex(parent.get(), 4, value.get()), -1);
    EXPECT_EQ(clpacket_get_error_state(parent.get()), MTB_BAD_ARG);
    EXPECT_REPORTS({"check_complex_val", "ERROR: argument \"val\" is borrowed."});
    EXPECT_EQ(clpacket_reset_error_state(parent.get()), 0);
    value = nullptr;
    for (int32_t i = 0; i < 3; ++i) {
        const Packet member = new_packet();
        EXPECT_EQ(clpacket_set_int32_signed(member.get(), 1, i), 0);
        EXPECT_EQ(clpacket_serialize(member.get()), 0) << "is decoded again to be nested";
        EXPECT_EQ(clpacket_add_array_el_complex(parent.get(), 5, member.get()), 0);
    }
    const Packet copy = received(wire_of(parent.get()));
    const Packet view = received(number_5); // what it holds goes
    int32_t number = 0;
    EXPECT_EQ(clpacket_get_complex(copy.get(), 3, view.get()), 0);
    EXPECT_EQ(view->buffer, nullptr);
    EXPECT_EQ(clpacket_get_int32_signed(view.get(), 2, &number), 0);
    EXPECT_EQ(number, 11);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(clpacket_get_array_el_complex(copy.get(), 5, view.get(), i), 0);
        EXPECT_EQ(clpacket_get_int32_signed(view.get(), 1, &number), 0);
        EXPECT_EQ(number, static_cast<int32_t>(i));
    }
    // An array that announces more than it holds gives a view of nothing, which can be built on.
    const Packet cut = received(bytes("00 01 01 00 00 00 01 00 05 1c 00 00 00 01"));
    EXPECT_EQ(clpacket_get_array_el_complex(cut.get(), 5, view.get(), 0), 0);
    EXPECT_EQ(clpacket_set_int32_signed(view.get(), 1, 5), 0);
    EXPECT_EQ(view->structr_borrowed, 0);
    EXPECT_EQ(wire_of(view.get()), number_5);
}

TEST_F(BufferPacket, LackOfMemory)
{
    fail_each_allocation([this](Fault &fault) {
        const Packet p(clpacket_create());
        if (p != nullptr) {
            (void)clpacket_set_string(p.get(), 1, "text", 4);
            (void)clpacket_set_int32_signed(p.get(), 2, 2);
        }
        const bool built = p != nullptr && clpacket_get_error_state(p.get()) == 0;
        const bool whole = built && clpacket_serialize(p.get()) == 0;
        const bool again = whole && clpacket_deserialize(p.get()) == 0;
        const bool struck = fault.struck();
        EXPECT_EQ(again, !struck);
        EXPECT_EQ(take_reports().empty(), !struck);
        if (p != nullptr && !built) {
            EXPECT_EQ(clpacket_get_error_state(p.get()), MTB_NOMEM);
        }
        if (built && !whole) {
            EXPECT_EQ(p->buffer, nullptr);
            EXPECT_EQ(p->buffer_size, 0U);
            EXPECT_EQ(clpacket_serialize(p.get()), 0) << "the fields are still there";
        }
    });
    const Packet p = received(number_5);
    const Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(clpacket_alloc_buffer(p.get(), 10), -1);
    EXPECT_EQ(p->buffer, nullptr);
    EXPECT_EQ(p->buffer_size, 0U);
    EXPECT_REPORTS({"clpacket_alloc_buffer", "ERROR: low memory"});
}

// ------------------------------------------------------------------------------------- transport

struct Close {
    void operator()(sock *s) const { sock_close(s); }
};
using Socket = std::unique_ptr<sock, Close>;

class PacketTransport : public ReportingTest {
protected:
    void SetUp() override
    {
        ReportingTest::SetUp();
        listener_ = Socket(sock_listen_general("127.0.0.1", "0", SOCK_DGRAM));
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ASSERT_EQ(
            sock_getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
        port_ = std::to_string(ntohs(address.sin_port));
        sender_ = Socket(sock_connect_general("127.0.0.1", port_.c_str(), SOCK_DGRAM));
        ASSERT_NE(sender_, nullptr);
    }

    std::string port_;
    Socket listener_;
    Socket sender_;
};

TEST_F(PacketTransport, TravelsAsTypeAndBytes)
{
    const Packet p = new_packet();
    EXPECT_EQ(clpacket_set_type(p.get(), 29), 0);
    EXPECT_EQ(clpacket_set_int32_signed(p.get(), 1, 5), 0);
    EXPECT_EQ(clpacket_sendto(p.get(), sender_.get(), nullptr, 0), 0);
    uint8_t datagram[64];
    const ssize_t size = recv(listener_->fd, datagram, sizeof datagram, 0);
    std::vector<uint8_t> expected = bytes("00 00 00 1d");
    expected.insert(expected.end(), number_5.begin(), number_5.end());
    EXPECT_EQ(std::vector<uint8_t>(datagram, datagram + size), expected);

    // Received into a packet that holds other fields, read, and sent on as it came.
    const Packet relay = new_packet();
    EXPECT_EQ(clpacket_set_string(relay.get(), 9, "old", 3), 0);
    sockaddr_storage from{};
    socklen_t from_length = sizeof from;
    for (int hop = 0; hop < 2; ++hop) {
        EXPECT_EQ(clpacket_sendto(hop == 0 ? p.get() : relay.get(), sender_.get(), nullptr, 0), 0);
        EXPECT_EQ(clpacket_recvfrom(relay.get(), listener_.get(),
                                    reinterpret_cast<sockaddr *>(&from), &from_length),
                  0);
        EXPECT_EQ(clpacket_get_type(relay.get()), 29);
        EXPECT_EQ(clpacket_has_string(relay.get(), 9), 0);
        EXPECT_EQ(clpacket_get_buffer_size(relay.get()), number_5.size());
    }
    EXPECT_EQ(from.ss_family, AF_INET);
}

TEST_F(PacketTransport, RefusedAndFailedTransfers)
{
    const Packet p = new_packet();
    const Packet bad = new_packet();
    bad->error_state = -5;
    EXPECT_EQ(clpacket_recvfrom(nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(clpacket_recvfrom(p.get(), nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(clpacket_sendto(nullptr, nullptr, nullptr, 0), -1);
    EXPECT_EQ(clpacket_sendto(bad.get(), nullptr, nullptr, 0), -1);
    EXPECT_EQ(clpacket_sendto(p.get(), nullptr, nullptr, 0), -1);
    EXPECT_EQ(clpacket_sendto(p.get(), sender_.get(), nullptr, 0), -1);
    EXPECT_REPORTS({"clpacket_recv_prepare", "ERROR: invalid argument"},
                   {"clpacket_recv_prepare", "ERROR: invalid argument: sock"},
                   {"clpacket_send_prepare", "ERROR: invalid argument: clpacket"},
                   {"clpacket_send_prepare", "ERROR: can't send a packet with nonzero error state"},
                   {"clpacket_send_prepare", "ERROR: invalid argument: sock"},
                   {"mtb_calc_serialized_packet_size", "ERROR: param 'structr' is uninitialized."},
                   {"clpacket_serialize", "ERROR: failed to calculate serialized packet size"});

    const Packet large = received(std::vector<uint8_t>(65532));
    EXPECT_EQ(clpacket_sendto(large.get(), sender_.get(), nullptr, 0), -1);
    EXPECT_REPORTS({"sock_sendto", "ERROR: data size too large to fit in datagram (65536)"});
    large->buffer_size = 65531;
    EXPECT_EQ(clpacket_sendto(large.get(), sender_.get(), nullptr, 0), -1);
    EXPECT_EQ(sock_socket_get_error(sender_.get()), EMSGSIZE);
    EXPECT_REPORTS();

    const Packet full = received(number_5);
    for (const char *datagram : {"", "1", "1234"}) {
        EXPECT_EQ(send(sender_->fd, datagram, strlen(datagram), 0),
                  static_cast<ssize_t>(strlen(datagram)));
        EXPECT_EQ(clpacket_recvfrom(full.get(), listener_.get(), nullptr, nullptr), -1);
        EXPECT_EQ(full->buffer, nullptr);
        EXPECT_EQ(full->buffer_size, 0U);
        EXPECT_REPORTS({"clpacket_recvfrom", "ERROR: sock_recvfrom failed."});
    }
}

TEST_F(PacketTransport, LackOfMemoryWhileReceivingAndSending)
{
    fail_each_allocation([this](Fault &fault) {
        const Packet p(clpacket_log_event("n", "line", 4));
        const bool sent = p != nullptr && clpacket_sendto(p.get(), sender_.get(), nullptr, 0) == 0;
        const bool struck = fault.struck();
        EXPECT_EQ(sent, !struck);
        EXPECT_EQ(take_reports().empty(), !struck);
    });
    for (int n = 1; n <= 2; ++n) {
        EXPECT_EQ(send(sender_->fd, "12345", 5, 0), 5);
    }
    const Packet p = new_packet();
    for (const int n : {1, 2}) {
        Fault fault(allocation, n, Failing::once);
        EXPECT_EQ(clpacket_recvfrom(p.get(), listener_.get(), nullptr, nullptr), -1);
        EXPECT_TRUE(fault.struck());
        EXPECT_REPORTS({"sock_recvfrom", "ERROR: low memory"},
                       {"clpacket_recvfrom", "ERROR: sock_recvfrom failed."});
    }
}

// -------------------------------------------------------------------------------------- builders

TEST_F(BufferPacket, LogEvent)
{
    const Packet p(clpacket_log_event("logger", "x", 1));
    EXPECT_EQ(clpacket_get_type(p.get()), 29);
    EXPECT_EQ(wire_of(p.get()), bytes("00 01 01 00 00 00 03 00 01 06 00 00 00 01 00 02 0c 00 00 00"
                                      " 06 6c 6f 67 67 65 72 00 03 0c 00 00 00 01 78"));
    EXPECT_EQ(clpacket_log_event(nullptr, "x", 1), nullptr);
    EXPECT_EQ(clpacket_log_event("n", "x", -1), nullptr);
    EXPECT_REPORTS({"clpacket_set_string", "ERROR: invalid arguments: len or val"},
                   {"clpacket_set_string", "ERROR: invalid arguments: len or val"});
}

TEST_F(BufferPacket, SendEvent)
{
    const Packet p(clpacket_log_event_send_event("ab", 2, 0xffffffff));
    EXPECT_EQ(clpacket_get_type(p.get()), 48);
    EXPECT_EQ(wire_of(p.get()),
              bytes("00 01 01 00 00 00 02 00 01 10 00 00 00 02 61 62 00 00 06 ff ff ff ff"));
    EXPECT_EQ(clpacket_log_event_send_event(nullptr, 0, 0), nullptr);
    EXPECT_EQ(clpacket_log_event_send_event("x", 0, 0), nullptr);
    EXPECT_EQ(clpacket_log_event_send_event("x", 0x80000000, 0), nullptr);
    const Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(clpacket_log_event_send_event("x", 1, 0), nullptr);
    EXPECT_REPORTS({"clpacket_log_event_send_event", "ERROR: buff is NULL"},
                   {"clpacket_log_event_send_event", "ERROR: len is too small"},
                   {"mtb_add_blob", "ERROR: invalid length specified: -2147483648"},
                   {"clpacket_create", "ERROR: low memory"},
                   {"clpacket_log_event_send_event", "ERROR: could not create packet"});
}

} // namespace
