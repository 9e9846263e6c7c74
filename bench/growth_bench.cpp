// What messages cost against their size: structures to bytes and back, messages of the catalogue,
// structures in structures, and the heap that all that takes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <malloc.h>

#include <TavlenCommon/map_to_buffer.h>

#include "catalogue.h"
#include "library_bench.h"

namespace {

// ----------------------------------------------------------------- structures to bytes and back

using Bytes = std::vector<uint8_t>;

void append_number(Bytes &bytes, uint32_t value, int width)
{
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

/// What every element with a count begins with: name, type, count.
void append_head(Bytes &bytes, uint32_t name, uint32_t type, size_t count)
{
    append_number(bytes, name, 2);
    append_number(bytes, type, 1);
    append_number(bytes, static_cast<uint32_t>(count), 4);
}

void append_int32(Bytes &bytes, uint32_t name, uint32_t value)
{
    append_number(bytes, name, 2);
    append_number(bytes, MTB_TYPE_INT32_SIGNED, 1);
    append_number(bytes, value, 4);
}

constexpr size_t short_text_size = 16;

void append_short_text(Bytes &bytes)
{
    bytes.insert(bytes.end(), short_text_size, 'y');
}

/// A root structure of one element, which is to follow.
Bytes root_of_one()
{
    Bytes bytes;
    append_head(bytes, 1, MTB_TYPE_ROOT, 1);
    return bytes;
}

Bytes int_array(size_t items)
{
    Bytes bytes = root_of_one();
    append_head(bytes, 2, MTB_TYPE_ARRAY_INT32_SIGNED, items);
    for (size_t i = 0; i < items; ++i) {
        append_number(bytes, static_cast<uint32_t>(i), 4);
    }
    return bytes;
}

Bytes string_array(size_t texts)
{
    Bytes bytes = root_of_one();
    append_head(bytes, 2, MTB_TYPE_STRING_ARRAY, texts);
    for (size_t i = 0; i < texts; ++i) {
        append_number(bytes, short_text_size, 4);
        append_short_text(bytes);
    }
    return bytes;
}

Bytes one_string(size_t size)
{
    Bytes bytes = root_of_one();
    append_head(bytes, 2, MTB_TYPE_STRING, size);
    bytes.insert(bytes.end(), size, 'z');
    return bytes;
}

Bytes one_blob(size_t size)
{
    Bytes bytes = root_of_one();
    append_head(bytes, 2, MTB_TYPE_BLOB, size);
    bytes.insert(bytes.end(), size, 0);
    return bytes;
}

Bytes many_strings(size_t elements)
{
    Bytes bytes;
    append_head(bytes, 1, MTB_TYPE_ROOT, elements);
    for (size_t i = 0; i < elements; ++i) {
        append_head(bytes, static_cast<uint32_t>(i), MTB_TYPE_STRING, short_text_size);
        append_short_text(bytes);
    }
    return bytes;
}

constexpr size_t structure_text_size = 20;

/// An array of structures: two numbers and a text each.
Bytes structures(size_t count)
{
    Bytes bytes = root_of_one();
    append_head(bytes, 2, MTB_TYPE_STRUCT_ARRAY, count);
    for (size_t i = 0; i < count; ++i) {
        append_head(bytes, 2, MTB_TYPE_STRUCT, 3);
        append_int32(bytes, 1, static_cast<uint32_t>(i));
        append_int32(bytes, 2, static_cast<uint32_t>(i));
        append_head(bytes, 3, MTB_TYPE_STRING, structure_text_size);
        bytes.insert(bytes.end(), structure_text_size, 's');
    }
    return bytes;
}

/// Structures within each other, with a number beside each; the root is not counted.
Bytes nested(size_t levels)
{
    Bytes bytes;
    append_head(bytes, 1, MTB_TYPE_ROOT, 2);
    for (size_t i = 0; i < levels; ++i) {
        append_int32(bytes, 1, static_cast<uint32_t>(i));
        append_head(bytes, 2, MTB_TYPE_STRUCT, i + 1 < levels ? 2 : 0);
    }
    return bytes;
}

/// The structure in these bytes. Read, not added: adding n elements costs n lookups among n.
mtb_struct *decode(Bytes &bytes)
{
    mtb_struct *structr = mtb_struct_new(1);
    uint8_t *cursor = bytes.data();
    auto left = static_cast<int32_t>(bytes.size());
    if (mtb_binary_deserialize(structr, &cursor, &left, 1) != MTB_OK || left != 0) {
        fprintf(stderr, "growth_bench: bad sample\n");
        exit(EXIT_FAILURE);
    }
    return structr;
}

void release(mtb_struct *structr)
{
    (void)mtb_free_deserialized_packet(structr);
    mtb_struct_destroy(structr);
}

void Encode(benchmark::State &state, Bytes (*sample)(size_t))
{
    Bytes bytes = sample(static_cast<size_t>(state.range(0)));
    mtb_struct *structr = decode(bytes);
    for ([[maybe_unused]] auto _ : state) {
        uint64_t size = 0;
        (void)mtb_calc_serialized_packet_size(structr, &size);
        void *buffer = malloc(size);
        auto *cursor = static_cast<uint8_t *>(buffer);
        (void)mtb_serialize_to_binary(structr, &cursor);
        benchmark::DoNotOptimize(buffer);
        free(buffer);
    }
    release(structr);
    count_items(state, state.range(0));
}

void Decode(benchmark::State &state, Bytes (*sample)(size_t))
{
    Bytes bytes = sample(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        release(decode(bytes));
    }
    count_items(state, state.range(0));
}

#define BENCHMARK_CODEC(sample)                                                                    \
    BENCHMARK_CAPTURE(Encode, sample, sample)->RangeMultiplier(10)->Range(100, 100000);            \
    BENCHMARK_CAPTURE(Decode, sample, sample)->RangeMultiplier(10)->Range(100, 100000)

BENCHMARK_CODEC(int_array);
BENCHMARK_CODEC(string_array);
BENCHMARK_CODEC(one_string);
BENCHMARK_CODEC(one_blob);
BENCHMARK_CODEC(many_strings);

#define BENCHMARK_NESTING(function, ...)                                                           \
    BENCHMARK_CAPTURE(function, nested, __VA_ARGS__)->Arg(10)->Arg(100)->Arg(300)->Arg(1000)

BENCHMARK_NESTING(Encode, nested);
BENCHMARK_NESTING(Decode, nested);

// ----------------------------------------------------------------------- messages of the catalogue

void Build(benchmark::State &state, const char *name)
{
    const auto message = make_catalogue_message(name, static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = message->build();
        if (p == nullptr) {
            state.SkipWithError("not built");
            break;
        }
        clpacket_destroy(p);
    }
    count_items(state, state.range(0));
}

void Extract(benchmark::State &state, const char *name)
{
    const auto message = make_catalogue_message(name, static_cast<size_t>(state.range(0)));
    const WireMessage wire = encode_packet(message->build());
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = receive_packet(wire);
        if (!message->extract(p)) {
            state.SkipWithError("not extracted");
        }
        clpacket_destroy(p);
    }
    count_items(state, state.range(0));
}

#define BENCHMARK_MESSAGE(name, most)                                                              \
    BENCHMARK_CAPTURE(Build, name, #name)->Arg(100)->Arg(1000)->Arg(10000)->Arg(most);             \
    BENCHMARK_CAPTURE(Extract, name, #name)->Arg(100)->Arg(1000)->Arg(10000)->Arg(most)

BENCHMARK_MESSAGE(servers, 100000);
BENCHMARK_MESSAGE(entries, 100000);
BENCHMARK_MESSAGE(table, 60000); // names of cells and blobs are 16 bits wide
BENCHMARK_MESSAGE(blobs, 60000);

// -------------------------------------------------------------------------------------- nesting

/// A packet with a number, and around `inner`, which it takes, unless that is null.
clpacket *wrap(clpacket *inner, int32_t number)
{
    clpacket *outer = clpacket_create();
    (void)clpacket_set_int32_signed(outer, 1, number);
    if (inner != nullptr) {
        (void)clpacket_set_complex(outer, 2, inner);
        clpacket_destroy(inner);
    }
    return outer;
}

void BuildNested(benchmark::State &state)
{
    const auto levels = static_cast<int32_t>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = nullptr;
        for (int32_t level = 0; level <= levels; ++level) {
            p = wrap(p, level);
        }
        if (clpacket_get_error_state(p) != MTB_OK) {
            state.SkipWithError("not built");
        }
        clpacket_destroy(p);
    }
    count_items(state, levels);
}
BENCHMARK(BuildNested)->Name("Build/nested")->Arg(10)->Arg(100)->Arg(300)->Arg(1000);

// --------------------------------------------------------------------------------------- memory

/// What the allocator has given out, its own heads included.
size_t heap_bytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// Heap that a decoded structure takes per item. Blocks that the allocator holds ready for this
/// thread count as given out, so a few may be missing: sizes are such that these do not matter.
void Memory(benchmark::State &state, Bytes (*sample)(size_t))
{
    Bytes bytes = sample(static_cast<size_t>(state.range(0)));
    size_t taken = 0;
    for ([[maybe_unused]] auto _ : state) {
        const size_t before = heap_bytes();
        mtb_struct *structr = decode(bytes);
        taken = heap_bytes() - before;
        release(structr);
    }
    state.counters["bytes_per_item"] =
        static_cast<double>(taken) / static_cast<double>(state.range(0));
    count_items(state, state.range(0));
}

/// Cells of the table: a number, the length of its datum, the datum and a text each.
Bytes cells(size_t count)
{
    return encode_packet(make_catalogue_message("table", count)->build()).bytes;
}

#define BENCHMARK_MEMORY(sample) BENCHMARK_CAPTURE(Memory, sample, sample)->Arg(10000)

BENCHMARK_MEMORY(int_array);
BENCHMARK_MEMORY(string_array);
BENCHMARK_MEMORY(structures);
BENCHMARK_MEMORY(cells);

} // namespace
