/*
 * Reads compiled filters, from wherever they come: nothing in a block is believed before it has been compared with the
 * octets that are there.
 *
 * Whether the payload makes sense for its code, and where jumps lead, is the reader's business: a walk over the
 * instructions sees only that they stand one behind the other.
 */
#include "lib/librtsock/filter/rts_filter.h"

#include <string.h>

/* Octets that an instruction of length octets stands on. */
static size_t padded(size_t length)
{
    return (length + RTS_FILTER_ALIGN - 1) / RTS_FILTER_ALIGN * RTS_FILTER_ALIGN;
}

int rts_filter_next(const void *block, size_t size, size_t *at, struct rts_filter_instr *instr,
                    const uint8_t **payload)
{
    const auto *octets = static_cast<const uint8_t *>(block);
    struct rts_filter_head head;
    if (size < sizeof head)
        return -1;
    memcpy(&head, octets, sizeof head);
    size_t end = sizeof head + head.length;
    size_t here = *at == 0 ? sizeof head : *at;
    if (end > size || here > end)
        return -1;
    if (here == end)
        return 0;

    struct rts_filter_instr found;
    if (end - here < sizeof found)
        return -1;
    memcpy(&found, octets + here, sizeof found);
    if (found.length < sizeof found || padded(found.length) > end - here)
        return -1;
    *instr = found;
    *payload = octets + here + sizeof found;
    *at = here + padded(found.length);
    return 1;
}
