/*
 * Map to buffer: structures of named, typed elements, and the big-endian buffer they travel in.
 *
 * Conventions
 *  1. A structure keeps its elements in the order in which they were added. An element is found by
 *     its name, of which the low 16 bits count, together with its type; of equals the first.
 *     Adding one that is there replaces its value and keeps its place.
 *  2. Results: MTB_OK, or the negative code of a failure, which is reported (logger.h) under the
 *     operation's name. After a failed add the structure is as it was.
 *  3. Adders copy what they are given; a nested structure is taken over instead. Getters give
 *     pointers into the structure (one exception: mtb_get_array of a string array), valid until the
 *     element is replaced or the structure emptied; nobody frees them. A failed getter leaves the
 *     caller's variables alone, except where its comment says otherwise.
 *  4. A structure whose pointer or `buffer` is null counts as missing and is refused.
 *  5. No locks: a structure is used by one thread at a time, or only read by several.
 *  6. A structure is released by mtb_free_deserialized_packet, which empties it, and then
 *     mtb_struct_destroy.
 *
 * The buffer is the root structure as one element and nothing else. Every number is big-endian,
 * nothing is aligned. An element is its name (2 bytes), its type (1 byte) and a payload:
 *
 *     number            the value in its own width
 *     string, blob      length (4 bytes), the bytes
 *     structure         number of elements (4 bytes), the elements
 *     array of numbers  number of items (4 bytes), the items
 *     string array      number of strings (4 bytes), for each its length (4 bytes) and bytes
 *     struct array      number of structures (4 bytes), the structures as elements of type 14
 */
#ifndef TAVLEN_COMMON_MAP_TO_BUFFER_H
#define TAVLEN_COMMON_MAP_TO_BUFFER_H

#include <stdint.h>

#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What the operations return. */
enum {
    MTB_OK = 0,
    MTB_NOMEM = -1,     /**< memory exhausted */
    MTB_BAD_ARG = -2,   /**< bad argument */
    MTB_BAD_DATA = -3,  /**< bad element type, data or position */
    MTB_TOO_SHORT = -4, /**< the buffer ends too early */
    MTB_NOT_FOUND = -5  /**< no element of that name and type */
};

/** Element types, in memory and on the wire. */
enum {
    MTB_TYPE_ROOT = 1,
    MTB_TYPE_CHAR_SIGNED = 2,
    MTB_TYPE_CHAR_UNSIGNED = 3,
    MTB_TYPE_INT16_SIGNED = 4,
    MTB_TYPE_INT16_UNSIGNED = 5,
    MTB_TYPE_INT32_SIGNED = 6,
    MTB_TYPE_INT32_UNSIGNED = 7,
    MTB_TYPE_INT64_SIGNED = 8,
    MTB_TYPE_INT64_UNSIGNED = 9,
    MTB_TYPE_FLOAT = 10,
    MTB_TYPE_DOUBLE = 11,
    MTB_TYPE_STRING = 12,
    MTB_TYPE_ENUM = 13,
    MTB_TYPE_STRUCT = 14,
    MTB_TYPE_STRUCT_ALT = 15, /**< met in buffers only; treated like MTB_TYPE_STRUCT */
    MTB_TYPE_BLOB = 16,
    MTB_TYPE_ARRAY_INT16_SIGNED = 17,
    MTB_TYPE_ARRAY_INT16_UNSIGNED = 18,
    MTB_TYPE_ARRAY_INT32_SIGNED = 19,
    MTB_TYPE_ARRAY_INT32_UNSIGNED = 20,
    MTB_TYPE_ARRAY_INT64_SIGNED = 21,
    MTB_TYPE_ARRAY_INT64_UNSIGNED = 22,
    MTB_TYPE_ARRAY_CHAR_SIGNED = 23,
    MTB_TYPE_ARRAY_CHAR_UNSIGNED = 24,
    MTB_TYPE_ARRAY_FLOAT = 25,
    MTB_TYPE_ARRAY_DOUBLE = 26,
    MTB_TYPE_STRING_ARRAY = 27,
    MTB_TYPE_STRUCT_ARRAY = 28
};

/** Most structures and arrays of structures that a buffer may nest, the root counted. */
enum { MTB_MAX_DEPTH = 1024 };

typedef struct mtb_element mtb_element;
typedef struct mtb_element mtb_struct;

/** The elements of a structure, linked both ways. The records carry the links. */
typedef struct mtb_chain {
    mtb_element *first, *last;
    int32_t count;
} mtb_chain;

/** A value: a number in its own width at the start of the slot, or a pointer that owns its block.
 */
typedef union mtb_value {
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
    char *text; /**< `len` bytes and a terminating zero */
    void *data; /**< bytes of a blob (null when empty) or items of an array */
} mtb_value;

/** One element; a structure is one whose `buffer` is its chain. To be read, not written. */
struct mtb_element {
    mtb_element *next, *prev;
    uint16_t name;
    uint8_t type;
    /** bytes of a string or blob, items of an array, elements of a structure; else 0 */
    int32_t len;
    union {
        mtb_value value;
        mtb_chain *buffer; /**< of structures, string arrays and arrays of structures */
    };
};

/** A new empty root structure. Null without memory. */
TAVLEN_API mtb_struct *mtb_struct_new(int32_t name);

/** Frees the structure itself. Its elements are not released: empty it first. */
TAVLEN_API void mtb_struct_destroy(mtb_struct *structr);

/* Adders of numbers, one per type. -1, -2. */
TAVLEN_API int32_t mtb_add_char_signed(int32_t name, int8_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_char_unsigned(int32_t name, uint8_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int16_signed(int32_t name, int16_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int16_unsigned(int32_t name, uint16_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int32_signed(int32_t name, int32_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int32_unsigned(int32_t name, uint32_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int64_signed(int32_t name, int64_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_int64_unsigned(int32_t name, uint64_t value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_float(int32_t name, float value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_double(int32_t name, double value, mtb_struct *structr);
TAVLEN_API int32_t mtb_add_enum(int32_t name, uint32_t value, mtb_struct *structr);

/**
 * Adds `len` bytes as a string; they may hold zero bytes, and a terminator is added in memory. A
 * null `val` goes with a `len` of 0. -1, -2.
 */
TAVLEN_API int32_t mtb_add_string(int32_t name, const char *val, int32_t len, mtb_struct *structr);

/** Adds `len` bytes as a blob. A null `val` goes with a `len` of 0. -1, -2. */
TAVLEN_API int32_t mtb_add_blob(int32_t name, const void *val, int32_t len, mtb_struct *structr);

/**
 * Adds an array of `count` items of a type from MTB_TYPE_ARRAY_INT16_SIGNED to
 * MTB_TYPE_STRING_ARRAY. `val` points to the items in host order and of the type's width; for a
 * string array to pointers to terminated texts, none null. -1, -2.
 */
TAVLEN_API int32_t mtb_add_array(int32_t name, const void *val, int32_t count, uint8_t type,
                                 mtb_struct *structr);

/**
 * Nests `child` as a structure of that name; `structr` owns it from then on. Several of one name
 * may stand side by side. -2.
 */
TAVLEN_API int32_t mtb_add_struct(int32_t name, mtb_struct *child, mtb_struct *structr);

/**
 * Appends `child` to the array of structures of that name, which is made when it is missing;
 * `structr` owns the child from then on. -1 (without a report), -2.
 */
TAVLEN_API int32_t mtb_add_array_struct(int32_t name, mtb_struct *child, mtb_struct *structr);

/** 1 when there is an element of that name and type, else 0. */
TAVLEN_API int32_t mtb_element_exists(int32_t name, uint8_t type, mtb_struct *structr);

/** Adds the exact size of the encoded structure to `*size`, which a failure leaves alone. -2, -3.
 */
TAVLEN_API int32_t mtb_calc_serialized_packet_size(const mtb_struct *structr, uint64_t *size);

/**
 * Writes the encoded structure at `*binary_buffer` and moves that cursor behind it. The caller
 * brings as much room as mtb_calc_serialized_packet_size has told. After a failure the cursor
 * stands where writing stopped. -2, -3.
 */
TAVLEN_API int32_t mtb_serialize_to_binary(const mtb_struct *structr, uint8_t **binary_buffer);

/**
 * Reads `element_count` elements from the `*size` bytes at `*binary_buffer` into the structure and
 * moves both along. A buffer that ends after a whole element ends the reading well. An element of
 * type MTB_TYPE_ROOT gives its elements to the structure itself. Nothing outside the given bytes is
 * read; memory and time are bounded by their number.
 * Refused arguments (-2) leave all as it is. After any other failure the structure is empty, also
 * of what it held before; only when a single byte is left where an element should begin, what was
 * read until then stays. Nesting deeper than MTB_MAX_DEPTH is bad data. -1, -2, -3, -4.
 */
TAVLEN_API int32_t mtb_binary_deserialize(mtb_struct *structr, uint8_t **binary_buffer,
                                          int32_t *size, int32_t element_count);

/* Getters of numbers, one per type. -2, -5. */
TAVLEN_API int32_t mtb_get_char_signed(int32_t name, int8_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_char_unsigned(int32_t name, uint8_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int16_signed(int32_t name, int16_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int16_unsigned(int32_t name, uint16_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int32_signed(int32_t name, int32_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int32_unsigned(int32_t name, uint32_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int64_signed(int32_t name, int64_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_int64_unsigned(int32_t name, uint64_t *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_float(int32_t name, float *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_double(int32_t name, double *val, mtb_struct *structr);
TAVLEN_API int32_t mtb_get_enum(int32_t name, uint32_t *val, mtb_struct *structr);

/** Gives the terminated text and its length without the terminator. -2, -5. */
TAVLEN_API int32_t mtb_get_string(int32_t name, char **val, uint32_t *len, mtb_struct *structr);

/** Gives the bytes (null when there are none) and their number; `len` is not checked. -2, -5. */
TAVLEN_API int32_t mtb_get_blob(int32_t name, void **val, uint32_t *len, mtb_struct *structr);

/** Gives the nested structure of that name and type code. -2, -5. */
TAVLEN_API int32_t mtb_get_struct(int32_t name, mtb_struct **val, uint8_t type,
                                  mtb_struct *structr);

/** Gives the `len` of an element of any type. -2, -5. */
TAVLEN_API int32_t mtb_get_array_len(int32_t name, uint32_t *len, uint8_t type,
                                     mtb_struct *structr);

/**
 * Gives the items of an array and their number. For a string array `*val` is a new array of text
 * pointers, which the caller frees (the texts stay the structure's); null after a failure. A type
 * that is no array of numbers or strings is refused after the number was stored.
 * -1, -2, -3, -5.
 */
TAVLEN_API int32_t mtb_get_array(int32_t name, void **val, uint32_t *len, uint8_t type,
                                 mtb_struct *structr);

/**
 * Gives one item of an array: its address, the text of a string array, or the structure of an array
 * of structures (null when the array announced more than it holds). -1, -2, -3, -5.
 */
TAVLEN_API int32_t mtb_get_array_element(int32_t position, int32_t name, void **val, uint8_t type,
                                         mtb_struct *structr);

/**
 * Releases every element of a structure, built or read, and what they own; the structure itself
 * stays, with its `len`. -2; -3 at an element of no known type, which is dropped while those behind
 * it stay.
 */
TAVLEN_API int32_t mtb_free_deserialized_packet(mtb_struct *structr);

#ifdef __cplusplus
}
#endif

#endif
