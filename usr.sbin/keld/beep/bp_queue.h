/*
 * Pointer queue: first in, first out, of machine words (pointers or small numbers).
 *
 * The words lie on a ring of nodes that are made ahead and reused for ever after: put and get allocate nothing until
 * the ring is full. The queue never looks at what a word means, and owns none. A stored 0 reads like "empty".
 */
#pragma once

#include <stdint.h>

extern "C" {

struct bp_queue_node {
    uintptr_t value;
    struct bp_queue_node *next, *prev;
    uint8_t used;   // 1 while the node holds an entry
};

struct bp_queue {
    int32_t count;                // entries held
    int32_t capacity;             // nodes in the ring
    struct bp_queue_node *head;   // oldest entry
    struct bp_queue_node *tail;   // newest entry; a put goes into the node behind it
};

/* A queue with a ring of size nodes; null if size is below 2 or memory is out. */
[[nodiscard]] struct bp_queue *bp_queue_new(int32_t size);
/* Frees the ring and the record, not what the entries point to. Null allowed. */
void bp_queue_free(struct bp_queue *queue);
/* 0 if stored, 1 if the ring is full; nothing changes then. queue must not be null in either put. */
[[nodiscard]] int bp_queue_put(struct bp_queue *queue, uintptr_t value);
/* The same, but doubles a full ring first. Non-zero if memory is out: the entries are then as before and value still
 * the caller's. */
[[nodiscard]] int bp_queue_put_and_grow(struct bp_queue *queue, uintptr_t value);
/* The oldest entry, left or taken; 0 if there is none or queue is null. */
uintptr_t bp_queue_peek(const struct bp_queue *queue);
uintptr_t bp_queue_get(struct bp_queue *queue);
/* 1 if an entry equals value, else 0, also for null. */
int bp_queue_find(const struct bp_queue *queue, uintptr_t value);
/* Removes entries up to and including the first that equals value, or up to and including the first that is 0, or all.
 * The number removed; a 0 entry at which it stopped is not counted. */
int32_t bp_queue_get_till(struct bp_queue *queue, uintptr_t value);
/* Entries held; -1 for null. */
int32_t bp_queue_len(const struct bp_queue *queue);

}   // extern "C"
