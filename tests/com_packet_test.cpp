#include <TavlenCommon/com_packet.h>

#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>

#include "extractors.h"
#include "faults.h"
#include "network.h"

namespace {

using namespace std::string_literals;

// ---------------------------------------------------------------------------- messages as texts

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
    const std::string head = std::to_string(e->name) + ":" + std::to_string(e->type) + "=";
    switch (e->type) {
    case MTB_TYPE_INT32_SIGNED:
        return head + std::to_string(e->value.i32);
    case MTB_TYPE_INT32_UNSIGNED:
    case MTB_TYPE_ENUM:
        return head + std::to_string(e->value.u32);
    case MTB_TYPE_INT64_SIGNED:
        return head + std::to_string(e->value.i64);
    case MTB_TYPE_STRING:
    case MTB_TYPE_BLOB:
        return head + quoted(e->value.data, static_cast<uint32_t>(e->len));
    case MTB_TYPE_ARRAY_INT32_SIGNED: {
        std::string items;
        for (int32_t i = 0; i < e->len; ++i) {
            items += (i == 0 ? "" : ",") + std::to_string(static_cast<int32_t *>(e->value.data)[i]);
        }
        return head + "[" + items + "]";
    }
    default: // structures, and arrays of them
        return head + "{" + describe_chain(e->buffer) + "}";
    }
}

// --------------------------------------------------------------------------------- the catalogue

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

struct MessageCase {
    std::function<clpacket *()> build;
    std::string fields;         // as they travel
    std::string extracted = {}; // by the extractor of the type, if there is one
};

/// Calls a function of the library, named without its clpacket_.
#define BUILD(call) [] { return clpacket_##call; }

const MessageCase messages[] = {
    {BUILD(create_type1(9, "b", 1, "st", 2, nullptr, 0, -6)), "1: 1:6=1 2:13=9 3:16='b' 4:12='st' 5:16=null 6:6=-6"},
    {BUILD(create_type2(-2)), "2: 1:6=1 2:6=-2", "0 -2"},
    {BUILD(create_type3(2, 3, 4)), "3: 1:6=1 2:6=2 3:6=3 4:6=4"},
    {BUILD(create_type6(2)), "6: 1:6=0 2:6=2"},
    {BUILD(create_type7(-1, 1, 2, 3)), "7: 0:6=-1 1:6=1 2:7=2 3:7=3"},
    {BUILD(create_type8(-200, 1)), "8: 0:6=-1 1:7=1"},
    {BUILD(create_type8(200, 1)), "8: 0:6=200 1:7=1"},
    {BUILD(create_type9(2, 3, "b", 1, "s", 1, "c", 1, 7)), "9: 1:6=1 2:6=2 3:13=3 4:16='b' 5:12='s' 6:16='c' 7:6=7"},
    {BUILD(create_type11("s", 1)), "11: 1:6=1 2:12='s'"},
    {BUILD(create_type15(2, 3)), "15: 1:6=1 2:6=2 3:6=3"},
    {BUILD(create_type16()), "16: 1:6=0"},
    {BUILD(create_type17(5)), "17: 1:6=5"},
    {BUILD(create_type18(5)), "18: 1:6=5"},
    {BUILD(create_type18_empty()), "18: 1:6=0"},
    {BUILD(create_type20()), "20: 1:6=0"},
    {BUILD(create_type23(&entries)),
     "23: 1:6=1 2:6=2 3:28={3:14={4:6=4 5:6=5 6:6=2 7:6=7 8:28={8:14={9:6=1 10:6=2} 8:14={9:6=3 10:6=4}}} 3:14={4:6=-4 "
     "5:6=-5 6:6=0 7:6=-7}}",
     "0 2 (4 5 2 7 (1 2) (3 4)) (-4 -5 0 -7)"},
    {BUILD(create_type23_empty()), "23: 1:6=0", "4 -1"},
    {BUILD(create_type24(&entries)), "24: 1:6=1 2:6=2 3:28={3:14={4:6=4 5:6=5 6:6=2} 3:14={4:6=-4 5:6=-5 6:6=0}}",
     "0 2 (4 5 2) (-4 -5 0)"},
    {BUILD(create_type24_empty()), "24: 1:6=0", "4 -1"},
    {BUILD(create_type25(pairs, 2)), "25: 1:6=1 2:6=2 3:28={3:14={4:6=1 5:6=2} 3:14={4:6=3 5:6=4}}", "0 2 (1 2) (3 4)"},
    {BUILD(create_type25_empty()), "25: 1:6=0", "3 -1"},
    {BUILD(create_type26(numbers, 3)), "26: 1:6=1 2:19=[7,-8,9]", "0 3 (7) (-8) (9)"},
    {BUILD(create_type26_empty()), "26: 1:6=0", "4 0"},
    {BUILD(create_type27(2)), "27: 1:6=1 2:6=2"},
    {BUILD(create_type28(2, 3)), "28: 1:6=1 2:6=2 3:6=3", "0 2 3"},
    {BUILD(create_type31()), "31: 1:6=1"},
    {BUILD(create_type32()), "32: 1:6=1"},
    {BUILD(create_type33(2, blob_pointers, blob_lens, blob_pointers, blob_lens)),
     "33: 1:6=1 2:7=2 3:14={0:16='ab' 1:16=null} 4:14={0:16='ab' 1:16=null}"},
    {BUILD(create_type34(1, blob_pointers, blob_lens)), "34: 1:6=1 2:7=1 3:14={0:16='ab'}"},
    {BUILD(create_type35()), "35: 1:6=1"},
    {BUILD(create_type36(2, 3, 4)), "36: 1:6=1 2:6=2 3:6=3 4:6=4", "0 2 3 4"},
    {BUILD(create_type36_empty()), "36: 1:6=1", "3 9 9 9"},
    {BUILD(create_type37(2, 3, numbers, blob_pointers, blob_lens)),
     "37: 1:6=1 2:6=2 3:19=[7,-8,9] 4:14={0:16='ab' 1:16=null 2:16=null}", "0 2 3 (7 'ab\0') (-8 '\0') (9 '\0')"s},
    {BUILD(create_type38(2, 1, numbers, blob_pointers, blob_lens)), "38: 1:6=1 2:6=2 3:19=[7] 4:14={0:16='ab'}",
     "0 2 1 (7 'ab\0')"s},
    {BUILD(create_type39(2)), "39: 1:6=1 2:6=2", "0 2"},
    {BUILD(create_type40(2)), "40: 1:6=1 2:6=2", "0 2"},
    {BUILD(create_type41(2)), "41: 1:6=1 2:6=2"},
    {BUILD(create_type42(2)), "42: 1:6=1 2:6=2"},
    {BUILD(create_type64(2)), "64: 1:6=1 2:6=2"},
    {BUILD(create_type50()), "50: 0:6=1"},
    {BUILD(create_type53(5)), "53: 0:6=5"},
    {BUILD(create_type54(5)), "54: 0:6=5"},
    {BUILD(create_type55(numbers, 2)), "55: 1:19=[7,-8]"},
    {BUILD(create_type65(-5000000000)), "65: 1:6=1 2:8=-5000000000"},
    {BUILD(create_type71()), "71: 1:6=1"},
    {BUILD(create_item(8, "s", 1, "b", 1)), "0: 8:6=8 9:12='s' 10:16='b'"},
    {BUILD(log_event("me", "x", 1)), "29: 1:6=1 2:12='me' 3:12='x'"},
    {BUILD(log_event_send_event("b", 1, 0xffffffff)), "48: 1:16='b' 0:6=-1"},
    {BUILD(create_result(100, 3, rows, -1, -1, 0, nullptr, 0)),
     "5: 1:6=1 2:6=100 3:6=0 6:28={6:14={7:6=1 8:12='row' 9:16='ro'} 6:14={7:6=2 8:12='' 9:16=null} 6:14={7:6=3 "
     "8:12='r' 9:16=null}} 5:6=3",
     "0 100 0 null 3 (1 'row' 'ro') (2 '' null) (3 'r' null)"},
    {BUILD(create_result(100, 3, rows, 2, 3, 0, nullptr, 0)),
     "5: 1:6=1 2:6=100 3:6=0 6:28={6:14={7:6=2 8:12='' 9:16=null} 6:14={7:6=3 8:12='r' 9:16=null}} 5:6=2",
     "0 100 0 null 2 (2 '' null) (3 'r' null)"},
    {BUILD(create_result(200, 3, rows, -1, -1, 0, nullptr, 0)), "5: 1:6=1 2:6=200 3:6=0 5:6=0", "0 200 0 null 0"},
    {BUILD(create_result(100, -3, rows, -1, -1, 0, nullptr, 0)), "5: 1:6=1 2:6=100 3:6=0 5:6=0", "0 100 0 null 0"},
    {BUILD(create_result(99, 0, nullptr, 0, 0, 0, nullptr, 0)), "5: 1:6=1 2:6=99 3:6=0 5:6=0", "0 99 0 null 0"},
    {BUILD(create_result(100, 3, rows, 1, 1, 8, "no", 2)), "5: 1:6=1 2:6=100 3:6=8 4:12='no' 5:6=0", "0 100 8 'no' 0"},
    {BUILD(create_db_changed(1, blobs, blob_lens)), "21: 1:6=1 2:6=1 3:28={3:14={5:12='ab'}}", "1 1 null ('ab\0')"s},
    {BUILD(create_db_changed(0, nullptr, nullptr)), "21: 1:6=1 2:6=0", "1 0 null"},
    {BUILD(parallel_server_item(address, port)), "51: 0:12='10.0.0.1' 1:12='80'", "0 10.0.0.1 80"},
    {BUILD(parallel_server_join(address, port)), "49: 0:14={0:12='10.0.0.1' 1:12='80'}", "0 10.0.0.1 80"},
    {BUILD(parallel_servers_list(&parallel_list)),
     "52: 0:6=2 1:28={1:14={0:12='10.0.0.1' 1:12='80'} 1:14={0:12='' 1:12='80'}}", "2 (0 10.0.0.1 80) (0  80)"},
    {BUILD(secondary_server_item("a", "b", "c", "d", "e")), "45: 0:12='a' 1:12='b' 2:12='c' 3:12='d' 4:12='e'",
     "0 a b c d e"},
    {BUILD(secondary_server_join("a", "b", "c", "d", "e")), "43: 0:14={0:12='a' 1:12='b' 2:12='c' 3:12='d' 4:12='e'}",
     "0 a b c d e"},
    {BUILD(secondary_servers_list(&secondary_list)),
     "44: 0:6=1 1:28={1:14={0:12='10.0.0.1' 1:12='80' 2:12='' 3:12='10.0.0.1' 4:12='80'}}",
     "1 (0 10.0.0.1 80  10.0.0.1 80)"},
    {BUILD(secondary_server_accept()), "46: 0:6=1"},
    {BUILD(secondary_server_state_number(-3)), "47: 0:6=-3"},
    {BUILD(session_new("session", 7)), "56: 0:16='session'", "'session'"},
    {BUILD(session_drop()), "57: 0:6=1"},
    {BUILD(node_kill()), "58: 1:6=1"},
    {BUILD(admin_db_insert2(2, -3, 2, cell_values, cell_lens, cell_data)),
     "59: 1:6=1 2:7=2 3:6=-3 4:7=2 5:14={0:6=7 1:6=-8 2:6=-8 3:6=9} 6:14={0:7=2 1:7=0 2:7=2 3:7=0} 7:14={0:16='ab' "
     "1:16=null 2:16='ab' 3:16=null}",
     "0 2 -3 2 (7 'ab') (-8 null) (-8 'ab') (9 null)"},
    {BUILD(admin_db_insert3(1, -3, 2, cell_values, cell_lens, cell_data, text_lens, texts)),
     "60: 1:6=1 2:7=1 3:6=-3 4:7=2 5:14={0:6=7 1:6=-8} 6:14={0:7=2 1:7=0} 7:14={0:16='ab' 1:16=null} 8:14={0:12='t' "
     "1:12=''}",
     "0 1 -3 2 (7 'ab' 't') (-8 null '')"},
};

class Catalogue : public ReportingTest {};

TEST_F(Catalogue, EveryMessageTravels)
{
    for (const MessageCase &message : messages) {
        const Packet built = message.build(), sent = message.build();
        ASSERT_NE(built, nullptr) << message.fields;
        EXPECT_EQ(extract(built), message.extracted) << "without having travelled";
        const Packet p = received(wire_of(sent));
        p->type = sent->type;
        EXPECT_EQ(extract(p), message.extracted) << message.fields;
        EXPECT_EQ(clpacket_deserialize(p), 0);
        EXPECT_EQ(std::to_string(p->type) + ": " + describe_chain(p->structr->buffer), message.fields);
        take_reports(); // of the empty messages
    }
}

void answer_from_extractor(uint32_t type, clpacket *p)
{
    p->type = type;
    (void)extract(p);
    clpacket_reset_error_state(p);
}

// Whatever a peer sends, each extractor ends, frees and resets: every prefix, every byte changed,
// counts of -1, 0, one too many and the largest, and every message under every other type.
TEST_F(Catalogue, HostileMessages)
{
    set_log_dest(0, nullptr, nullptr, nullptr);
    for (const MessageCase &message : messages) {
        const Packet built = message.build();
        const std::vector<uint8_t> wire = wire_of(built);
        const auto feed = [&](const std::vector<uint8_t> &sent) { answer_from_extractor(built->type, received(sent)); };
        for (size_t i = message.extracted.empty() ? wire.size() : 1; i < wire.size(); ++i) {
            feed({wire.begin(), wire.begin() + static_cast<ptrdiff_t>(i)});
            std::vector<uint8_t> mutated = wire;
            for (const int value : {0, 1, 2, 4, 14, 28, 127, 128, 255}) {
                mutated[i] = static_cast<uint8_t>(value);
                feed(mutated);
            }
            for (size_t k = i; k < std::min(i + 4, wire.size()); ++k) { // counts and lengths of -1 and the largest
                mutated[k] = 255;
            }
            feed(mutated);
            mutated[i] = 127;
            feed(mutated);
        }
        const Packet p = received(wire);
        for (const auto &[type, extractor] : extractors) {
            answer_from_extractor(type, p);
        }
    }
}

/// A message of numbers, given as name=number, whatever its builder gives it.
Packet numbered(uint32_t type, const std::string &numbers_by_name)
{
    Packet p = clpacket_create();
    clpacket_set_type(p, type);
    std::istringstream in(numbers_by_name);
    char equals = 0;
    for (int32_t name = 0, number = 0; in >> name >> equals >> number;) {
        clpacket_set_int32_signed(p, name, number);
    }
    return p;
}

TEST_F(Catalogue, GenericAnswers)
{
    const struct {
        uint32_t type;
        const char *numbers, *answer;
    } cases[] = {
        {2, "1=5 2=7", "0 7"},      {2, "1=1 3=7", "3 9"},      {23, "1=2 2=0", "4 -1"},  {23, "1=1 2=0", "0 0"},
        {23, "1=1 2=-1", "3 -1"},   {28, "1=1 2=4", "3 -1 -1"}, {24, "1=1 2=1", "3 -1"},  {25, "1=7 2=0", "0 0"},
        {28, "1=2 2=4", "4 -1 -1"}, {26, "1=1 2=0", "3 0"},     {37, "1=1 2=4", "3 4 0"}, {36, "1=9 2=4", "0 4 -1 -1"},
        {44, "0=0", "0"},           {52, "0=1", "null"},        {52, "0=-1", "null"},
    };
    for (const auto &c : cases) {
        const Packet p = received(wire_of(numbered(c.type, c.numbers)));
        p->type = c.type;
        EXPECT_EQ(extract(p), c.answer) << c.type;
        EXPECT_TRUE(c.answer[0] != '0' || p->error_state == MTB_OK) << "a missing optional field is no failure";
    }
    EXPECT_EQ(extract(numbered(5, "1=1 2=4")), "3 4 0 null 0");
    EXPECT_EQ(extract(numbered(23, "1=1 2=2147483647")), "3 -1");
    EXPECT_EQ(extract(numbered(36, "1=1 2=2 4=4")), "0 2 -1 4");
    const Packet broken = received({0});
    for (const auto &[type, refusal] : std::map<uint32_t, std::string>{{25, "2 -1"}, {36, "2 9 9 9"}, {39, "3 9"}}) {
        broken->type = type;
        EXPECT_EQ(extract(broken), refusal);
    }
    int32_t value = 0;
    const Packet other = clpacket_create_type27(1), optional = clpacket_create_type36(2, 3, 4);
    EXPECT_EQ(clpacket_extract_type36(optional, &value, nullptr, nullptr), CLPACKET_EXTRACT_OK);
    EXPECT_EQ(clpacket_extract_type2(other, &value), CLPACKET_EXTRACT_WRONG);
    EXPECT_EACH(CLPACKET_EXTRACT_BAD_ARG, clpacket_extract_type2(nullptr, &value),
                clpacket_extract_type23(other, &value, nullptr), clpacket_extract_type26(other, nullptr, nullptr),
                clpacket_extract_type28(other, nullptr, &value),
                clpacket_extract_type36(other, nullptr, &value, &value),
                clpacket_extract_type37(other, &value, nullptr, nullptr, nullptr, nullptr),
                clpacket_extract_result(other, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(clpacket_extract_admin_db_insert2(other, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    take_reports();
}

const result_item no_text{1, 0, 0, nullptr, nullptr};
parallel_server_entry *gap[] = {&parallel[0], nullptr};
const parallel_server_list no_servers{1, nullptr}, no_count{0, gap}, with_gap{2, gap};

struct Refusal {
    std::function<clpacket *()> build;
    Reports reports;
};

const Refusal refusals[] = {
    {BUILD(parallel_server_item(nullptr, nullptr)), {"clpacket_parallel_server_item: ERROR: address is NULL"}},
    {BUILD(parallel_server_item("a", nullptr)), {"clpacket_parallel_server_item: ERROR: port is NULL"}},
    {BUILD(parallel_server_join(nullptr, "1")),
     {"clpacket_parallel_server_item: ERROR: address is NULL",
      "clpacket_parallel_server_join: ERROR: failed to create parallel server item packet"}},
    {BUILD(secondary_server_join("a", "a", "a", "a", nullptr)),
     {"clpacket_secondary_server_item: ERROR: node monitor port is NULL",
      "clpacket_secondary_server_join: ERROR: failed to create secondary server item packet"}},
    {BUILD(parallel_servers_list(nullptr)), {"clpacket_parallel_servers_list: ERROR: data is NULL"}},
    {BUILD(parallel_servers_list(&no_servers)), {"clpacket_parallel_servers_list: ERROR: servers is NULL"}},
    {BUILD(parallel_servers_list(&no_count)), {"clpacket_parallel_servers_list: ERROR: invalid count of servers"}},
    {BUILD(parallel_servers_list(&with_gap)), {"clpacket_parallel_servers_list: ERROR: server is NULL"}},
    {BUILD(secondary_servers_list(nullptr)), {"clpacket_secondary_servers_list: ERROR: data is NULL"}},
    {BUILD(session_new(nullptr, 1)), {"clpacket_session_new: ERROR: session_buf is NULL"}},
    {BUILD(session_new("x", 0x80000000)),
     {"mtb_add_blob: ERROR: invalid length specified: -2147483648",
      "clpacket_session_new: ERROR: failed to generate packet"}},
    {BUILD(create_result(100, 1, nullptr, -1, -1, 0, nullptr, 0)),
     {"clpacket_create_result: ERROR: failed to set result item"}},
    {BUILD(create_result(100, 0, nullptr, -1, -1, 5, nullptr, 0)),
     {"clpacket_set_string: ERROR: invalid arguments: len or val"}},
    {BUILD(create_result(100, 1, &no_text, -1, -1, 0, nullptr, 0)),
     {"clpacket_set_string: ERROR: invalid arguments: len or val",
      "clpacket_create_result: ERROR: failed to set result item"}},
    {BUILD(create_type34(0, blob_pointers, blob_lens)), {"check_complex_val: ERROR: argument \"val\" is empty."}},
    {BUILD(create_type23(nullptr)), {}},
    {BUILD(create_type33(-1, blob_pointers, blob_lens, blob_pointers, blob_lens)), {}},
    {BUILD(create_type34(1, nullptr, blob_lens)), {}},
    {BUILD(create_type37(1, 1, numbers, nullptr, blob_lens)), {}},
    {BUILD(create_db_changed(-1, blobs, blob_lens)), {}},
    {BUILD(admin_db_insert2(1, 1, 1, nullptr, cell_lens, cell_data)), {}},
};

TEST_F(Catalogue, BuildersRefuse)
{
    for (const Refusal &refusal : refusals) {
        EXPECT_EQ(refusal.build(), nullptr);
        EXPECT_EQ(take_reports(), refusal.reports);
    }
    const char *fields[5] = {};
    const char *const words[] = {"address", "admin port", "client port", "monitor address", "node monitor port"};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_REPORTED(clpacket_secondary_server_item(fields[0], fields[1], fields[2], fields[3], fields[4]), nullptr,
                        std::string("clpacket_secondary_server_item: ERROR: ") + words[i] + " is NULL");
        fields[i] = "x";
    }
    for (const auto &[first, last] :
         std::vector<std::pair<int32_t, int32_t>>{{2, 1}, {0, 1}, {-1, 3}, {1, 4}, {INT32_MIN, INT32_MAX}}) {
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
    EXPECT_EQ(clpacket_extract_parallel_servers_list(type27), nullptr);
    EXPECT_EQ(clpacket_extract_secondary_server_join(type27), nullptr);
    EXPECT_EQ(TableOut().extract2(type27), -1);
    EXPECT_EQ(clpacket_extract_parallel_servers_list(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_secondary_servers_list(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_parallel_server_item(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_session_new(nullptr, nullptr), nullptr);
    EXPECT_REPORTS("clpacket_extract_parallel_servers_list: ERROR: invalid packet type. Got 27, expected 52",
                   "clpacket_extract_secondary_server_join: ERROR: invalid packet type. Got 27, expected 43",
                   "clpacket_extract_admin_db_insert2: ERROR: invalid packet type: 27",
                   "clpacket_get_type: ERROR: invalid argument",
                   "clpacket_extract_parallel_servers_list: ERROR: invalid packet type. Got -1, expected 52",
                   "clpacket_extract_secondary_servers_list: ERROR: clpacket is NULL",
                   "clpacket_extract_parallel_server_item: ERROR: clpacket is NULL",
                   "clpacket_extract_session_new: ERROR: clpacket is NULL");
    EXPECT_REPORTED(extract(numbered(52, "0=2147483647")), "null",
                    "mtb_get_array_element: ERROR: element with name 1 not found",
                    "clpacket_extract_parallel_servers_list: ERROR: failed to get item from servers list");
    const Packet cut =
        received(bytes("00 01 01 00 00 00 02 00 00 06 00 00 00 02 00 01 1c 00 00 00 02 00 01 0e 00 00 00 00"));
    cut->type = 44;
    EXPECT_REPORTED(extract(cut), "null", "mtb_get_string: ERROR: element with name 0 not found",
                    "clpacket_extract_secondary_server_item: ERROR: failed to extract secondary server packet",
                    "clpacket_extract_secondary_servers_list: ERROR: failed to extract secondary server item");
    EXPECT_REPORTED(extract(numbered(49, "0=1")), "null", "mtb_get_struct: ERROR: element with name 0 not found",
                    "clpacket_extract_parallel_server_join: ERROR: failed to get item from packet");
    EXPECT_REPORTED(extract(numbered(21, "1=2 2=0")), "null", "clpacket_check_db_changed: ERROR: wrong version (2)");
    EXPECT_REPORTED(extract(numbered(21, "1=1 2=-5")), "null", "clpacket_check_db_changed: ERROR: negavive count (-5)");
    EXPECT_REPORTED(extract(numbered(21, "")), "null", "clpacket_deserialize: ERROR: binary buffer not found",
                    "clpacket_check_db_changed: ERROR: failed to deserialize admin packet");
    const Packet detailed = numbered(21, "1=1 2=0");
    clpacket_set_string(detailed, 7, "detail", 6);
    EXPECT_REPORTED(extract(detailed), "1 0 'detail'");
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
    for (const auto &[r, c] :
         std::vector<std::pair<uint32_t, uint32_t>>{{65536, 65536}, {0xffffffff, 0xffffffff}, {2, 1}}) {
        clpacket_set_int32_unsigned(table, 2, r);
        clpacket_set_int32_unsigned(table, 4, c);
        EXPECT_REPORTED(extract(table), "-1 0 0 0", "mtb_get_int32_signed: ERROR: element with name 1 not found",
                        "clpacket_extract_admin_db_insert2: ERROR: failed to extract packet");
    }
}

// Fields out of order, given twice, or beyond the 65,536 that names can tell apart.
TEST_F(Catalogue, IndexedFieldsAreFoundByName)
{
    const Packet p =
        received(bytes("00 01 01 00 00 00 04 00 01 06 00 00 00 01 00 02 06 00 00 00 07 00 03 13 00 00 00 02 00 00 00 05"
                       " 00 00 00 06 00 04 0e 00 00 00 04 00 01 10 00 00 00 01 42 00 00 06 00 00 00 00"
                       " 00 00 10 00 00 00 01 41 00 01 10 00 00 00 01 58"));
    p->type = 37;
    EXPECT_EQ(extract(p), "0 7 2 (5 'A\0') (6 'B\0')"s);
    constexpr uint32_t count = 65538;
    std::vector<int32_t> values(count);
    std::iota(values.begin(), values.end(), 0);
    const std::vector<uint64_t> lens(count, 1);
    const std::vector<const void *> data(count, "d");
    const int32_t *value_row = values.data();
    const uint64_t *len_row = lens.data();
    const void *const *data_row = data.data();
    const Packet built = clpacket_admin_db_insert2(1, 1, count, &value_row, &len_row, &data_row);
    mtb_struct *column = nullptr;
    EXPECT_EQ(mtb_get_struct(5, &column, MTB_TYPE_STRUCT, built->structr), MTB_OK);
    EXPECT_EQ(column->len, 65536);
    EXPECT_EQ(column->buffer->first->value.i32, 65536) << "the running index starts anew";
    TableOut table;
    EXPECT_EQ(table.extract2(built), 0);
    EXPECT_EQ(table.values.at[65537], 65537);
    EXPECT_EQ(table.values.at[1], 65537);
}

// What wraps may be announced and copied only so many times over what there is.
TEST_F(Catalogue, WrappedNamesDoNotMultiplyAPacket)
{
    set_log_dest(0, nullptr, nullptr, nullptr);
    constexpr uint32_t names = 65536;
    const std::vector<int32_t> values(30 * names);
    std::vector<const void *> data(names, nullptr);
    std::vector<uint32_t> lens(names, 0);
    const std::string large(100000, 'x');
    data[0] = large.data();
    lens[0] = 100000;
    const Packet p = clpacket_create_type37(1, names, values.data(), data.data(), lens.data());
    for (const uint32_t rounds : {2U, 30U}) {
        EXPECT_EQ(clpacket_set_array(p, 3, values.data(), rounds * names, MTB_TYPE_ARRAY_INT32_SIGNED), 0);
        EXPECT_EQ(extract(p).substr(0, 3), rounds == 2 ? "0 1" : "3 1");
    }
}

TEST_F(Catalogue, LackOfMemoryGivesNothingAndLeaksNothing)
{
    for (const MessageCase &message : messages) {
        fail_each_allocation([&](Fault &fault) {
            const Packet built = message.build();
            const bool whole =
                built != nullptr && message.fields.ends_with(": " + describe_chain(built->structr->buffer));
            EXPECT_EQ(whole, !fault.struck()) << message.fields;
        });
        if (message.extracted.empty()) {
            continue;
        }
        const Packet built = message.build();
        fail_each_allocation([&](Fault &fault) {
            const std::string given = extract(built);
            const bool refused_anyway = message.extracted[0] == '3' || message.extracted[0] == '4';
            EXPECT_EQ(given == message.extracted, !fault.struck() || refused_anyway) << message.fields;
            clpacket_reset_error_state(built);
        });
    }
    take_reports();
}

// The document shows a datagram of every message, under what its bytes say.
TEST_F(Catalogue, DocumentShowsEveryMessageAsItIs)
{
    std::ifstream document(TAVLEN_PROTOCOL_DOCUMENT);
    std::map<std::string, std::string> datagrams; // by what they say
    std::string said;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("    ") && line.find('=') != std::string::npos) {
            said = line.substr(4);
        } else if (line.starts_with("    ")) {
            datagrams[said] += line;
        }
    }
    std::set<uint32_t> built, shown{0};
    for (const MessageCase &message : messages) {
        const Packet p = message.build();
        built.insert(p->type);
        if (const auto datagram = datagrams.extract(message.fields)) {
            std::vector<uint8_t> wire = wire_of(p);
            wire.insert(wire.begin(), {0, 0, 0, static_cast<uint8_t>(p->type)});
            EXPECT_EQ(bytes(datagram.mapped()), wire) << message.fields;
            shown.insert(p->type);
        }
    }
    EXPECT_EQ(shown, built);
    EXPECT_TRUE(datagrams.empty()) << "each is what a builder of the table makes";
}

} // namespace
