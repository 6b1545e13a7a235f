/*
 * Growing arrays. They double, so that a table of a hundred thousand routes is copied a constant number of times on its
 * way in, and are never shrunk but given back whole.
 */
#include "platform/rtsock/linux/lx_list.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

bool lx_list_add(struct lx_list *list, const void *item)
{
    enum { FIRST_ROOM = 16 };
    if (list->count == list->room) {
        size_t room = list->room == 0 ? size_t(FIRST_ROOM) : 2 * list->room;
        if (room > SIZE_MAX / list->item_size)
            return false;
        void *items = realloc(list->items, room * list->item_size);
        if (items == nullptr)
            return false;
        list->items = items;
        list->room = room;
    }
    memcpy(static_cast<uint8_t *>(list->items) + list->count * list->item_size, item, list->item_size);
    list->count++;
    return true;
}

void lx_list_clear(struct lx_list *list)
{
    free(list->items);
    list->items = nullptr;
    list->count = list->room = 0;
}
