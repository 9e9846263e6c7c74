// What the library's own work costs: a record to a file, a structure to bytes and back, a message
// of the catalogue, a log event. bench/run tells how the results are read.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/map_to_buffer.h>

#include "catalogue.h"

namespace {

constexpr int text_size = 120;

/// A file that is there, and empty, while the object is.
class ScratchFile {
public:
    ScratchFile()
        : path_(folder() + "/library_bench.XXXXXX"),
          fd_(mkostemp(path_.data(), O_APPEND | O_CLOEXEC))
    {
    }
    ~ScratchFile()
    {
        (void)close(fd_);
        (void)unlink(path_.c_str());
    }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;

    const char *path() const { return path_.c_str(); }
    int fd() const { return fd_; }
    off_t size() const { return lseek(fd_, 0, SEEK_END); }

private:
    static std::string folder()
    {
        const char *chosen = getenv("TMPDIR");
        return chosen != nullptr ? chosen : "/tmp";
    }

    std::string path_;
    int fd_;
};

const std::string &message_text()
{
    static const std::string text(text_size, 'x');
    return text;
}

/// Seconds per item of one round, which stay the same from size to size where the work is linear.
void count_items(benchmark::State &state, int64_t items)
{
    const auto flags = benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert;
    state.counters["per_item"] = benchmark::Counter(static_cast<double>(items), flags);
}

// ----------------------------------------------------------------------------- a record to a file

/// A log that could not be written would look fast.
void check_lines(benchmark::State &state, const ScratchFile &file)
{
    if (file.size() < static_cast<off_t>(state.iterations()) * text_size) {
        state.SkipWithError("lines are missing");
    }
    count_items(state, 1);
}

void LogLprintf(benchmark::State &state)
{
    const ScratchFile file;
    const char *text = message_text().c_str();
    (void)logger_open();
    set_log_dest(LOG_DEST_FILE, file.path(), nullptr, nullptr);
    for ([[maybe_unused]] auto _ : state) {
        LPRINTF("%s", text);
    }
    logger_close();
    check_lines(state, file);
}
BENCHMARK(LogLprintf);

/// The same line by the shortest way that keeps lines of several threads whole.
void LogFprintf(benchmark::State &state)
{
    static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    const ScratchFile scratch;
    const char *text = message_text().c_str();
    FILE *file = fopen(scratch.path(), "ae");
    if (file == nullptr) {
        state.SkipWithError("no file");
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        pthread_mutex_lock(&lock);
        fprintf(file, "%llu:%s:%d: %s: %s\n", static_cast<unsigned long long>(time(nullptr)),
                "library_bench.cpp", __LINE__, __func__, text);
        fflush(file);
        pthread_mutex_unlock(&lock);
    }
    fclose(file);
    check_lines(state, scratch);
}
BENCHMARK(LogFprintf);

/// The part of it that is the kernel's.
void LogWrite(benchmark::State &state)
{
    const ScratchFile file;
    const std::string line = std::to_string(time(nullptr)) +
                             ":library_bench.cpp:100: LogWrite: " + message_text() + "\n";
    for ([[maybe_unused]] auto _ : state) {
        if (write(file.fd(), line.data(), line.size()) < 0) {
            state.SkipWithError("write failed");
        }
    }
    check_lines(state, file);
}
BENCHMARK(LogWrite);

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

/// The structure in these bytes. Read, not added: adding n elements costs n lookups among n.
mtb_struct *decode(Bytes &bytes)
{
    mtb_struct *structr = mtb_struct_new(1);
    uint8_t *cursor = bytes.data();
    auto left = static_cast<int32_t>(bytes.size());
    if (mtb_binary_deserialize(structr, &cursor, &left, 1) != MTB_OK || left != 0) {
        fprintf(stderr, "library_bench: bad sample\n");
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
    BENCHMARK_CAPTURE(Encode, sample, sample)->RangeMultiplier(10)->Range(1000, 100000);           \
    BENCHMARK_CAPTURE(Decode, sample, sample)->RangeMultiplier(10)->Range(1000, 100000)

BENCHMARK_CODEC(int_array);
BENCHMARK_CODEC(string_array);
BENCHMARK_CODEC(one_string);
BENCHMARK_CODEC(one_blob);
BENCHMARK_CODEC(many_strings);

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

// ------------------------------------------------------------------------------------ a log event

void EventBuild(benchmark::State &state)
{
    const char *text = message_text().c_str();
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = clpacket_log_event("bench", text, text_size);
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
        encode_packet(clpacket_log_event("bench", message_text().c_str(), text_size));
    for ([[maybe_unused]] auto _ : state) {
        clpacket *p = receive_packet(event);
        read_log_event(p);
        clpacket_destroy(p);
    }
    count_items(state, 1);
}
BENCHMARK(EventRead);

} // namespace

BENCHMARK_MAIN();
