/*
 * Pools: records of one size that are used again, so that a loop in its stride allocates nothing.
 *
 * A chunk is a header and a number of records, and is freed only with its pool. Free records are chained by their
 * link's next; prev is null, which no live record has. The record given back last is given out first, while it is in
 * the cache.
 */
#include "platform/ev/ev_private.h"

#include <stdlib.h>
#include <string.h>

static constexpr size_t CHUNK_RECORDS = 16;

struct alignas(max_align_t) ev_chunk {
    struct ev_chunk *ck_next;
};

static bool pool_grow(struct ev_pool *pool)
{
    auto *chunk = static_cast<struct ev_chunk *>(calloc(1, sizeof(struct ev_chunk) + CHUNK_RECORDS * pool->po_octets));
    if (!chunk) return false;
    chunk->ck_next = pool->po_chunks;
    pool->po_chunks = chunk;
    char *records = reinterpret_cast<char *>(chunk + 1);
    for (size_t i = CHUNK_RECORDS; i-- > 0;) {
        auto *link = reinterpret_cast<struct ev_link *>(records + i * pool->po_octets);
        link->next = pool->po_free;
        pool->po_free = link;
    }
    return true;
}

void *ev_pool_get(struct ev_pool *pool)
{
    if (!pool->po_free && !pool_grow(pool)) return nullptr;
    struct ev_link *link = pool->po_free;
    pool->po_free = link->next;
    memset(static_cast<void *>(link), 0, pool->po_octets);
    ev_link_init(link);
    return link;
}

void ev_pool_put(struct ev_pool *pool, void *record)
{
    auto *link = static_cast<struct ev_link *>(record);
    ev_link_remove(link);
    link->prev = nullptr;
    link->next = pool->po_free;
    pool->po_free = link;
}

void ev_pool_end(struct ev_pool *pool)
{
    while (pool->po_chunks) {
        struct ev_chunk *chunk = pool->po_chunks;
        pool->po_chunks = chunk->ck_next;
        free(chunk);
    }
}

bool ev_record_is_live(const void *record)
{
    return record && static_cast<const struct ev_link *>(record)->prev;
}
