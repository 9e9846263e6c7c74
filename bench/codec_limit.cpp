// The messages in the library's wire layout by code that knows each of them and does nothing else:
// a plain structure of owned fields, written to a block of its exact size, and read back with every
// name, type and length checked.
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include <TavlenCommon/map_to_buffer.h>

#include "codec_cases.h"

namespace {

// --------------------------------------------------------------------------------------- messages

// Built from the caller's data by copying it.
using Event = EventSource;
using Scalars = ScalarsSource;
using List = std::vector<ListItemSource>;

/// Not a vector, which would fill with zeros what is about to be read.
struct Numbers {
    Numbers() = default;
    explicit Numbers(const std::vector<int32_t> &source)
    {
        allocate(source.size());
        memcpy(items.get(), source.data(), count * sizeof(int32_t));
    }

    void allocate(size_t new_count)
    {
        items = std::make_unique_for_overwrite<int32_t[]>(new_count);
        count = new_count;
    }

    std::unique_ptr<int32_t[]> items;
    size_t count = 0;
};

// -------------------------------------------------------------------------------------- the writer

template <size_t width>
using Bits = std::conditional_t<
    width == 1, uint8_t,
    std::conditional_t<width == 2, uint16_t, std::conditional_t<width == 4, uint32_t, uint64_t>>>;

template <class T>
T swap_order(T bits)
{
    if constexpr (sizeof(T) == 2) {
        return __builtin_bswap16(bits);
    } else if constexpr (sizeof(T) == 4) {
        return __builtin_bswap32(bits);
    } else if constexpr (sizeof(T) == 8) {
        return __builtin_bswap64(bits);
    } else {
        return bits;
    }
}

/// Host order to wire order, and back.
template <class T>
T to_order(T bits)
{
    return std::endian::native == std::endian::little ? swap_order(bits) : bits;
}

/// Swapped several at a time, which beats one at a time and what the compiler makes of vectors
/// without a byte shuffle.
void convert_numbers(void *to, const void *from, size_t count)
{
    auto *next = static_cast<uint8_t *>(to);
    const auto *source = static_cast<const uint8_t *>(from);
#pragma GCC unroll 4
    for (size_t offset = 0; offset != count * sizeof(uint32_t); offset += sizeof(uint32_t)) {
        uint32_t bits = 0;
        memcpy(&bits, source + offset, sizeof bits);
        bits = to_order(bits);
        memcpy(next + offset, &bits, sizeof bits);
    }
}

constexpr size_t head_size = 3;                     // name and type
constexpr size_t counted_head_size = head_size + 4; // and a count

constexpr size_t root_size = counted_head_size;

template <class T>
constexpr size_t number_size = head_size + sizeof(T);

size_t bytes_size(size_t len)
{
    return counted_head_size + len;
}

/// Writes elements where there is room for them.
class Writer {
public:
    explicit Writer(uint8_t *cursor) : cursor_(cursor) {}

    template <class T>
    void raw(T value)
    {
        const auto bits = to_order(std::bit_cast<Bits<sizeof(T)>>(value));
        memcpy(cursor_, &bits, sizeof bits);
        cursor_ += sizeof bits;
    }

    void head(uint16_t name, uint8_t type)
    {
        raw(name);
        raw(type);
    }

    void counted_head(uint16_t name, uint8_t type, size_t count)
    {
        head(name, type);
        raw(static_cast<uint32_t>(count));
    }

    template <class T>
    void number(uint16_t name, uint8_t type, T value)
    {
        head(name, type);
        raw(value);
    }

    void bytes(uint16_t name, uint8_t type, const void *data, size_t len)
    {
        counted_head(name, type, len);
        memcpy(cursor_, data, len);
        cursor_ += len;
    }

    void string(uint16_t name, const std::string &text)
    {
        bytes(name, MTB_TYPE_STRING, text.data(), text.size());
    }

    void numbers(uint16_t name, const Numbers &numbers)
    {
        counted_head(name, MTB_TYPE_ARRAY_INT32_SIGNED, numbers.count);
        convert_numbers(cursor_, numbers.items.get(), numbers.count);
        cursor_ += numbers.count * sizeof(uint32_t);
    }

private:
    uint8_t *cursor_;
};

// -------------------------------------------------------------------------------------- the reader

/// Reads elements as long as they are what is expected; after that nothing.
class Reader {
public:
    Reader(const uint8_t *bytes, size_t size) : cursor_(bytes), left_(size) {}

    bool is_whole() const { return good_ && left_ == 0; }

    template <class T>
    T raw()
    {
        Bits<sizeof(T)> bits{};
        if (take(sizeof bits)) {
            memcpy(&bits, cursor_ - sizeof bits, sizeof bits);
        }
        return std::bit_cast<T>(to_order(bits));
    }

    void head(uint16_t name, uint8_t type)
    {
        const auto found_name = raw<uint16_t>();
        const auto found_type = raw<uint8_t>();
        good_ = good_ && found_name == name && found_type == type;
    }

    /// Of items of at least that width, for which there are bytes; else 0.
    size_t counted_head(uint16_t name, uint8_t type, size_t width)
    {
        head(name, type);
        const size_t count = raw<uint32_t>();
        good_ = good_ && count <= left_ / width;
        return good_ ? count : 0;
    }

    /// The beginning of a structure of so many elements.
    void structure(uint16_t name, uint8_t type, size_t elements)
    {
        const size_t found = counted_head(name, type, head_size);
        good_ = good_ && found == elements;
    }

    template <class T>
    void number(uint16_t name, uint8_t type, T *value)
    {
        head(name, type);
        *value = raw<T>();
    }

    void string(uint16_t name, std::string *text)
    {
        const size_t len = counted_head(name, MTB_TYPE_STRING, 1);
        if (take(len)) {
            text->assign(reinterpret_cast<const char *>(cursor_ - len), len);
        }
    }

    void blob(uint16_t name, std::vector<uint8_t> *bytes)
    {
        const size_t len = counted_head(name, MTB_TYPE_BLOB, 1);
        if (take(len)) {
            bytes->assign(cursor_ - len, cursor_);
        }
    }

    void numbers(uint16_t name, Numbers *numbers)
    {
        numbers->allocate(counted_head(name, MTB_TYPE_ARRAY_INT32_SIGNED, sizeof(int32_t)));
        const uint8_t *from = cursor_;
        (void)take(numbers->count * sizeof(int32_t));
        convert_numbers(numbers->items.get(), from, numbers->count);
    }

private:
    bool take(size_t size)
    {
        good_ = good_ && size <= left_;
        if (good_) {
            cursor_ += size;
            left_ -= size;
        }
        return good_;
    }

    const uint8_t *cursor_;
    size_t left_;
    bool good_ = true;
};

// ------------------------------------------------------------------------------------------ event

size_t size_of(const Event &event)
{
    return root_size + number_size<int32_t> + bytes_size(event.name.size()) +
           bytes_size(event.line.size());
}

void write_to(Writer &writer, const Event &event)
{
    writer.counted_head(1, MTB_TYPE_ROOT, 3);
    writer.number(1, MTB_TYPE_INT32_SIGNED, event.version);
    writer.string(2, event.name);
    writer.string(3, event.line);
}

void read_from(Reader &reader, Event *event)
{
    reader.structure(1, MTB_TYPE_ROOT, 3);
    reader.number(1, MTB_TYPE_INT32_SIGNED, &event->version);
    reader.string(2, &event->name);
    reader.string(3, &event->line);
}

void touch_string(const std::string &text)
{
    touch(text.data());
    touch(text.size());
}

void touch_all(const Event &event)
{
    touch(event.version);
    touch_string(event.name);
    touch_string(event.line);
}

// ---------------------------------------------------------------------------------------- scalars

size_t size_of(const Scalars &scalars)
{
    return root_size + number_size<int8_t> + number_size<uint8_t> + number_size<int16_t> +
           number_size<uint16_t> + number_size<int32_t> + number_size<uint32_t> +
           number_size<int64_t> + number_size<uint64_t> + number_size<float> + number_size<double> +
           number_size<uint32_t> + number_size<int32_t> + bytes_size(scalars.name.size()) +
           bytes_size(scalars.text.size()) + bytes_size(scalars.blob.size());
}

void write_to(Writer &writer, const Scalars &scalars)
{
    writer.counted_head(1, MTB_TYPE_ROOT, 15);
    writer.number(1, MTB_TYPE_CHAR_SIGNED, scalars.i8);
    writer.number(2, MTB_TYPE_CHAR_UNSIGNED, scalars.u8);
    writer.number(3, MTB_TYPE_INT16_SIGNED, scalars.i16);
    writer.number(4, MTB_TYPE_INT16_UNSIGNED, scalars.u16);
    writer.number(5, MTB_TYPE_INT32_SIGNED, scalars.i32);
    writer.number(6, MTB_TYPE_INT32_UNSIGNED, scalars.u32);
    writer.number(7, MTB_TYPE_INT64_SIGNED, scalars.i64);
    writer.number(8, MTB_TYPE_INT64_UNSIGNED, scalars.u64);
    writer.number(9, MTB_TYPE_FLOAT, scalars.f);
    writer.number(10, MTB_TYPE_DOUBLE, scalars.d);
    writer.number(11, MTB_TYPE_ENUM, scalars.kind);
    writer.number(12, MTB_TYPE_INT32_SIGNED, scalars.last);
    writer.string(13, scalars.name);
    writer.string(14, scalars.text);
    writer.bytes(15, MTB_TYPE_BLOB, scalars.blob.data(), scalars.blob.size());
}

void read_from(Reader &reader, Scalars *scalars)
{
    reader.structure(1, MTB_TYPE_ROOT, 15);
    reader.number(1, MTB_TYPE_CHAR_SIGNED, &scalars->i8);
    reader.number(2, MTB_TYPE_CHAR_UNSIGNED, &scalars->u8);
    reader.number(3, MTB_TYPE_INT16_SIGNED, &scalars->i16);
    reader.number(4, MTB_TYPE_INT16_UNSIGNED, &scalars->u16);
    reader.number(5, MTB_TYPE_INT32_SIGNED, &scalars->i32);
    reader.number(6, MTB_TYPE_INT32_UNSIGNED, &scalars->u32);
    reader.number(7, MTB_TYPE_INT64_SIGNED, &scalars->i64);
    reader.number(8, MTB_TYPE_INT64_UNSIGNED, &scalars->u64);
    reader.number(9, MTB_TYPE_FLOAT, &scalars->f);
    reader.number(10, MTB_TYPE_DOUBLE, &scalars->d);
    reader.number(11, MTB_TYPE_ENUM, &scalars->kind);
    reader.number(12, MTB_TYPE_INT32_SIGNED, &scalars->last);
    reader.string(13, &scalars->name);
    reader.string(14, &scalars->text);
    reader.blob(15, &scalars->blob);
}

void touch_all(const Scalars &scalars)
{
    touch(scalars.i8);
    touch(scalars.u8);
    touch(scalars.i16);
    touch(scalars.u16);
    touch(scalars.i32);
    touch(scalars.u32);
    touch(scalars.i64);
    touch(scalars.u64);
    touch(scalars.f);
    touch(scalars.d);
    touch(scalars.kind);
    touch(scalars.last);
    touch_string(scalars.name);
    touch_string(scalars.text);
    touch(scalars.blob.data());
    touch(scalars.blob.size());
}

// ------------------------------------------------------------------------------------------- list

constexpr size_t least_item_size = counted_head_size + 2 * number_size<int32_t> + counted_head_size;

size_t size_of(const List &list)
{
    size_t size = root_size + counted_head_size + list.size() * least_item_size;
    for (const ListItemSource &item : list) {
        size += item.text.size();
    }
    return size;
}

void write_to(Writer &writer, const List &list)
{
    writer.counted_head(1, MTB_TYPE_ROOT, 1);
    writer.counted_head(1, MTB_TYPE_STRUCT_ARRAY, list.size());
    for (const ListItemSource &item : list) {
        writer.counted_head(1, MTB_TYPE_STRUCT, 3);
        writer.number(1, MTB_TYPE_INT32_SIGNED, item.first);
        writer.number(2, MTB_TYPE_INT32_SIGNED, item.second);
        writer.string(3, item.text);
    }
}

void read_from(Reader &reader, List *list)
{
    reader.structure(1, MTB_TYPE_ROOT, 1);
    list->resize(reader.counted_head(1, MTB_TYPE_STRUCT_ARRAY, least_item_size));
    for (ListItemSource &item : *list) {
        reader.structure(1, MTB_TYPE_STRUCT, 3);
        reader.number(1, MTB_TYPE_INT32_SIGNED, &item.first);
        reader.number(2, MTB_TYPE_INT32_SIGNED, &item.second);
        reader.string(3, &item.text);
    }
}

void touch_all(const List &list)
{
    for (const ListItemSource &item : list) {
        touch(item.first);
        touch(item.second);
        touch_string(item.text);
    }
}

// ---------------------------------------------------------------------------------------- numbers

size_t size_of(const Numbers &numbers)
{
    return root_size + counted_head_size + numbers.count * sizeof(int32_t);
}

void write_to(Writer &writer, const Numbers &numbers)
{
    writer.counted_head(1, MTB_TYPE_ROOT, 1);
    writer.numbers(1, numbers);
}

void read_from(Reader &reader, Numbers *numbers)
{
    reader.structure(1, MTB_TYPE_ROOT, 1);
    reader.numbers(1, numbers);
}

void touch_all(const Numbers &numbers)
{
    touch(numbers.items.get());
    touch(numbers.count);
}

// ----------------------------------------------------------------------------------------- rounds

template <class Message>
std::vector<uint8_t> sample_of(const Message &message)
{
    std::vector<uint8_t> bytes(size_of(message));
    Writer writer(bytes.data());
    write_to(writer, message);
    return bytes;
}

template <class Message, auto source>
void encode()
{
    const Message message(codec_source().*source);
    auto *block = static_cast<uint8_t *>(malloc(size_of(message)));
    if (block == nullptr) {
        fail_codec("no memory");
    }
    Writer writer(block);
    write_to(writer, message);
    touch(block);
    free(block);
}

template <class Message, auto source>
void decode()
{
    static const std::vector<uint8_t> bytes = sample_of(Message(codec_source().*source));
    void *block = receive_bytes(bytes);
    Message message{};
    Reader reader(static_cast<const uint8_t *>(block), bytes.size());
    read_from(reader, &message);
    if (!reader.is_whole()) {
        fail_codec("the limit cannot read its bytes");
    }
    touch_all(message);
    free(block);
}

} // namespace

const CodecSamples &limit_codec_samples()
{
    const CodecSource &source = codec_source();
    static const CodecSamples samples = {sample_of(source.event), sample_of(source.scalars),
                                         sample_of(source.list),
                                         sample_of(Numbers(source.numbers))};
    return samples;
}

std::span<const CodecCase> limit_codec_cases()
{
    static const CodecCase cases[] = {
        {"event/encode/limit", 1, encode<Event, &CodecSource::event>},
        {"event/decode/limit", 1, decode<Event, &CodecSource::event>},
        {"scalars/encode/limit", 1, encode<Scalars, &CodecSource::scalars>},
        {"scalars/decode/limit", 1, decode<Scalars, &CodecSource::scalars>},
        {"list/encode/limit", codec_source().list.size(), encode<List, &CodecSource::list>},
        {"list/decode/limit", codec_source().list.size(), decode<List, &CodecSource::list>},
        {"numbers/encode/limit", codec_source().numbers.size(),
         encode<Numbers, &CodecSource::numbers>},
        {"numbers/decode/limit", codec_source().numbers.size(),
         decode<Numbers, &CodecSource::numbers>},
    };
    return cases;
}
