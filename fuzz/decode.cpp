// Any bytes as a structure: what is accepted is whole, is encoded as it came, and makes the same journey again.
#include "fuzz.h"
#include <TavlenCommon/map_to_buffer.h>

namespace {

bool is_structure(const mtb_element *e)
{
    return e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ALT;
}
bool has_chain(const mtb_element *e)
{
    return is_structure(e) || e->type >= MTB_TYPE_STRING_ARRAY;
}

struct Seen {
    size_t count = 0;
    bool is_complete = true;  // every structure holds as many elements as it tells
    bool is_encodable = true; // arrays of structures hold nothing else
};

void look_at(mtb_element *parent, Seen &seen)
{
    const mtb_element *before = nullptr;
    int32_t count = 0;
    for (mtb_element *e = parent->buffer->first; e != nullptr; before = e, e = e->next, ++count) {
        HOLDS(e->prev == before && e->type > MTB_TYPE_ROOT && e->type <= MTB_TYPE_STRUCT_ARRAY);
        HOLDS(parent->type != MTB_TYPE_STRING_ARRAY || e->type == MTB_TYPE_STRING);
        seen.is_encodable &= parent->type != MTB_TYPE_STRUCT_ARRAY || is_structure(e);
        has_chain(e) ? look_at(e, seen) : void();
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

/// Gives what was read of the bytes.
std::string_view decode(mtb_struct *structr, std::string_view bytes, int32_t *result)
{
    auto *start = reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.data())), *cursor = start;
    auto left = static_cast<int32_t>(bytes.size());
    *result = mtb_binary_deserialize(structr, &cursor, &left, 1);
    HOLDS(left >= 0 && cursor + left == start + bytes.size());
    return bytes.substr(0, static_cast<size_t>(cursor - start));
}

/// None when it cannot be encoded.
std::string encode(const mtb_struct *structr)
{
    uint64_t size = 0;
    HOLDS(mtb_calc_serialized_packet_size(structr, &size) == MTB_OK);
    const std::unique_ptr<uint8_t[]> bytes(new uint8_t[size]);
    uint8_t *end = bytes.get();
    const int32_t result = mtb_serialize_to_binary(structr, &end);
    HOLDS(result == MTB_OK ? end == bytes.get() + size : result == MTB_BAD_DATA);
    return result == MTB_OK ? std::string(bytes_of(bytes.get(), size)) : "";
}

[[maybe_unused]] const bool log_is_open = open_log();

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t root_head = 7, shortest_element = 4, name_size = 2;
    const Structure structr(mtb_struct_new(1)), again(mtb_struct_new(1));
    int32_t result = 0;
    std::string_view consumed = decode(structr.get(), bytes_of(data, size), &result);
    Seen seen;
    look_at(structr.get(), seen);
    HOLDS(seen.count <= consumed.size() / shortest_element);
    HOLDS(result == MTB_OK || (seen.count == 0 && result <= MTB_BAD_ARG && result >= MTB_TOO_SHORT));
    const std::string encoded = encode(structr.get());
    HOLDS(encoded.empty() != seen.is_encodable);
    if (result != MTB_OK || !seen.is_encodable || consumed.empty()) {
        return 0;
    }
    const bool has_root = consumed[name_size] == MTB_TYPE_ROOT; // under any name, and without one it is added
    const std::string_view content = std::string_view(encoded).substr(has_root ? name_size : root_head);
    consumed.remove_prefix(has_root ? name_size : 0);
    HOLDS(content.size() < consumed.size() || content == consumed); // other roots give theirs to what holds them
    if (seen.is_complete) {
        HOLDS(decode(again.get(), encoded, &result) == encoded && result == MTB_OK && encode(again.get()) == encoded);
    }
    return 0;
}
