/*
 * A decoded record moves into another block: the record first, its presence map second, then all that they lead to,
 * with every pointer leading to the copy. Internal to the library.
 */
#pragma once

#include "lib/librtsock/idl/idl_table.h"

extern "C" {

/* Octets that the copy takes, a multiple of 8; map may be null. block null: nothing is copied. Otherwise it is aligned
 * for any record and has room for so many octets. *map_copy: the map in the block, or null. */
size_t record_copy(const struct idl_type *type, const void *record, const void *map, void *block, void **map_copy);

}   // extern "C"
