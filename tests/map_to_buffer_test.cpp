#include <TavlenCommon/mtb_chain.h>
#include <TavlenCommon/scalar_types.h>

#include <algorithm>
#include <functional>
#include <pthread.h>

#include "faults.h"
#include "network.h"

namespace {

/// A structure that stands wherever its pointer does; read from bytes as the packet layer does.
struct Structure : NotCopied {
    explicit Structure(const std::vector<uint8_t> &wire = {}) { read(wire); }
    ~Structure() { mtb_free_deserialized_packet(root), mtb_struct_destroy(root); }
    void read(const std::vector<uint8_t> &wire)
    {
        std::vector<uint8_t> buffer(wire); // without a byte to spare behind it
        uint8_t *cursor = buffer.data();
        left = static_cast<int32_t>(wire.size());
        result = mtb_binary_deserialize(root, &cursor, &left, 1);
        EXPECT_EQ(cursor + left, buffer.data() + buffer.size());
    }
    operator mtb_struct *() const { return root; }
    mtb_struct *const root = mtb_struct_new(1);
    int32_t left = 0, result = 0;
};

/// The bytes of a structure; none when it cannot be encoded.
std::vector<uint8_t> encode(const mtb_struct *s)
{
    uint64_t size = 100; // is added to
    EXPECT_EQ(mtb_calc_serialized_packet_size(s, &size), MTB_OK);
    std::vector<uint8_t> buffer(size - 100);
    uint8_t *cursor = buffer.data();
    const bool encodes = mtb_serialize_to_binary(s, &cursor) == MTB_OK;
    EXPECT_EQ(cursor == buffer.data() + buffer.size(), encodes);
    return encodes ? buffer : std::vector<uint8_t>{};
}

// An array of two structures, and a structure with elements of every other kind; a seed of the fuzz target, too.
const std::string rich_bytes = read_file(TAVLEN_RICH_BODY);
const std::vector<uint8_t> rich_wire(rich_bytes.begin(), rich_bytes.end());

struct MapToBuffer : ReportingTest {
    Structure s, rich{rich_wire};
    mtb_struct *const nested = rich.root->buffer->last;
    mtb_struct no_chain{nullptr, nullptr, 1, MTB_TYPE_ROOT, 0, {.buffer = nullptr}};
    char *text = nullptr;
    void *data = this, *item = this;
    uint32_t len = 77;
    uint8_t room[64], *cursor = room;
};

const char *const texts[] = {"x", nullptr};

#define MISSING ": ERROR: param 'structr' is uninitialized."

TEST(Chain, LinksBothWays)
{
    mtb_chain chain;
    mtb_element a{}, b{}, c{};
    const auto is = [](const mtb_element *e, const void *wanted) { return e == wanted ? 1 : 0; };
    chain_init(&chain);
    chain_prepend(&chain, &b), chain_append(&chain, &c), chain_prepend(&chain, &a);
    EXPECT_EACH(&b, chain_next(&chain, chain_first(&chain)), chain_find(&chain, is, &b));
    chain_unlink(&chain, &b);
    EXPECT_TRUE(chain_next(&chain, &a) == &c && chain_pop_first(&chain) == &a && chain_pop_last(&chain) == &c);
    chain_append(&chain, &b);
    EXPECT_EACH(&b, chain_first(&chain), chain.last, chain_pop_first(&chain));
    EXPECT_EACH(nullptr, chain_pop_last(&chain), chain_pop_first(&chain), chain_find(&chain, is, &b), chain.last,
                chain_next(&chain, nullptr), chain_next(nullptr, &b));
}

TEST_F(MapToBuffer, ScalarsAreAddedReplacedAndReadByNameAndType)
{
    mtb_value v{}, w{};
#define EXPECT_SCALAR(suffix, ctype, code, member)                                                                     \
    EXPECT_FAILURE(-5, mtb_get_##suffix, (65538, &v.member, s), "element with name 2 not found");                      \
    EXPECT_EACH(0, mtb_add_##suffix(2, 3, s), mtb_add_##suffix(65538, static_cast<ctype>(-7), s),                      \
                mtb_get_##suffix(2, &v.member, s), mtb_get_##suffix(1, &w.member, nested));                            \
    EXPECT_EACH(static_cast<ctype>(-7), v.member, w.member);                                                           \
    EXPECT_EACH(-2, mtb_add_##suffix(2, 3, nullptr), mtb_add_##suffix(2, 3, &no_chain));                               \
    EXPECT_REPORTS("mtb_add_" #suffix MISSING, "mtb_add_" #suffix MISSING);                                            \
    in_new_thread([this] { EXPECT_EQ(with(allocation, 0, 0, [this] { return mtb_add_##suffix(3, 3, s); }), -1); });    \
    EXPECT_REPORTS("mtb_add_" #suffix ": ERROR: low memory");
    TAVLEN_SCALAR_TYPES(EXPECT_SCALAR)
}

TEST_F(MapToBuffer, ReplacedBlocksKeepTheirPlace)
{
    const int16_t items[] = {1, 2, 3};
    EXPECT_EACH(0, mtb_add_string(5, "first", 5, s), mtb_add_blob(5, "first", 5, s), mtb_add_array(5, items, 3, 17, s),
                mtb_add_struct(5, mtb_struct_new(1), s), mtb_add_array(5, texts, 0, 27, s),
                mtb_add_array_struct(5, mtb_struct_new(1), s), mtb_get_string(5, &text, &len, s),
                mtb_add_string(5, text + 1, 4, s), mtb_add_blob(5, nullptr, 0, s),
                mtb_add_array(5, items + 1, 1, 17, s), mtb_add_array(5, texts, 1, 27, s),
                mtb_add_array_struct(5, mtb_struct_new(1), s));
    EXPECT_EQ(encode(s), bytes("00 01 01 00 00 00 06 00 05 0c 00 00 00 04 69 72 73 74 00 05 10 00 00 00 00"
                               " 00 05 11 00 00 00 01 00 02 00 05 0e 00 00 00 00 00 05 1b 00 00 00 01 00 00 00 01 78"
                               " 00 05 1c 00 00 00 02 00 05 0e 00 00 00 00 00 05 0e 00 00 00 00"));
}

TEST_F(MapToBuffer, RefusedArgumentsInOrder)
{
    EXPECT_EACH(-2, mtb_add_string(1, nullptr, -1, &no_chain), mtb_add_blob(1, nullptr, -1, nullptr),
                mtb_add_array(1, nullptr, -1, 28, nullptr), mtb_add_struct(1, s, s),
                mtb_add_array_struct(1, nullptr, s), mtb_serialize_to_binary(nullptr, nullptr),
                mtb_binary_deserialize(&no_chain, nullptr, nullptr, -1));
    EXPECT_REPORTS("mtb_add_string" MISSING, "mtb_add_blob" MISSING, "mtb_add_array" MISSING, "mtb_add_struct" MISSING,
                   "mtb_add_array_struct" MISSING, "mtb_serialize_to_binary" MISSING, "mtb_binary_deserialize" MISSING);
    EXPECT_FAILURE(-2, mtb_add_string, (1, nullptr, -1, s), "param 'val' is NULL");
    EXPECT_FAILURE(-2, mtb_add_string, (1, "x", -1, s), "invalid length specified: -1");
    EXPECT_FAILURE(-2, mtb_add_blob, (1, nullptr, -1, s), "param 'val' is NULL, but len != 0");
    EXPECT_FAILURE(-2, mtb_add_array, (1, nullptr, -1, 28, s), "param 'val' is NULL");
    EXPECT_FAILURE(-2, mtb_add_array, (1, "x", -1, 28, s), "illegal array length specified: -1");
    EXPECT_FAILURE(-2, mtb_add_array, (1, "x", 1, 28, s), "unknown element type specified 28");
    EXPECT_FAILURE(-2, mtb_add_array, (1, texts, 2, MTB_TYPE_STRING_ARRAY, s), "param 'val' is NULL");
    EXPECT_EACH(-2, mtb_add_struct(1, nullptr, s), mtb_add_struct(1, s, nullptr), mtb_add_array_struct(1, s, s),
                mtb_add_array_struct(1, s, nullptr), mtb_free_deserialized_packet(nullptr));
    EXPECT_REPORTS("mtb_add_struct" MISSING, "mtb_add_struct" MISSING, "mtb_add_array_struct" MISSING,
                   "mtb_add_array_struct" MISSING, "mtb_free_deserialized_packet" MISSING);
    EXPECT_REPORTED(mtb_add_array_struct(1, s, &no_chain), -2, "find_head: ERROR: invalid argument 'buffer'");
    EXPECT_REPORTED(mtb_element_exists(1, 6, nullptr), 0, "find_head: ERROR: invalid argument 'buffer'");
    EXPECT_FAILURE(-2, mtb_calc_serialized_packet_size, (s, nullptr), "param 'size' is NULL");
    EXPECT_FAILURE(-2, mtb_serialize_to_binary, (s, nullptr), "param 'binary_buffer' is NULL");
    EXPECT_FAILURE(-2, mtb_binary_deserialize, (s, nullptr, nullptr, -1), "param 'binary_buffer' is NULL");
    EXPECT_FAILURE(-2, mtb_binary_deserialize, (s, &cursor, nullptr, -1), "param 'size' is NULL");
    EXPECT_FAILURE(-2, mtb_binary_deserialize, (s, &cursor, &s.left, -1), "param 'element_count' is negative");
    mtb_struct_destroy(nullptr);
    EXPECT_REPORTED(encode(s), bytes("00 01 01 00 00 00 00"), "mtb_struct_destroy: ERROR: NULL pointer: structr");
}

TEST_F(MapToBuffer, GettersRefuseInOrderAndLeaveVariablesAlone)
{
    const std::string check = "check_getter_params: ERROR: parameter ";
    EXPECT_REPORTED(mtb_get_int64_signed(8, nullptr, nullptr), -2, check + "'val' should not be NULL");
    EXPECT_REPORTED(mtb_get_blob(8, &data, &len, nullptr), -2, check + "'structr' should not be NULL");
    EXPECT_REPORTED(mtb_get_string(8, &text, nullptr, &no_chain), -2, check + "'structr' is uninitialized or damaged");
    EXPECT_FAILURE(-2, mtb_get_string, (8, &text, nullptr, s), "param 'len' is NULL");
    EXPECT_FAILURE(-2, mtb_get_array_len, (8, nullptr, 19, &no_chain), "param 'structr' is NULL");
    EXPECT_FAILURE(-2, mtb_get_array_len, (8, nullptr, 19, s), "param 'len' is NULL");
    EXPECT_FAILURE(-5, mtb_get_array_len, (65536 + 8, &len, 19, s), "element with name 8 and type 19 not found");
    EXPECT_REPORTED(mtb_get_array(8, nullptr, nullptr, 19, s), -2, check + "'val' should not be NULL");
    EXPECT_FAILURE(-2, mtb_get_array, (8, &data, nullptr, 19, s), "parameter 'len' is NULL");
    EXPECT_FAILURE(-5, mtb_get_string, (65536 + 8, &text, &len, s), "element with name 8 not found");
    EXPECT_FAILURE(-5, mtb_get_blob, (8, &data, &len, s), "element with name 8 not found");
    EXPECT_FAILURE(-5, mtb_get_array_element, (0, 8, &data, 19, s), "element with name 8 not found");
    EXPECT_FAILURE(-3, mtb_get_array_element, (-1, 1, &data, 27, nested), "invalid element position parameter -1");
    EXPECT_FAILURE(-3, mtb_get_array_element, (1, 1, &data, 19, nested), "invalid element position parameter 1");
    EXPECT_FAILURE(-2, mtb_get_array_element, (0, 1, &data, 12, nested), "unknown element type specified: 12");
    EXPECT_TRUE(text == nullptr && data == this && len == 77);
    EXPECT_FAILURE(-2, mtb_get_array, (6, &data, &len, 28, rich), "unknown element type specified: 28");
    EXPECT_EQ(len, 2U) << "the count is stored before the type is refused";
}

TEST_F(MapToBuffer, GettersGiveWhatWasStored)
{
    EXPECT_EACH(0, mtb_get_blob(2, &data, &len, nested), mtb_get_string(1, &text, &len, nested));
    EXPECT_TRUE(data == nullptr && std::string(text, len + 1) == std::string("a\0b\0", 4));
    EXPECT_EACH(0, mtb_get_array(1, &data, &len, 27, nested), mtb_get_array_element(2, 1, &item, 27, nested));
    EXPECT_TRUE(len == 3 && static_cast<char **>(data)[2] == item && strcmp(static_cast<char *>(item), "yz") == 0);
    free(data);
    EXPECT_EACH(0, mtb_get_array(1, &data, &len, 21, nested), mtb_get_array_element(1, 1, &item, 21, nested));
    EXPECT_TRUE(len == 2 && item == static_cast<int64_t *>(data) + 1 && *static_cast<int64_t *>(item) == 6);
    EXPECT_EACH(0, mtb_get_array_len(1, &len, MTB_TYPE_STRING, nested), mtb_get_array_element(1, 6, &item, 28, rich));
    EXPECT_TRUE(len == 3 && item == rich.root->buffer->first->buffer->last);
    EXPECT_TRUE(mtb_element_exists(65536 + 6, 28, rich) == 1 && mtb_element_exists(6, 14, rich) == 0);
}

TEST_F(MapToBuffer, GoldenBuffers)
{
    const std::string head = "00 01 01 00 00 00 01 ", nest = "00 02 0e 00 00 00 01 ", number = "00 03 02 07";
    const std::pair<std::string, std::string> cases[] = {
        {"00 01 01 00 00 00 01 00 09 0f 00 00 00 00", "00 01 01 00 00 00 01 00 09 0f 00 00 00 00"},
        {"00 01 01 00 00 00 02 " + number, "00 01 01 00 00 00 02 " + number}, // cut, but whole
        {"", "00 01 01 00 00 00 00"},
        {"00 07 01 00 00 00 00 99", "00 01 01 00 00 00 00"}, // any name of the root
        // A root inside the root, and inside a nested structure, gives its elements to it.
        {head + "00 02 01 00 00 00 01 " + number, head + number},
        {head + nest + "00 02 01 00 00 00 01 " + number, head + nest + number},
    };
    for (const auto &[wire, again] : cases) {
        EXPECT_EQ(encode(Structure(bytes(wire))), bytes(again));
    }
    EXPECT_EQ(encode(rich), rich_wire);
    s.read(bytes("00 01 01 7f ff ff ff"));
    EXPECT_TRUE(mtb_add_enum(1, 1, s) == MTB_OK && s.root->len == INT32_MIN) << "counts on without overflow";
}

TEST_F(MapToBuffer, MalformedBuffers)
{
    const std::string cut = "mtb_binary_deserialize: ERROR: size was not enough to fully parse binary buffer";
    const std::string bad = "mtb_binary_deserialize: ERROR: bad element type encountered, stopping buffer processing ";
    const std::string negative = "mtb_binary_deserialize: ERROR: param 'element_count' is negative";
    const std::string in_root = "get_struct_from_binary_buffer: ERROR: failed to map structure 1 from binary buffer";
    const std::string in_struct = "get_struct_from_binary_buffer: ERROR: failed to map structure 14 from binary buffer";
    const std::string in_array = "get_array_struct_from_buffer: ERROR: failed to map array 28 from binary buffer";
    const std::string one_left = "get_binary_buffer_element_name: ERROR: wrong buffer size: 1";
    const auto expect = [this](const std::string &wire, int32_t left, int32_t result, const Reports &reports) {
        Structure holding(rich_wire); // what goes too
        holding.read(bytes(wire));
        EXPECT_EQ((std::vector{holding.result, holding.left, holding.root->buffer->count}),
                  (std::vector{result, left, 0}));
        EXPECT_EQ(take_reports(), reports) << wire;
    };
    expect("00 01", 0, -3, {"get_binary_buffer_element_type: ERROR: wrong buffer size: 0", bad + "(name=1, type=252)"});
    expect("ff ff 00 99", 1, -3, {bad + "(name=65535, type=0)"});
    for (const std::string value : {"01 00 00 00", "07 01 02 03", "0c 00 00 00 02 61", "0c 7f ff ff ff 61",
                                    "10 ff ff ff ff 61", "1a 20 00 00 00 00 00 00 00"}) {
        expect("00 01 " + value, static_cast<int32_t>(bytes(value).size()) - 1, -4, {cut});
    }
    expect("00 01 1b ff ff ff ff 61", 1, -4, {cut});
    expect("00 01 1b 00 00 00 02 00 00 00 01 61 00 00 00 02 61", 5, -4, {cut});
    expect("00 01 01 ff ff ff ff", 0, -2, {negative, in_root});
    expect("00 01 1c ff ff ff ff", 0, -2, {negative, in_array});
    expect("00 01 01 00 00 00 01 00 02 1c 00 00 00 02 00 02 0e 00 00 00 01 00", 1, -4,
           {one_left, in_struct, cut, in_array, cut, in_root, cut});
    rich.read({0}); // a single byte where an element should begin leaves what is there
    EXPECT_REPORTED(encode(rich), rich_wire, one_left);
}

// Runs on a thread with a small stack, the least that a user of the library may have.
void *decode_deepest(void *)
{
    for (const uint8_t type : {MTB_TYPE_ROOT, MTB_TYPE_STRUCT_ARRAY, MTB_TYPE_STRUCT}) {
        auto wire = bytes("00 01 01 00 00 00 01");
        while (wire.size() < 7 * MTB_MAX_DEPTH) {
            wire.insert(wire.end(), {0, 2, type, 0, 0, 0, 1});
        }
        const Structure deepest(wire);
        EXPECT_TRUE(deepest.result == MTB_OK && (type != MTB_TYPE_STRUCT || encode(deepest) == wire));
        wire.insert(wire.end(), {0, 2, type, 0, 0, 0, 1});
        EXPECT_EQ(Structure(wire).result, MTB_BAD_DATA);
    }
    return nullptr;
}

TEST_F(MapToBuffer, NestingIsLimitedAndFitsASmallStack)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(TAVLEN_COVERAGE)
    pthread_attr_setstacksize(&attributes, 256 * 1024);
#endif
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, decode_deepest, nullptr), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(take_reports()[0].substr(31), "structures nested too deeply, stopping buffer processing (limit=1024)");
}

TEST_F(MapToBuffer, ReceivedArrayOfStructuresMayHoldLessAndOthers)
{
    // Announces 3: a structure, a number that looks like a pointer, and nothing.
    s.read(bytes("00 06 1c 00 00 00 03 00 06 0e 00 00 00 00 00 06 08 41 41 41 41 41 41 41 41"));
    EXPECT_TRUE(mtb_get_array_element(0, 6, &item, 28, s) == MTB_OK && item == s.root->buffer->first->buffer->first);
    EXPECT_FAILURE(-3, mtb_get_array_element, (1, 6, &item, 28, s), "invalid element position parameter 1");
    EXPECT_TRUE(mtb_get_array_element(2, 6, &item, 28, s) == MTB_OK && item == nullptr);
    EXPECT_REPORTED(encode(s), bytes(""), "mtb_serialize_to_binary: ERROR: invalid data type encauntered, type = 8\n",
                    "binaryze_struct: ERROR: failed to binarize structure",
                    "binaryze_array_of_struct: ERROR: failed to binarize array of structures",
                    "mtb_serialize_to_binary: ERROR: failed to binarize array");
}

TEST_F(MapToBuffer, DamagedStructuresAreReportedAtEveryLevelAndReleasedWhole)
{
    uint64_t size = 5;
    const std::string no_size = "mtb_calc_serialized_packet_size: ERROR: failed to calculate buffer size";
    const std::string no_struct_size = "get_struct_size: ERROR: failed to calculate structure 14 size";
    const std::string not_freed = "free_struct: ERROR: failed to free structure 14";
    const std::string warning = "free_deserialized_buffer: WARNING: failed to free serialed packet element, type = 14";
    // In an array, a structure with two elements of no known type and one with a block behind them.
    s.read(bytes("00 06 1c 00 00 00 01 00 06 0e 00 00 00 03 00 01 02 07 00 01 02 07 00 02 0c 00 00 00 01 61"));
    mtb_element *bad = s.root->buffer->first->buffer->first->buffer->first;
    bad->type = bad->next->type = 29;
    EXPECT_REPORTED(mtb_calc_serialized_packet_size(s, &size), MTB_BAD_DATA,
                    "calc_serialized_packet_size: ERROR: bad data type encountered 29", no_struct_size,
                    "get_array_size: ERROR: failed to calculate array size", no_size);
    EXPECT_EQ(mtb_serialize_to_binary(s, &cursor), MTB_BAD_DATA);
    EXPECT_EQ(take_reports()[0], "mtb_serialize_to_binary: ERROR: invalid data type encauntered, type = 29\n");
    const std::string not_released = "free_deserialized_buffer: ERROR: bad data type encountered: 29";
    EXPECT_REPORTED(mtb_free_deserialized_packet(s), MTB_OK, not_released, not_freed, warning, not_released);
    mtb_add_struct(3, mtb_struct_new(1), s);
    free(std::exchange(s.root->buffer->first->buffer, nullptr)); // a structure without a chain
    EXPECT_REPORTED(mtb_calc_serialized_packet_size(s, &size), MTB_BAD_ARG, no_struct_size, no_size);
    EXPECT_EQ(size, 5U) << "failures leave it alone";
    EXPECT_REPORTED(mtb_serialize_to_binary(s, &cursor), MTB_BAD_ARG, "mtb_serialize_to_binary" MISSING,
                    "binaryze_struct: ERROR: failed to binarize structure");
    EXPECT_REPORTED(mtb_free_deserialized_packet(s), MTB_OK, "mtb_free_deserialized_packet" MISSING, not_freed, warning,
                    "mtb_struct_destroy: ERROR: NULL pointer: structr->buffer");
    mtb_add_array(3, texts, 1, 27, s);
    s.root->buffer->first->len = 2; // and holds one
    EXPECT_REPORTED(mtb_get_array(3, &data, &len, 27, s), MTB_BAD_DATA,
                    "get_string_array: ERROR: string array buffer element corruption");
    EXPECT_REPORTED(mtb_get_array_element(1, 3, &item, 27, s), MTB_BAD_DATA,
                    "get_string_array: ERROR: string array buffer element corruption");
    EXPECT_TRUE(data == nullptr && item == this);
}

// Kept for the thread's next structures: the records of short ones only. Under the address sanitizer nothing is.
TEST_F(MapToBuffer, ThreadsReuseRecords)
{
#ifdef __SANITIZE_ADDRESS__
    constexpr int32_t kept = 0;
#else
    constexpr int32_t kept = 511; // and one for the root
#endif
    const int before = fake_platform.blocks;
    in_new_thread([&] {
        const auto fill = [](mtb_struct *structr, int32_t fields) { // as far as memory goes
            int32_t name = 0;
            while (structr != nullptr && name < fields && mtb_add_float(name, 1, structr) == MTB_OK) {
                ++name;
            }
            return name;
        };
        EXPECT_EQ(fill(Structure(), 1000), 1000);
        for (const Structure &one : std::array<Structure, 20>()) {
            EXPECT_EQ(fill(one, 30), 30);
        }
        const Fault fault(allocation, 1, Failing::from_then_on);
        mtb_struct *next = mtb_struct_new(1);
        EXPECT_EQ(fill(next, 1000), kept);
        mtb_free_deserialized_packet(next), mtb_struct_destroy(next), take_reports();
    });
    EXPECT_EQ(fake_platform.blocks, before) << "freed when the thread ended";
    in_new_thread([this] { // whose end cannot be told frees at once
        with("pthread_setspecific", ENOMEM, 0, mtb_struct_destroy, mtb_struct_new(1));
        EXPECT_EQ(with(allocation, 0, 0, mtb_struct_new, 1), nullptr);
        EXPECT_REPORTS("mtb_struct_new: ERROR: low memory");
    });
}

TEST_F(MapToBuffer, LackOfMemoryChangesNothingAndLeaksNothing)
{
    const std::pair<std::function<int32_t()>, const char *> cases[] = {
        {[this] { return mtb_add_double(1, 7, s); }, "mtb_add_double"},
        {[this] { return mtb_add_string(1, "new", 3, s); }, "add_string"},
        {[this] { return mtb_add_blob(1, "new", 3, s); }, "mtb_add_blob"},
        {[this] { return mtb_add_array(1, "newer", 3, 23, s); }, "mtb_add_array"},
        {[this] { return mtb_add_array(1, texts, 1, 27, s); }, "mtb_add_array"},
        {[this] { return rich.read(rich_wire), rich.result; }, "mtb_binary_deserialize"}};
    for (const auto &c : cases) {
        fail_each_allocation([&](Fault &fault) {
            const auto before = encode(s);
            mtb_free_deserialized_packet(rich);
            const int32_t result = c.first();
            const bool struck = fault.struck();
            EXPECT_EQ(result, struck ? MTB_NOMEM : MTB_OK);
            EXPECT_TRUE(!struck || (encode(s) == before && rich.root->buffer->first == nullptr));
            const Reports reports = take_reports();
            EXPECT_TRUE(struck ? !reports.empty() && reports.back().starts_with(c.second) : reports.empty());
        });
    }
    in_new_thread([this] {
        for (const int n : {1, 2}) {
            const Fault fault(allocation, n, Failing::once);
            EXPECT_EQ(mtb_add_array_struct(7, rich, s), MTB_NOMEM);
        }
    });
    EXPECT_EQ(with(allocation, 0, 0, [this] { return mtb_get_array(1, &data, &len, 27, s); }), MTB_NOMEM);
    EXPECT_REPORTED(data, nullptr, "get_string_array: ERROR: low memory");
}

} // namespace
