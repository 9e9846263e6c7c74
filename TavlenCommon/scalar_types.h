/* Internal: the types of numbers that elements hold, so that a family of functions is said once. */
#ifndef TAVLEN_COMMON_SCALAR_TYPES_H
#define TAVLEN_COMMON_SCALAR_TYPES_H

/// X(suffix of the functions' names, C type, element type, member of mtb_value)
#define TAVLEN_SCALAR_TYPES(X)                                                                     \
    X(char_signed, int8_t, MTB_TYPE_CHAR_SIGNED, i8)                                               \
    X(char_unsigned, uint8_t, MTB_TYPE_CHAR_UNSIGNED, u8)                                          \
    X(int16_signed, int16_t, MTB_TYPE_INT16_SIGNED, i16)                                           \
    X(int16_unsigned, uint16_t, MTB_TYPE_INT16_UNSIGNED, u16)                                      \
    X(int32_signed, int32_t, MTB_TYPE_INT32_SIGNED, i32)                                           \
    X(int32_unsigned, uint32_t, MTB_TYPE_INT32_UNSIGNED, u32)                                      \
    X(int64_signed, int64_t, MTB_TYPE_INT64_SIGNED, i64)                                           \
    X(int64_unsigned, uint64_t, MTB_TYPE_INT64_UNSIGNED, u64)                                      \
    X(float, float, MTB_TYPE_FLOAT, f)                                                             \
    X(double, double, MTB_TYPE_DOUBLE, d)                                                          \
    X(enum, uint32_t, MTB_TYPE_ENUM, u32)

#endif
