// The messages of codec_cases.h by protobuf: a new message for every round.
#include <cstdlib>

#include <codec_messages.pb.h>

#include "codec_cases.h"

namespace {

// ------------------------------------------------------------------------------------------ build

void build(codec::Event *event)
{
    const EventSource &source = codec_source().event;
    event->set_version(source.version);
    event->set_name(source.name);
    event->set_line(source.line);
}

void build(codec::Scalars *scalars)
{
    const ScalarsSource &source = codec_source().scalars;
    scalars->set_i8(source.i8);
    scalars->set_u8(source.u8);
    scalars->set_i16(source.i16);
    scalars->set_u16(source.u16);
    scalars->set_i32(source.i32);
    scalars->set_u32(source.u32);
    scalars->set_i64(source.i64);
    scalars->set_u64(source.u64);
    scalars->set_f(source.f);
    scalars->set_d(source.d);
    scalars->set_kind(static_cast<codec::Kind>(source.kind));
    scalars->set_last(source.last);
    scalars->set_name(source.name);
    scalars->set_text(source.text);
    scalars->set_blob(source.blob.data(), source.blob.size());
}

void build(codec::List *list)
{
    for (const ListItemSource &source : codec_source().list) {
        codec::Item *item = list->add_items();
        item->set_first(source.first);
        item->set_second(source.second);
        item->set_text(source.text);
    }
}

void build(codec::Numbers *numbers)
{
    const std::vector<int32_t> &source = codec_source().numbers;
    numbers->mutable_numbers()->Add(source.begin(), source.end());
}

// ------------------------------------------------------------------------------------------- read

void touch_string(const std::string &text)
{
    touch(text.data());
    touch(text.size());
}

void touch_all(const codec::Event &event)
{
    touch(event.version());
    touch_string(event.name());
    touch_string(event.line());
}

void touch_all(const codec::Scalars &scalars)
{
    touch(scalars.i8());
    touch(scalars.u8());
    touch(scalars.i16());
    touch(scalars.u16());
    touch(scalars.i32());
    touch(scalars.u32());
    touch(scalars.i64());
    touch(scalars.u64());
    touch(scalars.f());
    touch(scalars.d());
    touch(scalars.kind());
    touch(scalars.last());
    touch_string(scalars.name());
    touch_string(scalars.text());
    touch_string(scalars.blob());
}

void touch_all(const codec::List &list)
{
    for (const codec::Item &item : list.items()) {
        touch(item.first());
        touch(item.second());
        touch_string(item.text());
    }
}

void touch_all(const codec::Numbers &numbers)
{
    touch(numbers.numbers().data());
    touch(numbers.numbers_size());
}

// ----------------------------------------------------------------------------------------- rounds

template <class Message>
void encode()
{
    Message message;
    build(&message);
    const size_t size = message.ByteSizeLong();
    void *block = malloc(size);
    if (block == nullptr || !message.SerializeToArray(block, static_cast<int>(size))) {
        fail_codec("protobuf did not serialize");
    }
    touch(block);
    free(block);
}

template <class Message>
std::vector<uint8_t> sample_of()
{
    Message message;
    build(&message);
    std::vector<uint8_t> bytes(message.ByteSizeLong());
    (void)message.SerializeToArray(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
}

template <class Message>
void decode()
{
    static const std::vector<uint8_t> bytes = sample_of<Message>();
    void *block = receive_bytes(bytes);
    Message message;
    if (!message.ParseFromArray(block, static_cast<int>(bytes.size()))) {
        fail_codec("protobuf did not parse");
    }
    touch_all(message);
    free(block);
}

} // namespace

std::span<const CodecCase> protobuf_codec_cases()
{
    static const CodecCase cases[] = {
        {"event/encode/protobuf", 1, encode<codec::Event>},
        {"event/decode/protobuf", 1, decode<codec::Event>},
        {"scalars/encode/protobuf", 1, encode<codec::Scalars>},
        {"scalars/decode/protobuf", 1, decode<codec::Scalars>},
        {"list/encode/protobuf", codec_source().list.size(), encode<codec::List>},
        {"list/decode/protobuf", codec_source().list.size(), decode<codec::List>},
        {"numbers/encode/protobuf", codec_source().numbers.size(), encode<codec::Numbers>},
        {"numbers/decode/protobuf", codec_source().numbers.size(), decode<codec::Numbers>},
    };
    return cases;
}
