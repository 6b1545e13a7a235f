/*
 * String arrays.
 *
 * Header and slots are one block, so that a list is one pointer and a null pointer is a list too. The price is that
 * growing may move it: whoever adds goes on with the pointer that str_array_add returned.
 */
#include "usr.sbin/keld/str_array.h"

#include <stdlib.h>
#include <string.h>

static size_t block_size(uint32_t capacity)
{
    return sizeof(struct str_array) + capacity * sizeof(char *);
}

struct str_array *str_array_init(uint32_t capacity)
{
    struct str_array *array = static_cast<struct str_array *>(calloc(1, block_size(capacity)));
    if (array) array->sa_capacity = capacity;
    return array;
}

/* The array with twice the slots; null if memory is out, the array is then as before. */
static struct str_array *doubled(struct str_array *array)
{
    // 2^31 slots cannot be doubled in 32 bits, and no signed count reaches beyond them. An array made with no room
    // grows to one slot.
    if (array->sa_capacity > UINT32_MAX / 2) return nullptr;
    uint32_t capacity = array->sa_capacity > 0 ? 2 * array->sa_capacity : 1;
    array = static_cast<struct str_array *>(realloc(array, block_size(capacity)));
    if (array) array->sa_capacity = capacity;
    return array;
}

struct str_array *str_array_add(struct str_array *array, const char *string)
{
    if (!array) array = str_array_init(STR_ARRAY_CAPACITY);
    if (array && static_cast<uint32_t>(array->sa_count) >= array->sa_capacity) array = doubled(array);
    if (!array) return nullptr;
    // Kept on purpose: a copy that failed still takes a slot. The name is missing from the list, the count is not.
    array->sa_items[array->sa_count++] = strdup(string);
    return array;
}

int32_t str_array_find(const struct str_array *array, const char *string)
{
    if (!array) return -1;
    for (int32_t i = 0; i < array->sa_count; i++)
        if (array->sa_items[i] && strcmp(array->sa_items[i], string) == 0) return i;
    return -1;
}

void str_array_clean(struct str_array *array)
{
    if (!array) return;
    for (int32_t i = 0; i < array->sa_count; i++) {
        free(array->sa_items[i]);
        array->sa_items[i] = nullptr;
    }
    array->sa_count = 0;
}

void str_array_free(struct str_array *array)
{
    str_array_clean(array);
    free(array);
}
