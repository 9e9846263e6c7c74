#include "message_names.h"

#include <algorithm>
#include <iterator>

#include <TavlenCommon/com_packet.h>

namespace ctl {

namespace {

struct NamedMessage {
    uint32_t type;
    const char *name;
};

constexpr NamedMessage named_messages[] = {
    {CLPACKET_RESULT, "result"},
    {CLPACKET_DB_CHANGED, "db_changed"},
    {CLPACKET_LOG_EVENT, "log_event"},
    {CLPACKET_SECONDARY_SERVER_JOIN, "secondary_server_join"},
    {CLPACKET_SECONDARY_SERVERS_LIST, "secondary_servers_list"},
    {CLPACKET_SECONDARY_SERVER_ITEM, "secondary_server_item"},
    {CLPACKET_SECONDARY_SERVER_ACCEPT, "secondary_server_accept"},
    {CLPACKET_SECONDARY_SERVER_STATE_NUMBER, "secondary_server_state_number"},
    {CLPACKET_LOG_EVENT_SEND_EVENT, "log_event_send_event"},
    {CLPACKET_PARALLEL_SERVER_JOIN, "parallel_server_join"},
    {CLPACKET_PARALLEL_SERVER_ITEM, "parallel_server_item"},
    {CLPACKET_PARALLEL_SERVERS_LIST, "parallel_servers_list"},
    {CLPACKET_SESSION_NEW, "session_new"},
    {CLPACKET_SESSION_DROP, "session_drop"},
    {CLPACKET_NODE_KILL, "node_kill"},
    {CLPACKET_ADMIN_DB_INSERT2, "admin_db_insert2"},
    {CLPACKET_ADMIN_DB_INSERT3, "admin_db_insert3"},
};

/// Messages that are known by their number alone.
constexpr uint32_t numbered_messages[] = {1,  2,  3,  6,  7,  8,  9,  11, 15, 16, 17, 18, 20,
                                          23, 24, 25, 26, 27, 28, 31, 32, 33, 34, 35, 36, 37,
                                          38, 39, 40, 41, 42, 50, 53, 54, 55, 64, 65, 71};

struct FieldLabel {
    uint32_t message_type;
    int depth;
    uint16_t name;
    const char *label;
};

constexpr FieldLabel field_labels[] = {
    {CLPACKET_RESULT, 0, 2, "status"},
    {CLPACKET_RESULT, 0, 3, "error code"},
    {CLPACKET_RESULT, 0, 5, "number of rows"},
    {CLPACKET_DB_CHANGED, 0, 2, "count"},
    {CLPACKET_DB_CHANGED, 0, 7, "detail"},
    {CLPACKET_DB_CHANGED, 1, 5, "identifier"},
    {23, 0, 2, "count"},
    {23, 1, 6, "sub-count"},
    {24, 0, 2, "count"},
    {25, 0, 2, "count"},
    {CLPACKET_LOG_EVENT, 0, LOG_EVENT_FIELD_VERSION, "version"},
    {CLPACKET_LOG_EVENT, 0, LOG_EVENT_FIELD_NAME, "name"},
    {CLPACKET_LOG_EVENT, 0, LOG_EVENT_FIELD_LINE, "line"},
    {33, 0, 2, "count"},
    {34, 0, 2, "count"},
    {CLPACKET_SECONDARY_SERVER_JOIN, 1, 0, "address"},
    {CLPACKET_SECONDARY_SERVER_JOIN, 1, 1, "admin port"},
    {CLPACKET_SECONDARY_SERVER_JOIN, 1, 2, "client port"},
    {CLPACKET_SECONDARY_SERVER_JOIN, 1, 3, "monitor address"},
    {CLPACKET_SECONDARY_SERVER_JOIN, 1, 4, "node monitor port"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 0, 0, "count"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 1, 0, "address"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 1, 1, "admin port"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 1, 2, "client port"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 1, 3, "monitor address"},
    {CLPACKET_SECONDARY_SERVERS_LIST, 1, 4, "node monitor port"},
    {CLPACKET_SECONDARY_SERVER_ITEM, 0, 0, "address"},
    {CLPACKET_SECONDARY_SERVER_ITEM, 0, 1, "admin port"},
    {CLPACKET_SECONDARY_SERVER_ITEM, 0, 2, "client port"},
    {CLPACKET_SECONDARY_SERVER_ITEM, 0, 3, "monitor address"},
    {CLPACKET_SECONDARY_SERVER_ITEM, 0, 4, "node monitor port"},
    {CLPACKET_PARALLEL_SERVER_JOIN, 1, 0, "address"},
    {CLPACKET_PARALLEL_SERVER_JOIN, 1, 1, "port"},
    {CLPACKET_PARALLEL_SERVER_ITEM, 0, 0, "address"},
    {CLPACKET_PARALLEL_SERVER_ITEM, 0, 1, "port"},
    {CLPACKET_PARALLEL_SERVERS_LIST, 0, 0, "count"},
    {CLPACKET_PARALLEL_SERVERS_LIST, 1, 0, "address"},
    {CLPACKET_PARALLEL_SERVERS_LIST, 1, 1, "port"},
    {CLPACKET_ADMIN_DB_INSERT2, 0, 2, "rows"},
    {CLPACKET_ADMIN_DB_INSERT2, 0, 4, "columns"},
    {CLPACKET_ADMIN_DB_INSERT2, 0, 6, "data lengths"},
    {CLPACKET_ADMIN_DB_INSERT3, 0, 2, "rows"},
    {CLPACKET_ADMIN_DB_INSERT3, 0, 4, "columns"},
    {CLPACKET_ADMIN_DB_INSERT3, 0, 6, "data lengths"},
};

/// By type code.
constexpr const char *element_type_names[] = {
    nullptr,
    "root",
    "int8",
    "uint8",
    "int16",
    "uint16",
    "int32",
    "uint32",
    "int64",
    "uint64",
    "float",
    "double",
    "string",
    "enum",
    "structure",
    "structure (15)",
    "blob",
    "array of int16",
    "array of uint16",
    "array of int32",
    "array of uint32",
    "array of int64",
    "array of uint64",
    "array of int8",
    "array of uint8",
    "array of float",
    "array of double",
    "array of strings",
    "array of structures",
};

} // namespace

std::string message_name(uint32_t type)
{
    for (const NamedMessage &message : named_messages) {
        if (message.type == type) {
            return message.name;
        }
    }
    const bool is_known =
        std::binary_search(std::begin(numbered_messages), std::end(numbered_messages), type);
    return is_known ? "type" + std::to_string(type) : "";
}

const char *field_label(uint32_t message_type, int depth, uint16_t name)
{
    for (const FieldLabel &field : field_labels) {
        if (field.message_type == message_type && field.depth == depth && field.name == name) {
            return field.label;
        }
    }
    return "";
}

std::string element_type_name(uint8_t type)
{
    if (type == 0 || type >= std::size(element_type_names)) {
        return "type " + std::to_string(type);
    }
    return element_type_names[type];
}

} // namespace ctl
