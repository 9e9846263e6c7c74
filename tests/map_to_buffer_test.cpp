#include <TavlenCommon/map_to_buffer.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <pthread.h>

#include <TavlenCommon/logger.h>
#include <TavlenCommon/mtb_chain.h>
#include <TavlenCommon/scalar_types.h>

#include "faults.h"
#include "support.h"

namespace {

struct Destroy {
    void operator()(mtb_struct *s) const
    {
        if (s->buffer != nullptr) {
            mtb_free_deserialized_packet(s);
        }
        mtb_struct_destroy(s);
    }
};
using Structure = std::unique_ptr<mtb_struct, Destroy>;

Structure new_structure(int32_t name = 1)
{
    return Structure(mtb_struct_new(name));
}

std::vector<uint8_t> encode(const mtb_struct *s)
{
    uint64_t size = 100;
    EXPECT_EQ(mtb_calc_serialized_packet_size(s, &size), MTB_OK);
    std::vector<uint8_t> buffer(size - 100);
    uint8_t *cursor = buffer.data();
    EXPECT_EQ(mtb_serialize_to_binary(s, &cursor), MTB_OK);
    EXPECT_EQ(cursor, buffer.data() + buffer.size());
    return buffer;
}

/// Decodes as the packet layer does; `left` is what the decoder has not consumed.
struct Decoded {
    explicit Decoded(const std::vector<uint8_t> &wire) : edge(wire)
    {
        left = static_cast<int32_t>(wire.size());
        uint8_t *cursor = edge.begin();
        result = mtb_binary_deserialize(root.get(), &cursor, &left, 1);
        EXPECT_EQ(cursor + left, edge.begin() + wire.size());
    }
    EdgeBuffer edge;
    Structure root = new_structure();
    int32_t left;
    int32_t result;
};

/// One element of every type, three levels deep.
Structure rich_structure()
{
    Structure root = new_structure();
    Structure nested = new_structure();
    const int32_t items[] = {1, -2, 3};
    const char *texts[] = {"x", "", "yz"};
#define ADD(suffix, ctype, code, member)                                                           \
    EXPECT_EQ(mtb_add_##suffix(code, static_cast<ctype>(-code), nested.get()), MTB_OK);
    TAVLEN_SCALAR_TYPES(ADD)
#undef ADD
    EXPECT_EQ(mtb_add_string(1, "a\0b", 3, nested.get()), MTB_OK);
    EXPECT_EQ(mtb_add_string(2, nullptr, 0, nested.get()), MTB_OK);
    EXPECT_EQ(mtb_add_blob(1, "\1\2", 2, nested.get()), MTB_OK);
    EXPECT_EQ(mtb_add_blob(2, nullptr, 0, nested.get()), MTB_OK);
    for (uint8_t type = MTB_TYPE_ARRAY_INT16_SIGNED; type < MTB_TYPE_STRING_ARRAY; ++type) {
        EXPECT_EQ(mtb_add_array(1, items, type % 2, type, nested.get()), MTB_OK);
    }
    EXPECT_EQ(
        mtb_add_array(1, static_cast<const void *>(texts), 3, MTB_TYPE_STRING_ARRAY, nested.get()),
        MTB_OK);
    for (int32_t i = 0; i < 2; ++i) {
        Structure member = new_structure();
        EXPECT_EQ(mtb_add_int32_signed(1, 10 + i, member.get()), MTB_OK);
        EXPECT_EQ(mtb_add_array_struct(6, member.release(), root.get()), MTB_OK);
    }
    EXPECT_EQ(mtb_add_struct(9, nested.release(), root.get()), MTB_OK);
    return root;
}

class MapToBuffer : public ReportingTest {};

TEST(Chain, LinksBothWays)
{
    mtb_chain chain;
    mtb_element a{};
    mtb_element b{};
    mtb_element c{};
    chain_init(&chain);
    EXPECT_EQ(chain_pop_first(&chain), nullptr);
    EXPECT_EQ(chain_pop_last(&chain), nullptr);
    chain_append(&chain, &b);
    chain_append(&chain, &c);
    chain_prepend(&chain, &a);
    EXPECT_EQ(chain_first(&chain), &a);
    EXPECT_EQ(chain_next(&chain, &a), &b);
    EXPECT_EQ(chain_next(nullptr, &a), nullptr);
    EXPECT_EQ(chain_next(&chain, nullptr), nullptr);
    EXPECT_EQ(c.prev, &b);
    const auto is = [](const mtb_element *e, const void *wanted) { return e == wanted ? 1 : 0; };
    EXPECT_EQ(chain_find(&chain, is, &c), &c);
    EXPECT_EQ(chain_find(&chain, is, &chain), nullptr);
    chain_unlink(nullptr, &b);
    chain_unlink(&chain, nullptr);
    chain_unlink(&chain, &b);
    EXPECT_EQ(a.next, &c);
    EXPECT_EQ(c.prev, &a);
    EXPECT_EQ(chain.count, 2);
    EXPECT_EQ(chain_pop_last(&chain), &c);
    EXPECT_EQ(c.prev, nullptr);
    EXPECT_EQ(chain_pop_first(&chain), &a);
    EXPECT_EQ(chain.first, nullptr);
    EXPECT_EQ(chain.last, nullptr);
    EXPECT_EQ(chain.count, 0);
}

template <class T>
void expect_scalar(int32_t (*add)(int32_t, T, mtb_struct *),
                   int32_t (*get)(int32_t, T *, mtb_struct *), uint8_t type, mtb_struct *s)
{
    T value{};
    EXPECT_EQ(get(65538, &value, s), MTB_NOT_FOUND);
    const int32_t len = s->len;
    EXPECT_EQ(add(2, static_cast<T>(3), s), MTB_OK);
    EXPECT_EQ(add(65538, static_cast<T>(-7), s), MTB_OK) << "replaces name 2";
    EXPECT_EQ(get(2, &value, s), MTB_OK);
    EXPECT_EQ(value, static_cast<T>(-7));
    EXPECT_EQ(s->len, len + 1);
    EXPECT_EQ(s->buffer->last->type, type);
    EXPECT_EQ(s->buffer->last->len, 0);
    EXPECT_EQ(add(2, value, nullptr), MTB_BAD_ARG);
    EXPECT_EQ(get(2, nullptr, s), MTB_BAD_ARG);
    const Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(add(3, value, s), MTB_NOMEM);
    EXPECT_EQ(s->len, len + 1);
}

TEST_F(MapToBuffer, ScalarsAreAddedReplacedAndReadByNameAndType)
{
    const Structure s = new_structure();
    EXPECT_EQ(s->type, MTB_TYPE_ROOT);
    EXPECT_EQ(s->len, 0);
#define EXPECT_SCALAR(suffix, ctype, code, member)                                                 \
    expect_scalar<ctype>(mtb_add_##suffix, mtb_get_##suffix, code, s.get());                       \
    EXPECT_REPORTS({"mtb_get_" #suffix, "ERROR: element with name 2 not found"},                   \
                   {"mtb_add_" #suffix, "ERROR: param 'structr' is uninitialized."},               \
                   {"check_getter_params", "ERROR: parameter 'val' should not be NULL"},           \
                   {"mtb_add_" #suffix, "ERROR: low memory"});
    TAVLEN_SCALAR_TYPES(EXPECT_SCALAR)
#undef EXPECT_SCALAR
    EXPECT_EQ(s->len, 11);
    EXPECT_EQ(s->buffer->count, 11);
}

TEST_F(MapToBuffer, ReplacedBlocksKeepTheirPlace)
{
    const Structure s = new_structure();
    const int16_t items[] = {1, 2, 3};
    const char *texts[] = {"one", "two"};
    const auto add_texts = [&](int32_t count) {
        return mtb_add_array(5, static_cast<const void *>(texts), count, MTB_TYPE_STRING_ARRAY,
                             s.get());
    };
    EXPECT_EQ(mtb_add_string(5, "first", 5, s.get()), MTB_OK);
    EXPECT_EQ(mtb_add_blob(5, "first", 5, s.get()), MTB_OK);
    EXPECT_EQ(mtb_add_array(5, items, 3, MTB_TYPE_ARRAY_INT16_SIGNED, s.get()), MTB_OK);
    EXPECT_EQ(add_texts(2), MTB_OK);
    char *own = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(mtb_get_string(5, &own, &len, s.get()), MTB_OK);
    EXPECT_EQ(mtb_add_string(5, own + 1, 4, s.get()), MTB_OK) << "from the old text";
    EXPECT_EQ(mtb_add_blob(5, nullptr, 0, s.get()), MTB_OK);
    EXPECT_EQ(mtb_add_array(5, items + 1, 1, MTB_TYPE_ARRAY_INT16_SIGNED, s.get()), MTB_OK);
    EXPECT_EQ(add_texts(1), MTB_OK);
    EXPECT_EQ(s->len, 4);
    EXPECT_EQ(encode(s.get()), bytes("00 01 01 00 00 00 04"
                                     " 00 05 0c 00 00 00 04 69 72 73 74"
                                     " 00 05 10 00 00 00 00"
                                     " 00 05 11 00 00 00 01 00 02"
                                     " 00 05 1b 00 00 00 01 00 00 00 03 6f 6e 65"));
}

TEST_F(MapToBuffer, RefusedArgumentsInOrder)
{
    const Structure s = new_structure();
    mtb_struct no_chain{};
    const char *texts[] = {"x", nullptr};
    const std::string missing = "ERROR: param 'structr' is uninitialized.";
    const std::string no_value = "ERROR: param 'val' is NULL";
    uint64_t size = 100;
    int32_t left = 1;
    uint8_t byte = 0;
    uint8_t *cursor = &byte;
    const uint8_t strings = MTB_TYPE_STRING_ARRAY;
    const struct {
        std::function<int32_t()> call;
        std::string function;
        std::string message;
    } cases[] = {
        {[&] { return mtb_add_string(1, nullptr, -1, &no_chain); }, "mtb_add_string", missing},
        {[&] { return mtb_add_string(1, nullptr, -1, s.get()); }, "mtb_add_string", no_value},
        {[&] { return mtb_add_string(1, "x", -1, s.get()); }, "mtb_add_string",
         "ERROR: invalid length specified: -1"},
        {[&] { return mtb_add_blob(1, nullptr, -1, nullptr); }, "mtb_add_blob", missing},
        {[&] { return mtb_add_blob(1, nullptr, -1, s.get()); }, "mtb_add_blob",
         no_value + ", but len != 0"},
        {[&] { return mtb_add_blob(1, "x", -1, s.get()); }, "mtb_add_blob",
         "ERROR: invalid length specified: -1"},
        {[&] { return mtb_add_array(1, nullptr, -1, 28, nullptr); }, "mtb_add_array", missing},
        {[&] { return mtb_add_array(1, nullptr, 0, 19, s.get()); }, "mtb_add_array", no_value},
        {[&] { return mtb_add_array(1, "x", -1, 28, s.get()); }, "mtb_add_array",
         "ERROR: illegal array length specified: -1"},
        {[&] { return mtb_add_array(1, "x", 1, 28, s.get()); }, "mtb_add_array",
         "ERROR: unknown element type specified 28"},
        {[&] { return mtb_add_array(1, "x", 1, 16, s.get()); }, "mtb_add_array",
         "ERROR: unknown element type specified 16"},
        {[&] { return mtb_add_array(1, static_cast<void *>(texts), 2, strings, s.get()); },
         "mtb_add_array", no_value},
        {[&] { return mtb_add_struct(1, s.get(), s.get()); }, "mtb_add_struct", missing},
        {[&] { return mtb_add_struct(1, nullptr, s.get()); }, "mtb_add_struct", missing},
        {[&] { return mtb_add_array_struct(1, s.get(), s.get()); }, "mtb_add_array_struct",
         missing},
        {[&] { return mtb_add_array_struct(1, s.get(), &no_chain); }, "find_head",
         "ERROR: invalid argument 'buffer'"},
        {[&] { return mtb_element_exists(1, 6, nullptr) - 2; }, "find_head",
         "ERROR: invalid argument 'buffer'"},
        {[&] { return mtb_calc_serialized_packet_size(&no_chain, nullptr); },
         "mtb_calc_serialized_packet_size", missing},
        {[&] { return mtb_calc_serialized_packet_size(s.get(), nullptr); },
         "mtb_calc_serialized_packet_size", "ERROR: param 'size' is NULL"},
        {[&] { return mtb_serialize_to_binary(nullptr, nullptr); }, "mtb_serialize_to_binary",
         missing},
        {[&] { return mtb_serialize_to_binary(s.get(), nullptr); }, "mtb_serialize_to_binary",
         "ERROR: param 'binary_buffer' is NULL"},
        {[&] { return mtb_binary_deserialize(&no_chain, nullptr, nullptr, -1); },
         "mtb_binary_deserialize", missing},
        {[&] { return mtb_binary_deserialize(s.get(), nullptr, nullptr, -1); },
         "mtb_binary_deserialize", "ERROR: param 'binary_buffer' is NULL"},
        {[&] { return mtb_binary_deserialize(s.get(), &cursor, nullptr, -1); },
         "mtb_binary_deserialize", "ERROR: param 'size' is NULL"},
        {[&] { return mtb_binary_deserialize(s.get(), &cursor, &(left = 0), -1); },
         "mtb_binary_deserialize", "ERROR: param 'element_count' is negative"},
        {[&] { return mtb_free_deserialized_packet(&no_chain); }, "mtb_free_deserialized_packet",
         missing},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.call(), MTB_BAD_ARG) << c.function;
        EXPECT_REPORTS({c.function, c.message});
    }
    EXPECT_EQ(encode(s.get()), bytes("00 01 01 00 00 00 00"));
    EXPECT_EQ(size, 100U);
    mtb_struct_destroy(nullptr);
    mtb_struct *headless = mtb_struct_new(1);
    free(headless->buffer);
    headless->buffer = nullptr;
    mtb_struct_destroy(headless);
    EXPECT_REPORTS({"mtb_struct_destroy", "ERROR: NULL pointer: structr"},
                   {"mtb_struct_destroy", "ERROR: NULL pointer: structr->buffer"});
}

TEST_F(MapToBuffer, GettersRefuseInOrderAndLeaveVariablesAlone)
{
    const Structure s = rich_structure();
    mtb_struct *nested = nullptr;
    ASSERT_EQ(mtb_get_struct(9, &nested, MTB_TYPE_STRUCT, s.get()), MTB_OK);
    mtb_struct no_chain{};
    char *text = nullptr;
    void *data = &text;
    uint32_t len = 77;
    const std::string not_found = "ERROR: element with name 8 not found";
    const struct {
        std::function<int32_t()> call;
        int32_t result;
        std::string function;
        std::string message;
    } cases[] = {
        {[&] { return mtb_get_blob(1, nullptr, &len, nullptr); }, -2, "check_getter_params",
         "ERROR: parameter 'val' should not be NULL"},
        {[&] { return mtb_get_blob(1, &data, &len, nullptr); }, -2, "check_getter_params",
         "ERROR: parameter 'structr' should not be NULL"},
        {[&] { return mtb_get_string(1, &text, nullptr, &no_chain); }, -2, "check_getter_params",
         "ERROR: parameter 'structr' is uninitialized or damaged"},
        {[&] { return mtb_get_string(8, &text, nullptr, nested); }, -2, "mtb_get_string",
         "ERROR: param 'len' is NULL"},
        {[&] { return mtb_get_string(65536 + 8, &text, &len, nested); }, -5, "mtb_get_string",
         not_found},
        {[&] { return mtb_get_blob(8, &data, &len, nested); }, -5, "mtb_get_blob", not_found},
        {[&] { return mtb_get_struct(8, &nested, 14, s.get()); }, -5, "mtb_get_struct", not_found},
        {[&] { return mtb_get_array_len(8, nullptr, 19, &no_chain); }, -2, "mtb_get_array_len",
         "ERROR: param 'structr' is NULL"},
        {[&] { return mtb_get_array_len(8, nullptr, 19, nested); }, -2, "mtb_get_array_len",
         "ERROR: param 'len' is NULL"},
        {[&] { return mtb_get_array_len(8, &len, 19, nested); }, -5, "mtb_get_array_len",
         "ERROR: element with name 8 and type 19 not found"},
        {[&] { return mtb_get_array(8, &data, nullptr, 19, nested); }, -2, "mtb_get_array",
         "ERROR: parameter 'len' is NULL"},
        {[&] { return mtb_get_array(8, &data, &len, 28, nested); }, -5, "mtb_get_array", not_found},
        {[&] { return mtb_get_array_element(0, 8, &data, 19, nested); }, -5,
         "mtb_get_array_element", not_found},
        {[&] { return mtb_get_array_element(-1, 1, &data, 19, nested); }, -3,
         "mtb_get_array_element", "ERROR: invalid element position parameter -1"},
        {[&] { return mtb_get_array_element(1, 1, &data, 19, nested); }, -3,
         "mtb_get_array_element", "ERROR: invalid element position parameter 1"},
        {[&] { return mtb_get_array_element(0, 1, &data, 12, nested); }, -2,
         "mtb_get_array_element", "ERROR: unknown element type specified: 12"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.call(), c.result) << c.function;
        EXPECT_REPORTS({c.function, c.message});
        EXPECT_EQ(data, &text);
        EXPECT_EQ(len, 77U);
    }
    EXPECT_EQ(mtb_get_array(6, &data, &len, 28, s.get()), MTB_BAD_ARG);
    EXPECT_EQ(len, 2U) << "the count is stored before the type is refused";
    EXPECT_REPORTS({"mtb_get_array", "ERROR: unknown element type specified: 28"});
}

TEST_F(MapToBuffer, GettersGiveWhatWasStored)
{
    const Structure s = rich_structure();
    mtb_struct *nested = nullptr;
    ASSERT_EQ(mtb_get_struct(9, &nested, MTB_TYPE_STRUCT, s.get()), MTB_OK);
    char *text = nullptr;
    void *data = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(mtb_get_string(1, &text, &len, nested), MTB_OK);
    EXPECT_EQ(std::string(text, len + 1), std::string("a\0b\0", 4));
    EXPECT_EQ(mtb_get_blob(2, &(data = &len), &len, nested), MTB_OK);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(mtb_get_array_len(1, &len, MTB_TYPE_STRING, nested), MTB_OK);
    EXPECT_EQ(len, 3U);
    EXPECT_EQ(mtb_get_array_len(6, &(len = 9), MTB_TYPE_INT32_SIGNED, nested), MTB_OK);
    EXPECT_EQ(len, 0U);
    EXPECT_EQ(mtb_get_array(1, &data, &len, MTB_TYPE_STRING_ARRAY, nested), MTB_OK);
    EXPECT_EQ(len, 3U);
    EXPECT_STREQ(static_cast<char **>(data)[2], "yz");
    free(data);
    EXPECT_EQ(mtb_get_array_element(2, 1, &data, MTB_TYPE_STRING_ARRAY, nested), MTB_OK);
    EXPECT_STREQ(static_cast<char *>(data), "yz");
    const int64_t items[] = {5, 6, 7};
    for (uint8_t type = MTB_TYPE_ARRAY_INT16_SIGNED; type < MTB_TYPE_STRING_ARRAY; ++type) {
        void *first = nullptr;
        EXPECT_EQ(mtb_add_array(3, items, 3, type, nested), MTB_OK);
        EXPECT_EQ(mtb_get_array(3, &first, &len, type, nested), MTB_OK);
        EXPECT_EQ(mtb_get_array_element(2, 3, &data, type, nested), MTB_OK);
        const auto distance = static_cast<char *>(data) - static_cast<char *>(first);
        const int widths[] = {2, 2, 4, 4, 8, 8, 1, 1, 4, 8};
        EXPECT_EQ(distance, 2 * widths[type - MTB_TYPE_ARRAY_INT16_SIGNED]);
        EXPECT_EQ(memcmp(first, items, static_cast<size_t>(distance)), 0);
    }
    int32_t number = 0;
    EXPECT_EQ(mtb_get_array_element(1, 6, &data, MTB_TYPE_STRUCT_ARRAY, s.get()), MTB_OK);
    EXPECT_EQ(mtb_get_int32_signed(1, &number, static_cast<mtb_struct *>(data)), MTB_OK);
    EXPECT_EQ(number, 11);
    EXPECT_EQ(mtb_element_exists(65536 + 6, MTB_TYPE_STRUCT_ARRAY, s.get()), 1);
    EXPECT_EQ(mtb_element_exists(6, MTB_TYPE_STRUCT, s.get()), 0);
    EXPECT_EQ(mtb_free_deserialized_packet(s.get()), MTB_OK);
    EXPECT_EQ(s->buffer->first, nullptr);
    EXPECT_EQ(s->len, 2);
}

// Buffers that decode, and what they encode to again (the same, where nothing is said).
TEST_F(MapToBuffer, GoldenBuffers)
{
    const struct {
        const char *wire;
        const char *again;
        int32_t left;
    } cases[] = {
        {"00 01 01 00 00 00 00", nullptr, 0},
        {"00 01 01 00 00 00 02 00 01 06 00 00 00 05 00 02 0c 00 00 00 02 61 62", nullptr, 0},
        {"00 01 01 00 00 00 01 00 04 05 12 34", nullptr, 0},
        {"00 01 01 00 00 00 01 00 09 0e 00 00 00 01 00 01 03 ff", nullptr, 0},
        {"00 01 01 00 00 00 01 00 05 1b 00 00 00 02 00 00 00 01 78 00 00 00 02 79 7a", nullptr, 0},
        {"00 01 01 00 00 00 01 00 06 1c 00 00 00 02 00 06 0e 00 00 00 01 00 01 06 00 00 00 0a"
         " 00 06 0e 00 00 00 01 00 01 06 00 00 00 0b",
         nullptr, 0},
        {"00 01 01 00 00 00 01 00 03 11 00 00 00 02 00 01 ff fe", nullptr, 0},
        {"00 01 01 00 00 00 01 00 08 0b 3f f0 00 00 00 00 00 00", nullptr, 0},
        {"00 01 01 00 00 00 01 00 09 0f 00 00 00 00", nullptr, 0}, // the second structure code
        {"00 01 01 00 00 00 01 00 02 02 07 99 98", "00 01 01 00 00 00 01 00 02 02 07", 2},
        {"00 07 01 00 00 00 00", "00 01 01 00 00 00 00", 0}, // the root's name is not used
        // A root inside the root, and inside a nested structure, gives its elements to it.
        {"00 01 01 00 00 00 01 00 02 01 00 00 00 01 00 03 02 07",
         "00 01 01 00 00 00 01 00 03 02 07", 0},
        {"00 01 01 00 00 00 01 00 02 0e 00 00 00 01 00 02 01 00 00 00 01 00 03 02 07",
         "00 01 01 00 00 00 01 00 02 0e 00 00 00 01 00 03 02 07", 0},
        // Cut behind a whole element: well, with the announced count kept.
        {"00 01 01 00 00 00 02 00 01 06 00 00 00 05", nullptr, 0},
        {"00 01 01 7f ff ff ff", nullptr, 0},
        {"", "00 01 01 00 00 00 00", 0},
    };
    for (const auto &c : cases) {
        const Decoded decoded(bytes(c.wire));
        EXPECT_EQ(decoded.result, MTB_OK) << c.wire;
        EXPECT_EQ(decoded.left, c.left) << c.wire;
        EXPECT_EQ(encode(decoded.root.get()), bytes(c.again != nullptr ? c.again : c.wire));
    }
    const Structure rich = rich_structure();
    const std::vector<uint8_t> wire = encode(rich.get());
    EXPECT_EQ(encode(rich.get()), wire);
    EXPECT_EQ(encode(Decoded(wire).root.get()), wire);
    const Decoded cut(bytes("00 01 01 7f ff ff ff"));
    EXPECT_EQ(cut.root->len, INT32_MAX);
    EXPECT_EQ(mtb_add_enum(1, 1, cut.root.get()), MTB_OK) << "counts on without overflow";
}

// What is in front of the fault is the root's head with a count of 9, unless the case has its own.
TEST_F(MapToBuffer, MalformedBuffers)
{
    const Report short_buffer{"mtb_binary_deserialize",
                              "ERROR: size was not enough to fully parse binary buffer"};
    const auto map_failed = [](int type) {
        return Report{"get_struct_from_binary_buffer", "ERROR: failed to map structure " +
                                                           std::to_string(type) +
                                                           " from binary buffer"};
    };
    const Report array_failed{"get_array_struct_from_buffer",
                              "ERROR: failed to map array 28 from binary buffer"};
    const auto bad_type = [](int name, int type) {
        return Report{"mtb_binary_deserialize",
                      "ERROR: bad element type encountered, stopping buffer processing (name=" +
                          std::to_string(name) + ", type=" + std::to_string(type) + ")"};
    };
    const Report negative{"mtb_binary_deserialize", "ERROR: param 'element_count' is negative"};
    const Report one_left{"get_binary_buffer_element_name", "ERROR: wrong buffer size: 1"};
    const Report none_left{"get_binary_buffer_element_type", "ERROR: wrong buffer size: 0"};
    const Reports too_short{short_buffer, map_failed(1), short_buffer};
    const std::string root = "00 01 01 00 00 00 09 ";
    const std::string number = "00 01 06 00 00 00 05 ";
    const struct {
        std::string wire;
        int32_t result;
        Reports reports;
    } cases[] = {
        {"00", -4, {one_left}},
        {"00 01", -3, {none_left, bad_type(1, 252)}},
        {"00 01 00", -3, {bad_type(1, 0)}},
        {"ff ff 1d 00", -3, {bad_type(65535, 29)}},
        {"00 01 01 00 00 00", -4, {short_buffer}},
        {"00 01 01 ff ff ff ff", -2, {negative, map_failed(1)}},
        {root + number + "00", -4, {one_left, map_failed(1), short_buffer}},
        {root + number + "00 02", -3, {none_left, bad_type(2, 252), map_failed(1)}},
        {root + "00 02 0c 00 00 00 02 61", -4, too_short},
        {root + "00 02 0c 7f ff ff ff 61", -4, too_short},
        {root + "00 02 0c ff ff ff ff 61", -4, too_short},
        {root + "00 02 10 ff ff ff ff", -4, too_short},
        {root + "00 02 13 40 00 00 01 00 00 00 00", -4, too_short},
        {root + "00 02 1a 20 00 00 00 00 00 00 00", -4, too_short},
        {root + "00 02 16 ff ff ff ff", -4, too_short},
        {root + "00 02 1b ff ff ff ff", -4, too_short},
        {root + "00 02 1b 00 00 00 02 00 00 00 01 61 00 00 00 02 61", -4, too_short},
        {root + "00 02 1b 00 00 00 02 00 00 00 01 61 ff ff ff ff", -4, too_short},
        {root + "00 02 0e 00 00 00", -4, too_short},
        {root + "00 02 0f 80 00 00 00", -2, {negative, map_failed(15), map_failed(1)}},
        {root + "00 02 1c ff ff ff ff", -2, {negative, array_failed, map_failed(1)}},
        {root + "00 02 1c 00 00 00 02 00 02 0e 00 00 00 01 00",
         -4,
         {one_left, map_failed(14), short_buffer, array_failed, short_buffer, map_failed(1),
          short_buffer}},
        {root + "00 02 0e 00 00 00 01 00 02 1d",
         -3,
         {bad_type(2, 29), map_failed(14), map_failed(1)}},
    };
    for (const auto &c : cases) {
        const Decoded decoded(bytes(c.wire));
        EXPECT_EQ(decoded.result, c.result) << c.wire;
        EXPECT_EQ(take_reports(), c.reports) << c.wire;
        EXPECT_EQ(decoded.root->buffer->first, nullptr) << c.wire;
    }
    // What is missing is not consumed, and what was in the structure before goes too.
    const struct {
        std::string wire;
        int32_t left;
    } stops[] = {
        {"00 02 0c 00 00 00 02 61", 5}, {"00 02 13 00 00 00 01 00", 5},
        {"00 02 1b 00 00 00 01 00", 1}, {"00 02 07 01 02 03", 3},
        {"00 02 0e 00 00 00", 3},       {"00 02 0e ff ff ff ff 09", 1},
    };
    for (const auto &c : stops) {
        const Structure s = rich_structure();
        const EdgeBuffer buffer(bytes(c.wire));
        uint8_t *cursor = buffer.begin();
        auto left = static_cast<int32_t>(bytes(c.wire).size());
        EXPECT_LT(mtb_binary_deserialize(s.get(), &cursor, &left, 1), 0);
        EXPECT_EQ(left, c.left) << c.wire;
        EXPECT_EQ(s->buffer->first, nullptr);
    }
    take_reports();
    // At the outermost level one byte too many leaves what was read.
    const Structure s = new_structure();
    std::vector<uint8_t> wire = bytes(number + "00");
    uint8_t *cursor = wire.data();
    auto left = static_cast<int32_t>(wire.size());
    EXPECT_EQ(mtb_binary_deserialize(s.get(), &cursor, &left, 2), MTB_TOO_SHORT);
    EXPECT_EQ(left, 1);
    EXPECT_EQ(mtb_element_exists(1, MTB_TYPE_INT32_SIGNED, s.get()), 1);
    EXPECT_REPORTS(one_left);
    EXPECT_EQ(mtb_binary_deserialize(s.get(), &cursor, &left, 0), MTB_OK);
}

/// Says that every structure holds as many elements as it announces, which a buffer cut at an
/// element's end, or a merged root, need not do; and that arrays of structures hold only those.
bool is_complete(const mtb_element *e)
{
    const bool is_struct =
        e->type == MTB_TYPE_ROOT || e->type == MTB_TYPE_STRUCT || e->type == MTB_TYPE_STRUCT_ALT;
    if (!is_struct && e->type != MTB_TYPE_STRUCT_ARRAY) {
        return true;
    }
    bool complete = e->len == e->buffer->count;
    for (const mtb_element *inner = e->buffer->first; inner != nullptr; inner = inner->next) {
        const bool fits =
            is_struct || inner->type == MTB_TYPE_STRUCT || inner->type == MTB_TYPE_STRUCT_ALT;
        complete = complete && fits && is_complete(inner);
    }
    return complete;
}

// What holds whatever the bytes are: nothing outside the buffer is read, nothing is left over, and
// what is complete encodes again to bytes that decode to the same.
void expect_invariants(const std::vector<uint8_t> &wire)
{
    const Decoded decoded(wire);
    if (decoded.result != MTB_OK) {
        return;
    }
    uint64_t size = 0;
    ASSERT_EQ(mtb_calc_serialized_packet_size(decoded.root.get(), &size), MTB_OK);
    ASSERT_LE(size, wire.size() + 7);
    if (is_complete(decoded.root.get())) {
        const std::vector<uint8_t> again = encode(decoded.root.get());
        EXPECT_EQ(encode(Decoded(again).root.get()), again);
    }
}

TEST_F(MapToBuffer, EveryPrefixMutationAndSomeNoise)
{
    set_log_dest(0, nullptr, nullptr, nullptr);
    const std::vector<uint8_t> rich = encode(rich_structure().get());
    for (size_t length = 0; length <= rich.size(); ++length) {
        expect_invariants({rich.begin(), rich.begin() + static_cast<ptrdiff_t>(length)});
    }
    for (size_t i = 0; i < rich.size(); ++i) {
        std::vector<uint8_t> mutated = rich;
        for (const int value : {0, 1, 2, 12, 14, 15, 16, 26, 27, 28, 29, 127, 128, 255}) {
            mutated[i] = static_cast<uint8_t>(value);
            expect_invariants(mutated);
        }
    }
    uint64_t state = 0x9e3779b97f4a7c15; // always the same noise
    for (int round = 0; round < 3000; ++round) {
        std::vector<uint8_t> noise(static_cast<size_t>(round % 97));
        for (uint8_t &byte : noise) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            byte = static_cast<uint8_t>(state % 5 == 0 ? state >> 8 : (state >> 8) % 29);
        }
        expect_invariants(noise);
    }
}

std::vector<uint8_t> nested_wire(int levels, uint8_t type)
{
    std::vector<uint8_t> wire = bytes("00 01 01 00 00 00 01");
    for (int i = 1; i < levels; ++i) {
        const std::vector<uint8_t> level{0, 2, type, 0, 0, 0, 1};
        wire.insert(wire.end(), level.begin(), level.end());
    }
    return wire;
}

// Runs on a thread with a small stack, the least that a user of the library may have.
void *decode_deepest(void *)
{
    for (const uint8_t type : {MTB_TYPE_ROOT, MTB_TYPE_STRUCT, MTB_TYPE_STRUCT_ARRAY}) {
        const Decoded deepest(nested_wire(MTB_MAX_DEPTH, type));
        EXPECT_EQ(deepest.result, MTB_OK);
        if (type == MTB_TYPE_STRUCT) {
            EXPECT_EQ(encode(deepest.root.get()), nested_wire(MTB_MAX_DEPTH, type));
        }
        EXPECT_EQ(Decoded(nested_wire(MTB_MAX_DEPTH + 1, type)).result, MTB_BAD_DATA);
    }
    return nullptr;
}

TEST_F(MapToBuffer, NestingIsLimitedAndFitsASmallStack)
{
    EXPECT_EQ(Decoded(nested_wire(MTB_MAX_DEPTH + 1, MTB_TYPE_STRUCT)).result, MTB_BAD_DATA);
    const Reports reports = take_reports();
    EXPECT_EQ(reports.size(), 1U + MTB_MAX_DEPTH);
    EXPECT_EQ(reports.front(),
              (Report{"mtb_binary_deserialize",
                      "ERROR: structures nested too deeply, stopping buffer processing "
                      "(limit=1024)"}));
    set_log_dest(0, nullptr, nullptr, nullptr);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    pthread_attr_setstacksize(&attributes, 256 * 1024);
#endif
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, decode_deepest, nullptr), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

TEST_F(MapToBuffer, ReceivedArrayOfStructuresMayHoldLessAndOthers)
{
    // Announces 3: a structure, a number that looks like a pointer, and nothing.
    const Decoded decoded(bytes("00 01 01 00 00 00 01 00 06 1c 00 00 00 03"
                                " 00 06 0e 00 00 00 00 00 06 08 41 41 41 41 41 41 41 41"));
    ASSERT_EQ(decoded.result, MTB_OK);
    void *member = nullptr;
    EXPECT_EQ(mtb_get_array_element(0, 6, &member, 28, decoded.root.get()), MTB_OK);
    EXPECT_NE(member, nullptr);
    EXPECT_EQ(mtb_get_array_element(1, 6, &member, 28, decoded.root.get()), MTB_BAD_DATA);
    EXPECT_EQ(mtb_get_array_element(2, 6, &member, 28, decoded.root.get()), MTB_OK);
    EXPECT_EQ(member, nullptr);
    uint64_t size = 0;
    EXPECT_EQ(mtb_calc_serialized_packet_size(decoded.root.get(), &size), MTB_OK);
    std::vector<uint8_t> buffer(size);
    uint8_t *cursor = buffer.data();
    EXPECT_EQ(mtb_serialize_to_binary(decoded.root.get(), &cursor), MTB_BAD_DATA);
    EXPECT_REPORTS({"mtb_get_array_element", "ERROR: invalid element position parameter 1"},
                   {"mtb_serialize_to_binary", "ERROR: invalid data type encauntered, type = 8\n"},
                   {"binaryze_struct", "ERROR: failed to binarize structure"},
                   {"binaryze_array_of_struct", "ERROR: failed to binarize array of structures"},
                   {"mtb_serialize_to_binary", "ERROR: failed to binarize array"});
}

// A record that no adder makes: of no known type, nested in an array, with good elements behind it.
TEST_F(MapToBuffer, DamagedStructuresAreReportedAtEveryLevelAndReleasedWhole)
{
    for (const uint8_t type : {uint8_t{0}, uint8_t{29}}) {
        Structure root = new_structure();
        mtb_struct *member = mtb_struct_new(1);
        EXPECT_EQ(mtb_add_int32_signed(1, 1, member), MTB_OK);
        EXPECT_EQ(mtb_add_string(2, "behind", 6, member), MTB_OK);
        member->buffer->first->type = type;
        EXPECT_EQ(mtb_add_array_struct(6, member, root.get()), MTB_OK);
        const std::string code = std::to_string(type);
        uint64_t size = 5;
        EXPECT_EQ(mtb_calc_serialized_packet_size(root.get(), &size), MTB_BAD_DATA);
        EXPECT_EQ(size, 5U);
        EXPECT_REPORTS(
            {"calc_serialized_packet_size", "ERROR: bad data type encountered " + code},
            {"get_struct_size", "ERROR: failed to calculate structure 14 size"},
            {"get_array_size", "ERROR: failed to calculate array size"},
            {"mtb_calc_serialized_packet_size", "ERROR: failed to calculate buffer size"});
        uint8_t buffer[64];
        uint8_t *cursor = buffer;
        EXPECT_EQ(mtb_serialize_to_binary(root.get(), &cursor), MTB_BAD_DATA);
        EXPECT_EQ(take_reports().front(),
                  (Report{"mtb_serialize_to_binary",
                          "ERROR: invalid data type encauntered, type = " + code + "\n"}));
        EXPECT_EQ(mtb_free_deserialized_packet(root.get()), MTB_OK);
        EXPECT_REPORTS({"free_deserialized_buffer", "ERROR: bad data type encountered: " + code},
                       {"free_struct", "ERROR: failed to free structure 14"},
                       {"free_deserialized_buffer",
                        "WARNING: failed to free serialed packet element, type = 14"});
    }
    Structure root = new_structure();
    EXPECT_EQ(mtb_add_struct(3, mtb_struct_new(1), root.get()), MTB_OK);
    mtb_struct *nested = root->buffer->first;
    free(nested->buffer);
    nested->buffer = nullptr;
    uint64_t size = 0;
    uint8_t buffer[64];
    uint8_t *cursor = buffer;
    EXPECT_EQ(mtb_calc_serialized_packet_size(root.get(), &size), MTB_BAD_ARG);
    EXPECT_EQ(mtb_serialize_to_binary(root.get(), &cursor), MTB_BAD_ARG);
    EXPECT_EQ(mtb_free_deserialized_packet(root.get()), MTB_OK);
    EXPECT_REPORTS(
        {"get_struct_size", "ERROR: failed to calculate structure 14 size"},
        {"mtb_calc_serialized_packet_size", "ERROR: failed to calculate buffer size"},
        {"mtb_serialize_to_binary", "ERROR: param 'structr' is uninitialized."},
        {"binaryze_struct", "ERROR: failed to binarize structure"},
        {"mtb_free_deserialized_packet", "ERROR: param 'structr' is uninitialized."},
        {"free_struct", "ERROR: failed to free structure 14"},
        {"free_deserialized_buffer", "WARNING: failed to free serialed packet element, type = 14"},
        {"mtb_struct_destroy", "ERROR: NULL pointer: structr->buffer"});
}

TEST_F(MapToBuffer, LackOfMemoryChangesNothingAndLeaksNothing)
{
    const char *texts[] = {"x", "yz"};
    Structure child = new_structure();
    const struct {
        std::function<int32_t(mtb_struct *)> add;
        std::string last_function; // that reports
    } cases[] = {
        {[](mtb_struct *s) { return mtb_add_string(1, "new", 3, s); }, "add_string"},
        {[](mtb_struct *s) { return mtb_add_blob(1, "new", 3, s); }, "mtb_add_blob"},
        {[](mtb_struct *s) { return mtb_add_array(1, "newer", 3, 23, s); }, "mtb_add_array"},
        {[&](mtb_struct *s) { return mtb_add_array(1, static_cast<void *>(texts), 2, 27, s); },
         "mtb_add_array"},
        {[&](mtb_struct *s) { return mtb_add_array_struct(7, child.get(), s); }, ""},
    };
    for (const auto &c : cases) {
        const Structure s = rich_structure();
        fail_each_allocation([&](Fault &fault) {
            const std::vector<uint8_t> before = encode(s.get());
            const int32_t result = c.add(s.get());
            const bool struck = fault.struck();
            EXPECT_EQ(result, struck ? MTB_NOMEM : MTB_OK);
            EXPECT_TRUE(!struck || encode(s.get()) == before);
            const Reports reports = take_reports();
            EXPECT_EQ(reports.empty() ? "" : reports.back().function,
                      struck ? c.last_function : "");
            if (!struck && c.last_function.empty()) {
                (void)child.release();
                child = new_structure();
            }
        });
    }
}

TEST_F(MapToBuffer, LackOfMemoryWhileReading)
{
    const Structure rich = rich_structure();
    mtb_struct *nested = nullptr;
    ASSERT_EQ(mtb_get_struct(9, &nested, MTB_TYPE_STRUCT, rich.get()), MTB_OK);
    std::vector<uint8_t> wire = encode(rich.get());
    const Structure root = new_structure();
    fail_each_allocation([&](Fault &fault) {
        uint8_t *cursor = wire.data();
        auto left = static_cast<int32_t>(wire.size());
        const int32_t result = mtb_binary_deserialize(root.get(), &cursor, &left, 1);
        const bool struck = fault.struck();
        EXPECT_EQ(result, struck ? MTB_NOMEM : MTB_OK);
        EXPECT_EQ(cursor + left, wire.data() + wire.size());
        EXPECT_EQ(root->buffer->first == nullptr, struck);
        const Reports reports = take_reports();
        EXPECT_EQ(reports.empty(), !struck);
        EXPECT_EQ(reports.empty() ? "mtb_binary_deserialize" : reports.back().function,
                  "mtb_binary_deserialize");
        mtb_free_deserialized_packet(root.get());
    });
    void *data = &wire;
    uint32_t len = 0;
    Fault fault(allocation, 1, Failing::once);
    EXPECT_EQ(mtb_get_array(1, &data, &len, MTB_TYPE_STRING_ARRAY, nested), MTB_NOMEM);
    EXPECT_EQ(data, nullptr);
    const Fault second(allocation, 2, Failing::once);
    EXPECT_EQ(mtb_struct_new(1), nullptr);
    EXPECT_REPORTS({"get_string_array", "ERROR: low memory"},
                   {"mtb_struct_new", "ERROR: low memory"});
}

} // namespace
