/*
 * Growing arrays of plain records, for what the host's kernel tells in bulk. Internal to the Linux kernel.
 */
#pragma once

#include <stddef.h>

extern "C" {

/* Zeroed but for the size of an item, it is empty. */
struct lx_list {
    size_t item_size;
    void *items;
    size_t count, room;
};

/* Copies item to the end. False without memory; the list is then as before. */
[[nodiscard]] bool lx_list_add(struct lx_list *list, const void *item);
/* Forgets the items and gives back their memory. */
void lx_list_clear(struct lx_list *list);

}   // extern "C"

/* The items as what they are. */
template <typename T> T *lx_items(const struct lx_list *list)
{
    return static_cast<T *>(list->items);
}
