/* What the catalogue's extractors give, as texts; what they allocate is freed. */
#ifndef TAVLEN_TESTS_EXTRACTORS_H
#define TAVLEN_TESTS_EXTRACTORS_H

#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <TavlenCommon/com_packet.h>
#include <tuple>

inline std::string quoted(const void *bytes, uint32_t len)
{
    return bytes == nullptr ? "null" : "'" + std::string(static_cast<const char *>(bytes), len) + "'";
}

/// An output that the caller frees.
template <class T>
struct Out {
    ~Out() { free(static_cast<void *>(at)); }
    T *at = nullptr;
};

/// Values with blanks between them.
template <class... Values>
std::string answer(const Values &...values)
{
    std::ostringstream text;
    ((text << ' ' << values), ...);
    return text.str().substr(1);
}

template <class Describe>
std::string each(int64_t count, Describe describe)
{
    std::string text;
    for (int64_t i = 0; i < count; ++i) {
        text += " (" + describe(i) + ")";
    }
    return text;
}

template <class Object, class... Texts>
std::string take_texts(const Object &object, Texts... texts)
{
    return answer(object.status, std::string(Out<char>{object.*texts}.at)...);
}

/// The values of what an extractor gives; all that hangs on it is freed.
struct Take {
    std::string operator()(int32_t number) const { return answer(number); }
    std::string operator()(const value_pair &pair) const { return answer(pair.first, pair.second); }
    std::string operator()(const entry24_record &e) const { return answer(e.value4, e.value5, e.value6); }
    std::string operator()(const db_change_id &id) const { return bytes(id.text, id.len + 1); }
    std::string operator()(const result_item &item) const
    {
        return answer(item.value, bytes(item.text, item.text_len), bytes(item.data, item.data_len));
    }
    std::string operator()(const entry_record &e) const
    {
        return answer(e.value4, e.value5, e.sub_count, e.value7) + list(e.pairs, e.sub_count);
    }
    std::string operator()(const parallel_server_entry &e) const
    {
        return take_texts(e, &parallel_server_entry::address, &parallel_server_entry::port);
    }
    std::string operator()(const secondary_server_entry &e) const
    {
        using E = secondary_server_entry;
        return take_texts(e, &E::address, &E::admin_port, &E::client_port, &E::monitor_address, &E::node_monitor_port);
    }
    std::string operator()(const parallel_server_list &l) const { return servers(l); }
    std::string operator()(const secondary_server_list &l) const { return servers(l); }
    std::string operator()(const db_change_notice &n) const
    {
        return answer(n.version, n.count, bytes(n.detail, n.detail_len)) + list(n.ids, n.count);
    }
    template <class Object>
    std::string operator()(Object *object) const
    {
        const Out<Object> owner{object};
        return object != nullptr ? Take()(*object) : "null";
    }

    static std::string bytes(void *bytes, uint32_t len) { return quoted(Out<void>{bytes}.at, len); }
    /// A null pointer closes the list.
    static std::string servers(const auto &l) { return answer(l.count) + list(l.servers, l.count + 1); }
    template <class Item>
    static std::string list(Item *items, int64_t count)
    {
        const Out<Item> owner{items};
        return each(count, [&](int64_t i) { return Take()(items[i]); });
    }
};

using Extractor = std::function<std::string(clpacket *)>;

/// A result code and plain numbers. What an extractor leaves alone stays 9.
template <class... Numbers>
Extractor as_text(int32_t (*extract)(clpacket *, Numbers *...))
{
    return [extract](clpacket *p) {
        std::tuple<Numbers...> numbers{Numbers{9}...};
        const auto call = [&](auto &...number) { return extract(p, &number...); };
        const int32_t result = std::apply(call, numbers);
        return std::apply([&](auto... number) { return answer(result, number...); }, numbers);
    };
}

template <class Count, class Item>
Extractor as_text(int32_t (*extract)(clpacket *, Count *, Item **))
{
    return [extract](clpacket *p) {
        Count count = 9;
        Item *items = nullptr;
        const int32_t result = extract(p, &count, &items);
        return answer(result, count) + Take::list(items, count);
    };
}

template <class Object>
Extractor as_text(Object *(*extract)(clpacket *))
{
    return [extract](clpacket *p) { return Take()(extract(p)); };
}

inline std::string extract_blobs(clpacket *p)
{
    int32_t value2 = 0;
    uint32_t count = 9;
    Out<int32_t> values;
    Out<void *> data;
    Out<uint32_t> lens;
    const auto extract = p->type == 37 ? clpacket_extract_type37 : clpacket_extract_type38;
    const int32_t result = extract(p, &value2, &count, &values.at, &data.at, &lens.at);
    return answer(result, value2, count) +
           each(count, [&](int64_t i) { return answer(values.at[i], Take::bytes(data.at[i], lens.at[i] + 1)); });
}

inline std::string extract_result(clpacket *p)
{
    int32_t status = 9, error = 9, count = 9;
    char *error_text = nullptr;
    uint32_t len = 9;
    result_item *items = nullptr;
    const int32_t result = clpacket_extract_result(p, &status, &error, &count, &error_text, &len, &items);
    return answer(result, status, error, Take::bytes(error_text, len), count) + Take::list(items, count);
}

inline std::string extract_table(clpacket *p)
{
    uint32_t rows = 0, cols = 0; // as they stay when there is no table
    int32_t value3 = 0;
    Out<int32_t> values;
    Out<uint32_t> lens, text_lens;
    Out<void *> data;
    Out<char *> texts;
    const int32_t result =
        clpacket_get_type(p) == CLPACKET_ADMIN_DB_INSERT3
            ? clpacket_extract_admin_db_insert3(p, &rows, &value3, &cols, &values.at, &lens.at, &data.at, &text_lens.at,
                                                &texts.at)
            : clpacket_extract_admin_db_insert2(p, &rows, &value3, &cols, &values.at, &lens.at, &data.at);
    return answer(result, rows, value3, cols) + each(int64_t{rows} * cols, [&](int64_t i) {
               return answer(values.at[i], quoted(data.at[i], lens.at[i])) +
                      (texts.at != nullptr ? " " + quoted(texts.at[i], text_lens.at[i]) : "");
           });
}

inline std::string extract_session(clpacket *p)
{
    uint32_t len = 0;
    const void *session = clpacket_extract_session_new(p, &len);
    return quoted(session, len);
}

/// By the type of the message.
struct Extractors : std::map<uint32_t, Extractor> {
    Extractors() = default;
    template <class... More>
    Extractors(int type, Extractor extractor, More... more) : Extractors(more...)
    {
        emplace(type, extractor);
    }
};

inline const Extractors
    extractors(5, extract_result, 37, extract_blobs, 38, extract_blobs, 56, extract_session, 59, extract_table, 60,
               extract_table, 2, as_text(clpacket_extract_type2), 28, as_text(clpacket_extract_type28), 36,
               as_text(clpacket_extract_type36), 39, as_text(clpacket_extract_type39), 40,
               as_text(clpacket_extract_type40), 23, as_text(clpacket_extract_type23), 24,
               as_text(clpacket_extract_type24), 25, as_text(clpacket_extract_type25), 26,
               as_text(clpacket_extract_type26), 21, as_text(clpacket_check_db_changed), 43,
               as_text(clpacket_extract_secondary_server_join), 44, as_text(clpacket_extract_secondary_servers_list),
               45, as_text(clpacket_extract_secondary_server_item), 49, as_text(clpacket_extract_parallel_server_join),
               51, as_text(clpacket_extract_parallel_server_item), 52, as_text(clpacket_extract_parallel_servers_list));

/// What the extractor of the packet's type gives; types without one give "".
inline std::string extract(clpacket *p)
{
    const auto extractor = extractors.find(p->type);
    return extractor != extractors.end() ? extractor->second(p) : "";
}

#endif
