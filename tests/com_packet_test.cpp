#include <TavlenCommon/com_packet.h>

#include <fstream>
#include <functional>
#include <map>
#include <set>

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

std::string quoted(const void *bytes, uint32_t len)
{
    return bytes == nullptr ? "null" : "'" + std::string(static_cast<const char *>(bytes), len) + "'";
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

/// A message that has travelled, as "type: fields"; "null" when it was not built.
std::string describe_travelled(clpacket *built)
{
    if (built == nullptr) {
        return "null";
    }
    const Packet owner(built);
    const Packet p = received(wire_of(built));
    EXPECT_EQ(clpacket_deserialize(p), 0);
    return std::to_string(built->type) + ": " + describe_chain(p->structr->buffer);
}

// ---------------------------------------------------------------------- what the extractors give

/// Joins values with blanks, behind a result code.
template <class... Values>
std::string answer(int32_t result, const Values &...values)
{
    std::string text = std::to_string(result);
    const auto add = [&text](const auto &value) {
        if constexpr (std::is_arithmetic_v<std::remove_cvref_t<decltype(value)>>) {
            text += " " + std::to_string(value);
        } else {
            text += " " + std::string(value);
        }
    };
    (add(values), ...);
    return text;
}

std::string extract_number(int32_t (*extract)(clpacket *, int32_t *), clpacket *p)
{
    int32_t value = 0;
    const int32_t result = extract(p, &value);
    return answer(result, value);
}

std::string extract_entries23(clpacket *p)
{
    int32_t count = 9;
    entry_record *entries = nullptr;
    std::string text = answer(clpacket_extract_type23(p, &count, &entries), count);
    for (int32_t i = 0; i < count; ++i) {
        const entry_record &e = entries[i];
        text += answer(e.value4, e.value5, e.sub_count, e.value7).insert(0, " (");
        for (int32_t s = 0; s < e.sub_count; ++s) {
            text += answer(e.pairs[s].first, e.pairs[s].second).insert(0, " <") + ">";
        }
        text += ")";
        free(e.pairs);
    }
    free(entries);
    return text;
}

std::string extract_entries24(clpacket *p)
{
    int32_t count = 9;
    entry24_record *entries = nullptr;
    std::string text = answer(clpacket_extract_type24(p, &count, &entries), count);
    for (int32_t i = 0; i < count; ++i) {
        text += " (" + answer(entries[i].value4, entries[i].value5, entries[i].value6) + ")";
    }
    free(entries);
    return text;
}

std::string extract_pairs(clpacket *p)
{
    int32_t count = 9;
    value_pair *pairs = nullptr;
    std::string text = answer(clpacket_extract_type25(p, &count, &pairs), count);
    for (int32_t i = 0; i < count; ++i) {
        text += " (" + answer(pairs[i].first, pairs[i].second) + ")";
    }
    free(pairs);
    return text;
}

std::string extract_array(clpacket *p)
{
    uint32_t count = 9;
    int32_t *values = nullptr;
    std::string text = answer(clpacket_extract_type26(p, &count, &values), count);
    for (uint32_t i = 0; i < count; ++i) {
        text += " " + std::to_string(values[i]);
    }
    free(values);
    return text;
}

std::string extract_blobs(clpacket *p)
{
    int32_t value2 = 0;
    uint32_t count = 9;
    int32_t *values = nullptr;
    void **data = nullptr;
    uint32_t *lens = nullptr;
    const auto extract = p->type == 37 ? clpacket_extract_type37 : clpacket_extract_type38;
    std::string text = answer(extract(p, &value2, &count, &values, &data, &lens), value2, count);
    for (uint32_t i = 0; i < count; ++i) {
        text += " (" + answer(values[i], quoted(data[i], lens[i] + 1)) + ")";
        free(data[i]);
    }
    free(values);
    free(static_cast<void *>(data));
    free(lens);
    return text;
}

std::string extract_result(clpacket *p)
{
    int32_t status = 9, error = 9, count = 9;
    char *error_text = nullptr;
    uint32_t len = 9;
    result_item *items = nullptr;
    const int32_t code = clpacket_extract_result(p, &status, &error, &count, &error_text, &len, &items);
    std::string text = answer(code, status, error, quoted(error_text, len), count);
    for (int32_t i = 0; i < count; ++i) {
        const result_item &item = items[i];
        text += " (" + answer(item.value, quoted(item.text, item.text_len), quoted(item.data, item.data_len)) + ")";
        free(item.text);
        free(item.data);
    }
    free(error_text);
    free(items);
    return text;
}

std::string extract_changes(clpacket *p)
{
    db_change_notice *notice = clpacket_check_db_changed(p);
    if (notice == nullptr) {
        return "null";
    }
    std::string text = answer(notice->version, notice->count, quoted(notice->detail, notice->detail_len));
    for (int32_t i = 0; i < notice->count; ++i) {
        text += " " + quoted(notice->ids[i].text, notice->ids[i].len + 1);
        free(notice->ids[i].text);
    }
    free(notice->ids);
    free(notice->detail);
    free(notice);
    return text;
}

std::string take_entry(parallel_server_entry *e)
{
    if (e == nullptr) {
        return "null";
    }
    const std::string text = answer(e->status, e->address, e->port);
    free(e->address);
    free(e->port);
    free(e);
    return text;
}

std::string take_entry(secondary_server_entry *e)
{
    if (e == nullptr) {
        return "null";
    }
    const std::string text =
        answer(e->status, e->address, e->admin_port, e->client_port, e->monitor_address, e->node_monitor_port);
    for (char *field : {e->address, e->admin_port, e->client_port, e->monitor_address, e->node_monitor_port}) {
        free(field);
    }
    free(e);
    return text;
}

template <class List>
std::string take_list(List *list)
{
    if (list == nullptr) {
        return "null";
    }
    std::string text = std::to_string(list->count);
    for (int32_t i = 0; i < list->count; ++i) {
        text += " (" + take_entry(list->servers[i]) + ")";
    }
    free(static_cast<void *>(list->servers));
    free(list);
    return text;
}

std::string extract_table(clpacket *p)
{
    uint32_t rows = 0, cols = 0;
    int32_t value3 = 0;
    int32_t *values = nullptr;
    uint32_t *lens = nullptr, *text_lens = nullptr;
    void **data = nullptr;
    char **texts = nullptr;
    const bool with_texts = p->type == CLPACKET_ADMIN_DB_INSERT3;
    const int32_t result =
        with_texts
            ? clpacket_extract_admin_db_insert3(p, &rows, &value3, &cols, &values, &lens, &data, &text_lens, &texts)
            : clpacket_extract_admin_db_insert2(p, &rows, &value3, &cols, &values, &lens, &data);
    std::string text = answer(result, rows, value3, cols);
    for (uint64_t i = 0; i < uint64_t{rows} * cols; ++i) {
        text +=
            " (" + answer(values[i], quoted(data[i], lens[i]), with_texts ? quoted(texts[i], text_lens[i]) : "") + ")";
    }
    free(values);
    free(lens);
    free(text_lens);
    free(static_cast<void *>(data));
    free(static_cast<void *>(texts));
    return text;
}

/// What the extractor of the packet's type gives; releases it. Types without one give "".
std::string extract(clpacket *p)
{
    int32_t a = 9, b = 9, c = 9;
    uint32_t len = 0;
    switch (p->type) {
    case 2:
        return extract_number(clpacket_extract_type2, p);
    case 39:
        return extract_number(clpacket_extract_type39, p);
    case 40:
        return extract_number(clpacket_extract_type40, p);
    case 5:
        return extract_result(p);
    case 21:
        return extract_changes(p);
    case 23:
        return extract_entries23(p);
    case 24:
        return extract_entries24(p);
    case 25:
        return extract_pairs(p);
    case 26:
        return extract_array(p);
    case 28:
        a = clpacket_extract_type28(p, &b, &c);
        return answer(a, b, c);
    case 36:
        len = static_cast<uint32_t>(clpacket_extract_type36(p, &a, &b, &c));
        return len == 0 ? answer(0, a, b, c) : std::to_string(len);
    case 37:
    case 38:
        return extract_blobs(p);
    case 43:
        return take_entry(clpacket_extract_secondary_server_join(p));
    case 44:
        return take_list(clpacket_extract_secondary_servers_list(p));
    case 45:
        return take_entry(clpacket_extract_secondary_server_item(p));
    case 49:
        return take_entry(clpacket_extract_parallel_server_join(p));
    case 51:
        return take_entry(clpacket_extract_parallel_server_item(p));
    case 52:
        return take_list(clpacket_extract_parallel_servers_list(p));
    case 56: {
        const void *session = clpacket_extract_session_new(p, &len);
        return quoted(session, len);
    }
    case 59:
    case 60:
        return extract_table(p);
    default:
        return "";
    }
}

// --------------------------------------------------------------------------------- the catalogue

const char *const blobs[] = {"ab", "", "c"};
const void *const blob_pointers[] = {blobs[0], blobs[1], nullptr};
const uint32_t blob_lens[] = {2, 0, 1};
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
    std::string fields;    // as they travel
    std::string extracted; // by the extractor of the type, if there is one
};

#define BUILD(call) [] { return call; }

const MessageCase messages[] = {
    {BUILD(clpacket_create_type1(9, "b", 1, "st", 2, nullptr, 0, -6)),
     "1: 1:6=1 2:13=9 3:16='b' 4:12='st' 5:16=null 6:6=-6", ""},
    {BUILD(clpacket_create_type2(-2)), "2: 1:6=1 2:6=-2", "0 -2"},
    {BUILD(clpacket_create_type3(2, 3, 4)), "3: 1:6=1 2:6=2 3:6=3 4:6=4", ""},
    {BUILD(clpacket_create_type6(2)), "6: 1:6=0 2:6=2", ""},
    {BUILD(clpacket_create_type7(-1, 1, 2, 3)), "7: 0:6=-1 1:6=1 2:7=2 3:7=3", ""},
    {BUILD(clpacket_create_type8(-200, 1)), "8: 0:6=-1 1:7=1", ""},
    {BUILD(clpacket_create_type8(200, 1)), "8: 0:6=200 1:7=1", ""},
    {BUILD(clpacket_create_type9(2, 3, "b", 1, "s", 1, "c", 1, 7)),
     "9: 1:6=1 2:6=2 3:13=3 4:16='b' 5:12='s' 6:16='c' 7:6=7", ""},
    {BUILD(clpacket_create_type11("s", 1)), "11: 1:6=1 2:12='s'", ""},
    {BUILD(clpacket_create_type15(2, 3)), "15: 1:6=1 2:6=2 3:6=3", ""},
    {BUILD(clpacket_create_type16()), "16: 1:6=0", ""},
    {BUILD(clpacket_create_type17(5)), "17: 1:6=5", ""},
    {BUILD(clpacket_create_type18(5)), "18: 1:6=5", ""},
    {BUILD(clpacket_create_type18_empty()), "18: 1:6=0", ""},
    {BUILD(clpacket_create_type20()), "20: 1:6=0", ""},
    {BUILD(clpacket_create_type23(&entries)),
     "23: 1:6=1 2:6=2 3:28={3:14={4:6=4 5:6=5 6:6=2 7:6=7 8:28={8:14={9:6=1 10:6=2} 8:14={9:6=3 10:6=4}}} 3:14={4:6=-4 "
     "5:6=-5 6:6=0 7:6=-7}}",
     "0 2 (4 5 2 7 <1 2> <3 4>) (-4 -5 0 -7)"},
    {BUILD(clpacket_create_type23_empty()), "23: 1:6=0", "4 -1"},
    {BUILD(clpacket_create_type24(&entries)),
     "24: 1:6=1 2:6=2 3:28={3:14={4:6=4 5:6=5 6:6=2} 3:14={4:6=-4 5:6=-5 6:6=0}}", "0 2 (4 5 2) (-4 -5 0)"},
    {BUILD(clpacket_create_type24_empty()), "24: 1:6=0", "4 -1"},
    {BUILD(clpacket_create_type25(pairs, 2)), "25: 1:6=1 2:6=2 3:28={3:14={4:6=1 5:6=2} 3:14={4:6=3 5:6=4}}",
     "0 2 (1 2) (3 4)"},
    {BUILD(clpacket_create_type25_empty()), "25: 1:6=0", "3 -1"},
    {BUILD(clpacket_create_type26(numbers, 3)), "26: 1:6=1 2:19=[7,-8,9]", "0 3 7 -8 9"},
    {BUILD(clpacket_create_type26_empty()), "26: 1:6=0", "4 0"},
    {BUILD(clpacket_create_type27(2)), "27: 1:6=1 2:6=2", ""},
    {BUILD(clpacket_create_type28(2, 3)), "28: 1:6=1 2:6=2 3:6=3", "0 2 3"},
    {BUILD(clpacket_create_type31()), "31: 1:6=1", ""},
    {BUILD(clpacket_create_type32()), "32: 1:6=1", ""},
    {BUILD(clpacket_create_type33(2, blob_pointers, blob_lens, blob_pointers, blob_lens)),
     "33: 1:6=1 2:7=2 3:14={0:16='ab' 1:16=null} 4:14={0:16='ab' 1:16=null}", ""},
    {BUILD(clpacket_create_type34(1, blob_pointers, blob_lens)), "34: 1:6=1 2:7=1 3:14={0:16='ab'}", ""},
    {BUILD(clpacket_create_type35()), "35: 1:6=1", ""},
    {BUILD(clpacket_create_type36(2, 3, 4)), "36: 1:6=1 2:6=2 3:6=3 4:6=4", "0 2 3 4"},
    {BUILD(clpacket_create_type36_empty()), "36: 1:6=1", "3"},
    {BUILD(clpacket_create_type37(2, 3, numbers, blob_pointers, blob_lens)),
     "37: 1:6=1 2:6=2 3:19=[7,-8,9] 4:14={0:16='ab' 1:16=null 2:16=null}", "0 2 3 (7 'ab\0') (-8 '\0') (9 '\0')"s},
    {BUILD(clpacket_create_type38(2, 1, numbers, blob_pointers, blob_lens)),
     "38: 1:6=1 2:6=2 3:19=[7] 4:14={0:16='ab'}", "0 2 1 (7 'ab\0')"s},
    {BUILD(clpacket_create_type39(2)), "39: 1:6=1 2:6=2", "0 2"},
    {BUILD(clpacket_create_type40(2)), "40: 1:6=1 2:6=2", "0 2"},
    {BUILD(clpacket_create_type41(2)), "41: 1:6=1 2:6=2", ""},
    {BUILD(clpacket_create_type42(2)), "42: 1:6=1 2:6=2", ""},
    {BUILD(clpacket_create_type64(2)), "64: 1:6=1 2:6=2", ""},
    {BUILD(clpacket_create_type50()), "50: 0:6=1", ""},
    {BUILD(clpacket_create_type53(5)), "53: 0:6=5", ""},
    {BUILD(clpacket_create_type54(5)), "54: 0:6=5", ""},
    {BUILD(clpacket_create_type55(numbers, 2)), "55: 1:19=[7,-8]", ""},
    {BUILD(clpacket_create_type65(-5000000000)), "65: 1:6=1 2:8=-5000000000", ""},
    {BUILD(clpacket_create_type71()), "71: 1:6=1", ""},
    {BUILD(clpacket_create_item(8, "s", 1, "b", 1)), "0: 8:6=8 9:12='s' 10:16='b'", ""},
    {BUILD(clpacket_log_event("me", "x", 1)), "29: 1:6=1 2:12='me' 3:12='x'", ""},
    {BUILD(clpacket_log_event_send_event("b", 1, 0xffffffff)), "48: 1:16='b' 0:6=-1", ""},
    {BUILD(clpacket_create_result(100, 3, rows, -1, -1, 0, nullptr, 0)),
     "5: 1:6=1 2:6=100 3:6=0 6:28={6:14={7:6=1 8:12='row' 9:16='ro'} 6:14={7:6=2 8:12='' 9:16=null} 6:14={7:6=3 "
     "8:12='r' 9:16=null}} 5:6=3",
     "0 100 0 null 3 (1 'row' 'ro') (2 '' null) (3 'r' null)"},
    {BUILD(clpacket_create_result(100, 3, rows, 2, 3, 0, nullptr, 0)),
     "5: 1:6=1 2:6=100 3:6=0 6:28={6:14={7:6=2 8:12='' 9:16=null} 6:14={7:6=3 8:12='r' 9:16=null}} 5:6=2",
     "0 100 0 null 2 (2 '' null) (3 'r' null)"},
    {BUILD(clpacket_create_result(200, 3, rows, -1, -1, 0, nullptr, 0)), "5: 1:6=1 2:6=200 3:6=0 5:6=0",
     "0 200 0 null 0"},
    {BUILD(clpacket_create_result(100, -3, rows, -1, -1, 0, nullptr, 0)), "5: 1:6=1 2:6=100 3:6=0 5:6=0",
     "0 100 0 null 0"},
    {BUILD(clpacket_create_result(99, 0, nullptr, 0, 0, 0, nullptr, 0)), "5: 1:6=1 2:6=99 3:6=0 5:6=0",
     "0 99 0 null 0"},
    {BUILD(clpacket_create_result(100, 3, rows, 1, 1, 8, "no", 2)), "5: 1:6=1 2:6=100 3:6=8 4:12='no' 5:6=0",
     "0 100 8 'no' 0"},
    {BUILD(clpacket_create_db_changed(1, blobs, blob_lens)), "21: 1:6=1 2:6=1 3:28={3:14={5:12='ab'}}",
     "1 1 null 'ab\0'"s},
    {BUILD(clpacket_create_db_changed(0, nullptr, nullptr)), "21: 1:6=1 2:6=0", "1 0 null"},
    {BUILD(clpacket_parallel_server_item(address, port)), "51: 0:12='10.0.0.1' 1:12='80'", "0 10.0.0.1 80"},
    {BUILD(clpacket_parallel_server_join(address, port)), "49: 0:14={0:12='10.0.0.1' 1:12='80'}", "0 10.0.0.1 80"},
    {[] {
         const parallel_server_list list{2, parallel_pointers};
         return clpacket_parallel_servers_list(&list);
     },
     "52: 0:6=2 1:28={1:14={0:12='10.0.0.1' 1:12='80'} 1:14={0:12='' 1:12='80'}}", "2 (0 10.0.0.1 80) (0  80)"},
    {BUILD(clpacket_secondary_server_item("a", "b", "c", "d", "e")), "45: 0:12='a' 1:12='b' 2:12='c' 3:12='d' 4:12='e'",
     "0 a b c d e"},
    {BUILD(clpacket_secondary_server_join("a", "b", "c", "d", "e")),
     "43: 0:14={0:12='a' 1:12='b' 2:12='c' 3:12='d' 4:12='e'}", "0 a b c d e"},
    {[] {
         const secondary_server_list list{1, secondary_pointers};
         return clpacket_secondary_servers_list(&list);
     },
     "44: 0:6=1 1:28={1:14={0:12='10.0.0.1' 1:12='80' 2:12='' 3:12='10.0.0.1' 4:12='80'}}",
     "1 (0 10.0.0.1 80  10.0.0.1 80)"},
    {BUILD(clpacket_secondary_server_accept()), "46: 0:6=1", ""},
    {BUILD(clpacket_secondary_server_state_number(-3)), "47: 0:6=-3", ""},
    {BUILD(clpacket_session_new("session", 7)), "56: 0:16='session'", "'session'"},
    {BUILD(clpacket_session_drop()), "57: 0:6=1", ""},
    {BUILD(clpacket_node_kill()), "58: 1:6=1", ""},
    {BUILD(clpacket_admin_db_insert2(2, -3, 2, cell_values, cell_lens, cell_data)),
     "59: 1:6=1 2:7=2 3:6=-3 4:7=2 5:14={0:6=7 1:6=-8 2:6=-8 3:6=9} 6:14={0:7=2 1:7=0 2:7=2 3:7=0} 7:14={0:16='ab' "
     "1:16=null 2:16='ab' 3:16=null}",
     "0 2 -3 2 (7 'ab' ) (-8 null ) (-8 'ab' ) (9 null )"},
    {BUILD(clpacket_admin_db_insert3(1, -3, 2, cell_values, cell_lens, cell_data, text_lens, texts)),
     "60: 1:6=1 2:7=1 3:6=-3 4:7=2 5:14={0:6=7 1:6=-8} 6:14={0:7=2 1:7=0} 7:14={0:16='ab' 1:16=null} 8:14={0:12='t' "
     "1:12=''}",
     "0 1 -3 2 (7 'ab' 't') (-8 null '')"},
};

class Catalogue : public ReportingTest {};

TEST_F(Catalogue, EveryMessageTravels)
{
    for (const MessageCase &message : messages) {
        EXPECT_EQ(describe_travelled(message.build()), message.fields);
        const Packet built = message.build();
        const Packet p = received(wire_of(built));
        p->type = built->type;
        EXPECT_EQ(extract(p), message.extracted) << message.fields;
        take_reports(); // of the empty messages
        const Packet just_built = message.build();
        EXPECT_EQ(extract(just_built), message.extracted) << "without having travelled";
        take_reports();
    }
}

void answer_from_extractors(clpacket *p)
{
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
        const auto feed = [&](const std::vector<uint8_t> &bytes_sent) {
            const Packet p = received(bytes_sent);
            p->type = built->type;
            answer_from_extractors(p);
        };
        for (size_t i = message.extracted.empty() ? wire.size() : 1; i < wire.size(); ++i) {
            feed({wire.begin(), wire.begin() + static_cast<ptrdiff_t>(i)});
            std::vector<uint8_t> mutated = wire;
            for (const int value : {0, 1, 2, 4, 14, 28, 127, 128, 255}) {
                mutated[i] = static_cast<uint8_t>(value);
                feed(mutated);
            }
            for (const uint8_t first : {uint8_t{255}, uint8_t{127}}) { // counts and lengths of -1 and the largest
                mutated = wire;
                std::fill_n(mutated.begin() + static_cast<ptrdiff_t>(i), std::min<size_t>(4, wire.size() - i),
                            uint8_t{255});
                mutated[i] = first;
                feed(mutated);
            }
        }
        const Packet p = received(wire);
        for (const uint32_t type :
             std::vector<uint32_t>{2, 5, 21, 23, 24, 25, 26, 28, 36, 37, 38, 43, 44, 45, 49, 51, 52, 56, 59, 60}) {
            p->type = type;
            answer_from_extractors(p);
        }
    }
}

/// A message with other fields than its builder gives it.
Packet with_fields(uint32_t type, const std::function<void(clpacket *)> &set)
{
    Packet p = clpacket_create();
    clpacket_set_type(p, type);
    set(p);
    return p;
}

TEST_F(Catalogue, GenericAnswers)
{
    const auto fields = [](int32_t v, int32_t second, int32_t count_field = 2) {
        return [=](clpacket *p) {
            clpacket_set_int32_signed(p, 1, v);
            clpacket_set_int32_signed(p, count_field, second);
        };
    };
    const struct {
        uint32_t type;
        std::function<void(clpacket *)> set;
        const char *answer;
    } cases[] = {
        {2, fields(5, 7), "0 7"},      {2, fields(1, 7, 3), "3 0"},       {23, fields(2, 0), "4 -1"},
        {23, fields(1, 0), "0 0"},     {23, fields(1, -1), "3 -1"},       {23, fields(1, INT32_MAX), "3 -1"},
        {24, fields(1, 1), "3 -1"},    {25, fields(7, 0), "0 0"},         {26, fields(1, 0), "3 0"},
        {28, fields(1, 4), "3 -1 -1"}, {28, fields(2, 4), "4 -1 -1"},     {36, fields(9, 4), "0 4 -1 -1"},
        {37, fields(1, 4), "3 4 0"},   {5, fields(1, 4), "3 4 0 null 0"}, {52, fields(1, 1, 0), "null"},
        {44, fields(1, 0, 0), "0"},    {52, fields(1, -1, 0), "null"},
    };
    for (const auto &c : cases) {
        const Packet p = received(wire_of(with_fields(c.type, c.set)));
        p->type = c.type;
        EXPECT_EQ(extract(p), c.answer) << c.type;
    }
    take_reports();
    // Another type, what does not decode, null arguments.
    int32_t value = 0;
    const Packet other = clpacket_create_type27(1);
    EXPECT_EQ(clpacket_extract_type2(other, &value), CLPACKET_EXTRACT_WRONG);
    const Packet broken = received({0});
    broken->type = 25;
    EXPECT_EQ(extract(broken), "2 -1");
    broken->type = 36;
    EXPECT_EQ(extract(broken), "2");
    broken->type = 39;
    EXPECT_EQ(extract(broken), "3 0");
    EXPECT_EQ(clpacket_extract_type2(nullptr, &value), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_type23(other, &value, nullptr), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_type26(other, nullptr, nullptr), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_type28(other, nullptr, &value), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_type36(other, nullptr, &value, &value), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_type37(other, &value, nullptr, nullptr, nullptr, nullptr), CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_result(other, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
              CLPACKET_EXTRACT_BAD_ARG);
    EXPECT_EQ(clpacket_extract_admin_db_insert2(other, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
    const Packet gap = with_fields(36, [](clpacket *p) {
        clpacket_set_int32_signed(p, 1, 1);
        clpacket_set_int32_signed(p, 2, 2);
        clpacket_set_int32_signed(p, 4, 4);
    });
    EXPECT_EQ(extract(gap), "0 2 -1 4") << "a missing optional field is no failure";
    EXPECT_EQ(gap->error_state, MTB_OK);
    const Packet optional = clpacket_create_type36(2, 3, 4);
    EXPECT_EQ(clpacket_extract_type36(optional, &value, nullptr, nullptr), CLPACKET_EXTRACT_OK);
    take_reports();
}

TEST_F(Catalogue, BuildersRefuse)
{
    const clpacket *const none = nullptr;
    parallel_server_entry *gap[] = {&parallel[0], nullptr};
    const parallel_server_list no_servers{1, nullptr}, no_count{0, gap}, with_gap{2, gap};
    EXPECT_REPORTED(clpacket_parallel_server_item(nullptr, nullptr), none,
                    "clpacket_parallel_server_item: ERROR: address is NULL");
    EXPECT_REPORTED(clpacket_parallel_server_item("a", nullptr), none,
                    "clpacket_parallel_server_item: ERROR: port is NULL");
    const char *fields[5] = {};
    const char *const words[] = {"address", "admin port", "client port", "monitor address", "node monitor port"};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_REPORTED(clpacket_secondary_server_item(fields[0], fields[1], fields[2], fields[3], fields[4]), none,
                        std::string("clpacket_secondary_server_item: ERROR: ") + words[i] + " is NULL");
        fields[i] = "x";
    }
    EXPECT_REPORTED(clpacket_parallel_server_join(nullptr, "1"), none,
                    "clpacket_parallel_server_item: ERROR: address is NULL",
                    "clpacket_parallel_server_join: ERROR: failed to create parallel server item packet");
    EXPECT_REPORTED(clpacket_secondary_server_join("a", "a", "a", "a", nullptr), none,
                    "clpacket_secondary_server_item: ERROR: node monitor port is NULL",
                    "clpacket_secondary_server_join: ERROR: failed to create secondary server item packet");
    EXPECT_REPORTED(clpacket_parallel_servers_list(nullptr), none,
                    "clpacket_parallel_servers_list: ERROR: data is NULL");
    EXPECT_REPORTED(clpacket_parallel_servers_list(&no_servers), none,
                    "clpacket_parallel_servers_list: ERROR: servers is NULL");
    EXPECT_REPORTED(clpacket_parallel_servers_list(&no_count), none,
                    "clpacket_parallel_servers_list: ERROR: invalid count of servers");
    EXPECT_REPORTED(clpacket_parallel_servers_list(&with_gap), none,
                    "clpacket_parallel_servers_list: ERROR: server is NULL");
    EXPECT_REPORTED(clpacket_secondary_servers_list(nullptr), none,
                    "clpacket_secondary_servers_list: ERROR: data is NULL");
    EXPECT_REPORTED(clpacket_session_new(nullptr, 1), none, "clpacket_session_new: ERROR: session_buf is NULL");
    EXPECT_REPORTED(clpacket_session_new("x", 0x80000000), none,
                    "mtb_add_blob: ERROR: invalid length specified: -2147483648",
                    "clpacket_session_new: ERROR: failed to generate packet");
    for (const auto &[first, last] :
         std::vector<std::pair<int32_t, int32_t>>{{2, 1}, {0, 1}, {-1, 3}, {1, 4}, {INT32_MIN, INT32_MAX}}) {
        const Packet bad_range = clpacket_create_result(100, 3, rows, first, last, 0, nullptr, 0);
        EXPECT_EQ(extract(bad_range), "0 100 -1 'ERROR: bad result range specified' 0");
        EXPECT_REPORTS("clpacket_create_result: ERROR: bad result range specified");
    }
    EXPECT_REPORTED(clpacket_create_result(100, 1, nullptr, -1, -1, 0, nullptr, 0), none,
                    "clpacket_create_result: ERROR: failed to set result item");
    EXPECT_REPORTED(clpacket_create_result(100, 0, nullptr, -1, -1, 5, nullptr, 0), none,
                    "clpacket_set_string: ERROR: invalid arguments: len or val");
    const result_item no_text{1, 0, 0, nullptr, nullptr};
    EXPECT_REPORTED(clpacket_create_result(100, 1, &no_text, -1, -1, 0, nullptr, 0), none,
                    "clpacket_set_string: ERROR: invalid arguments: len or val",
                    "clpacket_create_result: ERROR: failed to set result item");
    const uint32_t no_len[] = {0};
    const Packet empty_id = clpacket_create_db_changed(1, blobs, no_len);
    EXPECT_REPORTS("clpacket_create_db_changed: WARNING: empty id string");
    EXPECT_REPORTED(extract(empty_id), "null", "clpacket_check_db_changed: ERROR: dbid field 0 is empty");
    EXPECT_REPORTED(clpacket_create_type34(0, blob_pointers, blob_lens), none,
                    "check_complex_val: ERROR: argument \"val\" is empty.");
    EXPECT_EACH(none, clpacket_create_type23(nullptr),
                clpacket_create_type33(-1, blob_pointers, blob_lens, blob_pointers, blob_lens),
                clpacket_create_type34(1, nullptr, blob_lens),
                clpacket_create_type37(1, 1, numbers, nullptr, blob_lens),
                clpacket_create_db_changed(-1, blobs, blob_lens),
                clpacket_admin_db_insert2(1, 1, 1, nullptr, cell_lens, cell_data));
    EXPECT_REPORTS();
}

TEST_F(Catalogue, NamedExtractorsTell)
{
    const Packet type27 = clpacket_create_type27(1);
    const auto type = [](const std::string &function, int expected) {
        return function + ": ERROR: invalid packet type. Got 27, expected " + std::to_string(expected);
    };
    EXPECT_EQ(clpacket_extract_parallel_servers_list(type27), nullptr);
    EXPECT_EQ(clpacket_extract_secondary_server_join(type27), nullptr);
    EXPECT_REPORTS(type("clpacket_extract_parallel_servers_list", 52),
                   type("clpacket_extract_secondary_server_join", 43));
    EXPECT_EQ(clpacket_extract_parallel_servers_list(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_secondary_servers_list(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_parallel_server_item(nullptr), nullptr);
    EXPECT_EQ(clpacket_extract_session_new(nullptr, nullptr), nullptr);
    EXPECT_REPORTS("clpacket_get_type: ERROR: invalid argument",
                   "clpacket_extract_parallel_servers_list: ERROR: invalid packet type. Got -1, expected 52",
                   "clpacket_extract_secondary_servers_list: ERROR: clpacket is NULL",
                   "clpacket_extract_parallel_server_item: ERROR: clpacket is NULL",
                   "clpacket_extract_session_new: ERROR: clpacket is NULL");
    const Packet announced = with_fields(52, [](clpacket *p) { clpacket_set_int32_signed(p, 0, INT32_MAX); });
    EXPECT_REPORTED(extract(announced), "null", "mtb_get_array_element: ERROR: element with name 1 not found",
                    "clpacket_extract_parallel_servers_list: ERROR: failed to get item from servers list");
    const Packet cut =
        received(bytes("00 01 01 00 00 00 02 00 00 06 00 00 00 02 00 01 1c 00 00 00 02 00 01 0e 00 00 00 00"));
    cut->type = 44;
    EXPECT_REPORTED(extract(cut), "null", "mtb_get_string: ERROR: element with name 0 not found",
                    "clpacket_extract_secondary_server_item: ERROR: failed to extract secondary server packet",
                    "clpacket_extract_secondary_servers_list: ERROR: failed to extract secondary server item");
    const Packet joinless = with_fields(49, [](clpacket *p) { clpacket_set_int32_signed(p, 0, 1); });
    EXPECT_REPORTED(extract(joinless), "null", "mtb_get_struct: ERROR: element with name 0 not found",
                    "clpacket_extract_parallel_server_join: ERROR: failed to get item from packet");
    const auto notice = [](int32_t v, int32_t count) {
        return with_fields(21, [=](clpacket *p) {
            clpacket_set_int32_signed(p, 1, v);
            clpacket_set_int32_signed(p, 2, count);
            clpacket_set_string(p, 7, "detail", 6);
        });
    };
    EXPECT_REPORTED(extract(notice(2, 0)), "null", "clpacket_check_db_changed: ERROR: wrong version (2)");
    EXPECT_REPORTED(extract(notice(1, -5)), "null", "clpacket_check_db_changed: ERROR: negavive count (-5)");
    EXPECT_REPORTED(extract(notice(1, 0)), "1 0 'detail'");
    EXPECT_REPORTED(extract(with_fields(21, [](clpacket *) {})), "null",
                    "clpacket_deserialize: ERROR: binary buffer not found",
                    "clpacket_check_db_changed: ERROR: failed to deserialize admin packet");
    uint32_t rows_out = 0, cols_out = 0, *lens_out = nullptr;
    int32_t value_out = 0, *values_out = nullptr;
    void **data_out = nullptr;
    EXPECT_REPORTED(
        clpacket_extract_admin_db_insert2(type27, &rows_out, &value_out, &cols_out, &values_out, &lens_out, &data_out),
        -1, "clpacket_extract_admin_db_insert2: ERROR: invalid packet type: 27");
    const Packet table = clpacket_admin_db_insert2(1, 1, 1, cell_values, cell_lens, cell_data);
    mtb_struct *column = nullptr;
    mtb_get_struct(6, &column, MTB_TYPE_STRUCT, table->structr);
    mtb_add_int32_unsigned(0, 9, column);
    EXPECT_REPORTED(extract(table), "-1 0 0 0",
                    "clpacket_extract_admin_db_insert2: ERROR: invalid value size (got: 2, expected: 9)");
    for (const auto &[r, c] :
         std::vector<std::pair<uint32_t, uint32_t>>{{65536, 65536}, {0xffffffff, 0xffffffff}, {2, 1}}) {
        clpacket_set_int32_unsigned(table, 2, r);
        clpacket_set_int32_unsigned(table, 4, c);
        mtb_add_int32_unsigned(0, 2, column);
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
    std::vector<uint64_t> lens(count, 1);
    std::vector<const void *> data(count, "d");
    for (uint32_t i = 0; i < count; ++i) {
        values[i] = static_cast<int32_t>(i);
    }
    const int32_t *value_row = values.data();
    const uint64_t *len_row = lens.data();
    const void *const *data_row = data.data();
    const Packet table = clpacket_admin_db_insert2(1, 1, count, &value_row, &len_row, &data_row);
    mtb_struct *column = nullptr;
    EXPECT_EQ(mtb_get_struct(5, &column, MTB_TYPE_STRUCT, table->structr), MTB_OK);
    EXPECT_EQ(column->len, 65536);
    EXPECT_EQ(column->buffer->first->value.i32, 65536) << "the running index starts anew";
    uint32_t rows_out = 0, cols_out = 0, *lens_out = nullptr;
    int32_t value_out = 0, *values_out = nullptr;
    void **data_out = nullptr;
    EXPECT_EQ(
        clpacket_extract_admin_db_insert2(table, &rows_out, &value_out, &cols_out, &values_out, &lens_out, &data_out),
        0);
    EXPECT_EQ(values_out[65537], 65537);
    EXPECT_EQ(values_out[1], 65537);
    free(values_out);
    free(lens_out);
    free(static_cast<void *>(data_out));
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
    std::map<uint32_t, std::string> shown, said;
    std::set<uint32_t> built_as_said;
    uint32_t type = 0;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("    ") && line.find('=') != std::string::npos) {
            type = static_cast<uint32_t>(std::stoul(line));
            said[type] = line.substr(4);
        } else if (line.starts_with("    ")) {
            shown[type] += line;
        }
    }
    for (const MessageCase &message : messages) {
        const Packet p = message.build();
        EXPECT_TRUE(p->type == 0 || shown.contains(p->type)) << message.fields;
        if (said[p->type] == message.fields) {
            built_as_said.insert(p->type);
        }
    }
    EXPECT_EQ(built_as_said.size(), shown.size()) << "each is what a builder of the table makes";
    for (const auto &[number, hex] : shown) {
        const std::vector<uint8_t> datagram = bytes(hex);
        const Packet p = received({datagram.begin() + 4, datagram.end()});
        p->type = datagram[3];
        EXPECT_EQ(clpacket_deserialize(p), 0);
        EXPECT_EQ(std::to_string(p->type) + ": " + describe_chain(p->structr->buffer), said[number]);
    }
}

} // namespace
