#include <TavlenCommon/com_packet.h>

#include <cstring>

#include <TavlenCommon/logger.h>

namespace {

/// The length of a text as strings have it; -1, which no string takes, when it is longer than that.
int32_t text_length(const char *text)
{
    const size_t length = text != nullptr ? strlen(text) : 0;
    return length <= INT32_MAX ? static_cast<int32_t>(length) : -1;
}

/// The packet when every field could be set; else it is destroyed, and null.
clpacket *finish(clpacket *p)
{
    if (p->error_state == MTB_OK) {
        return p;
    }
    clpacket_destroy(p);
    return nullptr;
}

} // namespace

clpacket *clpacket_log_event(const char *name, const char *line, int32_t line_len)
{
    clpacket *p = clpacket_create();
    if (p == nullptr) {
        return nullptr;
    }
    (void)clpacket_set_type(p, CLPACKET_LOG_EVENT);
    (void)clpacket_set_int32_signed(p, LOG_EVENT_FIELD_VERSION, LOG_EVENT_VERSION);
    (void)clpacket_set_string(p, LOG_EVENT_FIELD_NAME, name, text_length(name));
    (void)clpacket_set_string(p, LOG_EVENT_FIELD_LINE, line, line_len);
    return finish(p);
}

clpacket *clpacket_log_event_send_event(const void *buff, uint32_t len, uint32_t value)
{
    if (buff == nullptr) {
        LPRINTF("ERROR: buff is NULL");
        return nullptr;
    }
    if (len == 0) {
        LPRINTF("ERROR: len is too small");
        return nullptr;
    }
    clpacket *p = clpacket_create();
    if (p == nullptr) {
        LPRINTF("ERROR: could not create packet");
        return nullptr;
    }
    (void)clpacket_set_type(p, CLPACKET_LOG_EVENT_SEND_EVENT);
    (void)clpacket_set_blob(p, 1, buff, len);
    (void)clpacket_set_int32_signed(p, 0, static_cast<int32_t>(value));
    return finish(p);
}
