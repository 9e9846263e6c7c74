/* Internal: the chain that a structure keeps its elements in. Nothing here allocates or reports. */
#ifndef TAVLEN_COMMON_MTB_CHAIN_H
#define TAVLEN_COMMON_MTB_CHAIN_H

#include <TavlenCommon/map_to_buffer.h>

extern "C" {

void chain_init(mtb_chain *c);

void chain_append(mtb_chain *c, mtb_element *e);
void chain_prepend(mtb_chain *c, mtb_element *e);

/// Takes the record out, wherever it stands. A null chain or record does nothing.
void chain_unlink(mtb_chain *c, mtb_element *e);

/// Takes the record at that end out, its links cleared; null when the chain is empty.
mtb_element *chain_pop_first(mtb_chain *c);
mtb_element *chain_pop_last(mtb_chain *c);

mtb_element *chain_first(mtb_chain *c);

/// The record behind `e`; null when the chain or the record is.
mtb_element *chain_next(mtb_chain *c, mtb_element *e);

/// The first record that `match`, called with it and `arg`, says yes to; or null.
mtb_element *chain_find(mtb_chain *c, int (*match)(const mtb_element *, const void *),
                        const void *arg);

} // extern "C"

#endif
