/*
 * Filters on the kernel's side: whether a message holds under a compiled filter.
 *
 * Names are those of the message's fields (docs/messages.md); docs/filters.md tells what operations mean. A program is
 * not trusted: it is bounded by its block, its stack by RK_FILTER_DEPTH, and evaluation only goes forward.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

enum { RK_FILTER_DEPTH = 64 };   // values at once

/* 1 if the record, of message type type, holds, 0 if not, -1 if the program is damaged. An empty one holds always. */
int rk_filter_holds(const void *block, size_t size, uint8_t type, const void *record);
/* False if the program is damaged as far as can be told without a message: its jumps are not followed. */
bool rk_filter_is_sound(const void *block, size_t size);

}   // extern "C"
