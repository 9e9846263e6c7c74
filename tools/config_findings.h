/* What is probably not meant in a collector's settings. Nothing here changes what they are. */
#ifndef TAVLEN_TOOLS_CONFIG_FINDINGS_H
#define TAVLEN_TOOLS_CONFIG_FINDINGS_H

#include <string>
#include <vector>

#include <TavlenCommon/config_store.h>

#include "config_lines.h"

namespace ctl {

/// Where a setting's value comes from.
struct Origin {
    bool is_default = true;
    std::string place = "default"; ///< FILE:LINE, or the option
};

/// A setting as the collector has it.
struct Effective {
    const cfg_entry *entry;
    std::string value;
    Origin origin;
};

struct Finding {
    std::string place;
    std::string text;
};

/// Of a value by itself.
void check_value(const cfg_entry &entry, const std::string &value, const std::string &place,
                 std::vector<Finding> &findings);

/// Of every line of the file, under "FILE:LINE".
void check_lines(const std::vector<ConfigLine> &lines, const std::string &file,
                 const cfg_entry *table, std::vector<Finding> &findings);

/// Of the settings together; asks resolver, file system and interfaces. In the table's order.
void check_together(const std::vector<Effective> &settings, std::vector<Finding> &findings);

/// The entry of that key; null when there is none.
const cfg_entry *find_entry(const cfg_entry *table, const std::string &key);

/// Whether the collector writes to that destination; with a mask that it refuses, to standard
/// output alone.
bool writes_to(int32_t mask, int32_t destination);

} // namespace ctl

#endif
