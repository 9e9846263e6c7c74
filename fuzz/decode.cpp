// Any bytes as a structure: what is accepted is whole, read by every getter, and the same after a second journey.
#include "fuzz.h"
#include <set>
#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/scalar_types.h>

namespace {

bool is_structure(const mtb_element *e)
{
    return e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ALT;
}
bool has_chain(const mtb_element *e)
{
    return is_structure(e) || e->type >= MTB_TYPE_STRING_ARRAY;
}

/// The value of an element without a chain.
std::string_view value_of(const mtb_element *e)
{
    constexpr uint8_t widths[] = {0, 0, 1, 1, 2, 2, 4, 4, 8, 8, 4, 8, 1, 4, 0, 0, 1, 2, 2, 4, 4, 8, 8, 1, 1, 4, 8};
    const bool is_block = e->type == MTB_TYPE_STRING || e->type >= MTB_TYPE_BLOB;
    return is_block ? bytes_of(e->value.data, size_t{widths[e->type]} * static_cast<size_t>(e->len))
                    : bytes_of(&e->value, widths[e->type]);
}

void read_array(const mtb_element *array, mtb_struct *structr)
{
    const bool has_structures = array->type == MTB_TYPE_STRUCT_ARRAY, has_texts = array->type == MTB_TYPE_STRING_ARRAY;
    const std::string_view all = has_chain(array) ? "" : value_of(array);
    uint32_t len = 0;
    void *items = nullptr;
    HOLDS(mtb_get_array(array->name, &items, &len, array->type, structr) == (has_structures ? MTB_BAD_ARG : MTB_OK));
    HOLDS(int64_t{len} == array->len && (has_chain(array) || items == array->value.data));
    for (const int32_t position : {-1, 0, array->len - 1, array->len}) {
        void *item = nullptr;
        const int32_t result = mtb_get_array_element(position, array->name, &item, array->type, structr);
        const bool in_range = position >= 0 && position < array->len;
        HOLDS(result == (in_range ? MTB_OK : MTB_BAD_DATA) || (has_structures && result == MTB_BAD_DATA));
        HOLDS(!has_structures || item == nullptr || is_structure(static_cast<mtb_struct *>(item)));
        HOLDS(!in_range || !has_texts || item == static_cast<char **>(items)[position]);
        HOLDS(!in_range || all.empty() || item == all.data() + all.size() / len * static_cast<size_t>(position));
    }
    has_texts ? free(items) : void();
}

/// By the getter of its type; it is the first of its name and type.
void read(mtb_element *e, mtb_struct *structr)
{
    uint32_t len = 0;
    char *text = nullptr;
    void *data = nullptr;
    mtb_struct *nested = nullptr;
    switch (e->type) {
#define READ(suffix, ctype, code, member)                                                                              \
    case code: {                                                                                                       \
        ctype value{};                                                                                                 \
        HOLDS(mtb_get_##suffix(e->name, &value, structr) == MTB_OK && bytes_of(&value, sizeof value) == value_of(e));  \
        break;                                                                                                         \
    }
        TAVLEN_SCALAR_TYPES(READ)
    case MTB_TYPE_STRING:
        HOLDS(mtb_get_string(e->name, &text, &len, structr) == MTB_OK && bytes_of(text, len) == value_of(e));
        HOLDS(text[len] == '\0');
        break;
    case MTB_TYPE_BLOB:
        HOLDS(mtb_get_blob(e->name, &data, &len, structr) == MTB_OK && bytes_of(data, len) == value_of(e));
        break;
    case MTB_TYPE_STRUCT:
    case MTB_TYPE_STRUCT_ALT:
        HOLDS(mtb_get_struct(e->name, &nested, e->type, structr) == MTB_OK && nested == e);
        break;
    default:
        read_array(e, structr);
    }
}

struct Seen {
    std::string elements; // one behind the other
    size_t count = 0;
    bool is_complete = true;  // every structure holds as many elements as it tells
    bool is_encodable = true; // arrays of structures hold nothing else
};

void look_at(mtb_element *parent, Seen &seen)
{
    constexpr size_t most_read = 32; // of one structure, as each getter searches it
    std::set<std::pair<uint16_t, uint8_t>> read_ones;
    const mtb_element *before = nullptr;
    int32_t count = 0;
    for (mtb_element *e = parent->buffer->first; e != nullptr; before = e, e = e->next, ++count) {
        HOLDS(e->prev == before && e->type > MTB_TYPE_ROOT && e->type <= MTB_TYPE_STRUCT_ARRAY);
        HOLDS(parent->type != MTB_TYPE_STRING_ARRAY || e->type == MTB_TYPE_STRING);
        seen.is_encodable &= parent->type != MTB_TYPE_STRUCT_ARRAY || is_structure(e);
        seen.elements += bytes_of(&e->name, sizeof e->name);
        seen.elements += bytes_of(&e->type, sizeof e->type);
        seen.elements += bytes_of(&e->len, sizeof e->len);
        has_chain(e) ? look_at(e, seen) : void(seen.elements += value_of(e));
        if (parent->type <= MTB_TYPE_STRUCT_ALT && read_ones.size() < most_read &&
            read_ones.emplace(e->name, e->type).second) {
            read(e, parent);
        }
    }
    HOLDS(parent->buffer->last == before && parent->buffer->count == count);
    HOLDS(parent->type != MTB_TYPE_STRING_ARRAY || parent->len == count);
    seen.is_complete &= parent->len == count;
    seen.count += static_cast<size_t>(count);
}

void release(mtb_struct *structr)
{
    HOLDS(mtb_free_deserialized_packet(structr) == MTB_OK && structr->buffer->count == 0);
    HOLDS(structr->buffer->first == nullptr && structr->buffer->last == nullptr);
    mtb_struct_destroy(structr);
}
using Structure = std::unique_ptr<mtb_struct, Call<release>>;

/// Gives the number of bytes that were read.
size_t decode(mtb_struct *structr, uint8_t *start, size_t size, int32_t *result)
{
    uint8_t *cursor = start;
    auto left = static_cast<int32_t>(size);
    *result = mtb_binary_deserialize(structr, &cursor, &left, 1);
    HOLDS(left >= 0 && cursor + left == start + size);
    return static_cast<size_t>(cursor - start);
}

[[maybe_unused]] const bool log_is_open = open_log();

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t root_head = 7, shortest_element = 4;
    const Structure structr(mtb_struct_new(1)), again(mtb_struct_new(1));
    int32_t result = 0;
    const size_t consumed = decode(structr.get(), const_cast<uint8_t *>(data), size, &result);
    Seen seen, seen_again;
    look_at(structr.get(), seen);
    HOLDS(result == MTB_OK || (seen.count == 0 && result <= MTB_BAD_ARG && result >= MTB_TOO_SHORT));
    uint64_t told = 0;
    HOLDS(mtb_calc_serialized_packet_size(structr.get(), &told) == MTB_OK);
    HOLDS(seen.count <= consumed / shortest_element && told <= consumed + root_head);
    const std::unique_ptr<uint8_t[]> encoded(new uint8_t[told]);
    uint8_t *end = encoded.get();
    HOLDS(mtb_serialize_to_binary(structr.get(), &end) == (seen.is_encodable ? MTB_OK : MTB_BAD_DATA));
    HOLDS(!seen.is_encodable || end == encoded.get() + told);
    if (seen.is_encodable && seen.is_complete) {
        HOLDS(decode(again.get(), encoded.get(), told, &result) == told && result == MTB_OK);
        look_at(again.get(), seen_again);
        HOLDS(seen_again.elements == seen.elements);
    }
    return 0;
}
