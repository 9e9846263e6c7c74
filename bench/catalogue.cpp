#include "catalogue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include <TavlenCommon/com_packet.h>

namespace {

constexpr size_t value_size = 8; // of a cell's data, a cell's text and a blob

// --------------------------------------------------------------------------------------- servers

void free_servers(parallel_server_list *list)
{
    for (int32_t i = 0; i < list->count; ++i) {
        free(list->servers[i]->address);
        free(list->servers[i]->port);
        free(list->servers[i]);
    }
    free(list->servers);
    free(list);
}

class ServersMessage final : public CatalogueMessage {
public:
    explicit ServersMessage(size_t count)
        : entries_(count, {address_.data(), port_.data(), 0}),
          pointers_(count), list_{static_cast<int32_t>(count), pointers_.data()}
    {
        std::transform(entries_.begin(), entries_.end(), pointers_.begin(),
                       [](parallel_server_entry &entry) { return &entry; });
    }

    clpacket *build() const override { return clpacket_parallel_servers_list(&list_); }

    bool extract(clpacket *p) const override
    {
        parallel_server_list *list = clpacket_extract_parallel_servers_list(p);
        if (list == nullptr) {
            return false;
        }
        const bool whole =
            list->count == list_.count && port_ == list->servers[list->count - 1]->port;
        free_servers(list);
        return whole;
    }

private:
    std::string address_ = "192.168.100.200";
    std::string port_ = "50000";
    std::vector<parallel_server_entry> entries_;
    std::vector<parallel_server_entry *> pointers_;
    parallel_server_list list_;
};

// --------------------------------------------------------------------------------------- entries

constexpr int32_t pairs_per_entry = 2;

class EntriesMessage final : public CatalogueMessage {
public:
    explicit EntriesMessage(size_t count)
        : pairs_(count * pairs_per_entry, {9, 10}),
          entries_(count), list_{static_cast<int32_t>(count), entries_.data()}
    {
        for (size_t i = 0; i < count; ++i) {
            entries_[i] = {4, 5, pairs_per_entry, 7, &pairs_[i * pairs_per_entry]};
        }
    }

    clpacket *build() const override { return clpacket_create_type23(&list_); }

    bool extract(clpacket *p) const override
    {
        int32_t count = 0;
        entry_record *entries = nullptr;
        if (clpacket_extract_type23(p, &count, &entries) != CLPACKET_EXTRACT_OK) {
            return false;
        }
        const bool whole = count == list_.count &&
                           entries[count - 1].sub_count == pairs_per_entry &&
                           entries[count - 1].pairs[pairs_per_entry - 1].second == 10;
        for (int32_t i = 0; i < count; ++i) {
            free(entries[i].pairs);
        }
        free(entries);
        return whole;
    }

private:
    std::vector<value_pair> pairs_;
    std::vector<entry_record> entries_;
    entry_list list_;
};

// ----------------------------------------------------------------------------------------- table

constexpr uint32_t table_cols = 10;

/// Cells row after row, and a pointer to each row, as the builder takes them.
template <class T>
struct Grid {
    Grid(size_t count, T value) : cells(count, value), rows(count / table_cols)
    {
        for (size_t row = 0; row < rows.size(); ++row) {
            rows[row] = &cells[row * table_cols];
        }
    }

    std::vector<T> cells;
    std::vector<const T *> rows;
};

/// Pointers to values that lie one behind the other.
template <class T>
void point_into(std::vector<const T *> &pointers, const std::string &values)
{
    for (size_t i = 0; i < pointers.size(); ++i) {
        pointers[i] = values.data() + i * value_size;
    }
}

class TableMessage final : public CatalogueMessage {
public:
    explicit TableMessage(size_t count)
        : bytes_(count * value_size, 't'), values_(count, 5), lens_(count, value_size),
          data_(count, nullptr), texts_(count, nullptr)
    {
        point_into(data_.cells, bytes_);
        point_into(texts_.cells, bytes_);
    }

    clpacket *build() const override
    {
        return clpacket_admin_db_insert3(static_cast<uint32_t>(values_.rows.size()), 3, table_cols,
                                         values_.rows.data(), lens_.rows.data(), data_.rows.data(),
                                         lens_.rows.data(), texts_.rows.data());
    }

    bool extract(clpacket *p) const override
    {
        uint32_t rows = 0, cols = 0;
        int32_t value3 = 0;
        int32_t *values = nullptr;
        uint32_t *data_lens = nullptr, *text_lens = nullptr;
        void **data = nullptr;
        char **texts = nullptr;
        if (clpacket_extract_admin_db_insert3(p, &rows, &value3, &cols, &values, &data_lens, &data,
                                              &text_lens, &texts) != 0) {
            return false;
        }
        const size_t count = size_t{rows} * cols;
        const bool whole = count == values_.cells.size() && data_lens[count - 1] == value_size &&
                           strlen(texts[count - 1]) == value_size;
        free(values);
        free(data_lens);
        free(data);
        free(text_lens);
        free(texts);
        return whole;
    }

private:
    std::string bytes_;
    Grid<int32_t> values_;
    Grid<uint64_t> lens_;
    Grid<const void *> data_;
    Grid<const char *> texts_;
};

// ----------------------------------------------------------------------------------------- blobs

class BlobsMessage final : public CatalogueMessage {
public:
    explicit BlobsMessage(size_t count)
        : bytes_(count * value_size, 'b'), values_(count, 3), lens_(count, value_size), data_(count)
    {
        point_into(data_, bytes_);
    }

    clpacket *build() const override
    {
        return clpacket_create_type37(2, static_cast<uint32_t>(values_.size()), values_.data(),
                                      data_.data(), lens_.data());
    }

    bool extract(clpacket *p) const override
    {
        int32_t value2 = 0;
        uint32_t count = 0;
        int32_t *values = nullptr;
        void **data = nullptr;
        uint32_t *lens = nullptr;
        if (clpacket_extract_type37(p, &value2, &count, &values, &data, &lens) !=
            CLPACKET_EXTRACT_OK) {
            return false;
        }
        const bool whole = count == values_.size() && lens[count - 1] == value_size;
        std::for_each(data, data + count, free);
        free(data);
        free(lens);
        free(values);
        return whole;
    }

private:
    std::string bytes_;
    std::vector<int32_t> values_;
    std::vector<uint32_t> lens_;
    std::vector<const void *> data_;
};

} // namespace

std::unique_ptr<CatalogueMessage> make_catalogue_message(std::string_view name, size_t count)
{
    if (name == "servers") {
        return std::make_unique<ServersMessage>(count);
    }
    if (name == "entries") {
        return std::make_unique<EntriesMessage>(count);
    }
    if (name == "table") {
        return std::make_unique<TableMessage>(count);
    }
    if (name == "blobs") {
        return std::make_unique<BlobsMessage>(count);
    }
    return nullptr;
}

WireMessage encode_packet(clpacket *p)
{
    (void)clpacket_serialize(p);
    const auto *buffer = static_cast<const uint8_t *>(clpacket_get_buffer(p));
    WireMessage message{static_cast<uint32_t>(clpacket_get_type(p)),
                        {buffer, buffer + clpacket_get_buffer_size(p)}};
    clpacket_destroy(p);
    return message;
}

clpacket *receive_packet(const WireMessage &message)
{
    clpacket *p = clpacket_create();
    (void)clpacket_set_type(p, message.type);
    (void)clpacket_alloc_buffer(p, message.bytes.size());
    std::copy(message.bytes.begin(), message.bytes.end(),
              static_cast<uint8_t *>(clpacket_get_buffer(p)));
    return p;
}
