#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/map_to_buffer_internal.h>
#include <TavlenCommon/mtb_chain.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

#include <TavlenCommon/logger.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/report_as.h>
#include <TavlenCommon/reserve.h>
#include <TavlenCommon/scalar_types.h>
#include <TavlenCommon/wire_order.h>

using tavlen::Lookup;
using tavlen::owned;
using tavlen::release_record;

namespace {

/// A text as short as most names; malloc has no smaller block.
struct ShortText {
    char text[24];
};

} // namespace

/// Enough for a list of a hundred structures.
template <>
constexpr uint32_t tavlen::most_kept<mtb_element> = 512;
template <>
constexpr uint32_t tavlen::most_kept<mtb_chain> = 128;
template <>
constexpr uint32_t tavlen::most_kept<ShortText> = 128;

// ---------------------------------------------------------------------------------------- types

namespace {

enum class Kind : uint8_t {
    invalid,
    scalar,
    string,
    blob,
    array,
    string_array,
    structure,
    struct_array
};

struct TypeInfo {
    Kind kind;
    uint8_t width; // of the number or of one item, in bytes
};

constexpr TypeInfo type_table[] = {
    {Kind::invalid, 0},      {Kind::structure, 0},    {Kind::scalar, 1},    // 0 to 2
    {Kind::scalar, 1},       {Kind::scalar, 2},       {Kind::scalar, 2},    // 3 to 5
    {Kind::scalar, 4},       {Kind::scalar, 4},       {Kind::scalar, 8},    // 6 to 8
    {Kind::scalar, 8},       {Kind::scalar, 4},       {Kind::scalar, 8},    // 9 to 11
    {Kind::string, 1},       {Kind::scalar, 4},       {Kind::structure, 0}, // 12 to 14
    {Kind::structure, 0},    {Kind::blob, 1},         {Kind::array, 2},     // 15 to 17
    {Kind::array, 2},        {Kind::array, 4},        {Kind::array, 4},     // 18 to 20
    {Kind::array, 8},        {Kind::array, 8},        {Kind::array, 1},     // 21 to 23
    {Kind::array, 1},        {Kind::array, 4},        {Kind::array, 8},     // 24 to 26
    {Kind::string_array, 0}, {Kind::struct_array, 0},                       // 27 to 28
};

TypeInfo type_info(uint8_t type)
{
    return type < std::size(type_table) ? type_table[type] : TypeInfo{Kind::invalid, 0};
}

/// Names are 16 bits wide; callers give wider numbers.
uint16_t cut_name(int32_t name)
{
    return static_cast<uint16_t>(name);
}

bool is_missing(const mtb_struct *structr)
{
    return structr == nullptr || structr->buffer == nullptr;
}

bool is_structure(const mtb_element *e)
{
    return type_info(e->type).kind == Kind::structure;
}

} // namespace

// ---------------------------------------------------------------------------------------- chain

void chain_init(mtb_chain *c)
{
    *c = mtb_chain{};
}

void chain_append(mtb_chain *c, mtb_element *e)
{
    e->next = nullptr;
    e->prev = c->last;
    (c->last != nullptr ? c->last->next : c->first) = e;
    c->last = e;
    ++c->count;
}

void chain_prepend(mtb_chain *c, mtb_element *e)
{
    e->next = c->first;
    e->prev = nullptr;
    (c->first != nullptr ? c->first->prev : c->last) = e;
    c->first = e;
    ++c->count;
}

void chain_unlink(mtb_chain *c, mtb_element *e)
{
    if (c == nullptr || e == nullptr) {
        return;
    }
    (e->prev != nullptr ? e->prev->next : c->first) = e->next;
    (e->next != nullptr ? e->next->prev : c->last) = e->prev;
    e->next = nullptr;
    e->prev = nullptr;
    --c->count;
}

mtb_element *chain_pop_first(mtb_chain *c)
{
    mtb_element *e = c->first;
    if (e != nullptr) {
        c->first = e->next;
        (c->first != nullptr ? c->first->prev : c->last) = nullptr;
        e->next = nullptr;
        --c->count;
    }
    return e;
}

mtb_element *chain_pop_last(mtb_chain *c)
{
    mtb_element *e = c->last;
    chain_unlink(c, e);
    return e;
}

mtb_element *chain_first(mtb_chain *c)
{
    return c->first;
}

mtb_element *chain_next(mtb_chain *c, mtb_element *e)
{
    return c != nullptr && e != nullptr ? e->next : nullptr;
}

mtb_element *chain_find(mtb_chain *c, int (*match)(const mtb_element *, const void *),
                        const void *arg)
{
    mtb_element *e = c->first;
    while (e != nullptr && match(e, arg) == 0) {
        e = e->next;
    }
    return e;
}

// ------------------------------------------------------------------------- records and structures

namespace {

/// An element that is not linked yet, its links unset. Asked for when everything else that it needs
/// is there, as it has no owner until then. Null without memory.
inline mtb_element *new_element(uint16_t name, uint8_t type, int32_t len)
{
    mtb_element *e = tavlen::take_record<mtb_element>().release();
    if (e != nullptr) [[likely]] {
        e->name = name;
        e->type = type;
        e->len = len;
        e->value.u64 = 0; // all of the slot: an empty block's pointer is null
    }
    return e;
}

/// Releases what an element with a chain holds, and the element.
struct DestroyWhole {
    void operator()(mtb_struct *structr) const
    {
        // An element of no known type stops the emptying, which tells; those behind it take another
        // round.
        while (!is_missing(structr) && structr->buffer->first != nullptr) {
            (void)mtb_free_deserialized_packet(structr);
        }
        mtb_struct_destroy(structr);
    }
};
using owned_struct = std::unique_ptr<mtb_struct, DestroyWhole>;

/// An element with an empty chain of its own.
owned_struct new_chained_element(uint16_t name, uint8_t type)
{
    auto chain = tavlen::take_record<mtb_chain>();
    mtb_element *e = chain != nullptr ? new_element(name, type, 0) : nullptr;
    if (e == nullptr) {
        return nullptr;
    }
    chain_init(chain.get());
    e->next = nullptr;
    e->prev = nullptr;
    e->buffer = chain.release();
    return owned_struct(e);
}

/// A received `len` may be as large as its type holds.
void raise_len(mtb_element *e)
{
    e->len = static_cast<int32_t>(static_cast<uint32_t>(e->len) + 1);
}

void link_element(mtb_struct *structr, mtb_element *e)
{
    raise_len(structr);
    chain_append(structr->buffer, e);
}

/// The first element of that name and type; inlined, as it is on the way of every field.
[[gnu::always_inline]] inline mtb_element *find_in(const mtb_chain *chain, uint16_t name,
                                                   uint8_t type)
{
    mtb_element *e = chain->first;
    while (e != nullptr && (e->name != name || e->type != type)) {
        e = e->next;
    }
    return e;
}

/// The same in a structure that is known to have a chain.
[[gnu::always_inline]] inline mtb_element *find_element(const mtb_struct *structr, int32_t name,
                                                        uint8_t type)
{
    return find_in(structr->buffer, cut_name(name), type);
}

/// The same in a structure that may be missing.
mtb_element *find_head(const mtb_struct *structr, int32_t name, uint8_t type)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: invalid argument 'buffer'");
        return nullptr;
    }
    return find_element(structr, name, type);
}

/// The element that an adder replaces, if any.
[[gnu::always_inline]] inline mtb_element *find_present(mtb_struct *structr, int32_t name,
                                                        uint8_t type, Lookup lookup)
{
    return lookup == Lookup::needed ? find_element(structr, name, type) : nullptr;
}

} // namespace

mtb_struct *mtb_struct_new(int32_t name)
{
    owned_struct structr = new_chained_element(cut_name(name), MTB_TYPE_ROOT);
    if (structr == nullptr) {
        LPRINTF("ERROR: low memory");
    }
    return structr.release();
}

void mtb_struct_destroy(mtb_struct *structr)
{
    if (structr == nullptr) {
        LPRINTF("ERROR: NULL pointer: structr");
        return;
    }
    if (structr->buffer != nullptr) {
        release_record(structr->buffer);
    } else {
        LPRINTF("ERROR: NULL pointer: structr->buffer");
    }
    release_record(structr);
}

int32_t mtb_element_exists(int32_t name, uint8_t type, mtb_struct *structr)
{
    return find_head(structr, name, type) != nullptr ? 1 : 0;
}

// --------------------------------------------------------------------------------------- adding

namespace {

[[gnu::always_inline]] inline int32_t add_scalar(int32_t name, uint8_t type, mtb_value value,
                                                 mtb_struct *structr, Lookup lookup)
{
    if (is_missing(structr)) {
        return MTB_BAD_ARG;
    }
    if (mtb_element *present = find_present(structr, name, type, lookup)) {
        present->value = value;
        return MTB_OK;
    }
    mtb_element *e = new_element(cut_name(name), type, 0);
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    e->value = value;
    link_element(structr, e);
    return MTB_OK;
}

} // namespace

#define DEFINE_ADDER(suffix, ctype, code, member)                                                  \
    int32_t mtb_add_##suffix(int32_t name, ctype value, mtb_struct *structr, Lookup lookup)        \
    {                                                                                              \
        mtb_value slot;                                                                            \
        slot.u64 = 0;                                                                              \
        slot.member = value;                                                                       \
        const int32_t result = add_scalar(name, code, slot, structr, lookup);                      \
        if (result == MTB_BAD_ARG) {                                                               \
            LPRINTF("ERROR: param 'structr' is uninitialized.");                                   \
        } else if (result == MTB_NOMEM) {                                                          \
            LPRINTF("ERROR: low memory");                                                          \
        }                                                                                          \
        return result;                                                                             \
    }                                                                                              \
    int32_t mtb_add_##suffix(int32_t name, ctype value, mtb_struct *structr)                       \
    {                                                                                              \
        return mtb_add_##suffix(name, value, structr, Lookup::needed);                             \
    }
TAVLEN_SCALAR_TYPES(DEFINE_ADDER)
#undef DEFINE_ADDER

namespace {

/// A copy of `size` bytes; null without memory.
owned<void> copy_bytes(const void *bytes, size_t size)
{
    auto copy = tavlen::allocate_bytes(size);
    if (copy != nullptr && size != 0) {
        memcpy(copy.get(), bytes, size);
    }
    return copy;
}

/// An uninitialised block of that many bytes, at least one.
owned<char> take_text(size_t size)
{
    if (size > sizeof(ShortText)) {
        return tavlen::allocate_bytes<char>(size);
    }
    return owned<char>(reinterpret_cast<char *>(tavlen::take_record<ShortText>().release()));
}

void release_text(char *text)
{
    if (text != nullptr) {
        tavlen::release_block<ShortText>(text);
    }
}

/// A copy of `len` bytes with a terminating zero behind them; null without memory.
owned<char> copy_text(const void *bytes, int32_t len)
{
    const auto size = static_cast<size_t>(len);
    auto copy = take_text(size + 1);
    if (copy != nullptr) {
        if (size != 0) {
            memcpy(copy.get(), bytes, size);
        }
        copy.get()[size] = '\0';
    }
    return copy;
}

/// Stores a copy of the bytes as a string element of the chain; never counts it in a structure.
int32_t add_string(uint16_t name, const char *bytes, int32_t len, mtb_chain *chain, bool replace)
{
    owned<char> text = copy_text(bytes, len); // first: the bytes may be the present element's own
    mtb_element *present = replace ? find_in(chain, name, MTB_TYPE_STRING) : nullptr;
    if (text != nullptr && present != nullptr) {
        release_text(present->value.text);
        present->value.text = text.release();
        present->len = len;
        return MTB_OK;
    }
    mtb_element *e = text != nullptr ? new_element(name, MTB_TYPE_STRING, len) : nullptr;
    if (e == nullptr) {
        LPRINTF("ERROR: low memory");
        return MTB_NOMEM;
    }
    e->value.text = text.release();
    chain_append(chain, e);
    return MTB_OK;
}

/// Stores a block as the value of the element of that name and type, present or new.
int32_t store_block(int32_t name, uint8_t type, owned<void> block, int32_t len, mtb_struct *structr,
                    Lookup lookup)
{
    if (mtb_element *present = find_present(structr, name, type, lookup)) {
        free(present->value.data);
        present->value.data = block.release();
        present->len = len;
        return MTB_OK;
    }
    mtb_element *e = new_element(cut_name(name), type, len);
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    e->value.data = block.release();
    link_element(structr, e);
    return MTB_OK;
}

} // namespace

int32_t mtb_add_string(int32_t name, const char *val, int32_t len, mtb_struct *structr,
                       Lookup lookup)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (len != 0 && val == nullptr) {
        LPRINTF("ERROR: param 'val' is NULL");
        return MTB_BAD_ARG;
    }
    if (len < 0) {
        LPRINTF("ERROR: invalid length specified: %i", len);
        return MTB_BAD_ARG;
    }
    const int32_t count_before = structr->buffer->count;
    const int32_t result =
        add_string(cut_name(name), val, len, structr->buffer, lookup == Lookup::needed);
    if (structr->buffer->count != count_before) {
        raise_len(structr);
    }
    return result;
}

int32_t mtb_add_string(int32_t name, const char *val, int32_t len, mtb_struct *structr)
{
    return mtb_add_string(name, val, len, structr, Lookup::needed);
}

int32_t mtb_add_blob(int32_t name, const void *val, int32_t len, mtb_struct *structr, Lookup lookup)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (len != 0 && val == nullptr) {
        LPRINTF("ERROR: param 'val' is NULL, but len != 0");
        return MTB_BAD_ARG;
    }
    if (len < 0) {
        LPRINTF("ERROR: invalid length specified: %i", len);
        return MTB_BAD_ARG;
    }
    owned<void> copy = len > 0 ? copy_bytes(val, static_cast<size_t>(len)) : nullptr;
    const bool copied = len == 0 || copy != nullptr;
    if (!copied ||
        store_block(name, MTB_TYPE_BLOB, std::move(copy), len, structr, lookup) != MTB_OK) {
        LPRINTF("ERROR: low memory");
        return MTB_NOMEM;
    }
    return MTB_OK;
}

int32_t mtb_add_blob(int32_t name, const void *val, int32_t len, mtb_struct *structr)
{
    return mtb_add_blob(name, val, len, structr, Lookup::needed);
}

namespace {

struct DestroyChain {
    void operator()(mtb_chain *chain) const;
};
using owned_chain = std::unique_ptr<mtb_chain, DestroyChain>;

/// The texts as string elements of a chain; null without memory.
owned_chain new_string_chain(uint16_t name, const char *const *texts, int32_t count)
{
    owned_chain chain(tavlen::take_record<mtb_chain>().release());
    if (chain == nullptr) {
        return nullptr;
    }
    chain_init(chain.get());
    for (int32_t i = 0; i < count; ++i) {
        const auto len = static_cast<int32_t>(strlen(texts[i]));
        if (add_string(name, texts[i], len, chain.get(), false) != MTB_OK) {
            return nullptr;
        }
    }
    return chain;
}

int32_t add_string_array(int32_t name, const char *const *texts, int32_t count, mtb_struct *structr)
{
    owned_chain chain = new_string_chain(cut_name(name), texts, count);
    if (chain == nullptr) {
        return MTB_NOMEM;
    }
    if (mtb_element *present = find_element(structr, name, MTB_TYPE_STRING_ARRAY)) {
        const owned_chain old(present->buffer);
        present->buffer = chain.release();
        present->len = count;
        return MTB_OK;
    }
    mtb_element *e = new_element(cut_name(name), MTB_TYPE_STRING_ARRAY, count);
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    e->buffer = chain.release();
    link_element(structr, e);
    return MTB_OK;
}

int32_t add_items(int32_t name, const void *items, int32_t count, uint8_t type, mtb_struct *structr)
{
    owned<void> copy = copy_bytes(items, static_cast<size_t>(count) * type_info(type).width);
    return copy != nullptr
               ? store_block(name, type, std::move(copy), count, structr, Lookup::needed)
               : MTB_NOMEM;
}

/// The index of the first text that no string element can hold: null or too long; else `count`.
int32_t find_unfit_text(const char *const *texts, int32_t count)
{
    constexpr size_t longest = std::numeric_limits<int32_t>::max();
    int32_t i = 0;
    while (i < count && texts[i] != nullptr && strlen(texts[i]) <= longest) {
        ++i;
    }
    return i;
}

} // namespace

int32_t mtb_add_array(int32_t name, const void *val, int32_t count, uint8_t type,
                      mtb_struct *structr)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (val == nullptr) {
        LPRINTF("ERROR: param 'val' is NULL");
        return MTB_BAD_ARG;
    }
    if (count < 0) {
        LPRINTF("ERROR: illegal array length specified: %d", count);
        return MTB_BAD_ARG;
    }
    const Kind kind = type_info(type).kind;
    int32_t result = MTB_BAD_ARG;
    if (kind == Kind::array) {
        result = add_items(name, val, count, type, structr);
    } else if (kind == Kind::string_array) {
        const auto *texts = static_cast<const char *const *>(val);
        const int32_t unfit = find_unfit_text(texts, count);
        if (unfit == count) {
            result = add_string_array(name, texts, count, structr);
        } else if (texts[unfit] == nullptr) {
            LPRINTF("ERROR: param 'val' is NULL");
        } else {
            LPRINTF("ERROR: invalid length specified: %i",
                    static_cast<int32_t>(strlen(texts[unfit])));
        }
    } else {
        LPRINTF("ERROR: unknown element type specified %d", type);
    }
    if (result == MTB_NOMEM) {
        LPRINTF("ERROR: low memory");
    }
    return result;
}

int32_t mtb_add_struct(int32_t name, mtb_struct *child, mtb_struct *structr)
{
    if (is_missing(structr) || child == nullptr || child == structr) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    child->name = cut_name(name);
    child->type = MTB_TYPE_STRUCT;
    link_element(structr, child);
    return MTB_OK;
}

int32_t mtb_add_array_struct(int32_t name, mtb_struct *child, mtb_struct *structr)
{
    if (structr == nullptr || child == nullptr || child == structr) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    mtb_element *array = find_head(structr, name, MTB_TYPE_STRUCT_ARRAY);
    if (structr->buffer == nullptr) {
        return MTB_BAD_ARG; // find_head has told
    }
    if (array == nullptr) {
        array = new_chained_element(cut_name(name), MTB_TYPE_STRUCT_ARRAY).release();
        if (array == nullptr) {
            return MTB_NOMEM;
        }
        link_element(structr, array);
    }
    child->name = cut_name(name);
    child->type = MTB_TYPE_STRUCT;
    link_element(array, child);
    return MTB_OK;
}

// -------------------------------------------------------------------------------------- encoding

namespace {

constexpr size_t element_head_size = 3; // name and type
constexpr size_t count_size = 4;        // of bytes, items or elements
constexpr size_t counted_head_size = element_head_size + count_size;

/// Where the writer stands; the room behind the cursor is the caller's word.
struct Writer {
    const mtb_struct *root;
    uint8_t *cursor;

    template <class T>
    void number(T value)
    {
        tavlen::store_wire(cursor, value);
        cursor += sizeof value;
    }

    void head(const mtb_element *e)
    {
        number(e->name);
        number(e->type);
    }

    void count(const mtb_element *e) { number(static_cast<uint32_t>(e->len)); }

    void counted_head(const mtb_element *e)
    {
        head(e);
        count(e);
    }

    void scalar(const mtb_value *value, int32_t width)
    {
        tavlen::convert_number(cursor, value, width);
        cursor += width;
    }

    void items(const void *data, int32_t width, size_t count)
    {
        (void)tavlen::convert_items(cursor, data, width, count);
        cursor += static_cast<size_t>(width) * count;
    }
};

size_t item_count(const mtb_element *e)
{
    return static_cast<uint32_t>(e->len);
}

int32_t calc_serialized_packet_size(const mtb_chain *chain, uint64_t *sum);

int32_t get_struct_size(const mtb_element *e, uint64_t *sum)
{
    uint64_t content = 0;
    const int32_t result = calc_serialized_packet_size(e->buffer, &content);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to calculate structure %u size", unsigned{e->type});
        return result;
    }
    *sum += counted_head_size + content;
    return MTB_OK;
}

int32_t get_array_size(const mtb_element *e, uint64_t *sum)
{
    uint64_t content = 0;
    const int32_t result = calc_serialized_packet_size(e->buffer, &content);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to calculate array size");
        return result;
    }
    *sum += counted_head_size + content;
    return MTB_OK;
}

int32_t get_string_array_size(const mtb_element *e, uint64_t *sum)
{
    if (is_missing(e)) {
        return MTB_BAD_ARG;
    }
    *sum += counted_head_size;
    for (const mtb_element *s = e->buffer->first; s != nullptr; s = s->next) {
        *sum += count_size + item_count(s);
    }
    return MTB_OK;
}

int32_t calc_serialized_packet_size(const mtb_chain *chain, uint64_t *sum)
{
    if (chain == nullptr) {
        return MTB_BAD_ARG; // a damaged structure: the level that holds it tells
    }
    int32_t result = MTB_OK;
    for (const mtb_element *e = chain->first; e != nullptr && result == MTB_OK; e = e->next) {
        const TypeInfo info = type_info(e->type);
        switch (info.kind) {
        case Kind::scalar:
            *sum += element_head_size + info.width;
            break;
        case Kind::string:
        case Kind::blob:
        case Kind::array:
            *sum += counted_head_size + uint64_t{info.width} * item_count(e);
            break;
        case Kind::string_array:
            result = get_string_array_size(e, sum);
            break;
        case Kind::structure:
            result = get_struct_size(e, sum);
            break;
        case Kind::struct_array:
            result = get_array_size(e, sum);
            break;
        case Kind::invalid:
            LPRINTF("ERROR: bad data type encountered %d", e->type);
            result = MTB_BAD_DATA;
            break;
        }
    }
    return result;
}

} // namespace

int32_t mtb_calc_serialized_packet_size(const mtb_struct *structr, uint64_t *size)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (size == nullptr) {
        LPRINTF("ERROR: param 'size' is NULL");
        return MTB_BAD_ARG;
    }
    uint64_t content = 0;
    const int32_t result = calc_serialized_packet_size(structr->buffer, &content);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to calculate buffer size");
        return result;
    }
    *size += counted_head_size + content;
    return MTB_OK;
}

namespace {

/// Writes one structure, head included; the overload that recursion goes through.
int32_t mtb_serialize_to_binary(const mtb_struct *structr, Writer &writer);

int32_t binaryze_struct(const mtb_element *e, Writer &out)
{
    const int32_t result = mtb_serialize_to_binary(e, out);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to binarize structure");
    }
    return result;
}

int32_t binaryze_array_of_struct(const mtb_element *array, Writer &out)
{
    for (const mtb_element *e = array->buffer->first; e != nullptr; e = e->next) {
        const int32_t result = binaryze_struct(e, out);
        if (result != MTB_OK) {
            static ratelimit_slot not_binarized;
            LPRINTF("ERROR: failed to binarize array of structures");
            LPRINTF_AS("mtb_serialize_to_binary", not_binarized, "ERROR: failed to binarize array");
            return result;
        }
    }
    return MTB_OK;
}

void write_string_array(const mtb_element *array, Writer &out)
{
    for (const mtb_element *s = array->buffer->first; s != nullptr; s = s->next) {
        out.count(s);
        out.items(s->value.text, 1, item_count(s));
    }
}

/// What nests is written by a writer of its own, so that the place of `out` stays unknown to others
/// and the cursor in a register.
[[gnu::always_inline]] inline int32_t
write_nested(const mtb_element *e, Writer &out, int32_t (*write)(const mtb_element *e, Writer &out))
{
    Writer nested = out;
    const int32_t result = write(e, nested);
    out = nested;
    return result;
}

void report_type(const mtb_element *e)
{
    static ratelimit_slot bad_type;
    LPRINTF_AS("mtb_serialize_to_binary", bad_type,
               "ERROR: invalid data type encauntered, type = %d\n", e->type);
}

[[gnu::always_inline]] inline int32_t write_elements(const mtb_struct *structr, Writer &out)
{
    int32_t result = MTB_OK;
    for (const mtb_element *e = structr->buffer->first; e != nullptr && result == MTB_OK;
         e = e->next) {
        const TypeInfo info = type_info(e->type);
        switch (e->type != MTB_TYPE_ROOT ? info.kind : Kind::invalid) {
        case Kind::scalar:
            out.head(e);
            out.scalar(&e->value, info.width);
            break;
        case Kind::string:
        case Kind::blob:
        case Kind::array:
            out.counted_head(e);
            out.items(e->value.data, info.width, item_count(e));
            break;
        case Kind::string_array:
            out.counted_head(e);
            write_string_array(e, out);
            break;
        case Kind::structure:
            result = write_nested(e, out, binaryze_struct);
            break;
        case Kind::struct_array:
            out.counted_head(e);
            result = write_nested(e, out, binaryze_array_of_struct);
            break;
        case Kind::invalid:
            report_type(e);
            result = MTB_BAD_DATA;
            break;
        }
    }
    return result;
}

int32_t mtb_serialize_to_binary(const mtb_struct *structr, Writer &writer)
{
    // What is no structure comes from a received array of structures, and has no chain to follow.
    if (structr != writer.root && !is_structure(structr)) {
        report_type(structr);
        return MTB_BAD_DATA;
    }
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    Writer out = writer;
    out.counted_head(structr);
    const int32_t result = write_elements(structr, out);
    writer = out;
    return result;
}

} // namespace

int32_t mtb_serialize_to_binary(const mtb_struct *structr, uint8_t **binary_buffer)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (binary_buffer == nullptr) {
        LPRINTF("ERROR: param 'binary_buffer' is NULL");
        return MTB_BAD_ARG;
    }
    Writer out{structr, *binary_buffer};
    const int32_t result = mtb_serialize_to_binary(structr, out);
    *binary_buffer = out.cursor;
    return result;
}

// -------------------------------------------------------------------------------------- decoding

namespace {

/// What is left to read, and how deep in nested structures reading is.
struct Reader {
    uint8_t *cursor;
    int32_t left;
    int32_t depth;

    bool holds(int64_t size) const { return size <= left; }

    template <class T>
    T number()
    {
        const T value = tavlen::load_wire<T>(cursor);
        skip(sizeof value);
        return value;
    }

    void skip(size_t size)
    {
        cursor += size;
        left -= static_cast<int32_t>(size);
    }

    int32_t count() { return static_cast<int32_t>(number<uint32_t>()); }

    /// The count in front, which is not consumed; -1 when its bytes, or those of as many items of
    /// `width` bytes behind it, are missing.
    int32_t count_of_items(int32_t width) const
    {
        if (!holds(count_size)) {
            return -1;
        }
        const auto count = static_cast<int32_t>(tavlen::load_wire<uint32_t>(cursor));
        return count >= 0 && holds(int64_t{count_size} + int64_t{count} * width) ? count : -1;
    }
};

/// Reads `element_count` elements into the structure; the overload that recursion goes through,
/// as often as MTB_MAX_DEPTH, so its frame and those between are kept small.
int32_t mtb_binary_deserialize(mtb_struct *structr, Reader &reader, int32_t element_count);

int32_t decode_scalar(uint16_t name, uint8_t type, Reader &in, mtb_struct *structr)
{
    const int32_t width = type_info(type).width;
    if (!in.holds(width)) {
        return MTB_TOO_SHORT;
    }
    mtb_element *e = new_element(name, type, 0);
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    tavlen::convert_number(&e->value, in.cursor, width);
    in.skip(static_cast<size_t>(width));
    chain_append(structr->buffer, e);
    return MTB_OK;
}

int32_t decode_string(uint16_t name, Reader &in, mtb_struct *structr)
{
    const int32_t len = in.count_of_items(1);
    if (len < 0) {
        return MTB_TOO_SHORT;
    }
    owned<char> text = copy_text(in.cursor + count_size, len);
    mtb_element *e = text != nullptr ? new_element(name, MTB_TYPE_STRING, len) : nullptr;
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    in.skip(count_size + static_cast<size_t>(len));
    e->value.text = text.release();
    chain_append(structr->buffer, e);
    return MTB_OK;
}

/// Blobs and arrays of numbers. An empty blob has no block.
int32_t decode_items(uint16_t name, uint8_t type, Reader &in, mtb_struct *structr)
{
    const int32_t width = type_info(type).width;
    const int32_t count = in.count_of_items(width);
    if (count < 0) {
        return MTB_TOO_SHORT;
    }
    const auto items = static_cast<size_t>(count);
    const size_t size = items * static_cast<size_t>(width);
    const bool has_block = type != MTB_TYPE_BLOB || size != 0;
    owned<void> block = has_block ? tavlen::allocate_bytes(size) : nullptr;
    const bool is_ready = !has_block || block != nullptr;
    mtb_element *e = is_ready ? new_element(name, type, count) : nullptr;
    if (e == nullptr) {
        return MTB_NOMEM;
    }
    if (has_block) {
        (void)tavlen::convert_items(block.get(), in.cursor + count_size, width, items);
    }
    e->value.data = block.release();
    in.skip(count_size + size);
    chain_append(structr->buffer, e);
    return MTB_OK;
}

int32_t decode_string_array(uint16_t name, Reader &in, mtb_struct *structr)
{
    if (!in.holds(count_size)) {
        return MTB_TOO_SHORT;
    }
    owned_struct array = new_chained_element(name, MTB_TYPE_STRING_ARRAY);
    if (array == nullptr) {
        return MTB_NOMEM;
    }
    array->len = in.count();
    if (array->len < 0) {
        return MTB_TOO_SHORT;
    }
    for (int32_t i = 0; i < array->len; ++i) {
        const int32_t len = in.count_of_items(1);
        if (len < 0) {
            return MTB_TOO_SHORT;
        }
        const auto *text = reinterpret_cast<const char *>(in.cursor + count_size);
        if (add_string(name, text, len, array->buffer, false) != MTB_OK) {
            return MTB_NOMEM;
        }
        in.skip(count_size + static_cast<size_t>(len));
    }
    chain_append(structr->buffer, array.release());
    return MTB_OK;
}

int32_t decode_nested(mtb_struct *target, Reader &in)
{
    Reader nested{in.cursor, in.left, in.depth + 1};
    const int32_t result = mtb_binary_deserialize(target, nested, target->len);
    in = Reader{nested.cursor, nested.left, in.depth};
    return result;
}

/// Ends the reading of a nested structure: links it under its own type, which a root element merged
/// into it may have changed, or releases it.
void finish_nested(mtb_struct *nested, uint8_t type, int32_t result, mtb_struct *structr)
{
    owned_struct owner(nested);
    if (result == MTB_OK) {
        nested->type = type;
        chain_append(structr->buffer, owner.release());
    }
}

/// A root's elements go to the structure being filled, those of a nested one to a new structure.
int32_t get_struct_from_binary_buffer(uint16_t name, uint8_t type, Reader &in, mtb_struct *structr)
{
    if (!in.holds(count_size)) {
        return MTB_TOO_SHORT;
    }
    const auto count = in.count();
    mtb_struct *target = type == MTB_TYPE_ROOT ? structr : mtb_struct_new(name);
    if (target == nullptr) {
        return MTB_NOMEM;
    }
    target->type = type;
    target->len = count;
    const int32_t result = decode_nested(target, in);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to map structure %u from binary buffer", unsigned{type});
    }
    if (target != structr) {
        finish_nested(target, type, result, structr);
    }
    return result;
}

int32_t get_array_struct_from_buffer(uint16_t name, uint8_t type, Reader &in, mtb_struct *structr)
{
    if (!in.holds(count_size)) {
        return MTB_TOO_SHORT;
    }
    mtb_struct *array = mtb_struct_new(name);
    if (array == nullptr) {
        return MTB_NOMEM;
    }
    array->type = type;
    array->len = in.count();
    const int32_t result = decode_nested(array, in);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to map array %u from binary buffer", unsigned{type});
    }
    finish_nested(array, type, result, structr);
    return result;
}

constexpr int32_t no_name = -1;

/// Name and type of the next element; a type where none is left counts as one that nobody knows.
int32_t get_binary_buffer_element_name(Reader &in)
{
    if (!in.holds(sizeof(uint16_t))) [[unlikely]] {
        LPRINTF("ERROR: wrong buffer size: %i", in.left);
        return no_name;
    }
    return in.number<uint16_t>();
}

uint8_t get_binary_buffer_element_type(Reader &in)
{
    constexpr uint8_t type_of_nothing = 252;
    if (in.left < 1) [[unlikely]] {
        LPRINTF("ERROR: wrong buffer size: %i", in.left);
        return type_of_nothing;
    }
    return in.number<uint8_t>();
}

constexpr char decoder[] = "mtb_binary_deserialize"; // the name that its parts report under

/// True, and told, when the next structure would be one too many inside each other.
bool is_too_deep(const Reader &in)
{
    static ratelimit_slot too_deep;
    if (in.depth != MTB_MAX_DEPTH) [[likely]] {
        return false;
    }
    LPRINTF_AS(decoder, too_deep,
               "ERROR: structures nested too deeply, stopping buffer processing (limit=%i)",
               MTB_MAX_DEPTH);
    return true;
}

void report_bad_type(uint16_t name, uint8_t type)
{
    static ratelimit_slot bad_type;
    LPRINTF_AS(decoder, bad_type,
               "ERROR: bad element type encountered, stopping buffer processing (name=%i, type=%i)",
               name, type);
}

void report_stop(int32_t result)
{
    static ratelimit_slot no_memory, too_short;
    if (result == MTB_NOMEM) {
        LPRINTF_AS(decoder, no_memory, "ERROR: low mem, stopping buffer processing");
    } else if (result == MTB_TOO_SHORT) {
        LPRINTF_AS(decoder, too_short, "ERROR: size was not enough to fully parse binary buffer");
    }
}

int32_t decode_payload(uint16_t name, uint8_t type, Reader &in, mtb_struct *structr)
{
    switch (type_info(type).kind) {
    case Kind::scalar:
        return decode_scalar(name, type, in, structr);
    case Kind::string:
        return decode_string(name, in, structr);
    case Kind::blob:
    case Kind::array:
        return decode_items(name, type, in, structr);
    case Kind::string_array:
        return decode_string_array(name, in, structr);
    case Kind::structure:
        return is_too_deep(in) ? MTB_BAD_DATA
                               : get_struct_from_binary_buffer(name, type, in, structr);
    case Kind::struct_array:
        return is_too_deep(in) ? MTB_BAD_DATA
                               : get_array_struct_from_buffer(name, type, in, structr);
    case Kind::invalid:
        report_bad_type(name, type);
        break;
    }
    return MTB_BAD_DATA;
}

[[gnu::always_inline]] inline int32_t decode_level(mtb_struct *structr, Reader &in,
                                                   int32_t element_count)
{
    for (int32_t decoded = 0; decoded < element_count && in.left > 0; ++decoded) {
        const int32_t name = get_binary_buffer_element_name(in);
        if (name == no_name) {
            return MTB_TOO_SHORT; // the elements so far stay
        }
        const uint8_t type = get_binary_buffer_element_type(in);
        const int32_t result = decode_payload(cut_name(name), type, in, structr);
        if (result == MTB_OK) [[likely]] {
            continue;
        }
        report_stop(result);
        (void)mtb_free_deserialized_packet(structr);
        return result;
    }
    return MTB_OK;
}

int32_t mtb_binary_deserialize(mtb_struct *structr, Reader &reader, int32_t element_count)
{
    if (element_count < 0) {
        LPRINTF("ERROR: param 'element_count' is negative");
        return MTB_BAD_ARG;
    }
    Reader in = reader; // whose place nobody else knows: it can stay in registers
    const int32_t result = decode_level(structr, in, element_count);
    reader = in;
    return result;
}

} // namespace

int32_t mtb_binary_deserialize(mtb_struct *structr, uint8_t **binary_buffer, int32_t *size,
                               int32_t element_count)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    if (binary_buffer == nullptr) {
        LPRINTF("ERROR: param 'binary_buffer' is NULL");
        return MTB_BAD_ARG;
    }
    if (size == nullptr) {
        LPRINTF("ERROR: param 'size' is NULL");
        return MTB_BAD_ARG;
    }
    Reader in{*binary_buffer, *size, 0};
    const int32_t result = mtb_binary_deserialize(structr, in, element_count);
    *binary_buffer = in.cursor;
    *size = in.left;
    return result;
}

// --------------------------------------------------------------------------------------- reading

namespace {

inline int32_t check_getter_params(const void *val, const mtb_struct *structr)
{
    if (val != nullptr && !is_missing(structr)) [[likely]] {
        return MTB_OK;
    }
    if (val == nullptr) {
        LPRINTF("ERROR: parameter 'val' should not be NULL");
        return MTB_BAD_ARG;
    }
    if (structr == nullptr) {
        LPRINTF("ERROR: parameter 'structr' should not be NULL");
        return MTB_BAD_ARG;
    }
    LPRINTF("ERROR: parameter 'structr' is uninitialized or damaged");
    return MTB_BAD_ARG;
}

/// The common way of the getters: null, and the code in `*result`, when there is nothing to give.
[[gnu::always_inline]] inline mtb_element *find_checked(int32_t name, uint8_t type, const void *val,
                                                        mtb_struct *structr, int32_t *result)
{
    *result = check_getter_params(val, structr);
    if (*result != MTB_OK) {
        return nullptr;
    }
    mtb_element *e = find_element(structr, name, type);
    *result = e != nullptr ? MTB_OK : MTB_NOT_FOUND;
    return e;
}

} // namespace

#define REPORT_NOT_FOUND(name)                                                                     \
    LPRINTF("ERROR: element with name %u not found", unsigned{cut_name(name)})

#define DEFINE_GETTER(suffix, ctype, code, member)                                                 \
    int32_t mtb_get_##suffix(int32_t name, ctype *val, mtb_struct *structr)                        \
    {                                                                                              \
        int32_t result = MTB_OK;                                                                   \
        const mtb_element *e = find_checked(name, code, val, structr, &result);                    \
        if (e != nullptr) {                                                                        \
            *val = e->value.member;                                                                \
        } else if (result == MTB_NOT_FOUND) {                                                      \
            REPORT_NOT_FOUND(name);                                                                \
        }                                                                                          \
        return result;                                                                             \
    }
TAVLEN_SCALAR_TYPES(DEFINE_GETTER)
#undef DEFINE_GETTER

int32_t mtb_get_string(int32_t name, char **val, uint32_t *len, mtb_struct *structr)
{
    int32_t result = check_getter_params(val, structr);
    if (result != MTB_OK) {
        return result;
    }
    if (len == nullptr) {
        LPRINTF("ERROR: param 'len' is NULL");
        return MTB_BAD_ARG;
    }
    const mtb_element *e = find_element(structr, name, MTB_TYPE_STRING);
    if (e == nullptr) {
        REPORT_NOT_FOUND(name);
        return MTB_NOT_FOUND;
    }
    *len = static_cast<uint32_t>(e->len);
    *val = e->value.text;
    return MTB_OK;
}

int32_t mtb_get_blob(int32_t name, void **val, uint32_t *len, mtb_struct *structr)
{
    int32_t result = MTB_OK;
    const mtb_element *e = find_checked(name, MTB_TYPE_BLOB, val, structr, &result);
    if (e != nullptr) {
        *len = static_cast<uint32_t>(e->len);
        *val = e->value.data;
    } else if (result == MTB_NOT_FOUND) {
        REPORT_NOT_FOUND(name);
    }
    return result;
}

int32_t mtb_get_struct(int32_t name, mtb_struct **val, uint8_t type, mtb_struct *structr)
{
    int32_t result = MTB_OK;
    mtb_element *e = find_checked(name, type, val, structr, &result);
    if (e != nullptr) {
        *val = e;
    } else if (result == MTB_NOT_FOUND) {
        REPORT_NOT_FOUND(name);
    }
    return result;
}

int32_t mtb_get_array_len(int32_t name, uint32_t *len, uint8_t type, mtb_struct *structr)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is NULL");
        return MTB_BAD_ARG;
    }
    if (len == nullptr) {
        LPRINTF("ERROR: param 'len' is NULL");
        return MTB_BAD_ARG;
    }
    const mtb_element *e = find_element(structr, name, type);
    if (e == nullptr) {
        LPRINTF("ERROR: element with name %u and type %u not found", unsigned{cut_name(name)},
                unsigned{type});
        return MTB_NOT_FOUND;
    }
    *len = static_cast<uint32_t>(e->len);
    return MTB_OK;
}

namespace {

/// A new array of pointers to the texts of a string array; null after a failure.
int32_t get_string_array(const mtb_element *array, char ***result)
{
    const size_t count = item_count(array);
    *result = nullptr;
    auto texts = tavlen::allocate_bytes<char *>(count * sizeof(char *));
    if (texts == nullptr) {
        LPRINTF("ERROR: low memory");
        return MTB_NOMEM;
    }
    const mtb_element *s = array->buffer->first;
    for (size_t i = 0; i < count; ++i, s = s->next) {
        if (s == nullptr) {
            LPRINTF("ERROR: string array buffer element corruption");
            return MTB_BAD_DATA;
        }
        texts.get()[i] = s->value.text;
    }
    *result = texts.release();
    return MTB_OK;
}

} // namespace

int32_t mtb_get_array(int32_t name, void **val, uint32_t *len, uint8_t type, mtb_struct *structr)
{
    const int32_t checked = check_getter_params(val, structr);
    if (checked != MTB_OK) {
        return checked;
    }
    if (len == nullptr) {
        LPRINTF("ERROR: parameter 'len' is NULL");
        return MTB_BAD_ARG;
    }
    const mtb_element *e = find_element(structr, name, type);
    if (e == nullptr) {
        REPORT_NOT_FOUND(name);
        return MTB_NOT_FOUND;
    }
    *len = static_cast<uint32_t>(e->len);
    const Kind kind = type_info(type).kind;
    if (kind == Kind::array) {
        *val = e->value.data;
        return MTB_OK;
    }
    if (kind == Kind::string_array) {
        char **texts = nullptr;
        const int32_t result = get_string_array(e, &texts);
        *val = static_cast<void *>(texts);
        return result;
    }
    LPRINTF("ERROR: unknown element type specified: %d", type);
    return MTB_BAD_ARG;
}

namespace {

/// The text at a position, which is in range.
int32_t get_text_at(const mtb_element *array, int32_t position, void **val)
{
    char **texts = nullptr;
    const int32_t result = get_string_array(array, &texts);
    const owned<void> owner(static_cast<void *>(texts));
    if (result == MTB_OK) {
        *val = texts[position];
    }
    return result;
}

/// The structure at a position; null when the array, which was received, holds fewer than it told.
/// It may hold what is no structure, too, and must not be read as one: bad data.
int32_t get_member_at(const mtb_element *array, int32_t position, void **val)
{
    mtb_element *member = array->buffer->first;
    for (int32_t i = 0; i < position && member != nullptr; ++i) {
        member = member->next;
    }
    if (member != nullptr && !is_structure(member)) {
        return MTB_BAD_DATA;
    }
    *val = member;
    return MTB_OK;
}

int32_t get_item_at(const mtb_element *e, int32_t position, void **val)
{
    const TypeInfo info = type_info(e->type);
    if (position < 0 || position >= e->len) {
        return MTB_BAD_DATA;
    }
    switch (info.kind) {
    case Kind::array:
        *val = static_cast<uint8_t *>(e->value.data) + static_cast<size_t>(position) * info.width;
        return MTB_OK;
    case Kind::struct_array:
        return get_member_at(e, position, val);
    default:
        return MTB_BAD_ARG;
    }
}

} // namespace

int32_t mtb_get_array_element(int32_t position, int32_t name, void **val, uint8_t type,
                              mtb_struct *structr)
{
    int32_t result = MTB_OK;
    const mtb_element *e = find_checked(name, type, val, structr, &result);
    if (e == nullptr) {
        if (result == MTB_NOT_FOUND) {
            REPORT_NOT_FOUND(name);
        }
        return result;
    }
    const bool in_range = position >= 0 && position < e->len;
    if (in_range && type == MTB_TYPE_STRING_ARRAY) {
        return get_text_at(e, position, val); // tells itself
    }
    result = get_item_at(e, position, val);
    if (result == MTB_BAD_DATA) {
        LPRINTF("ERROR: invalid element position parameter %i", position);
    } else if (result == MTB_BAD_ARG) {
        LPRINTF("ERROR: unknown element type specified: %d", type);
    }
    return result;
}

// ------------------------------------------------------------------------------------- releasing

namespace {

int32_t free_struct(mtb_element *e)
{
    const int32_t result = mtb_free_deserialized_packet(e);
    if (result != MTB_OK) {
        LPRINTF("ERROR: failed to free structure %u", unsigned{e->type});
    }
    return result;
}

void free_array(mtb_element *e)
{
    if (mtb_free_deserialized_packet(e) != MTB_OK) {
        LPRINTF("ERROR: failed to free packet element type %u", unsigned{e->type});
    }
}

/// Elements of a short structure are kept for the next one. Those of a long one are not: a part of
/// them would be no help to another long one.
class Releaser {
public:
    explicit Releaser(const mtb_chain *chain) : keeps_(chain->count <= longest_kept) {}

    void element(mtb_element *e) const { keeps_ ? release_record(e) : free(e); }
    void text(char *text) const { keeps_ ? release_text(text) : free(text); }

private:
    static constexpr int32_t longest_kept = 32;
    bool keeps_;
};

/// After elements were taken off the front without a look back.
void end_chain(mtb_chain *chain)
{
    (chain->first != nullptr ? chain->first->prev : chain->last) = nullptr;
}

int32_t free_deserialized_buffer(mtb_chain *chain)
{
    const Releaser release(chain);
    while (mtb_element *e = chain->first) {
        chain->first = e->next; // behind it, the chain is put right when emptying stops
        --chain->count;
        switch (type_info(e->type).kind) {
        case Kind::scalar:
            release.element(e);
            break;
        case Kind::string:
            release.text(e->value.text);
            release.element(e);
            break;
        case Kind::blob:
        case Kind::array:
            free(e->value.data);
            release.element(e);
            break;
        case Kind::structure:
            if (free_struct(e) != MTB_OK) {
                LPRINTF("WARNING: failed to free serialed packet element, type = %u",
                        unsigned{e->type});
            }
            DestroyWhole()(e);
            break;
        case Kind::string_array:
        case Kind::struct_array:
            free_array(e);
            DestroyWhole()(e);
            break;
        case Kind::invalid:
            LPRINTF("ERROR: bad data type encountered: %d", e->type);
            release.element(e);
            end_chain(chain);
            return MTB_BAD_DATA;
        }
    }
    end_chain(chain);
    return MTB_OK;
}

void DestroyChain::operator()(mtb_chain *chain) const
{
    (void)free_deserialized_buffer(chain);
    release_record(chain);
}

} // namespace

int32_t mtb_free_deserialized_packet(mtb_struct *structr)
{
    if (is_missing(structr)) {
        LPRINTF("ERROR: param 'structr' is uninitialized.");
        return MTB_BAD_ARG;
    }
    return free_deserialized_buffer(structr->buffer);
}
