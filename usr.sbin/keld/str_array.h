/*
 * String arrays: growable lists of owned strings, for the interface name lists.
 *
 * A list may stay null until its first entry: every function but str_array_init takes a null array.
 */
#pragma once

#include <stdint.h>

extern "C" {

struct str_array {
    uint32_t sa_capacity;   // slots in sa_items
    int32_t sa_count;       // slots in use
    char *sa_items[];       // owned strings; a slot is null if its copy failed
};

enum { STR_ARRAY_CAPACITY = 256 };   // slots of an array that str_array_add makes

/* An empty array with room for capacity strings, the caller's; null if memory is out. */
[[nodiscard]] struct str_array *str_array_init(uint32_t capacity);
/* Copies string to the end; duplicates are kept. Makes the array if array is null, and doubles a full one. The array to
 * use from now on, which may have moved; null if memory is out: array is then as before and still the caller's. A copy
 * that fails for memory takes a slot all the same, with null in it. */
[[nodiscard]] struct str_array *str_array_add(struct str_array *array, const char *string);
/* Index of the first entry equal to string, or -1. Slots that are null are skipped. */
int32_t str_array_find(const struct str_array *array, const char *string);
/* Frees all strings. The array stays, empty, and is filled again without allocation of its slots. */
void str_array_clean(struct str_array *array);
/* str_array_clean, then frees the array. */
void str_array_free(struct str_array *array);

}   // extern "C"
