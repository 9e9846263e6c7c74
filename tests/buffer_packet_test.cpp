#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/scalar_types.h>

#include "faults.h"
#include "network.h"

namespace {

using BufferPacket = DatagramTest;

const std::vector<uint8_t> number_5 = bytes("00 01 01 00 00 00 01 00 01 06 00 00 00 05");
const std::string invalid = ": ERROR: invalid argument";
const std::string no_packet = ": ERROR: invalid argument: clpacket";
const std::string no_value = invalid + ": val";
const std::string too_short = "get_binary_buffer_element_name: ERROR: wrong buffer size: 1";
const std::string undecoded = "clpacket_deserialize: ERROR: failed to deserialize packet";
const std::string parameter = ": ERROR: invalid parameter";
const std::string no_text = "clpacket_set_string: ERROR: invalid arguments: len or val";
const std::string bad_blob = "mtb_add_blob: ERROR: invalid length specified: -2147483648";

// A call on p, which can be decoded: its result, the state it leaves, its report; then p refuses it in silence.
#define EXPECT_REFUSED(call, result, state, report)                                                                    \
    do {                                                                                                               \
        const Packet p = received(number_5);                                                                           \
        EXPECT_EQ(call, result);                                                                                       \
        EXPECT_REPORTED(call, -1, report);                                                                             \
        EXPECT_EQ(p->error_state, state) << #call;                                                                     \
        EXPECT_NE(p->buffer, nullptr) << "a failure keeps the bytes";                                                  \
    } while (0)

TEST_F(BufferPacket, NullAndEmptyPacketsHaveNothingToGive)
{
    EXPECT_EACH(-1, clpacket_set_type(nullptr, 1), clpacket_get_type(nullptr), clpacket_get_error_state(nullptr),
                clpacket_reset_error_state(nullptr), clpacket_alloc_buffer(nullptr, 1), clpacket_serialize(nullptr),
                clpacket_deserialize(nullptr), clpacket_set_float(nullptr, 1, 1),
                clpacket_get_array_el_complex(nullptr, 1, nullptr, 0), clpacket_sendto(nullptr, nullptr, nullptr, 0),
                clpacket_recvfrom(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ((clpacket_destroy(nullptr), clpacket_get_buffer_size(nullptr)), 0U);
    EXPECT_REPORTS("clpacket_set_type" + invalid, "clpacket_get_type" + invalid, "clpacket_get_error_state" + invalid,
                   "clpacket_reset_error_state" + invalid, "clpacket_alloc_buffer" + parameter + "s",
                   "clpacket_serialize" + no_packet, "clpacket_deserialize" + no_packet,
                   "check_clpacket_structr_set" + no_packet, "check_clpacket_structr_get" + no_packet,
                   "clpacket_send_prepare" + no_packet, "clpacket_recv_prepare" + invalid,
                   "clpacket_destroy: ERROR: already free", "clpacket_get_buffer_size" + parameter);
    EXPECT_REFUSED(clpacket_get_float(p, 1, nullptr), -1, -2, "check_clpacket_structr_get" + no_value);
    const Packet p = clpacket_create();
    EXPECT_EACH(0, clpacket_get_type(p), clpacket_set_type(p, 0xffffffff));
    EXPECT_EACH(-1, clpacket_get_type(p), clpacket_alloc_buffer(p, 0), clpacket_deserialize(p),
                clpacket_sendto(p, sender, nullptr, 0), clpacket_has_string(p, 1), clpacket_serialize(p),
                clpacket_sendto(p, nullptr, nullptr, 0));
    EXPECT_EQ(clpacket_get_error_state(p), MTB_NOT_FOUND);
    EXPECT_EQ(clpacket_get_buffer(p), nullptr);
    EXPECT_EACH(0, clpacket_reset_error_state(p), clpacket_set_int32_signed(p, 1, 5));
    EXPECT_EACH(number_5, wire_of(p), wire_of(p)); // anew, and the old bytes go
    EXPECT_EACH(-1, clpacket_sendto(p, nullptr, nullptr, 0), clpacket_recvfrom(p, nullptr, nullptr, nullptr));
    EXPECT_NE(p->buffer, nullptr);
    EXPECT_REPORTS("clpacket_alloc_buffer" + parameter + "s", "clpacket_deserialize: ERROR: binary buffer not found",
                   "mtb_calc_serialized_packet_size: ERROR: param 'structr' is uninitialized.",
                   "clpacket_serialize: ERROR: failed to calculate serialized packet size",
                   "check_clpacket_structr_get: ERROR: tried to get element from empty chain",
                   "clpacket_serialize: ERROR: can't serialize packet with nonzero error state",
                   "clpacket_send_prepare: ERROR: can't send a packet with nonzero error state",
                   "clpacket_get_buffer" + parameter, "clpacket_send_prepare" + invalid + ": sock",
                   "clpacket_recv_prepare" + invalid + ": sock");
}

TEST_F(BufferPacket, RefusedCallsLeaveTheirCodeAndNothingElse)
{
    char *text = nullptr;
    void *data = nullptr;
    uint32_t len = 0;
    const Packet empty = clpacket_create();
    const std::string no_len = invalid + ": len";
    const std::string missing = ": ERROR: element with name 1 not found";
    const std::string no_item = "mtb_get_array_element: ERROR: invalid element position parameter -1";
    EXPECT_REFUSED(clpacket_set_string(p, 1, "x", -1), -1, -2, no_text);
    EXPECT_REFUSED(clpacket_set_string(p, 1, nullptr, 0), -1, -2, no_text);
    EXPECT_REFUSED(clpacket_set_blob(p, 1, "x", 1U << 31), -1, -2, bad_blob);
    EXPECT_REFUSED(clpacket_set_array(p, 1, nullptr, 0, 19), -1, -2, "clpacket_set_array" + no_value);
    EXPECT_REFUSED(clpacket_get_string(p, 1, &text, nullptr), -1, -2, "clpacket_get_string" + no_len);
    EXPECT_REFUSED(clpacket_get_blob(p, 1, &data, nullptr), -1, -2, "clpacket_get_blob" + no_len);
    EXPECT_REFUSED(clpacket_get_array(p, 1, &data, nullptr, 19), -1, -2, "clpacket_get_array" + no_len);
    EXPECT_REFUSED(clpacket_get_array(p, 1, &data, &len, 19), -1, -5, "mtb_get_array" + missing);
    EXPECT_REFUSED(clpacket_get_array_len(p, 1, nullptr, 19), -1, -2, "check_clpacket_structr_get" + no_value);
    EXPECT_REFUSED(clpacket_get_blob(p, 1, &data, &len), -5, -5, "mtb_get_blob" + missing);
    EXPECT_REFUSED(clpacket_get_array_el(p, 1, &data, 0xffffffff, 6), -3, -3, no_item);
    EXPECT_REFUSED(clpacket_set_complex(p, 1, p), -1, -2, "check_complex_val" + no_value);
    EXPECT_REFUSED(clpacket_set_complex(p, 1, empty), -1, -2, "check_complex_val: ERROR: argument \"val\" is empty.");
    EXPECT_REFUSED(clpacket_get_complex(p, 1, p), -1, -2, "check_clpacket_structr_get" + no_value);
    EXPECT_REFUSED(clpacket_get_complex(p, 1, empty), -1, -5, "mtb_get_struct" + missing);
    EXPECT_REFUSED(clpacket_get_array_el_complex(p, 1, p, 0), -1, -2,
                   "clpacket_get_array_el_complex" + invalid + ": el");
}

TEST_F(BufferPacket, BytesThatDoNotDecode)
{
    const Packet p = received({0});
    const Packet parent = received(number_5);
    EXPECT_EACH(-1, clpacket_set_complex(parent, 1, p), parent->error_state);
    EXPECT_EACH(-1, clpacket_set_enum(received({0}), 1, 1));
    parent->buffer_size = 0x80000000;
    EXPECT_EQ(clpacket_deserialize(parent), -1);
    EXPECT_REPORTS(too_short, undecoded, "check_complex_val: ERROR: deserialize failed.", too_short, undecoded,
                   "check_clpacket_structr_set: ERROR: deserialize failed", undecoded);
    // It decodes and has a size, but a number cannot be encoded as a member of an array of structures.
    const Packet other = received(bytes("00 01 01 00 00 00 01 00 06 1c 00 00 00 01 00 06 08 41 41 41 41 41 41 41 41"));
    EXPECT_EQ(clpacket_deserialize(other), 0);
    EXPECT_EQ(clpacket_serialize(other), -1);
    EXPECT_EQ(take_reports().back(), "clpacket_serialize: ERROR: failed to serialize packet");
    EXPECT_EQ(clpacket_get_buffer(nullptr), nullptr);
    EXPECT_REPORTS("clpacket_get_buffer" + parameter);
}

TEST_F(BufferPacket, FieldsOfEveryType)
{
    const Packet p = received(number_5);
    const int32_t numbers[] = {7, -8, 9};
    EXPECT_EACH(0, clpacket_set_string(p, 1, "text", 2), clpacket_set_blob(p, 1, nullptr, 0),
                clpacket_set_array(p, 1, numbers, 3, 19));
    EXPECT_EQ(p->buffer, nullptr) << "a set field leaves no stale bytes";
#define SET_TWICE(suffix, ctype, code, member)                                                                         \
    EXPECT_EACH(0, clpacket_set_##suffix(p, 1, 3), clpacket_set_##suffix(p, 65537, static_cast<ctype>(-7)));
    TAVLEN_SCALAR_TYPES(SET_TWICE)
    const Packet copy = received(wire_of(p));
#define GET(suffix, ctype, code, member)                                                                               \
    ctype suffix##_value{};                                                                                            \
    EXPECT_EQ(clpacket_get_##suffix(copy, 1, &suffix##_value), 0);                                                     \
    EXPECT_EQ(suffix##_value, static_cast<ctype>(-7));
    TAVLEN_SCALAR_TYPES(GET)
    char *text = nullptr;
    void *got[] = {&text, nullptr, nullptr};
    uint32_t len = 0, count = 0;
    EXPECT_EACH(0, clpacket_get_string(copy, 1, &text, &len), clpacket_get_blob(copy, 1, &got[0], &count),
                clpacket_get_array(copy, 1, &got[1], &count, 19), clpacket_get_array_el(copy, 1, &got[2], 2, 19),
                clpacket_get_array_len(copy, 1, &len, 12), clpacket_has_string(copy, 2),
                clpacket_has_int32_unsigned(received(number_5), 1));
    EXPECT_EACH(1, clpacket_has_string(copy, 1), clpacket_has_int32_unsigned(copy, 1));
    EXPECT_STREQ(text, "te");
    EXPECT_TRUE(len == 2 && count == 3 && got[0] == nullptr);
    EXPECT_TRUE(memcmp(got[1], numbers, sizeof numbers) == 0 && *static_cast<int32_t *>(got[2]) == 9);
    EXPECT_NE(copy->buffer, nullptr) << "a read field leaves the bytes";
}

TEST_F(BufferPacket, NestedStructuresAreLentAndViewed)
{
    const Packet parent = clpacket_create();
    for (const int32_t i : {0, 1, 2}) { // serialized, each is decoded again to be nested
        const Packet member = clpacket_create();
        EXPECT_EACH(0, clpacket_set_int32_signed(member, 1, i), clpacket_serialize(member),
                    clpacket_add_array_el_complex(parent, 5, member), clpacket_set_int32_signed(member, 2, 10 * i));
        EXPECT_REPORTED(clpacket_set_complex(parent, 4, member), -1,
                        "check_complex_val: ERROR: argument \"val\" is borrowed.");
        EXPECT_EQ(clpacket_reset_error_state(parent), 0);
    }
    const Packet copy = received(wire_of(parent));
    const Packet view = received(number_5); // what it holds goes
    for (const int32_t i : {0, 1, 2}) {
        int32_t number = -1, tenfold = -1;
        EXPECT_EACH(0, clpacket_get_array_el_complex(copy, 5, view, static_cast<uint32_t>(i)),
                    clpacket_get_int32_signed(view, 1, &number), clpacket_get_int32_signed(view, 2, &tenfold));
        EXPECT_TRUE(number == i && tenfold == 10 * i);
    }
    EXPECT_EQ(view->buffer, nullptr);
    // An array that announces more than it holds gives a view of nothing, which can be built on.
    const Packet cut = received(bytes("00 01 01 00 00 00 01 00 05 1c 00 00 00 01"));
    EXPECT_EACH(0, clpacket_get_array_el_complex(cut, 5, view, 0), clpacket_set_int32_signed(view, 1, 5));
    EXPECT_EQ(wire_of(view), number_5);
    EXPECT_EACH(0, clpacket_set_complex(cut, 3, view), clpacket_get_complex(cut, 3, view));
    EXPECT_EQ(wire_of(view).size(), number_5.size());
}

TEST_F(BufferPacket, EventsTravelAsTypeAndBytes)
{
    const Packet p = clpacket_log_event("logger", "x", 1);
    const Packet relay = clpacket_create(); // its fields give way to what it receives, and sends on as it came
    uint8_t datagram[64];
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    EXPECT_EACH(0, clpacket_set_string(relay, 9, "old", 3), clpacket_sendto(p, sender, nullptr, 0),
                clpacket_recvfrom(relay, listener, reinterpret_cast<sockaddr *>(&from), &length),
                clpacket_sendto(relay, sender, nullptr, 0), clpacket_has_string(relay, 9));
    EXPECT_EQ(from.ss_family, AF_INET);
    const ssize_t size = recv(listener->fd, datagram, sizeof datagram, 0);
    EXPECT_EQ(std::vector<uint8_t>(datagram, datagram + size),
              bytes("00 00 00 1d 00 01 01 00 00 00 03 00 01 06 00 00 00 01 00 02 0c 00 00 00 06 6c 6f 67 67 65 72 "
                    "00 03 0c 00 00 00 01 78"));
    EXPECT_EACH(nullptr, clpacket_log_event(nullptr, "x", 1), clpacket_log_event("n", "x", -1),
                clpacket_log_event_send_event(nullptr, 0, 0), clpacket_log_event_send_event("x", 0, 0),
                clpacket_log_event_send_event("x", 1U << 31, 0));
    EXPECT_REPORTS(no_text, no_text, "clpacket_log_event_send_event: ERROR: buff is NULL",
                   "clpacket_log_event_send_event: ERROR: len is too small", bad_blob);
}

TEST_F(BufferPacket, LackOfMemory)
{
    in_new_thread([this] {
        const Packet p = clpacket_create(), full = received(number_5);
        const Fault fault(allocation, 1, Failing::from_then_on); // even the texts of the reports are lost
        EXPECT_EACH(-1, clpacket_set_float(p, 1, 1), clpacket_alloc_buffer(full, 10), p->error_state);
        EXPECT_EQ(clpacket_log_event_send_event("x", 1, 0), nullptr);
        EXPECT_EQ(full->buffer_size, 0U);
        EXPECT_REPORTS("mtb_struct_new: (null)", "check_clpacket_structr_set: (null)", "clpacket_alloc_buffer: (null)",
                       "clpacket_create: (null)", "clpacket_log_event_send_event: (null)");
    });
}

} // namespace
