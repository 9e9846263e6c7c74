#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/mtb_chain.h>

#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>

#include <TavlenCommon/map_to_buffer_internal.h>

#include "extractors.h"
#include "faults.h"
#include "network.h"

namespace {

using namespace std::string_literals;

std::string describe(const mtb_element *e);

std::string describe_chain(const mtb_chain *chain)
{
    std::string text;
    for (const mtb_element *e = chain->first; e != nullptr; e = e->next) {
        text += (text.empty() ? "" : " ") + describe(e);
    }
    return text;
}

/// An element as name:type=value.
std::string describe(const mtb_element *e)
{
    const int64_t number = e->type == MTB_TYPE_INT64_SIGNED ? e->value.i64 : e->value.u32;
    std::string text = std::to_string(e->type == MTB_TYPE_INT32_SIGNED ? e->value.i32 : number);
    if (e->type == MTB_TYPE_STRING || e->type == MTB_TYPE_BLOB) {
        text = quoted(e->value.data, static_cast<uint32_t>(e->len));
    } else if (e->type == MTB_TYPE_ARRAY_INT32_SIGNED) {
        text = "[";
        for (int32_t i = 0; i < e->len; ++i) {
            text += std::to_string(static_cast<int32_t *>(e->value.data)[i]) + ",";
        }
        text.back() = ']';
    } else if (e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ARRAY) {
        text = "{" + describe_chain(e->buffer) + "}";
    }
    return std::to_string(e->name) + ":" + std::to_string(e->type) + "=" + text;
}

std::string describe(const clpacket *p)
{
    return p != nullptr ? std::to_string(p->type) + ": " + describe_chain(p->structr->buffer) : "null";
}

/// Turns the order of all fields round, which means nothing, but not that of an array's members.
void turn_round(mtb_struct *structr)
{
    mtb_chain old = *structr->buffer;
    chain_init(structr->buffer);
    while (mtb_element *e = chain_pop_first(&old)) {
        if (e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ARRAY) {
            turn_round(e);
        }
        (structr->type == MTB_TYPE_STRUCT_ARRAY ? chain_append : chain_prepend)(structr->buffer, e);
    }
}

const char *const blobs[] = {"ab", "", "c"};
const void *const blob_pointers[] = {blobs[0], blobs[1], nullptr};
const uint32_t blob_lens[] = {2, 0, 1}, no_lens[] = {0};
const int32_t numbers[] = {7, -8, 9};
value_pair pairs[] = {{1, 2}, {3, 4}};
entry_record records[] = {{4, 5, 2, 7, pairs}, {-4, -5, 0, -7, nullptr}};
const entry_list entries{2, records};
char rows_text[] = "row";
result_item rows[] = {{1, 3, 2, rows_text, rows_text}, {2, 0, 0, rows_text, nullptr}, {3, 1, 0, rows_text, nullptr}};
char address[] = "10.0.0.1", port[] = "80", empty[] = "";
parallel_server_entry parallel[] = {{address, port, 5}, {empty, port, 6}};
parallel_server_entry *parallel_pointers[] = {&parallel[0], &parallel[1]};
secondary_server_entry secondary{address, port, empty, address, port, 5};
secondary_server_entry *secondary_pointers[] = {&secondary, &secondary};
const parallel_server_list parallel_list{2, parallel_pointers};
const secondary_server_list secondary_list{1, secondary_pointers};
const int32_t *const cell_values[] = {numbers, numbers + 1};
const uint64_t cell_len_row[] = {(uint64_t{1} << 32) + 2, 0};
const uint64_t *const cell_lens[] = {cell_len_row, cell_len_row};
const void *const cell_data_row[] = {"ab", nullptr};
const void *const *const cell_data[] = {cell_data_row, cell_data_row};
const uint64_t text_len_row[] = {1, 0};
const uint64_t *const text_lens[] = {text_len_row, text_len_row};
const char *const text_row[] = {"t", ""};
const char *const *const texts[] = {text_row, text_row};

/// A notice with a detail text, for which the library has no builder.
clpacket *clpacket_create_notice(const char *detail, int32_t len)
{
    clpacket *p = clpacket_create_db_changed(1, blobs, blob_lens);
    clpacket_set_string(p, 7, detail, len);
    return p;
}

struct MessageCase {
    std::function<clpacket *()> build;
    std::string extracted = {}; // by the extractor of the type, if there is one
    std::string fields = {};    // where the document does not show such a message
};

/// A call of a builder, named without its clpacket_, and the rest of its case.
#define CASE(call, ...)                                                                                                \
    MessageCase                                                                                                        \
    {                                                                                                                  \
        [] { return clpacket_##call; }, __VA_ARGS__                                                                    \
    }

std::vector<MessageCase> list(auto... cases)
{
    return {cases...};
}

const auto messages = list(
    CASE(create_type1(9, "b", 1, "st", 2, nullptr, 0, -6)), CASE(create_type2(-2), "0 -2"), CASE(create_type3(2, 3, 4)),
    CASE(create_type6(2)), CASE(create_type7(-1, 1, 2, 3)), CASE(create_type8(-200, 1)),
    CASE(create_type8(200, 1), "", "8: 0:6=200 1:7=1"), CASE(create_type9(2, 3, "b", 1, "s", 1, "c", 1, 7)),
    CASE(create_type11("s", 1)), CASE(create_type15(2, 3)), CASE(create_type16()), CASE(create_type17(5)),
    CASE(create_type18(5)), CASE(create_type18_empty(), "", "18: 1:6=0"), CASE(create_type20()),
    CASE(create_type23(&entries), "0 2 (4 5 2 7 (1 2) (3 4)) (-4 -5 0 -7)"),
    CASE(create_type23_empty(), "4 -1", "23: 1:6=0"), CASE(create_type24(&entries), "0 2 (4 5 2) (-4 -5 0)"),
    CASE(create_type24_empty(), "4 -1", "24: 1:6=0"), CASE(create_type25(pairs, 2), "0 2 (1 2) (3 4)"),
    CASE(create_type25_empty(), "3 -1", "25: 1:6=0"), CASE(create_type26(numbers, 3), "0 3 (7) (-8) (9)"),
    CASE(create_type26_empty(), "4 0", "26: 1:6=0"), CASE(create_type27(2)), CASE(create_type28(2, 3), "0 2 3"),
    CASE(create_type31()), CASE(create_type32()),
    CASE(create_type33(2, blob_pointers, blob_lens, blob_pointers, blob_lens)),
    CASE(create_type34(1, blob_pointers, blob_lens)), CASE(create_type35()), CASE(create_type36(2, 3, 4), "0 2 3 4"),
    CASE(create_type36_empty(), "3 9 9 9", "36: 1:6=1"),
    CASE(create_type37(2, 3, numbers, blob_pointers, blob_lens), "0 2 3 (7 'ab\0') (-8 '\0') (9 '\0')"s),
    CASE(create_type38(2, 1, numbers, blob_pointers, blob_lens), "0 2 1 (7 'ab\0')"s), CASE(create_type39(2), "0 2"),
    CASE(create_type40(2), "0 2"), CASE(create_type41(2)), CASE(create_type42(2)), CASE(create_type64(2)),
    CASE(create_type50()), CASE(create_type53(5)), CASE(create_type54(5)), CASE(create_type55(numbers, 2)),
    CASE(create_type65(-5000000000)), CASE(create_type71()),
    CASE(create_item(8, "s", 1, "b", 1), "", "0: 8:6=8 9:12='s' 10:16='b'"), CASE(log_event("me", "x", 1)),
    CASE(log_event_send_event("b", 1, 0xffffffff)),
    CASE(create_result(100, 3, rows, -1, -1, 0, nullptr, 0), "0 100 0 null 3 (1 'row' 'ro') (2 '' null) (3 'r' null)"),
    CASE(create_result(100, 3, rows, 2, 3, 0, nullptr, 0), "0 100 0 null 2 (2 '' null) (3 'r' null)",
         "5: 1:6=1 2:6=100 3:6=0 6:28={6:14={7:6=2 8:12='' 9:16=null} 6:14={7:6=3 8:12='r' 9:16=null}} 5:6=2"),
    CASE(create_result(200, 3, rows, -1, -1, 0, nullptr, 0), "0 200 0 null 0", "5: 1:6=1 2:6=200 3:6=0 5:6=0"),
    CASE(create_result(100, -3, rows, -1, -1, 0, nullptr, 0), "0 100 0 null 0", "5: 1:6=1 2:6=100 3:6=0 5:6=0"),
    CASE(create_result(99, 0, nullptr, 0, 0, 0, nullptr, 0), "0 99 0 null 0", "5: 1:6=1 2:6=99 3:6=0 5:6=0"),
    CASE(create_result(100, 3, rows, 1, 1, 8, "no", 2), "0 100 8 'no' 0", "5: 1:6=1 2:6=100 3:6=8 4:12='no' 5:6=0"),
    CASE(create_db_changed(1, blobs, blob_lens), "1 1 null ('ab\0')"s),
    CASE(create_notice("why", 3), "1 1 'why' ('ab\0')"s, "21: 1:6=1 2:6=1 3:28={3:14={5:12='ab'}} 7:12='why'"),
    CASE(create_notice("", 0), "1 1 null ('ab\0')"s, "21: 1:6=1 2:6=1 3:28={3:14={5:12='ab'}} 7:12=''"),
    CASE(create_db_changed(0, nullptr, nullptr), "1 0 null", "21: 1:6=1 2:6=0"),
    CASE(parallel_server_item(address, port), "0 10.0.0.1 80"),
    CASE(parallel_server_join(address, port), "0 10.0.0.1 80"),
    CASE(parallel_servers_list(&parallel_list), "2 (0 10.0.0.1 80) (0  80) (null)"),
    CASE(secondary_server_item("a", "b", "c", "d", "e"), "0 a b c d e"),
    CASE(secondary_server_join("a", "b", "c", "d", "e"), "0 a b c d e"),
    CASE(secondary_servers_list(&secondary_list), "1 (0 10.0.0.1 80  10.0.0.1 80) (null)"),
    CASE(secondary_server_accept()), CASE(secondary_server_state_number(-3)),
    CASE(session_new("session", 7), "'session'"), CASE(session_drop()), CASE(node_kill()),
    CASE(admin_db_insert2(2, -3, 2, cell_values, cell_lens, cell_data),
         "0 2 -3 2 (7 'ab') (-8 null) (-8 'ab') (9 null)"),
    CASE(admin_db_insert3(1, -3, 2, cell_values, cell_lens, cell_data, text_lens, texts),
         "0 1 -3 2 (7 'ab' 't') (-8 null '')"));

class Catalogue : public ReportingTest {};

TEST_F(Catalogue, EveryMessageTravels)
{
    for (const MessageCase &message : messages) {
        const Packet built = message.build(), sent = message.build();
        const Packet p = received(wire_of(sent));
        p->type = sent->type;
        EXPECT_EQ(extract(p), message.extracted);
        EXPECT_EQ(clpacket_deserialize(p), 0);
        EXPECT_EQ(describe(p), describe(built));
        EXPECT_EQ(extract(built), message.extracted) << "without having travelled";
        turn_round(built->structr);
        clpacket_reset_error_state(built);
        EXPECT_EQ(extract(built), message.extracted) << "in another order";
        take_reports(); // of the empty messages
    }
}

// Whatever a peer sends, each extractor ends, frees and resets: every prefix, every byte changed,
// counts of -1, 0, one too many and the largest, and every message under every other type.
TEST_F(Catalogue, HostileMessages)
{
    set_log_dest(0, nullptr, nullptr, nullptr);
    const auto read_as = [](uint32_t type, clpacket *p) {
        p->type = type;
        (void)extract(p);
        clpacket_reset_error_state(p);
    };
    for (const MessageCase &message : messages) {
        const Packet built = message.build();
        const std::vector<uint8_t> wire = wire_of(built);
        const auto feed = [&](const std::vector<uint8_t> &sent) { read_as(built->type, received(sent)); };
        for (size_t i = message.extracted.empty() ? wire.size() : 1; i < wire.size(); ++i) {
            feed({wire.begin(), wire.begin() + static_cast<ptrdiff_t>(i)});
            std::vector<uint8_t> mutated = wire;
            for (const int value : {0, 1, 2, 4, 14, 28, 127, 128, 255}) {
                mutated[i] = static_cast<uint8_t>(value);
                feed(mutated);
            }
            std::fill(&mutated[i], std::min(&mutated[i] + 4, &*mutated.end()),
                      255); // counts and lengths: -1, the largest
            feed(mutated);
            mutated[i] = 127;
            feed(mutated);
        }
        const Packet p = received(wire);
        for (const auto &[type, extractor] : extractors) {
            read_as(type, p);
        }
    }
}

/// A message of numbers, given as type name=number name=number, whatever its builder gives it.
Packet numbered(const std::string &message)
{
    Packet p = clpacket_create();
    std::istringstream in(message);
    in >> p->type;
    char equals = 0;
    for (int32_t name = 0, number = 0; in >> name >> equals >> number;) {
        clpacket_set_int32_signed(p, name, number);
    }
    return p;
}

/// Without a packet, or one of its outputs, an extractor gives this result, and what is named behind it in the others.
template <class... Outputs>
void expect_refusals(const std::vector<intptr_t> &refusal, int32_t (*extract)(clpacket *, Outputs *...),
                     const Packet &p = clpacket_create())
{
    for (size_t missing = 0; missing <= sizeof...(Outputs); ++missing) {
        const auto call = [&]<size_t... i>(std::index_sequence<i...>)
        {
            std::tuple<Outputs...> outputs{(Outputs)intptr_t{9}...}; // stays where nothing is stored
            const intptr_t result =
                extract(missing != 0 ? p.get() : nullptr, (i + 1 != missing ? &std::get<i>(outputs) : nullptr)...);
            return std::vector<intptr_t>{result,
                                         (i + 1 != missing ? (intptr_t)std::get<i>(outputs) : refusal[missing])...};
        };
        EXPECT_EQ(call(std::index_sequence_for<Outputs...>()), refusal) << missing;
    }
}

TEST_F(Catalogue, GenericAnswers)
{
    std::istringstream cases(
        "2 1=5 2=7: 0 7;2 1=1 3=7: 3 9;23 1=2 2=0: 4 -1;23 1=1 2=0: 0 0;23 1=1 2=-1: 3 -1;23 1=1 2=2147483647: 3 -1;"
        "24 1=1 2=1: 3 -1;25 1=7 2=0: 0 0;26 1=1 2=0: 3 0;28 1=1 2=4: 3 -1 -1;28 1=2 2=4: 4 -1 -1;37 1=1 2=4: 3 4 0;"
        "36 1=9 2=4: 0 4 -1 -1;36 1=1 2=2 4=4: 0 2 -1 4;44 0=0: 0 (null);52 0=1: null;52 0=-1: null;"
        "5 1=1 2=4: 3 4 0 null 0;5 1=1 2=99 3=0: 0 99 0 null 0;5 1=1 2=100 3=0: 3 100 0 null 0");
    for (std::string expected; std::getline(cases, expected, ';');) {
        const Packet sent = numbered(expected), p = received(wire_of(sent));
        p->type = sent->type;
        const std::string given = extract(p);
        EXPECT_TRUE(expected.ends_with(": " + given)) << expected << "; " << given;
        EXPECT_TRUE(given[0] != '0' || p->error_state == MTB_OK) << "a missing optional field is no failure";
    }
    const Packet broken = received({0});
    EXPECT_EQ(answer(extractors.at(25)(broken), extractors.at(36)(broken), extractors.at(39)(broken)),
              "2 -1 2 9 9 9 3 9");
    int32_t value = 0;
    const Packet other = clpacket_create_type27(1), optional = clpacket_create_type36(2, 3, 4);
    EXPECT_EQ(clpacket_extract_type36(optional, &value, nullptr, nullptr), CLPACKET_EXTRACT_OK);
    EXPECT_EQ(extractors.at(2)(other), "4 9");
    expect_refusals({2, 9}, clpacket_extract_type2), expect_refusals({2, -1, -1}, clpacket_extract_type28);
    expect_refusals({2, -1, 0}, clpacket_extract_type23), expect_refusals({2, 0, 0}, clpacket_extract_type26);
    expect_refusals({2, 9, 9, 9}, clpacket_extract_type36),
        expect_refusals({2, 9, 0, 0, 0, 0}, clpacket_extract_type37);
    expect_refusals({2, 0, 0, 0, 0, 0, 0}, clpacket_extract_result);
    expect_refusals({-1, 9, 9, 9, 9, 9, 9}, clpacket_extract_admin_db_insert2,
                    clpacket_admin_db_insert2(1, 1, 1, cell_values, cell_lens, cell_data));
    expect_refusals({-1, 9, 9, 9, 9, 9, 9, 9, 9}, clpacket_extract_admin_db_insert3,
                    clpacket_admin_db_insert3(1, 1, 1, cell_values, cell_lens, cell_data, text_lens, texts));
    take_reports();
}

const result_item no_text{1, 0, 0, nullptr, nullptr};
parallel_server_entry *gap[] = {&parallel[0], nullptr};
const parallel_server_list no_servers{1, nullptr}, no_count{0, gap}, with_gap{2, gap};
entry_record no_pairs[] = {{4, 5, 1, 7, nullptr}};
const entry_list no_entries{1, nullptr}, no_entry_pairs{1, no_pairs};
const char *const *const no_text_row[] = {text_row, nullptr};

/// The same call without one of its pointers gives no message.
template <class... Arguments>
void expect_no_nulls(clpacket *(*build)(Arguments...), std::type_identity_t<Arguments>... good)
{
    constexpr bool is_pointer[] = {std::is_pointer_v<Arguments>...};
    for (size_t missing = 0; missing < sizeof...(Arguments); ++missing) {
        const auto call = [&]<size_t... i>(std::index_sequence<i...>)
        {
            return build((i == missing && is_pointer[i] ? Arguments{} : good)...);
        };
        const Packet built = call(std::index_sequence_for<Arguments...>());
        EXPECT_EQ(built == nullptr, is_pointer[missing]) << missing;
    }
}

TEST_F(Catalogue, BuildersRefuse)
{
    const auto *data = blob_pointers;
    expect_no_nulls(clpacket_create_type23, &entries), expect_no_nulls(clpacket_create_type25, pairs, 2);
    expect_no_nulls(clpacket_create_type33, 1, data, blob_lens, data, blob_lens);
    expect_no_nulls(clpacket_create_type34, 1, data, blob_lens);
    expect_no_nulls(clpacket_create_db_changed, 1, blobs, blob_lens);
    expect_no_nulls(clpacket_admin_db_insert2, 1U, 1, 1U, cell_values, cell_lens, cell_data);
    expect_no_nulls(clpacket_admin_db_insert3, 1U, 1, 1U, cell_values, cell_lens, cell_data, text_lens, texts);
    EXPECT_EACH(nullptr, clpacket_create_type24(&no_entries), clpacket_create_db_changed(-1, blobs, blob_lens),
                clpacket_create_type33(-1, data, blob_lens, data, blob_lens),
                clpacket_admin_db_insert3(2, 1, 1, cell_values, cell_lens, cell_data, text_lens, no_text_row));
    expect_no_nulls(clpacket_create_type37, 1, 1U, numbers, data, blob_lens);
    expect_no_nulls(clpacket_log_event_send_event, "x", 1U, 1U), expect_no_nulls(clpacket_session_new, "x", 1U);
    expect_no_nulls(clpacket_parallel_server_item, "a", "b");
    expect_no_nulls(clpacket_secondary_server_item, "a", "b", "c", "d", "e");
    expect_no_nulls(clpacket_parallel_servers_list, &parallel_list);
    expect_no_nulls(clpacket_secondary_servers_list, &secondary_list);
    EXPECT_EACH(nullptr, clpacket_parallel_servers_list(&no_servers), clpacket_parallel_servers_list(&no_count),
                clpacket_parallel_servers_list(&with_gap), clpacket_parallel_server_join(nullptr, "1"),
                clpacket_secondary_server_join("a", "a", "a", "a", nullptr), clpacket_session_new("x", 0x80000000),
                clpacket_create_result(100, 1, nullptr, -1, -1, 0, nullptr, 0),
                clpacket_create_result(100, 0, nullptr, -1, -1, 5, nullptr, 0),
                clpacket_create_result(100, 1, &no_text, -1, -1, 0, nullptr, 0),
                clpacket_create_type23(&no_entry_pairs), clpacket_create_type34(0, data, blob_lens));
    const std::string item = "clpacket_secondary_server_item: ERROR: ",
                      list = "clpacket_parallel_servers_list: ERROR: ";
    const std::string no_row = "clpacket_create_result: ERROR: failed to set result item";
    const std::string no_string = "clpacket_set_string: ERROR: invalid arguments: len or val";
    const std::string no_value = "check_complex_val: ERROR: argument \"val\" is empty.";
    EXPECT_REPORTS(
        "clpacket_set_array: ERROR: invalid argument: val", "clpacket_log_event_send_event: ERROR: buff is NULL",
        "clpacket_session_new: ERROR: session_buf is NULL", "clpacket_parallel_server_item: ERROR: address is NULL",
        "clpacket_parallel_server_item: ERROR: port is NULL", item + "address is NULL", item + "admin port is NULL",
        item + "client port is NULL", item + "monitor address is NULL", item + "node monitor port is NULL",
        list + "data is NULL", "clpacket_secondary_servers_list: ERROR: data is NULL", list + "servers is NULL",
        list + "invalid count of servers", list + "server is NULL",
        "clpacket_parallel_server_item: ERROR: address is NULL",
        "clpacket_parallel_server_join: ERROR: failed to create parallel server item packet",
        item + "node monitor port is NULL",
        "clpacket_secondary_server_join: ERROR: failed to create secondary server item packet",
        "mtb_add_blob: ERROR: invalid length specified: -2147483648",
        "clpacket_session_new: ERROR: failed to generate packet", no_row, no_string, no_string, no_row, no_value,
        no_value);
    for (const auto &[first, last] : std::map<int, int>{{2, 1}, {0, 1}, {-1, 3}, {1, 4}, {INT32_MIN, INT32_MAX}}) {
        const Packet bad_range = clpacket_create_result(100, 3, rows, first, last, 0, nullptr, 0);
        EXPECT_REPORTED(extract(bad_range), "0 100 -1 'ERROR: bad result range specified' 0",
                        "clpacket_create_result: ERROR: bad result range specified");
    }
    const Packet empty_id = clpacket_create_db_changed(1, blobs, no_lens);
    EXPECT_REPORTED(extract(empty_id), "null", "clpacket_create_db_changed: WARNING: empty id string",
                    "clpacket_check_db_changed: ERROR: dbid field 0 is empty");
}

TEST_F(Catalogue, NamedExtractorsTell)
{
    const Packet type27 = clpacket_create_type27(1);
    const std::string no_packet = ": ERROR: clpacket is NULL";
    EXPECT_EACH("null", extractors.at(52)(type27), extractors.at(43)(type27), extractors.at(56)(type27));
    for (const uint32_t type : {21U, 43U, 44U, 45U, 49U, 51U, 52U, 56U}) {
        EXPECT_EQ(extractors.at(type)(nullptr), "null");
    }
    EXPECT_EQ(extract_table(type27), "-1 0 0 0");
    EXPECT_REPORTS(
        "clpacket_extract_parallel_servers_list: ERROR: invalid packet type. Got 27, expected 52",
        "clpacket_extract_secondary_server_join: ERROR: invalid packet type. Got 27, expected 43",
        "mtb_get_blob: ERROR: element with name 0 not found",
        "clpacket_extract_session_new: ERROR: failed to extract event packet",
        "clpacket_deserialize: ERROR: invalid argument: clpacket",
        "clpacket_check_db_changed: ERROR: failed to deserialize admin packet",
        "clpacket_extract_secondary_server_join" + no_packet, "clpacket_extract_secondary_servers_list" + no_packet,
        "clpacket_extract_secondary_server_item" + no_packet, "clpacket_extract_parallel_server_join" + no_packet,
        "clpacket_extract_parallel_server_item" + no_packet, "clpacket_get_type: ERROR: invalid argument",
        "clpacket_extract_parallel_servers_list: ERROR: invalid packet type. Got -1, expected 52",
        "clpacket_extract_session_new" + no_packet,
        "clpacket_extract_admin_db_insert2: ERROR: invalid packet type: 27");
    EXPECT_REPORTED(extract(numbered("52 0=2147483647")), "null",
                    "mtb_get_array_element: ERROR: element with name 1 not found",
                    "clpacket_extract_parallel_servers_list: ERROR: failed to get item from servers list");
    Packet cut = received(bytes("00 01 01 00 00 00 02 00 00 06 00 00 00 02 00 01 1c 00 00 00 02 00 01 0e 00 00 00 00"));
    cut->type = 44;
    EXPECT_REPORTED(extract(cut), "null", "mtb_get_string: ERROR: element with name 0 not found",
                    "clpacket_extract_secondary_server_item: ERROR: failed to extract secondary server packet",
                    "clpacket_extract_secondary_servers_list: ERROR: failed to extract secondary server item");
    EXPECT_REPORTED(extract(numbered("49 0=1")), "null", "mtb_get_struct: ERROR: element with name 0 not found",
                    "clpacket_extract_parallel_server_join: ERROR: failed to get item from packet");
    EXPECT_REPORTED(extract(numbered("21 1=2 2=0")), "null", "clpacket_check_db_changed: ERROR: wrong version (2)");
    EXPECT_REPORTED(extract(numbered("21 1=1 2=-5")), "null", "clpacket_check_db_changed: ERROR: negavive count (-5)");
    EXPECT_REPORTED(extract(numbered("21 2=0")), "null", "mtb_get_int32_signed: ERROR: element with name 1 not found",
                    "clpacket_check_db_changed: ERROR: failed to extract information from packet");
}

TEST_F(Catalogue, TablesAreAsLargeAsTheyAnnounce)
{
    const Packet table = clpacket_admin_db_insert2(1, 1, 1, cell_values, cell_lens, cell_data);
    mtb_struct *column = nullptr;
    mtb_get_struct(6, &column, MTB_TYPE_STRUCT, table->structr);
    mtb_add_int32_unsigned(0, 9, column);
    EXPECT_REPORTED(extract(table), "-1 0 0 0",
                    "clpacket_extract_admin_db_insert2: ERROR: invalid value size (got: 2, expected: 9)");
    mtb_add_int32_unsigned(0, 2, column);
    for (const auto &[r, c] : std::map<uint32_t, uint32_t>{{2, 1}, {65536, 65536}, {0xffffffff, 0xffffffff}}) {
        clpacket_set_int32_unsigned(table, 2, r);
        clpacket_set_int32_unsigned(table, 4, c);
        EXPECT_REPORTED(extract(table), "-1 0 0 0", "mtb_get_int32_signed: ERROR: element with name 1 not found",
                        "clpacket_extract_admin_db_insert2: ERROR: failed to extract packet");
    }
}

// Fields given twice, or beyond the 65,536 that names can tell apart.
TEST_F(Catalogue, IndexedFieldsAreFoundByName)
{
    const Packet p = clpacket_create_type37(7, 2, numbers, blob_pointers, blob_lens), twice = clpacket_create();
    EXPECT_EQ(clpacket_get_complex(p, 4, twice), 0);
    mtb_add_blob(0, "x", 1, twice->structr, tavlen::Lookup::needless);
    turn_round(p->structr);
    EXPECT_EQ(extract(p), "0 7 2 (7 'x\0') (-8 '\0')"s) << "the first counts";
    std::vector<int32_t> values(65538);
    std::iota(values.begin(), values.end(), 0);
    const std::vector<uint64_t> lens(values.size(), 1);
    const std::vector<const void *> data(values.size(), "d");
    const int32_t *value_row = values.data();
    const uint64_t *len_row = lens.data();
    const void *const *data_row = data.data();
    const Packet built = clpacket_admin_db_insert2(1, 1, 65538, &value_row, &len_row, &data_row);
    const std::string table = extract(built); // the running index starts anew
    EXPECT_TRUE(table.starts_with("0 1 1 65538 (65536 'd') (65537 'd') (2 'd') ") && table.ends_with(" (65537 'd')"));
}

// What wraps may be announced and copied only so many times over what there is.
TEST_F(Catalogue, WrappedNamesDoNotMultiplyAPacket)
{
    set_log_dest(0, nullptr, nullptr, nullptr);
    constexpr uint32_t names = 65536;
    const std::vector<int32_t> values(30 * names);
    const std::string large(100000, 'x');
    const std::vector<const void *> data(names, large.data());
    std::vector<uint32_t> lens(names, 0);
    lens[0] = 100000;
    const Packet p = clpacket_create_type37(1, names, values.data(), data.data(), lens.data());
    for (const uint32_t rounds : {2U, 30U}) {
        EXPECT_EQ(clpacket_set_array(p, 3, values.data(), rounds * names, MTB_TYPE_ARRAY_INT32_SIGNED), 0);
        EXPECT_EQ(extract(p).substr(0, 3), rounds == 2 ? "0 1" : "3 1");
    }
}

TEST_F(Catalogue, LackOfMemoryGivesNothingAndLeaksNothing)
{
    std::set<std::string> told;
    for (const MessageCase &message : messages) {
        const Packet built = message.build();
        fail_each_allocation([&](Fault &fault) {
            const bool whole = describe(Packet(message.build())) == describe(built);
            EXPECT_EQ(whole, !fault.struck()) << describe(built);
        });
        for (int i = 0; i < (message.extracted.empty() ? 0 : 2); ++i) { // in order, and not
            fail_each_allocation([&](Fault &fault) {
                const std::string given = extract(built);
                const bool lacks_memory = built->type != CLPACKET_DB_CHANGED && given[0] == '1'; // the generic code
                const bool refused_anyway = message.extracted[0] == '3' || message.extracted[0] == '4';
                EXPECT_TRUE(fault.struck() && !refused_anyway ? lacks_memory || given == "null" || given == "-1 0 0 0"
                                                              : given == message.extracted)
                    << given;
                clpacket_reset_error_state(built);
            });
            turn_round(built->structr);
        }
        const Reports reports = take_reports();
        told.insert(reports.begin(), reports.end());
    }
    EXPECT_EQ(told.size(), 93U) << testing::PrintToString(told); // each place has its own words
}

// The document shows a datagram of every message, under what its bytes say.
TEST_F(Catalogue, DocumentShowsEveryMessageAsItIs)
{
    std::ifstream document(TAVLEN_PROTOCOL_DOCUMENT);
    std::map<std::string, std::string> datagrams; // by what they say
    std::string said;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("    ")) {
            line.find('=') != std::string::npos ? said = line.substr(4) : datagrams[said] += line;
        }
    }
    for (const MessageCase &message : messages) {
        const Packet p = message.build();
        if (const auto datagram = datagrams.extract(describe(p))) {
            std::vector<uint8_t> wire = wire_of(p);
            wire.insert(wire.begin(), {0, 0, 0, static_cast<uint8_t>(p->type)});
            EXPECT_EQ(bytes(datagram.mapped()), wire) << datagram.key();
        } else {
            EXPECT_EQ(describe(p), message.fields) << "which the document does not show";
        }
    }
    EXPECT_TRUE(datagrams.empty()) << "each is what a builder of the table makes";
}

} // namespace
