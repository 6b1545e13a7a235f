/*
 * Memory of the library: the hooks that all of it passes through, and the accounting that the default ones keep.
 *
 * The accounting is meant for finding damaged memory as much as for counting: each count carries a check octet, the
 * pointer to the table is kept twice, and whatever does not agree stops the process on the spot. The table is made at
 * the first event, is itself the first block counted, and is never freed. With the accounting off an event costs one
 * test.
 */
#include "lib/librtsock/rtslib_mem.h"

#include <stdlib.h>
#include <string.h>

namespace {

const char unit[] = "lib/librtsock/rtslib_mem";

enum mem_event : unsigned { MEM_ALLOCATED, MEM_FAILED, MEM_FREED, MEM_EVENTS };

// Lines of this unit that people search for in logs.
enum { LINE_KIND = 133, LINE_SAVED = 137, LINE_SAME = 152, LINE_ROWS = 153, LINE_MEMID = 154,
       LINE_ITABLE_MALLOC = 189, LINE_ITABLE_FREE = 196 };

uint8_t check_octet(uint32_t count)
{
    uint8_t check = uint8_t(count ^ count >> 8 ^ count >> 16 ^ count >> 24);
    return check != 0 ? check : uint8_t(RTSLIB_MEM_CHECK_ZERO);
}

void mem_assert(bool holds, const char *function, int line, const char *expression)
{
    if (!holds)
        rtslib_assert_failed(unit, function, line, expression);
}

bool make_table(void)
{
    mem_assert(rtslib_mem_record.cnts_saved == nullptr, __func__, LINE_SAVED, "!rtslib_mem_record.cnts_saved");
    auto *rows = static_cast<rtslib_mem_counts *>(malloc(RTSLIB_MEM_TABLE_SIZE));
    if (rows == nullptr)
        return false;
    memset(rows, 0, RTSLIB_MEM_TABLE_SIZE);
    for (int row = 0; row < MEMID_RTSLIB_MAX; row++)
        memset(rows[row].check, RTSLIB_MEM_CHECK_ZERO, sizeof rows[row].check);
    rtslib_mem_record = { rows, MEMID_RTSLIB_MAX, rows };
    return true;
}

void count_event(rtslib_mem_counts *row, mem_event event)
{
    uint32_t *counts[MEM_EVENTS] = { &row->allocated, &row->failed, &row->freed };
    *counts[event] += 1;
    row->check[event] = check_octet(*counts[event]);
    if (event == MEM_FAILED)
        return;
    row->outstanding += event == MEM_ALLOCATED ? 1U : -1U;
    row->check[3] = check_octet(row->outstanding);
}

void record(uint16_t memid, unsigned event)
{
    if (rtslib_mem_rec_enabled == 0)
        return;
    mem_assert(event < MEM_EVENTS, __func__, LINE_KIND, "0");
    if (rtslib_mem_record.cnts == nullptr) {
        if (!make_table())
            return;   // counted from the first event for which there is a table
        record(MEMID_RTSLIB_RECORD, MEM_ALLOCATED);
    }
    mem_assert(rtslib_mem_record.cnts_saved == rtslib_mem_record.cnts, __func__, LINE_SAME,
               "rtslib_mem_record.cnts_saved == rtslib_mem_record.cnts");
    mem_assert(MEMID_RTSLIB_MAX == rtslib_mem_record.submod_max, __func__, LINE_ROWS,
               "MEMID_RTSLIB_MAX == rtslib_mem_record.submod_max");
    mem_assert(rtslib_mem_record.submod_max > memid, __func__, LINE_MEMID, "rtslib_mem_record.submod_max > memid");
    if (rtslib_mem_rec_lock != nullptr)
        rtslib_mem_rec_lock();
    count_event(&rtslib_mem_record.cnts[memid], mem_event(event));
    if (rtslib_mem_rec_unlock != nullptr)
        rtslib_mem_rec_unlock();
}

void *default_malloc(uint16_t memid, size_t size)
{
    void *memory = malloc(size);
    record(memid, memory != nullptr ? MEM_ALLOCATED : MEM_FAILED);
    return memory;
}

void *default_calloc(uint16_t memid, size_t count, size_t size)
{
    void *memory = calloc(count, size);
    record(memid, memory != nullptr ? MEM_ALLOCATED : MEM_FAILED);
    return memory;
}

void *default_realloc(uint16_t memid, void *old, size_t size)
{
    bool had = old != nullptr;
    void *memory = realloc(old, size);
    record(memid, memory != nullptr ? MEM_ALLOCATED : MEM_FAILED);
    // Kept on purpose: the old block counts as freed even when the reallocation failed and it is still there.
    if (had)
        record(memid, MEM_FREED);
    return memory;
}

void default_free(uint16_t memid, void *memory)
{
    if (memory == nullptr)
        return;
    free(memory);
    record(memid, MEM_FREED);
}

uint16_t itable_memid(uintptr_t opaque, const char *function, int line)
{
    uint16_t memid;
    memcpy(&memid, reinterpret_cast<const void *>(opaque), sizeof memid);
    mem_assert(MEMID_RTSLIB_ITABLE_MIN <= memid && MEMID_RTSLIB_ITABLE_MAX >= memid, function, line,
               "(MEMID_RTSLIB_ITABLE_MIN<=memid)&&(MEMID_RTSLIB_ITABLE_MAX>=memid)");
    return memid;
}

}   // namespace

void *(*rtslib_malloc)(uint16_t memid, size_t size) = default_malloc;
void *(*rtslib_calloc)(uint16_t memid, size_t count, size_t size) = default_calloc;
void *(*rtslib_realloc)(uint16_t memid, void *memory, size_t size) = default_realloc;
void (*rtslib_free)(uint16_t memid, void *memory) = default_free;

struct rtslib_mem_record rtslib_mem_record;
uint32_t rtslib_mem_rec_enabled;
void (*rtslib_mem_rec_lock)(void);
void (*rtslib_mem_rec_unlock)(void);
uint16_t memid_rtslib_itable_borrower = MEMID_RTSLIB_ITABLE_BORROWER;
uint16_t memid_rtslib_itable_donor = MEMID_RTSLIB_ITABLE_DONOR;

void rtslib_mem_rec_enable(void (*lock)(void), void (*unlock)(void))
{
    rtslib_mem_rec_lock = lock;
    rtslib_mem_rec_unlock = unlock;
    rtslib_mem_rec_enabled = 1;
}

void *rtslib_size_alloc(struct rtslib_cookie *cookie, size_t size)
{
    return cookie != nullptr ? rtslib_calloc(MEMID_RTSLIB_MSG, 1, size) : nullptr;
}

void *rtslib_msg_malloc(struct rtslib_cookie *cookie)
{
    return rtslib_size_alloc(cookie, RTSLIB_MSG_MAX);
}

void rtslib_msg_free(struct rtslib_cookie *cookie, void *message)
{
    // Kept on purpose: without a cookie the block leaks.
    if (cookie != nullptr && message != nullptr)
        rtslib_free(MEMID_RTSLIB_MSG, message);
}

void *rtslib_malloc_cb(size_t size)
{
    return rtslib_malloc(MEMID_RTSLIB_CALLBACK, size);
}

void rtslib_free_cb(void *memory)
{
    rtslib_free(MEMID_RTSLIB_CALLBACK, memory);
}

void *rtslib_malloc_itable(uintptr_t opaque, size_t size)
{
    return rtslib_malloc(itable_memid(opaque, __func__, LINE_ITABLE_MALLOC), size);
}

void rtslib_free_itable(uintptr_t opaque, void *memory)
{
    rtslib_free(itable_memid(opaque, __func__, LINE_ITABLE_FREE), memory);
}
