#include "codec_cases.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace {

constexpr size_t list_size = 100;
constexpr size_t numbers_size = 10'000;

CodecSource make_source()
{
    CodecSource source{{1, std::string(16, 'n'), std::string(120, 'l')},
                       {-8, 8, -1600, 1600, -3'200'000, 3'200'000, -6'400'000'000'000,
                        6'400'000'000'000, 1.5F, 2.25, 3, 12, std::string(16, 'n'),
                        std::string(40, 't'), std::vector<uint8_t>(256, 0xb1)},
                       {},
                       std::vector<int32_t>(numbers_size)};
    for (size_t i = 0; i < list_size; ++i) {
        const auto number = static_cast<int32_t>(i);
        source.list.push_back({number, number * 1000, std::string(20, 's')});
    }
    std::iota(source.numbers.begin(), source.numbers.end(), 0);
    return source;
}

void append(std::vector<CodecCase> &cases, std::span<const CodecCase> more)
{
    cases.insert(cases.end(), more.begin(), more.end());
}

} // namespace

const CodecSource &codec_source()
{
    static const CodecSource source = make_source();
    return source;
}

std::vector<CodecCase> codec_cases()
{
    std::vector<CodecCase> cases;
    append(cases, our_codec_cases());
    append(cases, limit_codec_cases());
#ifdef TAVLEN_BENCH_PEERS
    append(cases, protobuf_codec_cases());
#endif
    return cases;
}

void check_codec_sides()
{
    if (our_codec_samples() != limit_codec_samples()) {
        fail_codec("the limit's bytes are not the library's");
    }
}

void fail_codec(const char *what)
{
    fprintf(stderr, "codec: %s\n", what);
    exit(EXIT_FAILURE);
}

void *receive_bytes(const std::vector<uint8_t> &bytes)
{
    void *block = malloc(bytes.size());
    if (block == nullptr) {
        fail_codec("no memory");
    }
    return memcpy(block, bytes.data(), bytes.size());
}
