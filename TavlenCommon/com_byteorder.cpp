#include <TavlenCommon/com_byteorder.h>

#include <TavlenCommon/logger.h>
#include <TavlenCommon/wire_order.h>

// A width above 8 and any other bad one are told apart only by their words and their rate limits.

void bo_hton_element(void *dst, const void *src, int32_t width)
{
    if (width > 8) {
        LPRINTF("ERROR: unhandled size (%i bytes)", width);
    } else if (!tavlen::convert_items(dst, src, width, 1)) {
        LPRINTF("ERROR: unhandled size (%i bytes)", width);
    }
}

void bo_ntoh_element(void *dst, const void *src, int32_t width)
{
    if (width > 8) {
        LPRINTF("ERROR: unhandled size (%i bytes)", width);
    } else if (!tavlen::convert_items(dst, src, width, 1)) {
        LPRINTF("ERROR: unhandled src size (%i bytes)", width);
    }
}

void bo_hton_array(void *dst, const void *src, int32_t width, int32_t count)
{
    if (width > 8) {
        LPRINTF("ERROR: unhandled size (%i bytes)", width);
    } else if (!tavlen::convert_items(dst, src, width,
                                      count > 0 ? static_cast<size_t>(count) : 0)) {
        LPRINTF("ERROR: unhandled element size (%i bytes)", width);
    }
}

void bo_ntoh_array(void *dst, const void *src, int32_t width, int32_t count)
{
    if (width > 8) {
        LPRINTF("ERROR: unhandled size (%i bytes)", width);
    } else if (!tavlen::convert_items(dst, src, width,
                                      count > 0 ? static_cast<size_t>(count) : 0)) {
        LPRINTF("ERROR: unhandled element size (%i bytes)", width);
    }
}
