// Any bytes as a structure: what is accepted is whole, and is encoded as it came.
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
    seen.count += static_cast<size_t>(count);
}

void release(mtb_struct *structr)
{
    HOLDS(mtb_free_deserialized_packet(structr) == MTB_OK && structr->buffer->count == 0);
    HOLDS(structr->buffer->first == nullptr && structr->buffer->last == nullptr);
    mtb_struct_destroy(structr);
}
using Structure = std::unique_ptr<mtb_struct, Call<release>>;

[[maybe_unused]] const bool log_is_open = open_log();

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t root_head = 7, shortest_element = 4, name_size = 2;
    const Structure structr(mtb_struct_new(1));
    auto *cursor = const_cast<uint8_t *>(data);
    auto left = static_cast<int32_t>(size);
    const int32_t result = mtb_binary_deserialize(structr.get(), &cursor, &left, 1);
    HOLDS(left >= 0 && cursor + left == data + size);
    std::string_view consumed = bytes_of(data, size - static_cast<size_t>(left));
    Seen seen;
    look_at(structr.get(), seen);
    HOLDS(seen.count <= consumed.size() / shortest_element);
    HOLDS(result == MTB_OK || (seen.count == 0 && result <= MTB_BAD_ARG && result >= MTB_TOO_SHORT));
    uint64_t told = 0;
    HOLDS(mtb_calc_serialized_packet_size(structr.get(), &told) == MTB_OK);
    const std::unique_ptr<uint8_t[]> encoded(new uint8_t[told]);
    uint8_t *end = encoded.get();
    HOLDS(mtb_serialize_to_binary(structr.get(), &end) == (seen.is_encodable ? MTB_OK : MTB_BAD_DATA));
    if (result != MTB_OK || !seen.is_encodable || consumed.empty()) {
        return 0;
    }
    HOLDS(end == encoded.get() + told);
    const bool has_root = consumed[name_size] == MTB_TYPE_ROOT; // under any name, and without one it is added
    std::string_view content = bytes_of(encoded.get(), told).substr(has_root ? name_size : root_head);
    consumed.remove_prefix(has_root ? name_size : 0);
    HOLDS(content.size() < consumed.size() ||
          content == consumed); // other roots give their elements to what holds them
    return 0;
}
