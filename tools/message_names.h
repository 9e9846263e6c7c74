/* The names of messages, their fields and element types, as docs/protocol.md has them. */
#ifndef TAVLEN_TOOLS_MESSAGE_NAMES_H
#define TAVLEN_TOOLS_MESSAGE_NAMES_H

#include <cstdint>
#include <string>

namespace ctl {

/// By its builder in the catalogue, "log_event" for 29; empty for a type that has none.
std::string message_name(uint32_t type);

/// What a field means: that of a message's root when `depth` is 0, of the structures in it when it
/// is 1, and so on. Empty where the catalogue has a number alone.
const char *field_label(uint32_t message_type, int depth, uint16_t name);

/// "int32", "array of strings"; "type 99" for one that there is not.
std::string element_type_name(uint8_t type);

} // namespace ctl

#endif
