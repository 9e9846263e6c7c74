#include <TavlenLogger/log_event.h>

#include <cstdint>
#include <cstring>

#include <TavlenCommon/com_packet.h>
#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/wire_order.h>

namespace {

// What stands in front of the name's length, and between the name and the line's length.
constexpr uint8_t lead[] = {
    0,
    1,
    MTB_TYPE_ROOT,
    0,
    0,
    0,
    3, // three fields
    0,
    LOG_EVENT_FIELD_VERSION,
    MTB_TYPE_INT32_SIGNED,
    0,
    0,
    0,
    LOG_EVENT_VERSION,
    0,
    LOG_EVENT_FIELD_NAME,
    MTB_TYPE_STRING,
};
constexpr uint8_t line_lead[] = {0, LOG_EVENT_FIELD_LINE, MTB_TYPE_STRING};
constexpr size_t length_size = sizeof(uint32_t);
constexpr size_t name_offset = sizeof lead + length_size;
constexpr size_t shortest = name_offset + sizeof line_lead + length_size; // both texts empty

static_assert(line_lead[0] == 0, "the name ends in it");

/// Ends the line at the end of the bytes: its line feed gives way to the zero byte, or the line
/// moves into the last byte of its length.
char *end_line(char *line, size_t size)
{
    if (size > 0 && line[size - 1] == '\n') {
        line[size - 1] = '\0';
        return line;
    }
    memmove(line - 1, line, size);
    line[-1 + static_cast<ptrdiff_t>(size)] = '\0';
    return line - 1;
}

} // namespace

bool read_plain_log_event(clpacket *p, log_event_texts *texts)
{
    const bool is_fresh = p->structr == nullptr && p->buffer != nullptr && p->error_state == 0;
    if (!is_fresh || p->buffer_size < shortest || memcmp(p->buffer, lead, sizeof lead) != 0) {
        return false;
    }
    auto *bytes = static_cast<uint8_t *>(p->buffer);
    const uint64_t text_bytes = p->buffer_size - shortest; // of both
    const uint64_t name_size = tavlen::load_wire<uint32_t>(bytes + sizeof lead);
    if (name_size > text_bytes) {
        return false;
    }
    uint8_t *name_end = bytes + name_offset + name_size;
    const uint64_t line_size = tavlen::load_wire<uint32_t>(name_end + sizeof line_lead);
    if (memcmp(name_end, line_lead, sizeof line_lead) != 0 || line_size != text_bytes - name_size) {
        return false;
    }
    texts->name = reinterpret_cast<const char *>(bytes + name_offset);
    texts->line =
        end_line(reinterpret_cast<char *>(name_end) + sizeof line_lead + length_size, line_size);
    return true;
}
