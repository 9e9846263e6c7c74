/*
 * Message catalogue: builders and extractors of the messages that the processes of the group
 * exchange. docs/protocol.md shows every message on the wire.
 *
 * Conventions
 *  1. A builder gives a new packet of its type (buffer_packet.h), ready to be sent, which the
 *     caller destroys; or null. It copies what it is given. Fields travel in the order in which its
 *     comment names them: "2 int32" is a signed 32-bit number in the element named 2. Arguments are
 *     named by the element that they travel in.
 *  2. An extractor checks the type and reads the fields, from a received packet as well as from one
 *     just built. Outputs come in one order: single values, the count, then the arrays it counts.
 *     What it allocates, the caller frees. A failure frees everything and sets counts and arrays as
 *     the extractor's comment says; single values are then as they were, or what was read.
 *  3. The generic extractors (clpacket_extract_type<N>, clpacket_extract_result) report nothing of
 *     their own and answer with a CLPACKET_EXTRACT_* code. The others report what is wrong, and
 *     give null or -1.
 *  4. Counts, lengths and types come from the network: they are believed only as far as the packet
 *     bears them out. Time and memory are proportional to the packet's size.
 *  5. No state: any thread may call, one at a time for one packet.
 */
#ifndef TAVLEN_COMMON_COM_PACKET_H
#define TAVLEN_COMMON_COM_PACKET_H

#include <stdint.h>

#include <TavlenCommon/buffer_packet.h>
#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Type codes of the messages that have a name. */
enum {
    CLPACKET_RESULT = 5,
    CLPACKET_DB_CHANGED = 21,
    CLPACKET_LOG_EVENT = 29,
    CLPACKET_SECONDARY_SERVER_JOIN = 43,
    CLPACKET_SECONDARY_SERVERS_LIST = 44,
    CLPACKET_SECONDARY_SERVER_ITEM = 45,
    CLPACKET_SECONDARY_SERVER_ACCEPT = 46,
    CLPACKET_SECONDARY_SERVER_STATE_NUMBER = 47,
    CLPACKET_LOG_EVENT_SEND_EVENT = 48,
    CLPACKET_PARALLEL_SERVER_JOIN = 49,
    CLPACKET_PARALLEL_SERVER_ITEM = 51,
    CLPACKET_PARALLEL_SERVERS_LIST = 52,
    CLPACKET_SESSION_NEW = 56,
    CLPACKET_SESSION_DROP = 57,
    CLPACKET_NODE_KILL = 58,
    CLPACKET_ADMIN_DB_INSERT2 = 59,
    CLPACKET_ADMIN_DB_INSERT3 = 60
};

/** What the generic extractors answer. */
enum {
    CLPACKET_EXTRACT_OK = 0,
    CLPACKET_EXTRACT_NOMEM = 1,
    CLPACKET_EXTRACT_BAD_ARG = 2,
    CLPACKET_EXTRACT_BAD_DATA = 3, /**< it does not decode, or a field is missing */
    CLPACKET_EXTRACT_WRONG = 4     /**< another type, or another version */
};

/** Fields of a log event, and the one version of it. */
enum {
    LOG_EVENT_FIELD_VERSION = 1, /**< int32 */
    LOG_EVENT_FIELD_NAME = 2,    /**< string: the sender's logger name */
    LOG_EVENT_FIELD_LINE = 3,    /**< string: the sender's line without its line feed */
    LOG_EVENT_VERSION = 1
};

/** A parallel server; `status` does not travel. Texts are terminated. */
typedef struct parallel_server_entry {
    char *address, *port;
    int32_t status; /**< 0 from an extractor */
} parallel_server_entry;

/** A secondary server; `status` does not travel. Texts are terminated. */
typedef struct secondary_server_entry {
    char *address, *admin_port, *client_port, *monitor_address, *node_monitor_port;
    int32_t status; /**< 0 from an extractor */
} secondary_server_entry;

/** Parallel servers; an extractor puts a null pointer behind the last. */
typedef struct parallel_server_list {
    int32_t count;
    parallel_server_entry **servers;
} parallel_server_list;

typedef struct secondary_server_list {
    int32_t count;
    secondary_server_entry **servers;
} secondary_server_list;

/** A row of a query result. */
typedef struct result_item {
    int32_t value;
    uint32_t text_len, data_len;
    char *text; /**< terminated when it comes from an extractor */
    void *data; /**< null when there is none */
} result_item;

typedef struct value_pair {
    int32_t first, second;
} value_pair;

/** An entry of types 23 and 24, members named by their elements. */
typedef struct entry_record {
    int32_t value4, value5;
    int32_t sub_count; /**< of `pairs` */
    int32_t value7;
    value_pair *pairs;
} entry_record;

typedef struct entry_list {
    int32_t count;
    entry_record *entries;
} entry_list;

/** An entry as type 24 carries it. */
typedef struct entry24_record {
    int32_t value4, value5, value6;
} entry24_record;

typedef struct db_change_id {
    uint32_t len;
    char *text; /**< terminated */
} db_change_id;

/** A notice of changed databases. */
typedef struct db_change_notice {
    int32_t version, count;
    db_change_id *ids;
    uint32_t detail_len;
    char *detail; /**< terminated; null when there is none */
} db_change_notice;

/* ------------------------------------------------------------------------------- log events */

/**
 * A log event: what a process sends to its collector for one line of `line_len` bytes. `name` is a
 * terminated text; a null one gives null. Reports nothing of its own, but the setters do.
 */
TAVLEN_API clpacket *clpacket_log_event(const char *name, const char *line, int32_t line_len);

/**
 * The message of type 48, which the collector does not take: 1 blob of `len` bytes (at least 1),
 * 0 int32. Bad arguments and lack of memory are reported.
 */
TAVLEN_API clpacket *clpacket_log_event_send_event(const void *buff, uint32_t len, uint32_t value);

/* ---------------------------------------------------------------------------- plain messages */

/** 1 int32 = 1, 2 enum, 3 blob, 4 string, 5 blob, 6 int32. */
TAVLEN_API clpacket *clpacket_create_type1(uint32_t enum2, const void *data3, uint32_t len3,
                                           const char *text4, int32_t len4, const void *data5,
                                           uint32_t len5, int32_t value6);

/* 1 int32 = 1, 2 int32. */
TAVLEN_API clpacket *clpacket_create_type2(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type27(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type39(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type40(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type41(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type42(int32_t value2);
TAVLEN_API clpacket *clpacket_create_type64(int32_t value2);

/* Their extractors: the number in element 2. */
TAVLEN_API int32_t clpacket_extract_type2(clpacket *p, int32_t *value2);
TAVLEN_API int32_t clpacket_extract_type39(clpacket *p, int32_t *value2);
TAVLEN_API int32_t clpacket_extract_type40(clpacket *p, int32_t *value2);

/** 1 int32 = 1, 2 int32, 3 int32, 4 int32. */
TAVLEN_API clpacket *clpacket_create_type3(int32_t value2, int32_t value3, int32_t value4);

/** 1 int32 = 0, 2 int32. */
TAVLEN_API clpacket *clpacket_create_type6(int32_t value2);

/** 0 int32, 1 int32, 2 uint32, 3 uint32. */
TAVLEN_API clpacket *clpacket_create_type7(int32_t value0, int32_t value1, uint32_t value2,
                                           uint32_t value3);

/** 0 int32 (-200 is sent as -1), 1 uint32. */
TAVLEN_API clpacket *clpacket_create_type8(int32_t value0, uint32_t value1);

/** 1 int32 = 1, 2 int32, 3 enum, 4 blob, 5 string, 6 blob, 7 int32. */
TAVLEN_API clpacket *clpacket_create_type9(int32_t value2, uint32_t enum3, const void *data4,
                                           uint32_t len4, const char *text5, int32_t len5,
                                           const void *data6, uint32_t len6, int32_t value7);

/** 1 int32 = 1, 2 string. */
TAVLEN_API clpacket *clpacket_create_type11(const char *text2, int32_t len2);

/* 1 int32 = 1, 2 int32, 3 int32. */
TAVLEN_API clpacket *clpacket_create_type15(int32_t value2, int32_t value3);
TAVLEN_API clpacket *clpacket_create_type28(int32_t value2, int32_t value3);

/** Both numbers are -1 after a failure. */
TAVLEN_API int32_t clpacket_extract_type28(clpacket *p, int32_t *value2, int32_t *value3);

/* 1 int32 = 0. */
TAVLEN_API clpacket *clpacket_create_type16(void);
TAVLEN_API clpacket *clpacket_create_type20(void);
TAVLEN_API clpacket *clpacket_create_type18_empty(void);
TAVLEN_API clpacket *clpacket_create_type23_empty(void);
TAVLEN_API clpacket *clpacket_create_type24_empty(void);
TAVLEN_API clpacket *clpacket_create_type25_empty(void);
TAVLEN_API clpacket *clpacket_create_type26_empty(void);

/* 1 int32 = 1. */
TAVLEN_API clpacket *clpacket_create_type31(void);
TAVLEN_API clpacket *clpacket_create_type32(void);
TAVLEN_API clpacket *clpacket_create_type35(void);
TAVLEN_API clpacket *clpacket_create_type36_empty(void);
TAVLEN_API clpacket *clpacket_create_type71(void);

/* 1 int32. */
TAVLEN_API clpacket *clpacket_create_type17(int32_t value1);
TAVLEN_API clpacket *clpacket_create_type18(int32_t value1);

/** 1 int32 = 1, 2 int32, 3 int32, 4 int32. */
TAVLEN_API clpacket *clpacket_create_type36(int32_t value2, int32_t value3, int32_t value4);

/** The last two outputs may be null; one that is asked for and missing is -1, which is no failure.
 */
TAVLEN_API int32_t clpacket_extract_type36(clpacket *p, int32_t *value2, int32_t *value3,
                                           int32_t *value4);

/** 0 int32 = 1. */
TAVLEN_API clpacket *clpacket_create_type50(void);

/* 0 int32. */
TAVLEN_API clpacket *clpacket_create_type53(int32_t value0);
TAVLEN_API clpacket *clpacket_create_type54(int32_t value0);

/** 1 int32 = 1, 2 int64. */
TAVLEN_API clpacket *clpacket_create_type65(int64_t value2);

/** 8 int32, 9 string, 10 blob; a packet without a type, to be nested. */
TAVLEN_API clpacket *clpacket_create_item(int32_t value8, const char *text9, int32_t len9,
                                          const void *data10, uint32_t len10);

/* ----------------------------------------------------------------------------- lists and arrays */

/**
 * 1 int32 = 1, 2 count, 3 array of structures: 4 int32, 5 int32, 6 sub-count, 7 int32, 8 array of
 * structures: 9 int32, 10 int32. A null list gives null.
 */
TAVLEN_API clpacket *clpacket_create_type23(const entry_list *list);

/** The caller frees each `pairs`, then `entries`. -1 and null after a failure. */
TAVLEN_API int32_t clpacket_extract_type23(clpacket *p, int32_t *count, entry_record **entries);

/** 1 int32 = 1, 2 count, 3 array of structures: 4 int32, 5 int32, 6 int32 (the sub-count). */
TAVLEN_API clpacket *clpacket_create_type24(const entry_list *list);

/** The caller frees `entries`. -1 and null after a failure. */
TAVLEN_API int32_t clpacket_extract_type24(clpacket *p, int32_t *count, entry24_record **entries);

/** 1 int32 = 1, 2 count, 3 array of structures: 4 int32, 5 int32. */
TAVLEN_API clpacket *clpacket_create_type25(const value_pair *pairs, int32_t count);

/** The caller frees `pairs`. -1 and null after a failure. */
TAVLEN_API int32_t clpacket_extract_type25(clpacket *p, int32_t *count, value_pair **pairs);

/** 1 int32 = 1, 2 array of int32. */
TAVLEN_API clpacket *clpacket_create_type26(const int32_t *values, uint32_t count);

/** The caller frees `values`. 0 and null after a failure. */
TAVLEN_API int32_t clpacket_extract_type26(clpacket *p, uint32_t *count, int32_t **values);

/** 1 int32 = 1, 2 count (uint32), 3 structure of blobs named 0, 1, ...; 4 another such structure.
 */
TAVLEN_API clpacket *clpacket_create_type33(int32_t count, const void *const *data3,
                                            const uint32_t *lens3, const void *const *data4,
                                            const uint32_t *lens4);

/** 1 int32 = 1, 2 count (uint32), 3 structure of blobs named 0, 1, ... */
TAVLEN_API clpacket *clpacket_create_type34(int32_t count, const void *const *data3,
                                            const uint32_t *lens3);

/*
 * 1 int32 = 1, 2 int32, 3 array of int32, 4 structure of as many blobs named 0, 1, ...; a null data
 * pointer travels as an empty blob.
 */
TAVLEN_API clpacket *clpacket_create_type37(int32_t value2, uint32_t count, const int32_t *values3,
                                            const void *const *data4, const uint32_t *lens4);
TAVLEN_API clpacket *clpacket_create_type38(int32_t value2, uint32_t count, const int32_t *values3,
                                            const void *const *data4, const uint32_t *lens4);

/* The caller frees each data[i] (terminated), data, lens, values. 0 and null after a failure. */
TAVLEN_API int32_t clpacket_extract_type37(clpacket *p, int32_t *value2, uint32_t *count,
                                           int32_t **values, void ***data, uint32_t **lens);
TAVLEN_API int32_t clpacket_extract_type38(clpacket *p, int32_t *value2, uint32_t *count,
                                           int32_t **values, void ***data, uint32_t **lens);

/** 1 array of int32. */
TAVLEN_API clpacket *clpacket_create_type55(const int32_t *values, uint32_t count);

/* ------------------------------------------------------------------------------- query results */

/**
 * 1 int32 = 1, 2 status, 3 error code; with an error code 4 error text, 5 int32 = 0; without rows,
 * or with a status other than 100, 5 int32 = 0; else 6 array of structures: 7 int32, 8 string,
 * 9 blob; and 5 count. The rows from `first` to `last` are sent, counted from 1, or all when both
 * are -1; a bad range is reported and sent as error -1.
 */
TAVLEN_API clpacket *clpacket_create_result(int32_t status, int32_t row_count,
                                            const result_item *rows, int32_t first, int32_t last,
                                            int32_t error_code, const char *error_text,
                                            int32_t error_text_len);

/**
 * With an error code: its text, terminated, which the caller frees. Else the rows: the caller frees
 * each item's text and data, then `items`. All outputs are 0 and null unless they were read.
 */
TAVLEN_API int32_t clpacket_extract_result(clpacket *p, int32_t *status, int32_t *error_code,
                                           int32_t *row_count, char **error_text,
                                           uint32_t *error_text_len, result_item **items);

/* ---------------------------------------------------------------------- database change notices */

/** 1 int32 = 1, 2 count, 3 array of structures: 5 string. An empty identifier is warned about. */
TAVLEN_API clpacket *clpacket_create_db_changed(int32_t count, const char *const *ids,
                                                const uint32_t *id_lens);

/**
 * Reads a notice from a packet of any type; 7 string is its detail, if any. The caller frees each
 * ids[i].text, then ids, detail and the notice.
 */
TAVLEN_API db_change_notice *clpacket_check_db_changed(clpacket *p);

/* -------------------------------------------------------------------------------------- servers */

/** 0 address, 1 port: strings. */
TAVLEN_API clpacket *clpacket_parallel_server_item(const char *address, const char *port);

/** 0 structure: a parallel server item. */
TAVLEN_API clpacket *clpacket_parallel_server_join(const char *address, const char *port);

/** 0 count (at least 1), 1 array of structures: parallel server items. */
TAVLEN_API clpacket *clpacket_parallel_servers_list(const parallel_server_list *list);

/* The caller frees the texts, then the entry. The item's type is not checked. */
TAVLEN_API parallel_server_entry *clpacket_extract_parallel_server_item(clpacket *p);
TAVLEN_API parallel_server_entry *clpacket_extract_parallel_server_join(clpacket *p);

/** The caller frees the entries, then `servers` and the list. */
TAVLEN_API parallel_server_list *clpacket_extract_parallel_servers_list(clpacket *p);

/** 0 address, 1 admin port, 2 client port, 3 monitor address, 4 node monitor port: strings. */
TAVLEN_API clpacket *clpacket_secondary_server_item(const char *address, const char *admin_port,
                                                    const char *client_port,
                                                    const char *monitor_address,
                                                    const char *node_monitor_port);

/** 0 structure: a secondary server item. */
TAVLEN_API clpacket *clpacket_secondary_server_join(const char *address, const char *admin_port,
                                                    const char *client_port,
                                                    const char *monitor_address,
                                                    const char *node_monitor_port);

/** 0 count (at least 1), 1 array of structures: secondary server items. */
TAVLEN_API clpacket *clpacket_secondary_servers_list(const secondary_server_list *list);

/* The caller frees the texts, then the entry. The item's type is not checked. */
TAVLEN_API secondary_server_entry *clpacket_extract_secondary_server_item(clpacket *p);
TAVLEN_API secondary_server_entry *clpacket_extract_secondary_server_join(clpacket *p);

/** The caller frees the entries, then `servers` and the list. */
TAVLEN_API secondary_server_list *clpacket_extract_secondary_servers_list(clpacket *p);

/** 0 int32 = 1. */
TAVLEN_API clpacket *clpacket_secondary_server_accept(void);

/** 0 int32. */
TAVLEN_API clpacket *clpacket_secondary_server_state_number(int32_t state_number);

/* ------------------------------------------------------------------------ sessions and nodes */

/** 0 blob. */
TAVLEN_API clpacket *clpacket_session_new(const void *session_buf, uint32_t len);

/**
 * The session's bytes, which stay the packet's, and their number; the type is not checked. Null
 * also for a session of no bytes: the packet's error state tells.
 */
TAVLEN_API void *clpacket_extract_session_new(clpacket *p, uint32_t *len);

/** 0 int32 = 1. */
TAVLEN_API clpacket *clpacket_session_drop(void);

/** 1 int32 = 1. */
TAVLEN_API clpacket *clpacket_node_kill(void);

/* ----------------------------------------------------------------------- administrative inserts */

/**
 * A table of rows × cols cells: 1 int32 = 1, 2 rows (uint32), 3 int32, 4 cols (uint32), 5 structure
 * of values (int32), 6 of data lengths (uint32), 7 of data (blob). A cell's element is named by its
 * running index, row by row. Each array is given by rows; null rows give null.
 */
TAVLEN_API clpacket *clpacket_admin_db_insert2(uint32_t rows, int32_t value3, uint32_t cols,
                                               const int32_t *const *values,
                                               const uint64_t *const *data_lens,
                                               const void *const *const *data);

/** clpacket_admin_db_insert2 with texts as well: 8 structure of strings. */
TAVLEN_API clpacket *clpacket_admin_db_insert3(uint32_t rows, int32_t value3, uint32_t cols,
                                               const int32_t *const *values,
                                               const uint64_t *const *data_lens,
                                               const void *const *const *data,
                                               const uint64_t *const *text_lens,
                                               const char *const *const *texts);

/**
 * 0, or -1 with the outputs left alone. Each array has rows × cols cells, row by row, and is the
 * caller's to free; what the data pointers point to stays the packet's.
 */
TAVLEN_API int32_t clpacket_extract_admin_db_insert2(clpacket *p, uint32_t *rows, int32_t *value3,
                                                     uint32_t *cols, int32_t **values,
                                                     uint32_t **data_lens, void ***data);

/** clpacket_extract_admin_db_insert2 with texts as well. */
TAVLEN_API int32_t clpacket_extract_admin_db_insert3(clpacket *p, uint32_t *rows, int32_t *value3,
                                                     uint32_t *cols, int32_t **values,
                                                     uint32_t **data_lens, void ***data,
                                                     uint32_t **text_lens, char ***texts);

#ifdef __cplusplus
}
#endif

#endif
