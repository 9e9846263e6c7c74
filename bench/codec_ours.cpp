// The messages by the library.
#include <TavlenCommon/buffer_packet.h>

#include "catalogue.h"
#include "codec_cases.h"

namespace {

int32_t length(const std::string &text)
{
    return static_cast<int32_t>(text.size());
}

// ------------------------------------------------------------------------------------------ build

clpacket *build_event()
{
    const EventSource &source = codec_source().event;
    clpacket *p = clpacket_create();
    (void)clpacket_set_int32_signed(p, 1, source.version);
    (void)clpacket_set_string(p, 2, source.name.data(), length(source.name));
    (void)clpacket_set_string(p, 3, source.line.data(), length(source.line));
    return p;
}

clpacket *build_scalars()
{
    const ScalarsSource &source = codec_source().scalars;
    clpacket *p = clpacket_create();
    (void)clpacket_set_char_signed(p, 1, source.i8);
    (void)clpacket_set_char_unsigned(p, 2, source.u8);
    (void)clpacket_set_int16_signed(p, 3, source.i16);
    (void)clpacket_set_int16_unsigned(p, 4, source.u16);
    (void)clpacket_set_int32_signed(p, 5, source.i32);
    (void)clpacket_set_int32_unsigned(p, 6, source.u32);
    (void)clpacket_set_int64_signed(p, 7, source.i64);
    (void)clpacket_set_int64_unsigned(p, 8, source.u64);
    (void)clpacket_set_float(p, 9, source.f);
    (void)clpacket_set_double(p, 10, source.d);
    (void)clpacket_set_enum(p, 11, source.kind);
    (void)clpacket_set_int32_signed(p, 12, source.last);
    (void)clpacket_set_string(p, 13, source.name.data(), length(source.name));
    (void)clpacket_set_string(p, 14, source.text.data(), length(source.text));
    (void)clpacket_set_blob(p, 15, source.blob.data(), static_cast<uint32_t>(source.blob.size()));
    return p;
}

clpacket *build_list()
{
    clpacket *p = clpacket_create();
    for (const ListItemSource &source : codec_source().list) {
        clpacket *item = clpacket_create();
        (void)clpacket_set_int32_signed(item, 1, source.first);
        (void)clpacket_set_int32_signed(item, 2, source.second);
        (void)clpacket_set_string(item, 3, source.text.data(), length(source.text));
        (void)clpacket_add_array_el_complex(p, 1, item);
        clpacket_destroy(item);
    }
    return p;
}

clpacket *build_numbers()
{
    const std::vector<int32_t> &source = codec_source().numbers;
    clpacket *p = clpacket_create();
    (void)clpacket_set_array(p, 1, source.data(), static_cast<uint32_t>(source.size()),
                             MTB_TYPE_ARRAY_INT32_SIGNED);
    return p;
}

// ------------------------------------------------------------------------------------------- read

template <class T>
void read_number(clpacket *p, int32_t name, int32_t (*get)(clpacket *, int32_t, T *))
{
    T value{};
    (void)get(p, name, &value);
    touch(value);
}

void read_string(clpacket *p, int32_t name)
{
    char *text = nullptr;
    uint32_t len = 0;
    (void)clpacket_get_string(p, name, &text, &len);
    touch(text);
    touch(len);
}

void read_event(clpacket *p)
{
    read_number(p, 1, clpacket_get_int32_signed);
    read_string(p, 2);
    read_string(p, 3);
}

void read_scalars(clpacket *p)
{
    read_number(p, 1, clpacket_get_char_signed);
    read_number(p, 2, clpacket_get_char_unsigned);
    read_number(p, 3, clpacket_get_int16_signed);
    read_number(p, 4, clpacket_get_int16_unsigned);
    read_number(p, 5, clpacket_get_int32_signed);
    read_number(p, 6, clpacket_get_int32_unsigned);
    read_number(p, 7, clpacket_get_int64_signed);
    read_number(p, 8, clpacket_get_int64_unsigned);
    read_number(p, 9, clpacket_get_float);
    read_number(p, 10, clpacket_get_double);
    read_number(p, 11, clpacket_get_enum);
    read_number(p, 12, clpacket_get_int32_signed);
    read_string(p, 13);
    read_string(p, 14);
    void *blob = nullptr;
    uint32_t len = 0;
    (void)clpacket_get_blob(p, 15, &blob, &len);
    touch(blob);
    touch(len);
}

void read_item(mtb_struct *item)
{
    int32_t first = 0, second = 0;
    char *text = nullptr;
    uint32_t len = 0;
    if (mtb_get_int32_signed(1, &first, item) != MTB_OK ||
        mtb_get_int32_signed(2, &second, item) != MTB_OK ||
        mtb_get_string(3, &text, &len, item) != MTB_OK) {
        fail_codec("an item lacks a field");
    }
    touch(first);
    touch(second);
    touch(text);
    touch(len);
}

/// Along the chain of the structures, as the extractors of the catalogue go.
void read_list(clpacket *p)
{
    mtb_struct *list = nullptr;
    if (clpacket_deserialize(p) != 0 ||
        mtb_get_struct(1, &list, MTB_TYPE_STRUCT_ARRAY, p->structr) != MTB_OK) {
        fail_codec("no list");
    }
    for (mtb_element *item = list->buffer->first; item != nullptr; item = item->next) {
        read_item(item);
    }
}

/// By position, for which the library walks from the first structure every time.
void read_list_by_index(clpacket *p)
{
    clpacket *view = clpacket_create();
    for (size_t i = 0; i < codec_source().list.size(); ++i) {
        (void)clpacket_get_array_el_complex(p, 1, view, static_cast<uint32_t>(i));
        read_number(view, 1, clpacket_get_int32_signed);
        read_number(view, 2, clpacket_get_int32_signed);
        read_string(view, 3);
    }
    if (clpacket_get_error_state(view) != MTB_OK) {
        fail_codec("an item lacks a field");
    }
    clpacket_destroy(view);
}

void read_numbers(clpacket *p)
{
    void *numbers = nullptr;
    uint32_t count = 0;
    (void)clpacket_get_array(p, 1, &numbers, &count, MTB_TYPE_ARRAY_INT32_SIGNED);
    touch(numbers);
    touch(count);
}

// ----------------------------------------------------------------------------------------- rounds

template <clpacket *build()>
void encode()
{
    clpacket *p = build();
    if (clpacket_serialize(p) != 0) {
        fail_codec("not serialized");
    }
    touch(p->buffer);
    clpacket_destroy(p);
}

template <clpacket *build(), void read(clpacket *)>
void decode()
{
    static const WireMessage wire = encode_packet(build());
    clpacket *p = receive_packet(wire);
    read(p);
    if (clpacket_get_error_state(p) != MTB_OK) {
        fail_codec("a field is missing");
    }
    clpacket_destroy(p);
}

} // namespace

const CodecSamples &our_codec_samples()
{
    static const CodecSamples samples = {
        encode_packet(build_event()).bytes, encode_packet(build_scalars()).bytes,
        encode_packet(build_list()).bytes, encode_packet(build_numbers()).bytes};
    return samples;
}

std::span<const CodecCase> our_codec_cases()
{
    static const CodecCase cases[] = {
        {"event/encode/ours", 1, encode<build_event>},
        {"event/decode/ours", 1, decode<build_event, read_event>},
        {"scalars/encode/ours", 1, encode<build_scalars>},
        {"scalars/decode/ours", 1, decode<build_scalars, read_scalars>},
        {"list/encode/ours", codec_source().list.size(), encode<build_list>},
        {"list/decode/ours", codec_source().list.size(), decode<build_list, read_list>},
        {"list/decode/ours_by_index", codec_source().list.size(),
         decode<build_list, read_list_by_index>},
        {"numbers/encode/ours", codec_source().numbers.size(), encode<build_numbers>},
        {"numbers/decode/ours", codec_source().numbers.size(), decode<build_numbers, read_numbers>},
    };
    return cases;
}
