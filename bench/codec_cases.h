/* The same four messages by several codecs: the library's, one written by hand for each message
 * (the limit), and protobuf where it is built in. */
#ifndef TAVLEN_BENCH_CODEC_CASES_H
#define TAVLEN_BENCH_CODEC_CASES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// --------------------------------------------------------------------- what the messages are of

struct EventSource {
    int32_t version;
    std::string name, line;
};

struct ScalarsSource {
    int8_t i8;
    uint8_t u8;
    int16_t i16;
    uint16_t u16;
    int32_t i32;
    uint32_t u32;
    int64_t i64;
    uint64_t u64;
    float f;
    double d;
    uint32_t kind; // an enum's
    int32_t last;
    std::string name, text;
    std::vector<uint8_t> blob;
};

struct ListItemSource {
    int32_t first, second;
    std::string text;
};

/// The caller's data, which every codec copies when it builds a message.
struct CodecSource {
    EventSource event;
    ScalarsSource scalars;
    std::vector<ListItemSource> list;
    std::vector<int32_t> numbers;
};

const CodecSource &codec_source();

// ----------------------------------------------------------------------------------------- rounds

/// A round of one message in one direction. "encode" copies the caller's data into a message of the
/// codec, writes that to a block of its exact size and releases both. "decode" copies the bytes to
/// a block, as a receive gives them, decodes that to a message that owns what it holds, reads every
/// field and releases both. A round that fails ends the process.
struct CodecCase {
    const char *name; // MESSAGE/DIRECTION/CODEC
    size_t items;     // of the message: structures, numbers, or itself
    void (*round)();
};

std::span<const CodecCase> our_codec_cases();
std::span<const CodecCase> limit_codec_cases();
std::span<const CodecCase> protobuf_codec_cases();

/// Those of all codecs that are built in.
std::vector<CodecCase> codec_cases();

/// Event, scalars, list and numbers as they travel.
using CodecSamples = std::array<std::vector<uint8_t>, 4>;

const CodecSamples &our_codec_samples();
const CodecSamples &limit_codec_samples();

/// Ends the process unless the limit writes the bytes that the library writes.
void check_codec_sides();

// ------------------------------------------------------------------------------- for the codecs

/// Ends the process.
[[noreturn]] void fail_codec(const char *what);

/// Makes the compiler believe that the value is used.
template <class T>
void touch(const T &value)
{
    asm volatile("" : : "r,m"(value) : "memory");
}

/// A received block: a malloc'ed copy, which the caller frees.
void *receive_bytes(const std::vector<uint8_t> &bytes);

#endif
