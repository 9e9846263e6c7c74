/*
 * Internal: the conversion between host and wire order itself, inlined where the width is known.
 * Both directions reverse the bytes on a little-endian host and copy them on a big-endian one.
 */
#ifndef TAVLEN_COMMON_WIRE_ORDER_H
#define TAVLEN_COMMON_WIRE_ORDER_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace tavlen {

inline uint8_t swap_bytes(uint8_t value)
{
    return value;
}
inline uint16_t swap_bytes(uint16_t value)
{
    return __builtin_bswap16(value);
}
inline uint32_t swap_bytes(uint32_t value)
{
    return __builtin_bswap32(value);
}
inline uint64_t swap_bytes(uint64_t value)
{
    return __builtin_bswap64(value);
}

template <class T>
T convert_order(T value)
{
    return std::endian::native == std::endian::little ? swap_bytes(value) : value;
}

/// Converts one number; the places are unaligned, and the same or apart.
template <class T>
void convert_number(void *dst, const void *src)
{
    T number;
    memcpy(&number, src, sizeof number);
    number = convert_order(number);
    memcpy(dst, &number, sizeof number);
}

/// The same for a number of `width` bytes, which is one that a number has: 1, 2, 4 or 8.
inline void convert_number(void *dst, const void *src, int32_t width)
{
    switch (width) {
    case 1:
        return convert_number<uint8_t>(dst, src);
    case 2:
        return convert_number<uint16_t>(dst, src);
    case 4:
        return convert_number<uint32_t>(dst, src);
    default:
        return convert_number<uint64_t>(dst, src);
    }
}

/// Two 32-bit numbers in one step: their bytes reversed as one, they have changed places, too.
inline void convert_pair(void *dst, const void *src)
{
    uint64_t pair;
    memcpy(&pair, src, sizeof pair);
    pair = std::rotl(convert_order(pair), std::endian::native == std::endian::little ? 32 : 0);
    memcpy(dst, &pair, sizeof pair);
}

/// Converts `count` numbers; `dst` and `src` are unaligned, and the same place or apart.
template <class T>
void convert_items(void *dst, const void *src, size_t count)
{
    auto *to = static_cast<uint8_t *>(dst);
    const auto *from = static_cast<const uint8_t *>(src);
    size_t offset = 0;
    if constexpr (sizeof(T) == sizeof(uint32_t)) {
        for (; offset != count / 2 * sizeof(uint64_t); offset += sizeof(uint64_t)) {
            convert_pair(to + offset, from + offset);
        }
    }
    for (; offset != count * sizeof(T); offset += sizeof(T)) {
        convert_number<T>(to + offset, from + offset);
    }
}

/// Converts `count` items of `width` bytes; false when that is no width of an item.
inline bool convert_items(void *dst, const void *src, int32_t width, size_t count)
{
    switch (width) {
    case 1:
        if (count != 0) {
            memmove(dst, src, count);
        }
        return true;
    case 2:
        convert_items<uint16_t>(dst, src, count);
        return true;
    case 4:
        convert_items<uint32_t>(dst, src, count);
        return true;
    case 8:
        convert_items<uint64_t>(dst, src, count);
        return true;
    default:
        return false;
    }
}

template <class T>
T load_wire(const uint8_t *from)
{
    T value;
    memcpy(&value, from, sizeof value);
    return convert_order(value);
}

template <class T>
void store_wire(uint8_t *to, T value)
{
    value = convert_order(value);
    memcpy(to, &value, sizeof value);
}

} // namespace tavlen

#endif
