/* The collector's settings: a table over one record, filled from command line and file. */
#ifndef TAVLEN_LOGGER_CONFIG_H
#define TAVLEN_LOGGER_CONFIG_H

#include <stdint.h>

#include <TavlenCommon/config_store.h>

extern "C" {

/// The six settings, each bound to the key of its name. A text is null when memory ran out.
typedef struct logger_settings {
    char *ListenAddr;       ///< local address that records are received on
    char *ListenPort;       ///< service name or number
    char *LogFileName;      ///< of the file destination
    int32_t DefaultLogDest; ///< destination mask, LOG_DEST_* summed
    char *RemoteLoggerAddr; ///< host of a further collector
    char *RemoteLoggerPort;
} logger_settings;

/// The settings table; null until config_init has built it whole, and set once.
extern cfg_entry *config_e;

/// Builds the table and gives every setting its default. -1 when it is there already or cannot be.
int32_t config_init(void);

/// The one record, which lives as long as the process.
logger_settings *config_get_settings(void);

/**
 * Applies a command line option: "--" and a key (case ignored), or "-" and a short option.
 * 0 when stored, or when an earlier option has set it; -1 when no setting answers to it.
 */
int32_t config_set_cmd_arg(const char *option, const char *value);

/// Applies a configuration file; one that cannot be opened is warned about. Null: nothing happens.
void config_set(const char *path);

} // extern "C"

#endif
