// Four messages to bytes and back by several codecs (codec_cases.h), and a log event by way of the
// catalogue.
#include <string>

#include <TavlenCommon/com_packet.h>

#include "catalogue.h"
#include "codec_cases.h"
#include "library_bench.h"

namespace {

// ------------------------------------------------------------------------------- all the codecs

void Codec(benchmark::State &state, const CodecCase &codec)
{
    codec.round(); // so that what it prepares is there
    for ([[maybe_unused]] auto _ : state) {
        codec.round();
    }
    count_items(state, static_cast<int64_t>(codec.items));
}

bool register_codecs()
{
    for (const CodecCase &codec : codec_cases()) {
        const std::string name = std::string("Codec/") + codec.name;
        benchmark::RegisterBenchmark(name.c_str(), Codec, codec);
    }
    return true;
}

[[maybe_unused]] const bool registered = register_codecs();

// ------------------------------------------------------------------------------------ a log event

void EventBuild(benchmark::State &state)
{
    const char *text = record_text().c_str();
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = clpacket_log_event("bench", text, record_text_size);
        (void)clpacket_serialize(p);
        benchmark::DoNotOptimize(clpacket_get_buffer(p));
        clpacket_destroy(p);
    }
    count_items(state, 1);
}
BENCHMARK(EventBuild);

/// The three reads of a collector.
void read_log_event(clpacket *p)
{
    int32_t version = 0;
    char *name = nullptr;
    char *line = nullptr;
    uint32_t len = 0;
    (void)clpacket_get_int32_signed(p, LOG_EVENT_FIELD_VERSION, &version);
    (void)clpacket_get_string(p, LOG_EVENT_FIELD_NAME, &name, &len);
    (void)clpacket_get_string(p, LOG_EVENT_FIELD_LINE, &line, &len);
    benchmark::DoNotOptimize(line);
}

void EventRead(benchmark::State &state)
{
    const WireMessage event =
        encode_packet(clpacket_log_event("bench", record_text().c_str(), record_text_size));
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = receive_packet(event);
        read_log_event(p);
        clpacket_destroy(p);
    }
    count_items(state, 1);
}
BENCHMARK(EventRead);

} // namespace
