#include <TavlenCommon/com_packet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <type_traits>

#include <TavlenCommon/buffer_packet_internal.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/report_as.h>

using tavlen::Lookup;
using tavlen::owned;

// -------------------------------------------------------------------------------------- building

namespace {

struct DestroyPacket {
    void operator()(clpacket *p) const { clpacket_destroy(p); }
};
using owned_packet = std::unique_ptr<clpacket, DestroyPacket>;

constexpr int32_t name_count = 65536; // names are 16 bits wide: a running index starts anew there

/// The length of a text as strings have it; -1, which no string takes, when it is longer than that.
int32_t text_length(const char *text)
{
    const size_t length = text != nullptr ? strlen(text) : 0;
    return length <= INT32_MAX ? static_cast<int32_t>(length) : -1;
}

/**
 * A message in the making: each step sets a field, and finish() looks once whether all went well.
 * Without memory for the packet the steps do nothing.
 */
class Message {
public:
    explicit Message(uint32_t type) : packet_(clpacket_create())
    {
        if (packet_ != nullptr) {
            (void)clpacket_set_type(get(), type);
        }
    }

    bool exists() const { return packet_ != nullptr; }
    bool is_good() const { return exists() && packet_->error_state == MTB_OK; }
    clpacket *get() const { return packet_.get(); }

    /// The message when every field could be set, else null.
    clpacket *finish() { return is_good() ? packet_.release() : nullptr; }

    Message &int32(int32_t name, int32_t value)
    {
        return set([&] { return clpacket_set_int32_signed(get(), name, value); });
    }
    Message &uint32(int32_t name, uint32_t value)
    {
        return set([&] { return clpacket_set_int32_unsigned(get(), name, value); });
    }
    Message &int64(int32_t name, int64_t value)
    {
        return set([&] { return clpacket_set_int64_signed(get(), name, value); });
    }
    Message &enumeration(int32_t name, uint32_t value)
    {
        return set([&] { return clpacket_set_enum(get(), name, value); });
    }
    Message &string(int32_t name, const char *text, int32_t len)
    {
        return set([&] { return clpacket_set_string(get(), name, text, len); });
    }
    Message &string(int32_t name, const char *text)
    {
        return string(name, text, text_length(text));
    }
    Message &blob(int32_t name, const void *data, uint32_t len)
    {
        return set([&] { return clpacket_set_blob(get(), name, data, len); });
    }
    Message &int32_array(int32_t name, const int32_t *values, uint32_t count)
    {
        return set([&] {
            return clpacket_set_array(get(), name, values, count, MTB_TYPE_ARRAY_INT32_SIGNED);
        });
    }
    Message &structure(int32_t name, clpacket *value)
    {
        return set([&] { return clpacket_set_complex(get(), name, value); });
    }

    /// An array of `count` structures, each filled by fill(item, index). What cannot be filled or
    /// appended ends the message.
    template <class Fill>
    Message &structures(int32_t name, int32_t count, Fill fill)
    {
        for (int32_t i = 0; i < count && is_good(); ++i) {
            Message item(0);
            fill(item, i);
            if (!item.is_good()) {
                packet_ = nullptr;
            } else {
                (void)clpacket_add_array_el_complex(get(), name, item.get());
            }
        }
        return *this;
    }

    /// A structure of `count` fields named by their running index, each set by
    /// set_field(value, name, index, lookup). A field that cannot be set leaves the structure
    /// short.
    template <class SetField>
    Message &indexed(int32_t name, uint64_t count, SetField set_field)
    {
        if (!is_good()) {
            return *this;
        }
        const owned_packet value(clpacket_create());
        if (value == nullptr) {
            packet_ = nullptr;
            return *this;
        }
        for (uint64_t i = 0; i < count && value->error_state == MTB_OK; ++i) {
            const Lookup lookup = i < name_count ? Lookup::needless : Lookup::needed;
            (void)set_field(value.get(), static_cast<int32_t>(i % name_count), i, lookup);
        }
        return structure(name, value.get());
    }

private:
    template <class Set>
    Message &set(Set set_field)
    {
        if (exists()) {
            (void)set_field();
        }
        return *this;
    }

    owned_packet packet_;
};

constexpr int32_t version_field = 1;
constexpr int32_t version = 1;

/// Most messages begin with their version.
Message versioned(uint32_t type)
{
    return std::move(Message(type).int32(version_field, version));
}

} // namespace

// ------------------------------------------------------------------------------------ log events

clpacket *clpacket_log_event(const char *name, const char *line, int32_t line_len)
{
    return Message(CLPACKET_LOG_EVENT)
        .int32(LOG_EVENT_FIELD_VERSION, LOG_EVENT_VERSION)
        .string(LOG_EVENT_FIELD_NAME, name)
        .string(LOG_EVENT_FIELD_LINE, line, line_len)
        .finish();
}

clpacket *clpacket_log_event_send_event(const void *buff, uint32_t len, uint32_t value)
{
    if (buff == nullptr) {
        LPRINTF("ERROR: buff is NULL");
        return nullptr;
    }
    if (len == 0) {
        LPRINTF("ERROR: len is too small");
        return nullptr;
    }
    Message message(CLPACKET_LOG_EVENT_SEND_EVENT);
    if (!message.exists()) {
        LPRINTF("ERROR: could not create packet");
        return nullptr;
    }
    return message.blob(1, buff, len).int32(0, static_cast<int32_t>(value)).finish();
}

// -------------------------------------------------------------------------------- plain messages

/// Messages of one constant number.
#define DEFINE_CONSTANT(suffix, type, field, value)                                                \
    clpacket *clpacket_create_##suffix(void)                                                       \
    {                                                                                              \
        return Message(type).int32(field, value).finish();                                         \
    }
DEFINE_CONSTANT(type16, 16, 1, 0)
DEFINE_CONSTANT(type18_empty, 18, 1, 0)
DEFINE_CONSTANT(type20, 20, 1, 0)
DEFINE_CONSTANT(type23_empty, 23, 1, 0)
DEFINE_CONSTANT(type24_empty, 24, 1, 0)
DEFINE_CONSTANT(type25_empty, 25, 1, 0)
DEFINE_CONSTANT(type26_empty, 26, 1, 0)
DEFINE_CONSTANT(type31, 31, 1, 1)
DEFINE_CONSTANT(type32, 32, 1, 1)
DEFINE_CONSTANT(type35, 35, 1, 1)
DEFINE_CONSTANT(type36_empty, 36, 1, 1)
DEFINE_CONSTANT(type50, 50, 0, 1)
DEFINE_CONSTANT(type71, 71, 1, 1)
#undef DEFINE_CONSTANT

/// Messages of one given number.
#define DEFINE_NUMBER(number, field)                                                               \
    clpacket *clpacket_create_type##number(int32_t value)                                          \
    {                                                                                              \
        return Message(number).int32(field, value).finish();                                       \
    }
DEFINE_NUMBER(17, 1)
DEFINE_NUMBER(18, 1)
DEFINE_NUMBER(53, 0)
DEFINE_NUMBER(54, 0)
#undef DEFINE_NUMBER

/// Messages of a version and one given number.
#define DEFINE_VERSIONED_NUMBER(number)                                                            \
    clpacket *clpacket_create_type##number(int32_t value2)                                         \
    {                                                                                              \
        return versioned(number).int32(2, value2).finish();                                        \
    }
DEFINE_VERSIONED_NUMBER(2)
DEFINE_VERSIONED_NUMBER(27)
DEFINE_VERSIONED_NUMBER(39)
DEFINE_VERSIONED_NUMBER(40)
DEFINE_VERSIONED_NUMBER(41)
DEFINE_VERSIONED_NUMBER(42)
DEFINE_VERSIONED_NUMBER(64)
#undef DEFINE_VERSIONED_NUMBER

clpacket *clpacket_create_type1(uint32_t enum2, const void *data3, uint32_t len3, const char *text4,
                                int32_t len4, const void *data5, uint32_t len5, int32_t value6)
{
    return versioned(1)
        .enumeration(2, enum2)
        .blob(3, data3, len3)
        .string(4, text4, len4)
        .blob(5, data5, len5)
        .int32(6, value6)
        .finish();
}

clpacket *clpacket_create_type3(int32_t value2, int32_t value3, int32_t value4)
{
    return versioned(3).int32(2, value2).int32(3, value3).int32(4, value4).finish();
}

clpacket *clpacket_create_type6(int32_t value2)
{
    return Message(6).int32(version_field, 0).int32(2, value2).finish();
}

clpacket *clpacket_create_type7(int32_t value0, int32_t value1, uint32_t value2, uint32_t value3)
{
    return Message(7)
        .int32(0, value0)
        .int32(1, value1)
        .uint32(2, value2)
        .uint32(3, value3)
        .finish();
}

clpacket *clpacket_create_type8(int32_t value0, uint32_t value1)
{
    return Message(8).int32(0, value0 != -200 ? value0 : -1).uint32(1, value1).finish();
}

clpacket *clpacket_create_type9(int32_t value2, uint32_t enum3, const void *data4, uint32_t len4,
                                const char *text5, int32_t len5, const void *data6, uint32_t len6,
                                int32_t value7)
{
    return versioned(9)
        .int32(2, value2)
        .enumeration(3, enum3)
        .blob(4, data4, len4)
        .string(5, text5, len5)
        .blob(6, data6, len6)
        .int32(7, value7)
        .finish();
}

clpacket *clpacket_create_type11(const char *text2, int32_t len2)
{
    return versioned(11).string(2, text2, len2).finish();
}

clpacket *clpacket_create_type15(int32_t value2, int32_t value3)
{
    return versioned(15).int32(2, value2).int32(3, value3).finish();
}

clpacket *clpacket_create_type28(int32_t value2, int32_t value3)
{
    return versioned(28).int32(2, value2).int32(3, value3).finish();
}

clpacket *clpacket_create_type36(int32_t value2, int32_t value3, int32_t value4)
{
    return versioned(36).int32(2, value2).int32(3, value3).int32(4, value4).finish();
}

clpacket *clpacket_create_type65(int64_t value2)
{
    return versioned(65).int64(2, value2).finish();
}

clpacket *clpacket_create_item(int32_t value8, const char *text9, int32_t len9, const void *data10,
                               uint32_t len10)
{
    return Message(0).int32(8, value8).string(9, text9, len9).blob(10, data10, len10).finish();
}

// ------------------------------------------------------------------------------ lists and arrays

namespace {

void set_pair(Message &item, int32_t first_field, const value_pair &pair)
{
    item.int32(first_field, pair.first).int32(first_field + 1, pair.second);
}

void set_entry23(Message &item, const entry_record &entry)
{
    item.int32(4, entry.value4).int32(5, entry.value5).int32(6, entry.sub_count);
    item.int32(7, entry.value7);
    item.structures(8, entry.sub_count, [&entry](Message &sub_item, int32_t i) {
        if (entry.pairs == nullptr) {
            return; // an item without fields cannot be nested, which ends the message
        }
        set_pair(sub_item, 9, entry.pairs[i]);
    });
}

void set_entry24(Message &item, const entry_record &entry)
{
    item.int32(4, entry.value4).int32(5, entry.value5).int32(6, entry.sub_count);
}

clpacket *create_entry_list(uint32_t type, const entry_list *list,
                            void (*set_entry)(Message &, const entry_record &))
{
    if (list == nullptr || (list->count > 0 && list->entries == nullptr)) {
        return nullptr;
    }
    return versioned(type)
        .int32(2, list->count)
        .structures(3, list->count,
                    [&](Message &item, int32_t i) { set_entry(item, list->entries[i]); })
        .finish();
}

/// Fields of blobs, named by their index.
auto blobs_of(const void *const *data, const uint32_t *lens)
{
    return [data, lens](clpacket *value, int32_t name, uint64_t i, Lookup lookup) {
        return clpacket_set_blob(value, name, data[i], lens[i], lookup);
    };
}

/// The same, a null pointer sent as no bytes.
auto nullable_blobs_of(const void *const *data, const uint32_t *lens)
{
    return [data, lens](clpacket *value, int32_t name, uint64_t i, Lookup lookup) {
        const uint32_t len = data[i] != nullptr ? lens[i] : 0;
        return clpacket_set_blob(value, name, data[i], len, lookup);
    };
}

clpacket *create_values_and_blobs(uint32_t type, int32_t value2, uint32_t count,
                                  const int32_t *values3, const void *const *data4,
                                  const uint32_t *lens4)
{
    if (data4 == nullptr || lens4 == nullptr) {
        return nullptr;
    }
    return versioned(type)
        .int32(2, value2)
        .int32_array(3, values3, count)
        .indexed(4, count, nullable_blobs_of(data4, lens4))
        .finish();
}

} // namespace

clpacket *clpacket_create_type23(const entry_list *list)
{
    return create_entry_list(23, list, set_entry23);
}

clpacket *clpacket_create_type24(const entry_list *list)
{
    return create_entry_list(24, list, set_entry24);
}

clpacket *clpacket_create_type25(const value_pair *pairs, int32_t count)
{
    if (count > 0 && pairs == nullptr) {
        return nullptr;
    }
    return versioned(25)
        .int32(2, count)
        .structures(3, count, [pairs](Message &item, int32_t i) { set_pair(item, 4, pairs[i]); })
        .finish();
}

clpacket *clpacket_create_type26(const int32_t *values, uint32_t count)
{
    return versioned(26).int32_array(2, values, count).finish();
}

clpacket *clpacket_create_type55(const int32_t *values, uint32_t count)
{
    return Message(55).int32_array(1, values, count).finish();
}

clpacket *clpacket_create_type33(int32_t count, const void *const *data3, const uint32_t *lens3,
                                 const void *const *data4, const uint32_t *lens4)
{
    if (count < 0 || data3 == nullptr || lens3 == nullptr || data4 == nullptr || lens4 == nullptr) {
        return nullptr;
    }
    const auto fields = static_cast<uint32_t>(count);
    return versioned(33)
        .uint32(2, fields)
        .indexed(3, fields, blobs_of(data3, lens3))
        .indexed(4, fields, blobs_of(data4, lens4))
        .finish();
}

clpacket *clpacket_create_type34(int32_t count, const void *const *data3, const uint32_t *lens3)
{
    if (count < 0 || data3 == nullptr || lens3 == nullptr) {
        return nullptr;
    }
    const auto fields = static_cast<uint32_t>(count);
    return versioned(34).uint32(2, fields).indexed(3, fields, blobs_of(data3, lens3)).finish();
}

clpacket *clpacket_create_type37(int32_t value2, uint32_t count, const int32_t *values3,
                                 const void *const *data4, const uint32_t *lens4)
{
    return create_values_and_blobs(37, value2, count, values3, data4, lens4);
}

clpacket *clpacket_create_type38(int32_t value2, uint32_t count, const int32_t *values3,
                                 const void *const *data4, const uint32_t *lens4)
{
    return create_values_and_blobs(38, value2, count, values3, data4, lens4);
}

// -------------------------------------------------------------------------------- query results

namespace {

constexpr int32_t status_with_rows = 100;

/// Indices of the rows to send, the last one included; none when it is below the first.
struct RowRange {
    int64_t first, last;
};

bool is_within(const RowRange &range, int32_t row_count)
{
    return range.first >= 0 && range.first <= range.last && range.last < row_count;
}

void set_row(Message &item, const result_item &row)
{
    item.int32(7, row.value)
        .string(8, row.text, static_cast<int32_t>(row.text_len))
        .blob(9, row.data, row.data_len);
}

} // namespace

clpacket *clpacket_create_result(int32_t status, int32_t row_count, const result_item *rows,
                                 int32_t first, int32_t last, int32_t error_code,
                                 const char *error_text, int32_t error_text_len)
{
    Message message = versioned(CLPACKET_RESULT);
    if (!message.exists()) {
        return nullptr;
    }
    message.int32(2, status).int32(3, error_code);
    if (error_code != 0) {
        return message.string(4, error_text, error_text_len).int32(5, 0).finish();
    }
    if (row_count <= 0 || status != status_with_rows) {
        return message.int32(5, 0).finish();
    }
    const bool all = first == -1 && last == -1;
    const RowRange range =
        all ? RowRange{0, int64_t{row_count} - 1} : RowRange{int64_t{first} - 1, int64_t{last} - 1};
    if (!is_within(range, row_count)) {
        constexpr char bad_range[] = "ERROR: bad result range specified";
        LPRINTF("%s", bad_range);
        return message.int32(3, -1).string(4, bad_range).int32(5, 0).finish();
    }
    const auto count = static_cast<int32_t>(range.last - range.first + 1);
    if (rows != nullptr) {
        message.structures(6, count,
                           [&](Message &item, int32_t i) { set_row(item, rows[range.first + i]); });
    }
    if (rows == nullptr || !message.is_good()) {
        LPRINTF("ERROR: failed to set result item");
        return nullptr;
    }
    return message.int32(5, count).finish();
}

// ------------------------------------------------------------------------ database change notices

clpacket *clpacket_create_db_changed(int32_t count, const char *const *ids, const uint32_t *id_lens)
{
    if (count < 0 || (count > 0 && (ids == nullptr || id_lens == nullptr))) {
        return nullptr;
    }
    Message message = versioned(CLPACKET_DB_CHANGED);
    message.int32(2, count);
    for (int32_t i = 0; i < count && message.is_good(); ++i) {
        if (id_lens[i] == 0) {
            LPRINTF("WARNING: empty id string");
        }
        message.structures(3, 1, [&](Message &item, int32_t) {
            item.string(5, ids[i], static_cast<int32_t>(id_lens[i]));
        });
    }
    return message.finish();
}

// --------------------------------------------------------------------------------------- servers

namespace {

/// A text of a server entry: its element is its place among them.
template <class Entry>
struct ServerText {
    char *Entry::*text;
    const char *not_copied;
};

/// What tells the two kinds of servers apart.
struct ParallelServers {
    using Entry = parallel_server_entry;
    using List = parallel_server_list;
    static constexpr uint32_t item_type = CLPACKET_PARALLEL_SERVER_ITEM;
    static constexpr uint32_t join_type = CLPACKET_PARALLEL_SERVER_JOIN;
    static constexpr uint32_t list_type = CLPACKET_PARALLEL_SERVERS_LIST;
    static constexpr ServerText<Entry> texts[] = {
        {&Entry::address, "ERROR: server adddress is NULL"},
        {&Entry::port, "ERROR: server port is NULL"},
    };
    static constexpr char list_not_created[] = "ERROR: failed to create new packet";
    static constexpr char list_item_not_created[] = "ERROR: failed to create parallel server item";
    static constexpr const char *list_not_built = "ERROR: failed to create packet";
    static constexpr char join_item_not_created[] =
        "ERROR: failed to create parallel server item packet";
    static constexpr char item_not_read[] = "ERROR: failed to extract parallel server packet";
    static constexpr char item_not_extracted[] = "ERROR: failed to extract parallel server item";
    static constexpr char list_item_missing[] = "ERROR: failed to get item from servers list";
    static clpacket *create_item(const Entry &entry)
    {
        return clpacket_parallel_server_item(entry.address, entry.port);
    }
    static Entry *extract_item(clpacket *p) { return clpacket_extract_parallel_server_item(p); }
};

struct SecondaryServers {
    using Entry = secondary_server_entry;
    using List = secondary_server_list;
    static constexpr uint32_t item_type = CLPACKET_SECONDARY_SERVER_ITEM;
    static constexpr uint32_t join_type = CLPACKET_SECONDARY_SERVER_JOIN;
    static constexpr uint32_t list_type = CLPACKET_SECONDARY_SERVERS_LIST;
    static constexpr ServerText<Entry> texts[] = {
        {&Entry::address, "ERROR: server address is NULL"},
        {&Entry::admin_port, "ERROR: server admin port is NULL"},
        {&Entry::client_port, "ERROR: server client port is NULL"},
        {&Entry::monitor_address, "ERROR: server monitor address is NULL"},
        {&Entry::node_monitor_port, "ERROR: server node monitor port is NULL"},
    };
    static constexpr char list_not_created[] = "ERROR: failed to create packet";
    static constexpr char list_item_not_created[] = "ERROR: failed to create item packet";
    static constexpr const char *list_not_built = nullptr; // nothing is said
    static constexpr char join_item_not_created[] =
        "ERROR: failed to create secondary server item packet";
    static constexpr char item_not_read[] = "ERROR: failed to extract secondary server packet";
    static constexpr char item_not_extracted[] = "ERROR: failed to extract secondary server item";
    static constexpr char list_item_missing[] =
        "ERROR: failed to get item from servers list packet";
    static clpacket *create_item(const Entry &entry)
    {
        return clpacket_secondary_server_item(entry.address, entry.admin_port, entry.client_port,
                                              entry.monitor_address, entry.node_monitor_port);
    }
    static Entry *extract_item(clpacket *p) { return clpacket_extract_secondary_server_item(p); }
};

/// The places of the shared bodies that report. Each function has a rate limit of its own for each.
enum Place {
    no_packet,
    no_list,
    no_servers,
    no_count,
    not_created,
    no_entry,
    item_failed,
    not_built,
    wrong_type,
    item_missing,
    no_memory,
    no_count_read,
    cell_unreadable,
    text_unreadable,
    wrong_size,
    item_unreadable,
    text_not_copied, // one for each text of a server
    place_count = text_not_copied + 5
};

struct Reporter {
    const char *function;
    ratelimit_slot *slots;

    void say(Place place, const char *message) const
    {
        LPRINTF_AS(function, slots[place], "%s", message);
    }
};

/// Declares a reporter for the function that it stands in.
#define DECLARE_REPORTER(reporter)                                                                 \
    static ratelimit_slot slots_of_##reporter[place_count];                                        \
    const Reporter reporter                                                                        \
    {                                                                                              \
        __func__, slots_of_##reporter                                                              \
    }

template <class Kind>
clpacket *create_join(const Reporter &report, const typename Kind::Entry &entry)
{
    Message message(Kind::join_type);
    if (!message.exists()) {
        report.say(not_created, "ERROR: failed to create new packet");
        return nullptr;
    }
    const owned_packet item(Kind::create_item(entry));
    if (item == nullptr) {
        report.say(item_failed, Kind::join_item_not_created);
        return nullptr;
    }
    clpacket *finished = message.structure(0, item.get()).finish();
    if (finished == nullptr) {
        report.say(not_built, "ERROR: failed to extract packet");
    }
    return finished;
}

template <class Kind>
bool is_sendable(const Reporter &report, const typename Kind::List *list)
{
    if (list == nullptr) {
        report.say(no_list, "ERROR: data is NULL");
    } else if (list->servers == nullptr) {
        report.say(no_servers, "ERROR: servers is NULL");
    } else if (list->count < 1) {
        report.say(no_count, "ERROR: invalid count of servers");
    } else {
        return true;
    }
    return false;
}

template <class Kind>
clpacket *create_list(const Reporter &report, const typename Kind::List *list)
{
    if (!is_sendable<Kind>(report, list)) {
        return nullptr;
    }
    Message message(Kind::list_type);
    if (!message.exists()) {
        report.say(not_created, Kind::list_not_created);
        return nullptr;
    }
    message.int32(0, list->count);
    for (int32_t i = 0; i < list->count && message.is_good(); ++i) {
        if (list->servers[i] == nullptr) {
            report.say(no_entry, "ERROR: server is NULL");
            return nullptr;
        }
        const owned_packet item(Kind::create_item(*list->servers[i]));
        if (item == nullptr) {
            report.say(item_failed, Kind::list_item_not_created);
            return nullptr;
        }
        (void)clpacket_add_array_el_complex(message.get(), 1, item.get());
    }
    clpacket *finished = message.finish();
    if (finished == nullptr && Kind::list_not_built != nullptr) {
        report.say(not_built, Kind::list_not_built);
    }
    return finished;
}

} // namespace

clpacket *clpacket_parallel_server_item(const char *address, const char *port)
{
    if (address == nullptr) {
        LPRINTF("ERROR: address is NULL");
        return nullptr;
    }
    if (port == nullptr) {
        LPRINTF("ERROR: port is NULL");
        return nullptr;
    }
    Message message(ParallelServers::item_type);
    if (!message.exists()) {
        LPRINTF("ERROR: could not create packet");
        return nullptr;
    }
    return message.string(0, address).string(1, port).finish();
}

clpacket *clpacket_secondary_server_item(const char *address, const char *admin_port,
                                         const char *client_port, const char *monitor_address,
                                         const char *node_monitor_port)
{
    if (address == nullptr) {
        LPRINTF("ERROR: address is NULL");
        return nullptr;
    }
    if (admin_port == nullptr) {
        LPRINTF("ERROR: admin port is NULL");
        return nullptr;
    }
    if (client_port == nullptr) {
        LPRINTF("ERROR: client port is NULL");
        return nullptr;
    }
    if (monitor_address == nullptr) {
        LPRINTF("ERROR: monitor address is NULL");
        return nullptr;
    }
    if (node_monitor_port == nullptr) {
        LPRINTF("ERROR: node monitor port is NULL");
        return nullptr;
    }
    Message message(SecondaryServers::item_type);
    if (!message.exists()) {
        LPRINTF("ERROR: could not create packet");
        return nullptr;
    }
    return message.string(0, address)
        .string(1, admin_port)
        .string(2, client_port)
        .string(3, monitor_address)
        .string(4, node_monitor_port)
        .finish();
}

namespace {

/// The entry's texts are only read.
char *borrowed(const char *text)
{
    return const_cast<char *>(text);
}

} // namespace

clpacket *clpacket_parallel_server_join(const char *address, const char *port)
{
    DECLARE_REPORTER(report);
    return create_join<ParallelServers>(report, {borrowed(address), borrowed(port), 0});
}

clpacket *clpacket_secondary_server_join(const char *address, const char *admin_port,
                                         const char *client_port, const char *monitor_address,
                                         const char *node_monitor_port)
{
    DECLARE_REPORTER(report);
    return create_join<SecondaryServers>(report, {borrowed(address), borrowed(admin_port),
                                                  borrowed(client_port), borrowed(monitor_address),
                                                  borrowed(node_monitor_port), 0});
}

clpacket *clpacket_parallel_servers_list(const parallel_server_list *list)
{
    DECLARE_REPORTER(report);
    return create_list<ParallelServers>(report, list);
}

clpacket *clpacket_secondary_servers_list(const secondary_server_list *list)
{
    DECLARE_REPORTER(report);
    return create_list<SecondaryServers>(report, list);
}

/// Begins a message of one number in a function that reports a lack of memory.
#define REPORTED_NUMBER(type, field, value, not_created_words)                                     \
    Message message(type);                                                                         \
    if (!message.exists()) {                                                                       \
        LPRINTF(not_created_words);                                                                \
        return nullptr;                                                                            \
    }                                                                                              \
    message.int32(field, value)

clpacket *clpacket_secondary_server_accept(void)
{
    REPORTED_NUMBER(CLPACKET_SECONDARY_SERVER_ACCEPT, 0, 1, "ERROR: could not create packet");
    return message.finish();
}

clpacket *clpacket_secondary_server_state_number(int32_t state_number)
{
    REPORTED_NUMBER(CLPACKET_SECONDARY_SERVER_STATE_NUMBER, 0, state_number,
                    "ERROR: could not create packet");
    return message.finish();
}

// ---------------------------------------------------------------------------- sessions and nodes

clpacket *clpacket_session_drop(void)
{
    REPORTED_NUMBER(CLPACKET_SESSION_DROP, 0, 1, "ERROR could not create packet");
    return message.finish();
}

clpacket *clpacket_node_kill(void)
{
    REPORTED_NUMBER(CLPACKET_NODE_KILL, 1, 1, "ERROR: failed to create new packet");
    clpacket *finished = message.finish();
    if (finished == nullptr) {
        LPRINTF("ERROR: failed to extract packet");
    }
    return finished;
}

clpacket *clpacket_session_new(const void *session_buf, uint32_t len)
{
    if (session_buf == nullptr) {
        LPRINTF("ERROR: session_buf is NULL");
        return nullptr;
    }
    Message message(CLPACKET_SESSION_NEW);
    if (!message.exists()) {
        LPRINTF("ERROR: could not create packet");
        return nullptr;
    }
    clpacket *finished = message.blob(0, session_buf, len).finish();
    if (finished == nullptr) {
        LPRINTF("ERROR: failed to generate packet");
    }
    return finished;
}

void *clpacket_extract_session_new(clpacket *p, uint32_t *len)
{
    if (p == nullptr) {
        LPRINTF("ERROR: clpacket is NULL");
        return nullptr;
    }
    void *session = nullptr;
    if (clpacket_get_blob(p, 0, &session, len) != MTB_OK) {
        LPRINTF("ERROR: failed to extract event packet");
        return nullptr;
    }
    return session;
}

// -------------------------------------------------------------------------- administrative inserts

namespace {

template <class T>
bool has_every_row(uint32_t rows, const T *const *cells)
{
    return cells != nullptr &&
           std::all_of(cells, cells + rows, [](const T *row) { return row != nullptr; });
}

/// The cells of a table by their running index.
template <class T>
struct Cells {
    const T *const *rows;
    uint32_t cols;

    const T &operator[](uint64_t i) const { return rows[i / cols][i % cols]; }
};

Message start_table(uint32_t type, uint32_t rows, int32_t value3, uint32_t cols,
                    const int32_t *const *values, const uint64_t *const *data_lens,
                    const void *const *const *data)
{
    const uint64_t count = uint64_t{rows} * cols;
    const Cells<int32_t> value{values, cols};
    const Cells<uint64_t> data_len{data_lens, cols};
    const Cells<const void *> datum{data, cols};
    Message message = versioned(type);
    message.uint32(2, rows).int32(3, value3).uint32(4, cols);
    message.indexed(5, count, [&](clpacket *cell, int32_t name, uint64_t i, Lookup lookup) {
        return clpacket_set_int32_signed(cell, name, value[i], lookup);
    });
    message.indexed(6, count, [&](clpacket *cell, int32_t name, uint64_t i, Lookup lookup) {
        return clpacket_set_int32_unsigned(cell, name, static_cast<uint32_t>(data_len[i]), lookup);
    });
    message.indexed(7, count, [&](clpacket *cell, int32_t name, uint64_t i, Lookup lookup) {
        return clpacket_set_blob(cell, name, datum[i], static_cast<uint32_t>(data_len[i]), lookup);
    });
    return message;
}

} // namespace

clpacket *clpacket_admin_db_insert2(uint32_t rows, int32_t value3, uint32_t cols,
                                    const int32_t *const *values, const uint64_t *const *data_lens,
                                    const void *const *const *data)
{
    if (!has_every_row(rows, values) || !has_every_row(rows, data_lens) ||
        !has_every_row(rows, data)) {
        return nullptr;
    }
    return start_table(CLPACKET_ADMIN_DB_INSERT2, rows, value3, cols, values, data_lens, data)
        .finish();
}

clpacket *clpacket_admin_db_insert3(uint32_t rows, int32_t value3, uint32_t cols,
                                    const int32_t *const *values, const uint64_t *const *data_lens,
                                    const void *const *const *data,
                                    const uint64_t *const *text_lens,
                                    const char *const *const *texts)
{
    if (!has_every_row(rows, values) || !has_every_row(rows, data_lens) ||
        !has_every_row(rows, data) || !has_every_row(rows, text_lens) ||
        !has_every_row(rows, texts)) {
        return nullptr;
    }
    const Cells<uint64_t> text_len{text_lens, cols};
    const Cells<const char *> text{texts, cols};
    return start_table(CLPACKET_ADMIN_DB_INSERT3, rows, value3, cols, values, data_lens, data)
        .indexed(8, uint64_t{rows} * cols,
                 [&](clpacket *cell, int32_t name, uint64_t i, Lookup lookup) {
                     const auto len = static_cast<int32_t>(static_cast<uint32_t>(text_len[i]));
                     return clpacket_set_string(cell, name, text[i], len, lookup);
                 })
        .finish();
}

// ------------------------------------------------------------------------------------- extracting

namespace {

bool is_structure(const mtb_element *e)
{
    return e->type == MTB_TYPE_ROOT || e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ALT;
}

template <class T>
owned<T> allocate_zeroed(size_t count)
{
    return owned<T>(static_cast<T *>(calloc(std::max<size_t>(count, 1), sizeof(T))));
}

/// An array of structures of a decoded packet, member after member: a walk by position would start
/// anew for each.
class ArrayWalk {
public:
    ArrayWalk(clpacket *p, int32_t name) : packet_(p), name_(name)
    {
        if (mtb_element_exists(name, MTB_TYPE_STRUCT_ARRAY, p->structr) != 0) {
            (void)mtb_get_struct(name, &array_, MTB_TYPE_STRUCT_ARRAY, p->structr);
            next_ = array_->buffer->first;
        }
    }

    /// How many of the announced members there are.
    size_t members_of(int32_t announced) const
    {
        const int32_t there = array_ != nullptr ? array_->buffer->count : 0;
        return static_cast<size_t>(std::min(announced, there));
    }

    /// Makes `view` a view of the next member, or fails, as the packet's getter by position does.
    bool next(clpacket *view)
    {
        const int32_t position = position_++;
        if (packet_->error_state == MTB_OK && next_ != nullptr && position < array_->len &&
            is_structure(next_)) {
            clpacket_borrow(view, next_);
            next_ = next_->next;
            return true;
        }
        next_ = nullptr;
        return clpacket_get_array_el_complex(packet_, name_, view,
                                             static_cast<uint32_t>(position)) == 0;
    }

private:
    clpacket *packet_;
    int32_t name_;
    mtb_struct *array_ = nullptr;
    mtb_element *next_ = nullptr;
    int32_t position_ = 0;
};

/// Names of fields start anew after 65,536, so a longer row of values has no more fields than that.
/// What it announces, and what is copied for it, is held down to so many times what there is.
constexpr uint64_t most_rounds_of_names = 16;

/// A nested structure of fields of one type that are named by their running index; of equal names
/// the first counts. They come in order as a rule; otherwise they are indexed once.
class IndexedFields {
public:
    explicit IndexedFields(uint8_t type) : type_(type) {}

    /// To be called first; false without memory.
    bool create()
    {
        view_ = owned_packet(clpacket_create());
        return view_ != nullptr;
    }

    /// Views the structure of that name.
    bool view(clpacket *p, int32_t name)
    {
        if (clpacket_get_complex(p, name, view_.get()) != 0) {
            return false;
        }
        next_ = view_->structr->buffer->first;
        return true;
    }

    /// How many values the fields bear out.
    uint64_t most_values() const
    {
        const auto fields = static_cast<uint64_t>(view_->structr->buffer->count);
        return fields < name_count ? fields : name_count * most_rounds_of_names;
    }

    /// How many bytes of blobs there are.
    uint64_t bytes() const
    {
        uint64_t sum = 0;
        for (const mtb_element *e = view_->structr->buffer->first; e != nullptr; e = e->next) {
            sum += e->type == MTB_TYPE_BLOB ? static_cast<uint32_t>(e->len) : 0;
        }
        return sum;
    }

    /// Says that a read has failed for lack of memory alone.
    bool lacks_memory() const { return lacks_memory_; }

    // Each reads the field of that index as the getter of its type does, in one step.
    bool read(uint64_t index, int32_t *value)
    {
        if (const mtb_element *e = find(index)) {
            *value = e->value.i32;
            return true;
        }
        return !lacks_memory_ &&
               clpacket_get_int32_signed(view_.get(), name_of(index), value) == MTB_OK;
    }
    bool read(uint64_t index, uint32_t *value)
    {
        if (const mtb_element *e = find(index)) {
            *value = e->value.u32;
            return true;
        }
        return !lacks_memory_ &&
               clpacket_get_int32_unsigned(view_.get(), name_of(index), value) == MTB_OK;
    }
    bool read(uint64_t index, void **bytes, uint32_t *len)
    {
        if (const mtb_element *e = find(index)) {
            *bytes = e->value.data;
            *len = static_cast<uint32_t>(e->len);
            return true;
        }
        return !lacks_memory_ &&
               clpacket_get_blob(view_.get(), name_of(index), bytes, len) == MTB_OK;
    }
    bool read(uint64_t index, char **text, uint32_t *len)
    {
        if (const mtb_element *e = find(index)) {
            *text = e->value.text;
            *len = static_cast<uint32_t>(e->len);
            return true;
        }
        return !lacks_memory_ &&
               clpacket_get_string(view_.get(), name_of(index), text, len) == MTB_OK;
    }

private:
    static int32_t name_of(uint64_t index) { return static_cast<int32_t>(index % name_count); }

    /// Null when there is no such field, or no memory to look for it.
    const mtb_element *find(uint64_t index)
    {
        const int32_t name = name_of(index);
        if (in_order_ && index < name_count && (next_ == nullptr || is_field(next_, name))) {
            const mtb_element *found = next_;
            next_ = found != nullptr ? found->next : nullptr;
            return found;
        }
        in_order_ = false;
        lacks_memory_ = by_name_ == nullptr && !make_index();
        return lacks_memory_ ? nullptr : by_name_.get()[name];
    }

    bool is_field(const mtb_element *e, int32_t name) const
    {
        return e->name == name && e->type == type_;
    }

    bool make_index()
    {
        by_name_ = allocate_zeroed<const mtb_element *>(name_count);
        if (by_name_ == nullptr) {
            return false;
        }
        for (const mtb_element *e = view_->structr->buffer->first; e != nullptr; e = e->next) {
            if (e->type == type_ && by_name_.get()[e->name] == nullptr) {
                by_name_.get()[e->name] = e;
            }
        }
        return true;
    }

    owned_packet view_;
    uint8_t type_;
    const mtb_element *next_ = nullptr;
    bool in_order_ = true;
    bool lacks_memory_ = false;
    owned<const mtb_element *> by_name_;
};

bool read_int32(clpacket *p, int32_t name, int32_t *value)
{
    return clpacket_get_int32_signed(p, name, value) == MTB_OK;
}

template <class T = char>
owned<T> copy_terminated(const void *bytes, uint32_t len)
{
    auto copy = tavlen::allocate_bytes<char>(size_t{len} + 1);
    if (copy != nullptr) {
        if (len != 0) {
            memcpy(copy.get(), bytes, len);
        }
        copy.get()[len] = '\0';
    }
    return owned<T>(reinterpret_cast<T *>(copy.release()));
}

/// What a generic extractor expects of a message before its fields, and what it answers otherwise.
struct Opening {
    uint32_t type;
    int32_t undecoded;
    int32_t unversioned;
    bool version_counts;
};

/// Decodes a message, unless it was just built, and reads its type and version.
int32_t open_message(clpacket *p, const Opening &expected)
{
    const bool just_built = p->buffer == nullptr && p->structr != nullptr;
    if (!just_built && clpacket_deserialize(p) != 0) {
        return expected.undecoded;
    }
    if (p->type != expected.type) {
        return CLPACKET_EXTRACT_WRONG;
    }
    int32_t found = 0;
    if (!read_int32(p, version_field, &found)) {
        return expected.unversioned;
    }
    return expected.version_counts && found != version ? CLPACKET_EXTRACT_WRONG
                                                       : CLPACKET_EXTRACT_OK;
}

Opening strict_opening(uint32_t type)
{
    return {type, CLPACKET_EXTRACT_BAD_DATA, CLPACKET_EXTRACT_BAD_DATA, true};
}

} // namespace

// ------------------------------------------------------------------------------ generic extractors

namespace {

/// Gives an output its value for a failure, if it is there.
template <class T>
void reset(T *output, std::type_identity_t<T> value)
{
    if (output != nullptr) {
        *output = value;
    }
}

int32_t extract_number(clpacket *p, uint32_t type, int32_t *value2)
{
    if (p == nullptr || value2 == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    Opening expected = strict_opening(type);
    expected.version_counts = false;
    const int32_t opened = open_message(p, expected);
    if (opened != CLPACKET_EXTRACT_OK) {
        return opened;
    }
    return read_int32(p, 2, value2) ? CLPACKET_EXTRACT_OK : CLPACKET_EXTRACT_BAD_DATA;
}

/// Reads as many structures as are announced, each by read(view, entry). A failure leaves nothing;
/// release(entry) frees what an entry holds.
template <class Entry, class Read, class Release>
int32_t extract_structures(clpacket *p, int32_t array_field, int32_t announced, int32_t *count,
                           Entry **entries, Read read, Release release)
{
    if (announced < 0) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    ArrayWalk walk(p, array_field);
    const owned_packet view(clpacket_create());
    owned<Entry> made = allocate_zeroed<Entry>(walk.members_of(announced));
    if (view == nullptr || made == nullptr) {
        return CLPACKET_EXTRACT_NOMEM;
    }
    int32_t result = CLPACKET_EXTRACT_OK;
    int32_t done = 0;
    while (done < announced && result == CLPACKET_EXTRACT_OK) {
        Entry entry{};
        result = walk.next(view.get()) ? read(view.get(), &entry) : CLPACKET_EXTRACT_BAD_DATA;
        if (result == CLPACKET_EXTRACT_OK) {
            made.get()[done++] = entry;
        }
    }
    if (result != CLPACKET_EXTRACT_OK) {
        std::for_each(made.get(), made.get() + done, release);
        return result;
    }
    *count = announced;
    *entries = made.release();
    return result;
}

template <class Entry>
void keep(const Entry &)
{
}

int32_t read_pair(clpacket *view, int32_t first_field, value_pair *pair)
{
    return read_int32(view, first_field, &pair->first) &&
                   read_int32(view, first_field + 1, &pair->second)
               ? CLPACKET_EXTRACT_OK
               : CLPACKET_EXTRACT_BAD_DATA;
}

int32_t read_entry23(clpacket *view, entry_record *entry)
{
    int32_t announced = 0;
    if (!read_int32(view, 4, &entry->value4) || !read_int32(view, 5, &entry->value5) ||
        !read_int32(view, 6, &announced) || !read_int32(view, 7, &entry->value7)) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    return extract_structures(
        view, 8, announced, &entry->sub_count, &entry->pairs,
        [](clpacket *pair_view, value_pair *pair) { return read_pair(pair_view, 9, pair); },
        keep<value_pair>);
}

int32_t read_entry24(clpacket *view, entry24_record *entry)
{
    return read_int32(view, 4, &entry->value4) && read_int32(view, 5, &entry->value5) &&
                   read_int32(view, 6, &entry->value6)
               ? CLPACKET_EXTRACT_OK
               : CLPACKET_EXTRACT_BAD_DATA;
}

/// The generic list messages: a count in element 2, structures in element 3.
template <class Entry, class Read, class Release>
int32_t extract_list_message(clpacket *p, const Opening &expected, int32_t *count, Entry **entries,
                             Read read, Release release)
{
    reset(count, -1);
    reset(entries, nullptr);
    if (p == nullptr || count == nullptr || entries == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    const int32_t opened = open_message(p, expected);
    if (opened != CLPACKET_EXTRACT_OK) {
        return opened;
    }
    int32_t announced = 0;
    return read_int32(p, 2, &announced)
               ? extract_structures(p, 3, announced, count, entries, read, release)
               : CLPACKET_EXTRACT_BAD_DATA;
}

/// A copy of an array of numbers.
int32_t extract_int32_array(clpacket *p, int32_t name, uint32_t *count, owned<int32_t> *values)
{
    void *items = nullptr;
    uint32_t announced = 0;
    if (clpacket_get_array(p, name, &items, &announced, MTB_TYPE_ARRAY_INT32_SIGNED) != 0) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    *values = tavlen::allocate_bytes<int32_t>(size_t{announced} * sizeof(int32_t));
    if (*values == nullptr) {
        return CLPACKET_EXTRACT_NOMEM;
    }
    if (announced != 0) {
        memcpy(values->get(), items, size_t{announced} * sizeof(int32_t));
    }
    *count = announced;
    return CLPACKET_EXTRACT_OK;
}

/// Copies of blobs and their lengths, in two arrays that grow up to a size given beforehand.
struct BlobCopies {
    explicit BlobCopies(uint32_t count)
        : data(allocate_zeroed<void *>(count)), lens(allocate_zeroed<uint32_t>(count))
    {
    }
    ~BlobCopies()
    {
        for (uint32_t i = 0; data != nullptr && i < done; ++i) {
            free(data.get()[i]);
        }
    }
    BlobCopies(const BlobCopies &) = delete;
    BlobCopies &operator=(const BlobCopies &) = delete;

    bool exist() const { return data != nullptr && lens != nullptr; }

    bool add(const void *bytes, uint32_t len)
    {
        data.get()[done] = copy_terminated<void>(bytes, len).release();
        lens.get()[done] = len;
        return data.get()[done++] != nullptr;
    }

    owned<void *> data;
    owned<uint32_t> lens;
    uint32_t done = 0;
};

int32_t extract_blobs(clpacket *p, int32_t name, uint32_t count, BlobCopies *copies)
{
    IndexedFields blobs(MTB_TYPE_BLOB);
    if (!blobs.create() || !copies->exist()) {
        return CLPACKET_EXTRACT_NOMEM;
    }
    if (!blobs.view(p, name)) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    uint64_t bytes_left = blobs.bytes() * most_rounds_of_names;
    for (uint32_t i = 0; i < count; ++i) {
        void *bytes = nullptr;
        uint32_t len = 0;
        const bool readable = blobs.read(i, &bytes, &len);
        if (blobs.lacks_memory()) {
            return CLPACKET_EXTRACT_NOMEM;
        }
        if (!readable || len > bytes_left) {
            return CLPACKET_EXTRACT_BAD_DATA;
        }
        bytes_left -= len;
        if (!copies->add(bytes, len)) {
            return CLPACKET_EXTRACT_NOMEM;
        }
    }
    return CLPACKET_EXTRACT_OK;
}

int32_t extract_values_and_blobs(clpacket *p, uint32_t type, int32_t *value2, uint32_t *count,
                                 int32_t **values, void ***data, uint32_t **lens)
{
    reset(count, 0);
    reset(values, nullptr);
    reset(data, nullptr);
    reset(lens, nullptr);
    if (p == nullptr || value2 == nullptr || count == nullptr || values == nullptr ||
        data == nullptr || lens == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    int32_t result =
        open_message(p, {type, CLPACKET_EXTRACT_BAD_DATA, CLPACKET_EXTRACT_WRONG, false});
    if (result == CLPACKET_EXTRACT_OK && !read_int32(p, 2, value2)) {
        result = CLPACKET_EXTRACT_BAD_DATA;
    }
    owned<int32_t> numbers;
    uint32_t found = 0;
    if (result == CLPACKET_EXTRACT_OK) {
        result = extract_int32_array(p, 3, &found, &numbers);
    }
    if (result != CLPACKET_EXTRACT_OK) {
        return result;
    }
    BlobCopies copies(found);
    result = extract_blobs(p, 4, found, &copies);
    if (result == CLPACKET_EXTRACT_OK) {
        *count = found;
        *values = numbers.release();
        *data = copies.data.release();
        *lens = copies.lens.release();
    }
    return result;
}

} // namespace

int32_t clpacket_extract_type2(clpacket *p, int32_t *value2)
{
    return extract_number(p, 2, value2);
}

int32_t clpacket_extract_type39(clpacket *p, int32_t *value2)
{
    return extract_number(p, 39, value2);
}

int32_t clpacket_extract_type40(clpacket *p, int32_t *value2)
{
    return extract_number(p, 40, value2);
}

int32_t clpacket_extract_type23(clpacket *p, int32_t *count, entry_record **entries)
{
    return extract_list_message(p, strict_opening(23), count, entries, read_entry23,
                                [](const entry_record &entry) { free(entry.pairs); });
}

int32_t clpacket_extract_type24(clpacket *p, int32_t *count, entry24_record **entries)
{
    return extract_list_message(p, strict_opening(24), count, entries, read_entry24,
                                keep<entry24_record>);
}

int32_t clpacket_extract_type25(clpacket *p, int32_t *count, value_pair **pairs)
{
    const Opening expected{25, CLPACKET_EXTRACT_BAD_ARG, CLPACKET_EXTRACT_WRONG, false};
    return extract_list_message(
        p, expected, count, pairs,
        [](clpacket *view, value_pair *pair) { return read_pair(view, 4, pair); },
        keep<value_pair>);
}

int32_t clpacket_extract_type26(clpacket *p, uint32_t *count, int32_t **values)
{
    reset(count, 0);
    reset(values, nullptr);
    if (p == nullptr || count == nullptr || values == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    owned<int32_t> numbers;
    int32_t result = open_message(p, strict_opening(26));
    if (result == CLPACKET_EXTRACT_OK) {
        result = extract_int32_array(p, 2, count, &numbers);
        *values = numbers.release();
    }
    return result;
}

int32_t clpacket_extract_type28(clpacket *p, int32_t *value2, int32_t *value3)
{
    reset(value2, -1);
    reset(value3, -1);
    if (p == nullptr || value2 == nullptr || value3 == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    int32_t second = 0;
    int32_t third = 0;
    const int32_t opened = open_message(p, strict_opening(28));
    if (opened != CLPACKET_EXTRACT_OK) {
        return opened;
    }
    if (!read_int32(p, 2, &second) || !read_int32(p, 3, &third)) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    *value2 = second;
    *value3 = third;
    return CLPACKET_EXTRACT_OK;
}

int32_t clpacket_extract_type36(clpacket *p, int32_t *value2, int32_t *value3, int32_t *value4)
{
    if (p == nullptr || value2 == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    const int32_t opened =
        open_message(p, {36, CLPACKET_EXTRACT_BAD_ARG, CLPACKET_EXTRACT_WRONG, false});
    if (opened != CLPACKET_EXTRACT_OK) {
        return opened;
    }
    if (!read_int32(p, 2, value2)) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    int32_t name = 3;
    for (int32_t *optional : {value3, value4}) {
        if (optional != nullptr && !read_int32(p, name, optional)) {
            *optional = -1;
            (void)clpacket_reset_error_state(p);
        }
        ++name;
    }
    return CLPACKET_EXTRACT_OK;
}

int32_t clpacket_extract_type37(clpacket *p, int32_t *value2, uint32_t *count, int32_t **values,
                                void ***data, uint32_t **lens)
{
    return extract_values_and_blobs(p, 37, value2, count, values, data, lens);
}

int32_t clpacket_extract_type38(clpacket *p, int32_t *value2, uint32_t *count, int32_t **values,
                                void ***data, uint32_t **lens)
{
    return extract_values_and_blobs(p, 38, value2, count, values, data, lens);
}

// --------------------------------------------------------------- query results, change notices

namespace {

constexpr int32_t highest_status_without_rows = 99;

void release_row(const result_item &row)
{
    free(row.text);
    free(row.data);
}

int32_t read_row(clpacket *view, result_item *row)
{
    char *text = nullptr;
    void *data = nullptr;
    if (!read_int32(view, 7, &row->value) ||
        clpacket_get_string(view, 8, &text, &row->text_len) != MTB_OK ||
        clpacket_get_blob(view, 9, &data, &row->data_len) != MTB_OK) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    auto text_copy = copy_terminated(text, row->text_len);
    auto data_copy = row->data_len != 0 ? tavlen::allocate_bytes(row->data_len) : nullptr;
    if (text_copy == nullptr || (row->data_len != 0 && data_copy == nullptr)) {
        return CLPACKET_EXTRACT_NOMEM;
    }
    if (data_copy != nullptr) {
        memcpy(data_copy.get(), data, row->data_len);
    }
    row->text = text_copy.release();
    row->data = data_copy.release();
    return CLPACKET_EXTRACT_OK;
}

int32_t extract_error_text(clpacket *p, char **error_text, uint32_t *error_text_len)
{
    char *text = nullptr;
    uint32_t len = 0;
    if (clpacket_get_string(p, 4, &text, &len) != MTB_OK) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    *error_text = copy_terminated(text, len).release();
    if (*error_text == nullptr) {
        return CLPACKET_EXTRACT_NOMEM;
    }
    *error_text_len = len;
    return CLPACKET_EXTRACT_OK;
}

} // namespace

int32_t clpacket_extract_result(clpacket *p, int32_t *status, int32_t *error_code,
                                int32_t *row_count, char **error_text, uint32_t *error_text_len,
                                result_item **items)
{
    reset(status, 0);
    reset(error_code, 0);
    reset(row_count, 0);
    reset(error_text, nullptr);
    reset(error_text_len, 0U);
    reset(items, nullptr);
    if (p == nullptr || status == nullptr || error_code == nullptr || row_count == nullptr ||
        error_text == nullptr || error_text_len == nullptr || items == nullptr) {
        return CLPACKET_EXTRACT_BAD_ARG;
    }
    const int32_t opened = open_message(
        p, {CLPACKET_RESULT, CLPACKET_EXTRACT_BAD_DATA, CLPACKET_EXTRACT_WRONG, false});
    if (opened != CLPACKET_EXTRACT_OK) {
        return opened;
    }
    if (!read_int32(p, 2, status) || !read_int32(p, 3, error_code)) {
        return CLPACKET_EXTRACT_BAD_DATA;
    }
    if (*error_code != 0) {
        return extract_error_text(p, error_text, error_text_len);
    }
    if (*status <= highest_status_without_rows) {
        return CLPACKET_EXTRACT_OK;
    }
    int32_t announced = 0;
    return read_int32(p, 5, &announced)
               ? extract_structures(p, 6, announced, row_count, items, read_row, release_row)
               : CLPACKET_EXTRACT_BAD_DATA;
}

namespace {

struct ReleaseNotice {
    void operator()(db_change_notice *notice) const
    {
        for (int32_t i = 0; notice->ids != nullptr && i < notice->count; ++i) {
            free(notice->ids[i].text);
        }
        free(notice->ids);
        free(notice->detail);
        free(notice);
    }
};
using owned_notice = std::unique_ptr<db_change_notice, ReleaseNotice>;

/// What became of reading one identifier.
enum class IdRead { done, empty, no_memory };

IdRead read_id(ArrayWalk &walk, clpacket *view, db_change_id *id)
{
    char *text = nullptr;
    uint32_t len = 0;
    if (!walk.next(view) || clpacket_get_string(view, 5, &text, &len) != MTB_OK || len == 0) {
        return IdRead::empty;
    }
    id->text = copy_terminated(text, len).release();
    id->len = len;
    return id->text != nullptr ? IdRead::done : IdRead::no_memory;
}

bool decode_if_received(clpacket *p)
{
    return (p != nullptr && p->buffer == nullptr && p->structr != nullptr) ||
           clpacket_deserialize(p) == 0;
}

/// Copies the detail text, which need not be there; false without memory.
bool extract_detail(clpacket *p, db_change_notice *notice)
{
    char *text = nullptr;
    uint32_t len = 0;
    if (clpacket_has_string(p, 7) != 1 || clpacket_get_string(p, 7, &text, &len) != MTB_OK ||
        len == 0) {
        return true;
    }
    notice->detail = copy_terminated(text, len).release();
    notice->detail_len = len;
    return notice->detail != nullptr;
}

} // namespace

db_change_notice *clpacket_check_db_changed(clpacket *p)
{
    owned_notice notice(static_cast<db_change_notice *>(calloc(1, sizeof(db_change_notice))));
    if (notice == nullptr) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    if (!decode_if_received(p)) {
        LPRINTF("ERROR: failed to deserialize admin packet");
        return nullptr;
    }
    int32_t announced = 0;
    (void)read_int32(p, version_field, &notice->version);
    (void)read_int32(p, 2, &announced);
    if (p->error_state != MTB_OK) {
        LPRINTF("ERROR: failed to extract information from packet");
        return nullptr;
    }
    if (notice->version != version) {
        LPRINTF("ERROR: wrong version (%i)", notice->version);
        return nullptr;
    }
    if (announced < 0) {
        LPRINTF("ERROR: negavive count (%i)", announced);
        return nullptr;
    }
    ArrayWalk walk(p, 3);
    notice->ids = allocate_zeroed<db_change_id>(walk.members_of(announced)).release();
    const owned_packet view(clpacket_create());
    if (notice->ids == nullptr || view == nullptr) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    for (; notice->count < announced; ++notice->count) {
        db_change_id id{};
        const IdRead read = read_id(walk, view.get(), &id);
        if (read == IdRead::empty) {
            LPRINTF("ERROR: dbid field %i is empty", notice->count);
            return nullptr;
        }
        if (read == IdRead::no_memory) {
            LPRINTF("ERROR: low memory");
            return nullptr;
        }
        notice->ids[notice->count] = id;
    }
    if (!extract_detail(p, notice.get())) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    return notice.release();
}

// ---------------------------------------------------------------------------- reading servers

namespace {

template <class Kind>
struct ReleaseEntry {
    void operator()(typename Kind::Entry *entry) const
    {
        for (const auto &text : Kind::texts) {
            free(entry->*text.text);
        }
        free(entry);
    }
};
template <class Kind>
using owned_entry = std::unique_ptr<typename Kind::Entry, ReleaseEntry<Kind>>;

template <class Kind>
struct ReleaseList {
    void operator()(typename Kind::List *list) const
    {
        for (int32_t i = 0; list->servers != nullptr && i < list->count; ++i) {
            ReleaseEntry<Kind>()(list->servers[i]);
        }
        free(list->servers);
        free(list);
    }
};
template <class Kind>
using owned_list = std::unique_ptr<typename Kind::List, ReleaseList<Kind>>;

template <class Kind>
typename Kind::Entry *extract_item(const Reporter &report, clpacket *p)
{
    if (p == nullptr) {
        report.say(no_packet, "ERROR: clpacket is NULL");
        return nullptr;
    }
    constexpr size_t text_count = std::size(Kind::texts);
    char *texts[text_count] = {};
    uint32_t lens[text_count] = {};
    for (size_t i = 0; i < text_count; ++i) {
        (void)clpacket_get_string(p, static_cast<int32_t>(i), &texts[i], &lens[i]);
    }
    if (p->error_state != MTB_OK) {
        report.say(item_unreadable, Kind::item_not_read);
        return nullptr;
    }
    owned_entry<Kind> entry(allocate_zeroed<typename Kind::Entry>(1).release());
    if (entry == nullptr) {
        report.say(no_memory, "ERROR: low memory");
        return nullptr;
    }
    for (size_t i = 0; i < text_count; ++i) {
        char *copy = copy_terminated(texts[i], lens[i]).release();
        entry.get()->*Kind::texts[i].text = copy;
        if (copy == nullptr) {
            report.say(static_cast<Place>(text_not_copied + i), Kind::texts[i].not_copied);
            return nullptr;
        }
    }
    return entry.release();
}

bool has_type(const Reporter &report, clpacket *p, uint32_t expected)
{
    const int32_t type = clpacket_get_type(p);
    if (type != static_cast<int32_t>(expected)) {
        LPRINTF_AS(report.function, report.slots[wrong_type],
                   "ERROR: invalid packet type. Got %d, expected %d", type,
                   static_cast<int32_t>(expected));
        return false;
    }
    return true;
}

template <class Kind>
typename Kind::Entry *extract_join(const Reporter &report, clpacket *p)
{
    if (p == nullptr) {
        report.say(no_packet, "ERROR: clpacket is NULL");
        return nullptr;
    }
    if (!has_type(report, p, Kind::join_type)) {
        return nullptr;
    }
    const owned_packet item(clpacket_create());
    if (item == nullptr) {
        report.say(not_created, "ERROR: failed to create new item");
        return nullptr;
    }
    if (clpacket_get_complex(p, 0, item.get()) != 0) {
        report.say(item_missing, "ERROR: failed to get item from packet");
        return nullptr;
    }
    owned_entry<Kind> entry(Kind::extract_item(item.get()));
    if (entry == nullptr) {
        report.say(item_failed, Kind::item_not_extracted);
        return nullptr;
    }
    if (p->error_state != MTB_OK) {
        report.say(not_built, "ERROR: failed to extract packet");
        return nullptr;
    }
    return entry.release();
}

/// Reads the entries into the list's array; false after a report.
template <class Kind>
bool extract_entries(const Reporter &report, ArrayWalk &walk, int32_t announced,
                     typename Kind::List *list)
{
    while (list->count < announced) {
        const owned_packet item(clpacket_create());
        if (item == nullptr) {
            report.say(not_created, "ERROR: failed to create new packet");
            return false;
        }
        if (!walk.next(item.get())) {
            report.say(item_missing, Kind::list_item_missing);
            return false;
        }
        typename Kind::Entry *entry = Kind::extract_item(item.get());
        if (entry == nullptr) {
            report.say(item_failed, Kind::item_not_extracted);
            return false;
        }
        list->servers[list->count++] = entry;
    }
    return true;
}

template <class Kind>
typename Kind::List *extract_list(const Reporter &report, clpacket *p)
{
    int32_t announced = 0;
    if (!has_type(report, p, Kind::list_type)) {
        return nullptr;
    }
    if (!read_int32(p, 0, &announced) || announced < 0) {
        report.say(no_count_read, "ERROR: failed to extract packet");
        return nullptr;
    }
    ArrayWalk walk(p, 1);
    owned_list<Kind> list(allocate_zeroed<typename Kind::List>(1).release());
    if (list != nullptr) { // one slot more ends the array with a null pointer
        list->servers =
            allocate_zeroed<typename Kind::Entry *>(walk.members_of(announced) + 1).release();
    }
    if (list == nullptr || list->servers == nullptr) {
        report.say(no_memory, "ERROR: low memory");
        return nullptr;
    }
    if (!extract_entries<Kind>(report, walk, announced, list.get())) {
        return nullptr;
    }
    if (p->error_state != MTB_OK) {
        report.say(not_built, "ERROR: failed to extract packet");
        return nullptr;
    }
    return list.release();
}

} // namespace

parallel_server_entry *clpacket_extract_parallel_server_item(clpacket *p)
{
    DECLARE_REPORTER(report);
    return extract_item<ParallelServers>(report, p);
}

parallel_server_entry *clpacket_extract_parallel_server_join(clpacket *p)
{
    DECLARE_REPORTER(report);
    return extract_join<ParallelServers>(report, p);
}

parallel_server_list *clpacket_extract_parallel_servers_list(clpacket *p)
{
    DECLARE_REPORTER(report);
    return extract_list<ParallelServers>(report, p);
}

secondary_server_entry *clpacket_extract_secondary_server_item(clpacket *p)
{
    DECLARE_REPORTER(report);
    return extract_item<SecondaryServers>(report, p);
}

secondary_server_entry *clpacket_extract_secondary_server_join(clpacket *p)
{
    DECLARE_REPORTER(report);
    return extract_join<SecondaryServers>(report, p);
}

secondary_server_list *clpacket_extract_secondary_servers_list(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: clpacket is NULL");
        return nullptr;
    }
    DECLARE_REPORTER(report);
    return extract_list<SecondaryServers>(report, p);
}

// ------------------------------------------------------------------------------- table extractors

namespace {

/// Where a table goes. The last two are null where no texts are asked for.
struct TableOutputs {
    uint32_t *rows;
    int32_t *value3;
    uint32_t *cols;
    int32_t **values;
    uint32_t **data_lens;
    void ***data;
    uint32_t **text_lens;
    char ***texts;
};

/// The cells of a table, as many as a packet bears out.
struct Table {
    owned<int32_t> values;
    owned<uint32_t> data_lens, text_lens;
    owned<void *> data;
    owned<char *> texts;

    bool allocate(size_t cells, bool with_texts)
    {
        values = allocate_zeroed<int32_t>(cells);
        data_lens = allocate_zeroed<uint32_t>(cells);
        data = allocate_zeroed<void *>(cells);
        if (with_texts) {
            text_lens = allocate_zeroed<uint32_t>(cells);
            texts = allocate_zeroed<char *>(cells);
        }
        return values != nullptr && data_lens != nullptr && data != nullptr &&
               (!with_texts || (text_lens != nullptr && texts != nullptr));
    }
};

/// A table of a packet: its fields as they are read, cell by cell.
class TableReader {
public:
    TableReader(const Reporter &report, bool with_texts) : report_(report), with_texts_(with_texts)
    {
    }

    int32_t read(clpacket *p, uint32_t type, const TableOutputs &outputs)
    {
        const int32_t found_type = clpacket_get_type(p);
        if (found_type != static_cast<int32_t>(type)) {
            LPRINTF_AS(report_.function, report_.slots[wrong_type],
                       "ERROR: invalid packet type: %d", found_type);
            return -1;
        }
        return open(p) && read_cells() && is_still_good(p) ? give(outputs) : -1;
    }

private:
    bool open(clpacket *p)
    {
        if (!values_.create() || !data_lens_.create() || !data_.create() ||
            (with_texts_ && !texts_.create())) {
            report_.say(not_created, "ERROR: failed to create packet");
            return false;
        }
        const bool whole =
            clpacket_get_int32_unsigned(p, 2, &rows_) == MTB_OK && read_int32(p, 3, &value3_) &&
            clpacket_get_int32_unsigned(p, 4, &cols_) == MTB_OK && values_.view(p, 5) &&
            data_lens_.view(p, 6) && data_.view(p, 7) && (!with_texts_ || texts_.view(p, 8));
        if (!whole) {
            report_.say(item_missing, "ERROR: failed to extract packet");
        }
        return whole;
    }

    bool read_cells()
    {
        const uint64_t announced = uint64_t{rows_} * cols_;
        const uint64_t most = std::min(
            {announced, values_.most_values(), data_lens_.most_values(), data_.most_values()});
        if (!table_.allocate(static_cast<size_t>(most), with_texts_)) {
            report_.say(no_memory, "ERROR: low memory");
            return false;
        }
        for (uint64_t i = 0; i < announced; ++i) {
            if (!read_cell(i, i < most)) {
                return false;
            }
        }
        return true;
    }

    bool read_cell(uint64_t i, bool borne_out)
    {
        int32_t value = 0;
        uint32_t sent_len = 0;
        uint32_t len = 0;
        void *data = nullptr;
        if (!values_.read(i, &value) || !data_lens_.read(i, &sent_len) ||
            !data_.read(i, &data, &len) || !borne_out) {
            say_unreadable(cell_unreadable);
            return false;
        }
        if (len != sent_len) {
            LPRINTF_AS(report_.function, report_.slots[wrong_size],
                       "ERROR: invalid value size (got: %u, expected: %u)", len, sent_len);
            return false;
        }
        table_.values.get()[i] = value;
        table_.data_lens.get()[i] = len;
        table_.data.get()[i] = data;
        if (with_texts_ && !texts_.read(i, &table_.texts.get()[i], &table_.text_lens.get()[i])) {
            say_unreadable(text_unreadable);
            return false;
        }
        return true;
    }

    void say_unreadable(Place place) const
    {
        if (values_.lacks_memory() || data_lens_.lacks_memory() || data_.lacks_memory() ||
            texts_.lacks_memory()) {
            report_.say(no_memory, "ERROR: low memory");
        } else {
            report_.say(place, "ERROR: failed to extract packet");
        }
    }

    bool is_still_good(const clpacket *p) const
    {
        if (p->error_state != MTB_OK) {
            report_.say(not_built, "ERROR: failed to extract packet");
        }
        return p->error_state == MTB_OK;
    }

    int32_t give(const TableOutputs &outputs)
    {
        *outputs.rows = rows_;
        *outputs.value3 = value3_;
        *outputs.cols = cols_;
        *outputs.values = table_.values.release();
        *outputs.data_lens = table_.data_lens.release();
        *outputs.data = table_.data.release();
        if (with_texts_) {
            *outputs.text_lens = table_.text_lens.release();
            *outputs.texts = table_.texts.release();
        }
        return 0;
    }

    const Reporter &report_;
    bool with_texts_;
    uint32_t rows_ = 0, cols_ = 0;
    int32_t value3_ = 0;
    IndexedFields values_{MTB_TYPE_INT32_SIGNED}, data_lens_{MTB_TYPE_INT32_UNSIGNED};
    IndexedFields data_{MTB_TYPE_BLOB}, texts_{MTB_TYPE_STRING};
    Table table_;
};

} // namespace

int32_t clpacket_extract_admin_db_insert2(clpacket *p, uint32_t *rows, int32_t *value3,
                                          uint32_t *cols, int32_t **values, uint32_t **data_lens,
                                          void ***data)
{
    if (rows == nullptr || value3 == nullptr || cols == nullptr || values == nullptr ||
        data_lens == nullptr || data == nullptr) {
        return -1;
    }
    DECLARE_REPORTER(report);
    return TableReader(report, false)
        .read(p, CLPACKET_ADMIN_DB_INSERT2,
              {rows, value3, cols, values, data_lens, data, nullptr, nullptr});
}

int32_t clpacket_extract_admin_db_insert3(clpacket *p, uint32_t *rows, int32_t *value3,
                                          uint32_t *cols, int32_t **values, uint32_t **data_lens,
                                          void ***data, uint32_t **text_lens, char ***texts)
{
    if (rows == nullptr || value3 == nullptr || cols == nullptr || values == nullptr ||
        data_lens == nullptr || data == nullptr || text_lens == nullptr || texts == nullptr) {
        return -1;
    }
    DECLARE_REPORTER(report);
    return TableReader(report, true)
        .read(p, CLPACKET_ADMIN_DB_INSERT3,
              {rows, value3, cols, values, data_lens, data, text_lens, texts});
}
