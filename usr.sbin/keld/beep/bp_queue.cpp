/*
 * Pointer queue: a ring of nodes, made ahead.
 *
 * True between calls:
 *   - following next from head, the first count nodes are used and the others are not;
 *   - the ring is closed: capacity steps along next lead back to the start;
 *   - tail is the newest entry's node, or, in an empty queue, the node before head (in a fresh one, the first node
 *     made).
 *
 * A put takes the node behind tail, so a fresh queue's first entry lands in the second node. The ring only grows,
 * between tail and head, and entries never move.
 */
#include "usr.sbin/keld/beep/bp_queue.h"

#include <stdlib.h>

extern "C" {

/* Links a new node behind node, or makes a ring of one if node is null. The new node, or null. */
static struct bp_queue_node *ring_insert(struct bp_queue *queue, struct bp_queue_node *node)
{
    auto *fresh = static_cast<struct bp_queue_node *>(calloc(1, sizeof(struct bp_queue_node)));
    if (!fresh) return nullptr;

    if (!node) {
        fresh->next = fresh->prev = fresh;
    } else {
        fresh->prev = node;
        fresh->next = node->next;
        node->next->prev = fresh;
        node->next = fresh;
    }
    queue->capacity++;
    return fresh;
}

struct bp_queue *bp_queue_new(int32_t size)
{
    if (size < 2) return nullptr;

    auto *queue = static_cast<struct bp_queue *>(calloc(1, sizeof(struct bp_queue)));
    if (!queue) return nullptr;

    for (struct bp_queue_node *last = nullptr; queue->capacity < size;) {
        last = ring_insert(queue, last);
        if (!last) {
            bp_queue_free(queue);
            return nullptr;
        }
        if (!queue->head) queue->head = queue->tail = last;
    }
    return queue;
}

void bp_queue_free(struct bp_queue *queue)
{
    if (!queue) return;

    struct bp_queue_node *node = queue->head;
    for (int32_t left = queue->capacity; left > 0; left--) {
        struct bp_queue_node *next = node->next;
        free(node);
        node = next;
    }
    free(queue);
}

int bp_queue_put(struct bp_queue *queue, uintptr_t value)
{
    struct bp_queue_node *node = queue->tail->next;
    if (node->used) return 1;

    node->value = value;
    node->used = 1;
    queue->tail = node;
    if (queue->count == 0) queue->head = node;
    queue->count++;
    return 0;
}

/* Doubles a full ring. 0, or 1 if the ring is not full or memory ran out; the nodes made before that stay, in a ring
 * that is closed all the same. */
static int queue_grow(struct bp_queue *queue)
{
    if (queue->tail->next != queue->head) return 1;

    struct bp_queue_node *last = queue->tail;
    for (int32_t more = queue->capacity; more > 0; more--) {
        last = ring_insert(queue, last);
        if (!last) return 1;
    }
    return 0;
}

int bp_queue_put_and_grow(struct bp_queue *queue, uintptr_t value)
{
    if (bp_queue_put(queue, value) == 0) return 0;
    if (queue_grow(queue) != 0) return 1;
    return bp_queue_put(queue, value);
}

uintptr_t bp_queue_peek(const struct bp_queue *queue)
{
    return queue && queue->count > 0 ? queue->head->value : 0;
}

uintptr_t bp_queue_get(struct bp_queue *queue)
{
    if (!queue || queue->count == 0) return 0;

    struct bp_queue_node *node = queue->head;
    node->used = 0;
    queue->head = node->next;
    queue->count--;
    return node->value;
}

int bp_queue_find(const struct bp_queue *queue, uintptr_t value)
{
    if (!queue) return 0;

    const struct bp_queue_node *node = queue->head;
    for (int32_t left = queue->count; left > 0; left--, node = node->next)
        if (node->value == value) return 1;
    return 0;
}

int32_t bp_queue_get_till(struct bp_queue *queue, uintptr_t value)
{
    int32_t removed = 0;

    // Kept on purpose: a 0 entry is taken for the end of the queue and removed uncounted, so that with 0 and 1 queued a
    // call for 1 removes only the 0 and gives 0.
    while (uintptr_t entry = bp_queue_get(queue)) {
        removed++;
        if (entry == value) break;
    }
    return removed;
}

int32_t bp_queue_len(const struct bp_queue *queue)
{
    return queue ? queue->count : -1;
}

}   // extern "C"
