#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/buffer_packet_internal.h>

#include <cstdio>
#include <cstdlib>
#include <limits>

#include <TavlenCommon/atomic_field.h>
#include <TavlenCommon/error_text.h>
#include <TavlenCommon/logger.h>
#include <TavlenCommon/owned.h>
#include <TavlenCommon/scalar_types.h>

using tavlen::Lookup;

// ---------------------------------------------------------------- life, type and serialized form

namespace {

constexpr int32_t root_name = 1;

[[gnu::always_inline]] inline void drop_buffer(clpacket *p)
{
    if (p->buffer != nullptr) { // most often there is none, and no need for a call
        free(p->buffer);
    }
    p->buffer = nullptr;
    p->buffer_size = 0;
}

/// Lets the fields go: owned ones are freed, borrowed ones stay with their owner.
void drop_structure(clpacket *p)
{
    if (p->structr != nullptr && p->structr_borrowed == 0) {
        (void)mtb_free_deserialized_packet(p->structr);
        mtb_struct_destroy(p->structr);
    }
    p->structr = nullptr;
    p->structr_borrowed = 0;
}

} // namespace

clpacket *clpacket_create(void)
{
    auto p = tavlen::allocate<clpacket>();
    if (p == nullptr) {
        LPRINTF("ERROR: low memory");
        return nullptr;
    }
    *p = clpacket{};
    return p.release();
}

void clpacket_destroy(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: already free");
        return;
    }
    drop_structure(p);
    free(p->buffer);
    free(p);
}

int32_t clpacket_set_type(clpacket *p, uint32_t type)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    p->type = type;
    return 0;
}

int32_t clpacket_get_type(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    return static_cast<int32_t>(p->type);
}

int32_t clpacket_get_error_state(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    return p->error_state;
}

int32_t clpacket_reset_error_state(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    p->error_state = MTB_OK;
    return 0;
}

void *clpacket_get_buffer(clpacket *p)
{
    if (p == nullptr || p->buffer == nullptr) {
        LPRINTF("ERROR: invalid parameter");
        return nullptr;
    }
    return p->buffer;
}

uint64_t clpacket_get_buffer_size(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid parameter");
        return 0;
    }
    return p->buffer_size;
}

int32_t clpacket_alloc_buffer(clpacket *p, uint64_t size)
{
    if (p == nullptr || size == 0) {
        LPRINTF("ERROR: invalid parameters");
        return -1;
    }
    drop_buffer(p);
    p->buffer = malloc(size);
    if (p->buffer == nullptr) {
        LPRINTF("ERROR: low memory");
        return -1;
    }
    p->buffer_size = size;
    return 0;
}

int32_t clpacket_serialize(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument: clpacket");
        return -1;
    }
    if (p->error_state != MTB_OK) {
        LPRINTF("ERROR: can't serialize packet with nonzero error state");
        return -1;
    }
    uint64_t size = 0;
    if (mtb_calc_serialized_packet_size(p->structr, &size) != MTB_OK) {
        LPRINTF("ERROR: failed to calculate serialized packet size");
        return -1;
    }
    drop_buffer(p);
    auto buffer = tavlen::allocate_bytes<uint8_t>(size);
    if (buffer == nullptr) {
        LPRINTF("ERROR: low memory");
        return -1;
    }
    uint8_t *cursor = buffer.get();
    if (mtb_serialize_to_binary(p->structr, &cursor) != MTB_OK) {
        LPRINTF("ERROR: failed to serialize packet");
        return -1;
    }
    p->buffer = buffer.release();
    p->buffer_size = size;
    return 0;
}

int32_t clpacket_deserialize(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument: clpacket");
        return -1;
    }
    if (p->buffer == nullptr) {
        LPRINTF("ERROR: binary buffer not found");
        return -1;
    }
    drop_structure(p);
    p->structr = mtb_struct_new(root_name);
    if (p->structr == nullptr) {
        LPRINTF("ERROR: low memory");
        return -1;
    }
    auto *cursor = static_cast<uint8_t *>(p->buffer);
    auto left = static_cast<int32_t>(p->buffer_size);
    if (p->buffer_size > static_cast<uint64_t>(std::numeric_limits<int32_t>::max()) ||
        mtb_binary_deserialize(p->structr, &cursor, &left, 1) != MTB_OK) {
        LPRINTF("ERROR: failed to deserialize packet");
        return -1;
    }
    return 0;
}

// --------------------------------------------------------------------------------------- checks

namespace {

/// Readies a packet for a read through `val`; MTB_OK, or why it cannot be read.
int32_t check_clpacket_structr_get(clpacket *p, const void *val)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument: clpacket");
        return MTB_BAD_ARG;
    }
    if (p->error_state != MTB_OK) {
        return p->error_state;
    }
    if (val == nullptr) {
        LPRINTF("ERROR: invalid argument: val");
        p->error_state = MTB_BAD_ARG;
    } else if (p->structr == nullptr && p->buffer == nullptr) {
        LPRINTF("ERROR: tried to get element from empty chain");
        p->error_state = MTB_NOT_FOUND;
    } else if (p->structr == nullptr) {
        p->error_state = clpacket_deserialize(p);
    }
    return p->error_state;
}

/// Readies a packet for a write; MTB_OK, or why it cannot be written.
int32_t check_clpacket_structr_set(clpacket *p)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument: clpacket");
        return MTB_BAD_ARG;
    }
    if (p->error_state != MTB_OK || p->structr != nullptr) {
        return p->error_state;
    }
    if (p->buffer != nullptr) {
        p->error_state = clpacket_deserialize(p);
        if (p->error_state != MTB_OK) {
            LPRINTF("ERROR: deserialize failed");
        }
        return p->error_state;
    }
    p->structr = mtb_struct_new(root_name);
    p->structr_borrowed = 0;
    if (p->structr == nullptr) {
        LPRINTF("ERROR: low memory");
        p->error_state = MTB_NOMEM;
    }
    return p->error_state;
}

inline bool has_fields(const clpacket *p)
{
    return p != nullptr && p->structr != nullptr && p->error_state == MTB_OK;
}

/// Most reads and writes find a packet that needs no readying.
[[gnu::always_inline]] inline bool is_readable(clpacket *p, const void *val)
{
    return (has_fields(p) && val != nullptr) || check_clpacket_structr_get(p, val) == MTB_OK;
}

[[gnu::always_inline]] inline bool is_writable(clpacket *p)
{
    return has_fields(p) || check_clpacket_structr_set(p) == MTB_OK;
}

/// Readies a value packet for being nested in `p`.
int32_t check_complex_val(const clpacket *p, clpacket *val)
{
    if (val == nullptr || val == p) {
        LPRINTF("ERROR: invalid argument: val");
        return MTB_BAD_ARG;
    }
    if (val->buffer != nullptr) {
        const int32_t result = clpacket_deserialize(val);
        if (result != MTB_OK) {
            LPRINTF("ERROR: deserialize failed.");
            return result;
        }
    }
    if (val->structr == nullptr) {
        LPRINTF("ERROR: argument \"val\" is empty.");
        return MTB_BAD_ARG;
    }
    if (val->structr_borrowed != 0) {
        LPRINTF("ERROR: argument \"val\" is borrowed.");
        return MTB_BAD_ARG;
    }
    return MTB_OK;
}

/// The common way of the setters, behind the write check: an added field makes the bytes stale.
int32_t keep_added(clpacket *p, int32_t result)
{
    p->error_state = result;
    if (result != MTB_OK) {
        return -1;
    }
    drop_buffer(p);
    return 0;
}

} // namespace

// ---------------------------------------------------------------------------------------- fields

#define DEFINE_SETTER(suffix, ctype, code, member)                                                 \
    int32_t clpacket_set_##suffix(clpacket *p, int32_t name, ctype value, Lookup lookup)           \
    {                                                                                              \
        if (!is_writable(p)) {                                                                     \
            return -1;                                                                             \
        }                                                                                          \
        return keep_added(p, mtb_add_##suffix(name, value, p->structr, lookup));                   \
    }                                                                                              \
    int32_t clpacket_set_##suffix(clpacket *p, int32_t name, ctype value)                          \
    {                                                                                              \
        return clpacket_set_##suffix(p, name, value, Lookup::needed);                              \
    }
TAVLEN_SCALAR_TYPES(DEFINE_SETTER)
#undef DEFINE_SETTER

#define DEFINE_GETTER(suffix, ctype, code, member)                                                 \
    int32_t clpacket_get_##suffix(clpacket *p, int32_t name, ctype *val)                           \
    {                                                                                              \
        if (!is_readable(p, val)) {                                                                \
            return -1;                                                                             \
        }                                                                                          \
        return p->error_state = mtb_get_##suffix(name, val, p->structr);                           \
    }
TAVLEN_SCALAR_TYPES(DEFINE_GETTER)
#undef DEFINE_GETTER

int32_t clpacket_set_blob(clpacket *p, int32_t name, const void *data, uint32_t len, Lookup lookup)
{
    if (!is_writable(p)) {
        return -1;
    }
    return keep_added(p, mtb_add_blob(name, data, static_cast<int32_t>(len), p->structr, lookup));
}

int32_t clpacket_set_blob(clpacket *p, int32_t name, const void *data, uint32_t len)
{
    return clpacket_set_blob(p, name, data, len, Lookup::needed);
}

int32_t clpacket_set_string(clpacket *p, int32_t name, const char *text, int32_t len, Lookup lookup)
{
    if (!is_writable(p)) {
        return -1;
    }
    if (len < 0 || text == nullptr) {
        LPRINTF("ERROR: invalid arguments: len or val");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    return keep_added(p, mtb_add_string(name, text, len, p->structr, lookup));
}

int32_t clpacket_set_string(clpacket *p, int32_t name, const char *text, int32_t len)
{
    return clpacket_set_string(p, name, text, len, Lookup::needed);
}

int32_t clpacket_set_array(clpacket *p, int32_t name, const void *values, uint32_t count,
                           uint8_t type)
{
    if (!is_writable(p)) {
        return -1;
    }
    if (values == nullptr) {
        LPRINTF("ERROR: invalid argument: val");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    return keep_added(p,
                      mtb_add_array(name, values, static_cast<int32_t>(count), type, p->structr));
}

int32_t clpacket_get_string(clpacket *p, int32_t name, char **text, uint32_t *len)
{
    if (!is_readable(p, text)) {
        return -1;
    }
    if (len == nullptr) {
        LPRINTF("ERROR: invalid argument: len");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    return p->error_state = mtb_get_string(name, text, len, p->structr);
}

int32_t clpacket_get_blob(clpacket *p, int32_t name, void **data, uint32_t *len)
{
    if (!is_readable(p, data)) {
        return -1;
    }
    if (len == nullptr) {
        LPRINTF("ERROR: invalid argument: len");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    return p->error_state = mtb_get_blob(name, data, len, p->structr);
}

int32_t clpacket_get_array(clpacket *p, int32_t name, void **values, uint32_t *count, uint8_t type)
{
    if (!is_readable(p, values)) {
        return -1;
    }
    if (count == nullptr) {
        LPRINTF("ERROR: invalid argument: len");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    p->error_state = mtb_get_array(name, values, count, type, p->structr);
    return p->error_state == MTB_OK ? 0 : -1;
}

int32_t clpacket_get_array_len(clpacket *p, int32_t name, uint32_t *count, uint8_t type)
{
    if (!is_readable(p, count)) {
        return -1;
    }
    return p->error_state = mtb_get_array_len(name, count, type, p->structr);
}

int32_t clpacket_get_array_el(clpacket *p, int32_t name, void **val, uint32_t index, uint8_t type)
{
    if (!is_readable(p, val)) {
        return -1;
    }
    const auto position = static_cast<int32_t>(index);
    return p->error_state = mtb_get_array_element(position, name, val, type, p->structr);
}

namespace {

int32_t has_element(clpacket *p, int32_t name, uint8_t type)
{
    // No value is asked for.
    return is_readable(p, &name) ? mtb_element_exists(name, type, p->structr) : -1;
}

} // namespace

int32_t clpacket_has_string(clpacket *p, int32_t name)
{
    return has_element(p, name, MTB_TYPE_STRING);
}

int32_t clpacket_has_int32_unsigned(clpacket *p, int32_t name)
{
    return has_element(p, name, MTB_TYPE_INT32_UNSIGNED);
}

// ------------------------------------------------------------------------------ nested structures

namespace {

/// Nests the value packet's fields with `add`; from then on it only borrows them.
int32_t nest(clpacket *p, int32_t name, clpacket *val,
             int32_t (*add)(int32_t name, mtb_struct *child, mtb_struct *structr))
{
    if (!is_writable(p)) {
        return -1;
    }
    p->error_state = check_complex_val(p, val);
    if (p->error_state != MTB_OK) {
        return -1;
    }
    const int32_t result = keep_added(p, add(name, val->structr, p->structr));
    if (result == 0) {
        val->structr_borrowed = 1;
    }
    return result;
}

} // namespace

void clpacket_borrow(clpacket *val, mtb_struct *structr)
{
    drop_structure(val);
    drop_buffer(val);
    val->structr = structr;
    val->structr_borrowed = 1;
}

int32_t clpacket_set_complex(clpacket *p, int32_t name, clpacket *val)
{
    return nest(p, name, val, mtb_add_struct);
}

int32_t clpacket_add_array_el_complex(clpacket *p, int32_t name, clpacket *val)
{
    return nest(p, name, val, mtb_add_array_struct);
}

int32_t clpacket_get_complex(clpacket *p, int32_t name, clpacket *val)
{
    // A packet cannot be its own view: refused as a null one is.
    if (!is_readable(p, val != p ? val : nullptr)) {
        return -1;
    }
    mtb_struct *structr = nullptr;
    p->error_state = mtb_get_struct(name, &structr, MTB_TYPE_STRUCT, p->structr);
    if (p->error_state != MTB_OK) {
        return -1;
    }
    clpacket_borrow(val, structr);
    return 0;
}

int32_t clpacket_get_array_el_complex(clpacket *p, int32_t name, clpacket *val, uint32_t index)
{
    const bool usable = p != nullptr && p->error_state == MTB_OK; // else the read says why
    if (usable && (val == nullptr || val == p)) {
        LPRINTF("ERROR: invalid argument: el");
        p->error_state = MTB_BAD_ARG;
        return -1;
    }
    void *structr = nullptr;
    if (clpacket_get_array_el(p, name, &structr, index, MTB_TYPE_STRUCT_ARRAY) != MTB_OK) {
        return -1;
    }
    clpacket_borrow(val, static_cast<mtb_struct *>(structr));
    return 0;
}

// ------------------------------------------------------------------------------------- transport

int32_t clpacket_recv_prepare(clpacket *p, sock *s)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument");
        return -1;
    }
    if (s == nullptr) {
        LPRINTF("ERROR: invalid argument: sock");
        return -1;
    }
    drop_buffer(p);
    return 0;
}

namespace {

/// Takes what a receive gave as the packet's bytes, so that reads see them; false when it is
/// nothing.
bool take_received(clpacket *p, void *buffer, uint32_t size)
{
    if (buffer == nullptr) {
        return false;
    }
    p->buffer = buffer;
    p->buffer_size = size;
    drop_structure(p);
    return true;
}

} // namespace

int32_t clpacket_recvfrom(clpacket *p, sock *s, struct sockaddr *addr, socklen_t *addr_len)
{
    if (clpacket_recv_prepare(p, s) != 0) {
        return -1;
    }
    uint32_t size = 0;
    void *buffer = sock_recvfrom(s, &size, &p->type, addr, addr_len);
    if (!take_received(p, buffer, size)) {
        LPRINTF("ERROR: sock_recvfrom failed.");
        return -1;
    }
    return 0;
}

int32_t clpacket_send_prepare(clpacket *p, sock *s)
{
    if (p == nullptr) {
        LPRINTF("ERROR: invalid argument: clpacket");
        return -1;
    }
    if (p->error_state != MTB_OK) {
        LPRINTF("ERROR: can't send a packet with nonzero error state");
        return -1;
    }
    if (s == nullptr) {
        LPRINTF("ERROR: invalid argument: sock");
        return -1;
    }
    return p->buffer != nullptr ? 0 : clpacket_serialize(p);
}

int32_t clpacket_sendto(clpacket *p, sock *s, const struct sockaddr *addr, uint32_t addr_len)
{
    if (clpacket_send_prepare(p, s) != 0) {
        return -1;
    }
    return sock_sendto(s, p->buffer, p->buffer_size, p->type, addr, addr_len) == -1 ? -1 : 0;
}

namespace {

/// Writes the peer's address and port, or "unknown".
void write_peer_name(sock *s, char *name, size_t size)
{
    if (sock_getpeername_str(s, name, size) != 0) {
        (void)snprintf(name, size, "unknown");
    }
}

} // namespace

int32_t clpacket_recv(clpacket *p, sock *s)
{
    sock_lock_r(s);
    int32_t result = clpacket_recv_prepare(p, s);
    if (result == 0) {
        uint32_t size = 0;
        void *buffer = sock_recv_packet_nolock(s, &size, &p->type);
        result = take_received(p, buffer, size) ? 0 : -1;
        const int32_t error = sock_socket_get_error(s); // asking for the peer's name may change it
        if (result != 0 && error != 0) {                // 0: the peer is gone
            char peer[128];
            char reason[tavlen::error_text_size];
            write_peer_name(s, peer, sizeof peer);
            tavlen::store_relaxed(s->error, error);
            tavlen::write_error_text(error, reason, sizeof reason);
            LPRINTF("ERROR: %s : receive error: %s", peer, reason);
        }
    }
    sock_unlock_r(s);
    return result;
}

int32_t clpacket_send(clpacket *p, sock *s)
{
    if (clpacket_send_prepare(p, s) != 0) {
        return -1;
    }
    return sock_send_packet(s, p->buffer, p->buffer_size, p->type) == -1 ? -1 : 0;
}
