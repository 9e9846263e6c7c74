/*
 * Configuration store: a table that binds setting names to the owner's variables.
 *
 * Conventions
 *  1. The owner builds the table (cfg_builder_init, then cfg_add_*), checks the builder's `error`
 *     and from then on sets values as text. It reads its variables directly: there are no getters.
 *  2. Every value has the priority of its source; a lower number is a stronger source. A value is
 *     stored only by a source that is stronger than the one that set the present value, so the
 *     order in which sources are applied does not matter, and of equals the first counts.
 *  3. Keys and option names are not copied: they live as long as the table. Texts in bound
 *     variables are heap copies that the store owns; null after a failed copy means "no value".
 *  4. Nothing is reported: every failure is a return value. Results are 0, or -1.
 *  5. No locks: one thread at a time.
 */
#ifndef TAVLEN_COMMON_CONFIG_STORE_H
#define TAVLEN_COMMON_CONFIG_STORE_H

#include <stdint.h>

#include <TavlenCommon/tavlen_api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Kinds of bound variables: int32_t, and char * (a heap text). */
enum { CFG_INT = 0, CFG_STRING = 1 };

/** One setting. A table is an array of them; an entry with a null `key` ends it. */
typedef struct cfg_entry {
    uint32_t type;      /**< CFG_INT or CFG_STRING */
    const char *key;    /**< name in the configuration file, matched without regard to case */
    void *target;       /**< the bound variable, the owner's */
    int32_t priority;   /**< of the source that set the present value */
    uint32_t id;        /**< for lookup by number */
    const char *option; /**< command line option without its dash; null when there is none */
} cfg_entry;

/** A table that is being built. */
typedef struct cfg_builder {
    cfg_entry *entries; /**< always closed by an entry with a null key */
    int32_t count;      /**< entries without the closing one */
    int32_t error;      /**< 1 when the table could not grow; later adds are ignored */
} cfg_builder;

/** Starts an empty table. -1 when `b` is null or memory ran out. */
TAVLEN_API int32_t cfg_builder_init(cfg_builder *b);

/**
 * Adds a text setting and stores a copy of `def` (null: stores null) in `*target`, whose earlier
 * content is not freed. Does nothing when `b` or `key` is null or an earlier add failed.
 */
TAVLEN_API void cfg_add_string(cfg_builder *b, const char *key, const char *def, int32_t priority,
                               char **target, uint32_t id, const char *option);

/** Adds a number setting and stores `def` in `*target`. Otherwise as cfg_add_string. */
TAVLEN_API void cfg_add_int(cfg_builder *b, const char *key, int32_t def, int32_t priority,
                            int32_t *target, uint32_t id, const char *option);

/**
 * Stores a value in the variable bound to `e`, unless its present source is as strong or stronger.
 * Numbers are read in base 10 as far as they go (no digits: 0) and cut to 32 bits.
 * 0 also when refused for its priority; -1 when `e` or `text` is null.
 */
TAVLEN_API int32_t cfg_entry_set(cfg_entry *e, const char *text, int32_t priority);

/** cfg_entry_set on the first entry of that key, case ignored. -1 when there is none. */
TAVLEN_API int32_t cfg_set_by_name(cfg_entry *table, const char *key, const char *text,
                                   int32_t priority);

/** cfg_entry_set on the first entry of exactly that option name. -1 when there is none. */
TAVLEN_API int32_t cfg_set_by_option(cfg_entry *table, const char *option, const char *text,
                                     int32_t priority);

/** cfg_entry_set on the first entry of that id. -1 when there is none. */
TAVLEN_API int32_t cfg_set_by_id(cfg_entry *table, uint32_t id, const char *text, int32_t priority);

/** Priority of the values that a configuration file sets. */
enum { CFG_PRIORITY_FILE = 1 };

/**
 * Reads a configuration file into the table with CFG_PRIORITY_FILE: lines "key = value", '#' starts
 * a comment anywhere, blanks around key and value do not count, there is no quoting. A line above
 * 2047 bytes is read in pieces, each as a line of its own. Lines without '=' and unknown keys are
 * passed over. -1 when the file cannot be opened.
 */
TAVLEN_API int32_t cfg_parse_file(const char *path, cfg_entry *table);

#ifdef __cplusplus
}
#endif

#endif
