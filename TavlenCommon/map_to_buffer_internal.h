/*
 * Internal: adding a field to a structure that cannot hold one of that name and type yet, which
 * saves the walk that looks for it. Each is the public function of its name with one argument more,
 * and reports as that.
 */
#ifndef TAVLEN_COMMON_MAP_TO_BUFFER_INTERNAL_H
#define TAVLEN_COMMON_MAP_TO_BUFFER_INTERNAL_H

#include <TavlenCommon/map_to_buffer.h>
#include <TavlenCommon/scalar_types.h>

namespace tavlen {

/// Whether an element of the same name and type may be there already.
enum class Lookup : bool { needless, needed };

} // namespace tavlen

#define DECLARE_ADDER(suffix, ctype, code, member)                                                 \
    int32_t mtb_add_##suffix(int32_t name, ctype value, mtb_struct *structr, tavlen::Lookup lookup);
TAVLEN_SCALAR_TYPES(DECLARE_ADDER)
#undef DECLARE_ADDER

int32_t mtb_add_string(int32_t name, const char *val, int32_t len, mtb_struct *structr,
                       tavlen::Lookup lookup);
int32_t mtb_add_blob(int32_t name, const void *val, int32_t len, mtb_struct *structr,
                     tavlen::Lookup lookup);

#endif
