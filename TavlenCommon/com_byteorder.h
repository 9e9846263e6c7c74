/*
 * Byte order: numbers between host order and wire order, which is big-endian.
 *
 * Conventions
 *  1. Only the width of an element counts, 1, 2, 4 or 8 bytes; floating point numbers travel as
 *     their bit patterns. Any other width is reported and nothing is written.
 *  2. Neither side needs to be aligned. Destination and source may be the same place, but must not
 *     overlap otherwise; neither is checked for null.
 *  3. No state: any thread may call.
 */
#ifndef TAVLEN_COMMON_COM_BYTEORDER_H
#define TAVLEN_COMMON_COM_BYTEORDER_H

#include <stdint.h>

#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Converts one element of `width` bytes to wire order. */
TAVLEN_API void bo_hton_element(void *dst, const void *src, int32_t width);

/** Converts one element of `width` bytes to host order. */
TAVLEN_API void bo_ntoh_element(void *dst, const void *src, int32_t width);

/** Converts `count` elements of `width` bytes to wire order; none when `count` is below 1. */
TAVLEN_API void bo_hton_array(void *dst, const void *src, int32_t width, int32_t count);

/** Converts `count` elements of `width` bytes to host order; none when `count` is below 1. */
TAVLEN_API void bo_ntoh_array(void *dst, const void *src, int32_t width, int32_t count);

#ifdef __cplusplus
}
#endif

#endif
