/*
 * Index tables: from a small integer to a word that is not 0, in a fixed, short number of memory reads, with free
 * indexes handed out by the table itself.
 *
 * itable16 holds 16-bit indexes in three levels: 16 blocks, a middle table of 64 entries for each block in use, a leaf
 * of 64 values for each entry in use. itable32 holds 32-bit indexes: an itable16 of itable16s. Memory is taken as
 * ranges come into use and given back a block at a time. 0 means absent everywhere; storing it clears a slot. Values
 * are the caller's, and never looked at.
 *
 * A table belongs to one thread. After a failure it is as it was, but for tables made on the way, which stay and are
 * empty. Indexes are passed by pointer.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

/* Where a table's memory comes from and goes to, the table's own included. opaque is the word given at creation. Null
 * from the first says that there is no memory; what it gives need not be cleared. Neither may use the table. */
typedef void *(*itable_alloc_func)(uintptr_t opaque, size_t size);
typedef void (*itable_free_func)(uintptr_t opaque, void *memory);

enum itable_result {
    ITABLE_DONE = 0,
    ITABLE_BEYOND = 1,     // the index is beyond the limit
    ITABLE_NO_ROOM = 12,   // no memory, or no free index; which of them cannot be told
};

enum {
    ITABLE_BLOCKS = 16,
    ITABLE_ENTRIES = 64,   // of a middle table, and values of a leaf
    ITABLE16_LIMIT = 0x10000,
};

struct itable_leaf {
    uintptr_t il_value[ITABLE_ENTRIES];
};
struct itable_middle {
    struct itable_leaf *im_leaf[ITABLE_ENTRIES];
};

struct itable16 {
    uint32_t it_next;       // one above the highest index ever reached and not since removed; 0 for an empty table
    uint32_t it_maxindex;   // indexes are below this
    itable_alloc_func it_alloc;
    itable_free_func it_free;
    uintptr_t it_opaque;
    uint8_t it_packed;      // alloc takes the lowest free index first
    uint16_t it_count[ITABLE_BLOCKS];            // values in each block
    struct itable_middle *it_block[ITABLE_BLOCKS];
};

struct itable32 {
    uint32_t it_next;       // mark that alloc goes on from; see itable32_insert
    uint32_t it_maxindex;   // highest usable index: inclusive, unlike that of itable16
    itable_alloc_func it_alloc;
    itable_free_func it_free;
    uintptr_t it_opaque;
    uint8_t it_packed;
    struct itable16 *it_top;   // by the high 16 bits of the index: the itable16 of the low 16 bits
};

/* malloc and free; opaque is ignored. */
void *itable_def_alloc(uintptr_t opaque, size_t size);
void itable_def_free(uintptr_t opaque, void *memory);

/* A new table, or null without memory. The default hooks have opaque 0. */
[[nodiscard]] struct itable16 *itable16_create(void);
[[nodiscard]] struct itable16 *itable16_create_ext(itable_alloc_func alloc, itable_free_func release, uintptr_t opaque);
/* Frees the table with all it holds. The number of values that were still there. Null allowed. */
uint32_t itable16_destroy(struct itable16 *table);
/* Stores value at *index over what is there. 0, 1 or 12. A value of 0 clears the slot and never lowers the mark. */
int itable16_insert(struct itable16 *table, uintptr_t value, const uint16_t *index);
/* Stores value at a free index and tells it in *index: at the mark, or once that has reached the limit in the lowest
 * gap. In packed mode gaps come first, but only those where a leaf exists. 0, or 12 and *index is as before. With a
 * value of 0 it tells a free index and takes nothing, but for the mark, which moves if the index was there. */
int itable16_alloc(struct itable16 *table, uintptr_t value, uint16_t *index);
/* Puts value in place of what is there and gives that. Where the index is not below the mark, or has no leaf, it stores
 * nothing and gives 0. A value of 0 clears the slot, but gives no memory back and leaves the mark. */
uintptr_t itable16_replace(struct itable16 *table, const uint16_t *index, uintptr_t value);
/* Clears the slot. With the last value of a block its memory goes back; with the highest value the mark falls to one
 * above the value below. An empty slot changes nothing. */
void itable16_remove(struct itable16 *table, const uint16_t *index);
/* The value, or 0. Three reads; table must not be null. */
uintptr_t itable16_lookup(const struct itable16 *table, const uint16_t *index);
/* The value of the next index in use above *index, or of the first if index is null; 0 at the end. found, if not null,
 * takes its index (at the end it stays as it was), and may be the same word as index. */
uintptr_t itable16_getnext(const struct itable16 *table, const uint16_t *index, uint16_t *found);
/* Ignored for a null table and a limit of 0 or above ITABLE16_LIMIT. Values at and above the limit stay. */
void itable16_set_maxindex(struct itable16 *table, uint32_t limit);
void itable16_set_packed(struct itable16 *table, uint8_t packed);   // ignored for a null table

/* The same for 32 bits; what differs is told. A sub-table is the itable16 of the indexes with one high half. */
[[nodiscard]] struct itable32 *itable32_create(void);
[[nodiscard]] struct itable32 *itable32_create_ext(itable_alloc_func alloc, itable_free_func release, uintptr_t opaque);
uint32_t itable32_destroy(struct itable32 *table);
/* Mind: the mark moves only when *index is above it; an insert exactly at the mark leaves it there. */
int itable32_insert(struct itable32 *table, uintptr_t value, const uint32_t *index);
/* Asks the sub-tables from the mark's on (packed: from the first), round once, and makes the first that is missing. */
int itable32_alloc(struct itable32 *table, uintptr_t value, uint32_t *index);
/* Mind: a missing sub-table is made, and nothing stored in it. */
uintptr_t itable32_replace(struct itable32 *table, const uint32_t *index, uintptr_t value);
/* A sub-table whose mark is 0 afterwards is destroyed. If *index was next below the mark, the mark is worked out anew,
 * of 16 bits from the mark of it_top and 16 from that of the last sub-table: a mark at the very end reads as 0. */
void itable32_remove(struct itable32 *table, const uint32_t *index);
/* The value, or 0, also for a null table. Six reads behind the table's own. */
uintptr_t itable32_lookup(const struct itable32 *table, const uint32_t *index);
uintptr_t itable32_getnext(const struct itable32 *table, const uint32_t *index, uint32_t *found);
/* limit is inclusive. Ignored for a null table and a limit of 0. Binds inserts, sub-tables that are made later, and the
 * sub-table under the old limit, which takes the new limit's low half as its own. */
void itable32_set_maxindex(struct itable32 *table, uint32_t limit);
void itable32_set_packed(struct itable32 *table, uint8_t packed);

}   // extern "C"
