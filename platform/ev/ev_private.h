/*
 * What the files of the event library share: records, lists, pools, and the step that each file adds to a turn.
 *
 * Records come from pools of the context and begin with a link. A link is in one of three states: in a list; pointing
 * at itself (live, in no list); prev null (the record is back in its pool). So a dead id can be told from a live one
 * until its record is used again, and nothing is allocated once the pools have grown to what a program uses at a
 * time.
 */
#pragma once

#include <atomic>
#include <stddef.h>
#include <stdint.h>
#include "platform/ev/ev.h"

struct ev_link {
    struct ev_link *prev, *next;
};

/* Records of one size; chunks are only freed with the context. */
struct ev_pool {
    size_t po_octets;            // of a record
    struct ev_link *po_free;     // chained by next, prev null
    struct ev_chunk *po_chunks;  // owned
};

struct ev_timer {
    struct ev_link tm_link;      // in cx_due while it waits for its call within a turn
    size_t tm_place;             // in the heap, or EV_NO_PLACE
    uint64_t tm_order;           // of setting; decides among equal due times
    int64_t tm_due_ns;
    int64_t tm_inter_ns;         // 0 makes a one-shot
    evTimerFunc tm_func;
    void *tm_uap;
};

struct ev_file {
    struct ev_link fi_link;      // in cx_fresh until its first write call
    int fi_fd;
    uint64_t fi_mute_turn;       // turn in which the kernel's events do not reach it; 0 for none
    evFileFunc fi_func;
    void *fi_uap;
};

/* What is known of one descriptor number. */
struct ev_slot {
    struct ev_file *sl_reader, *sl_writer;   // may be the same registration
    uint32_t sl_armed;                       // EPOLLIN and EPOLLOUT as the kernel has them
    uint32_t sl_generation;                  // counts how often the last registration left
};

struct ev_conn {
    struct ev_link cn_link;
    struct ev_file *cn_file;     // knows the descriptor
    int cn_error;                // from connect itself; 0 if the socket must be asked
    evConnFunc cn_func;
    void *cn_uap;
};

struct ev_wait {
    struct ev_link wa_link;      // in ta_waiters of its tag, or in cx_released
    struct ev_tag *wa_tag;       // null once released
    const void *wa_value;        // the tag itself, for the call
    uint32_t wa_seen;            // ta_count at registration
    evWaitFunc wa_func;
    void *wa_uap;
};

/* One tag. Never freed or moved while the context lives: evDo may walk here in a signal handler at any moment. */
struct ev_tag {
    struct ev_link ta_waiters;               // in order of registration; only the loop's thread looks here
    std::atomic<const void *> ta_value;      // changes only while nobody waits
    std::atomic<uint32_t> ta_count;          // evDo calls
    std::atomic<uint32_t> ta_standing;       // waiters in ta_waiters
    std::atomic<bool> ta_queued;             // in cx_dirty
    struct ev_tag *ta_next_dirty;            // valid while ta_queued
    struct ev_tag *ta_next;                  // in its bucket; set once, before the tag can be found
};

enum { EV_TAG_BUCKETS = 64 };
static constexpr size_t EV_NO_PLACE = SIZE_MAX;

struct ev_context {
    int cx_epoll_fd;
    int cx_wake_fd;                          // eventfd; written by evDo while the loop sleeps
    uint64_t cx_turn;                        // number of this turn, or of the last one
    bool cx_turning;                         // inside evTurn or evMainLoop
    bool cx_dispatching;                     // working on what one epoll_wait found

    struct ev_timer **cx_heap;               // binary heap by due time; owned
    size_t cx_heap_count, cx_heap_room;      // room is never less than cx_timers
    size_t cx_timers;                        // alive, in the heap or not
    uint64_t cx_timer_order;
    struct ev_link cx_due;                   // timers of this turn that wait for their call
    struct ev_timer *cx_timer_now;           // one-shot whose call runs; null as soon as it is reset or cleared

    struct ev_slot *cx_slots;                // by descriptor number; owned
    int cx_slot_count;
    struct ev_link cx_fresh;                 // write registrations to call without asking the kernel
    struct ev_file *cx_file_now;             // whose first write call runs; null as soon as it is deselected

    std::atomic<struct ev_tag *> cx_tags[EV_TAG_BUCKETS];
    std::atomic<struct ev_tag *> cx_dirty;   // tags with an evDo that was not looked at yet, last one first
    std::atomic<bool> cx_sleeping;           // between the last look at cx_dirty and the end of epoll_wait
    struct ev_link cx_released;              // waiters to run in this turn

    int cx_debug_level;
    void *cx_debug_out;                      // FILE, lent

    struct ev_pool cx_timer_pool, cx_file_pool, cx_conn_pool, cx_wait_pool, cx_tag_pool;
};

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free &&
              std::atomic<void *>::is_always_lock_free, "a signal handler must never meet a lock");

inline void ev_link_init(struct ev_link *link)
{
    link->prev = link->next = link;
}

inline bool ev_list_is_empty(const struct ev_link *list)
{
    return list->next == list;
}

inline void ev_list_append(struct ev_link *list, struct ev_link *link)
{
    link->prev = list->prev;
    link->next = list;
    list->prev->next = link;
    list->prev = link;
}

/* Also for a link that is in no list. */
inline void ev_link_remove(struct ev_link *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    ev_link_init(link);
}

/* A zeroed record whose link points at itself; null with ENOMEM. */
void *ev_pool_get(struct ev_pool *pool);
/* Gives a live record back; it leaves the list it is in. */
void ev_pool_put(struct ev_pool *pool, void *record);
/* Frees all records, live ones too. */
void ev_pool_end(struct ev_pool *pool);
/* False for null and for a record that is in its pool. */
bool ev_record_is_live(const void *record);

/* One line of debug output, if the level is on. */
__attribute__((format(printf, 3, 4))) void ev_debug(const struct ev_context *ctx, int level, const char *format, ...);

/* Nanoseconds; a time out of range for ev_timespec becomes the nearest one in range. */
int64_t ev_time_to_ns(struct ev_timespec time);
struct ev_timespec ev_time_from_ns(int64_t ns);
int64_t ev_now_ns(void);

/* Steps of a turn, in order. Each returns the number of calls made. */
int ev_run_waiters(struct ev_context *ctx);
int ev_run_fresh_writes(struct ev_context *ctx);
int ev_run_timers(struct ev_context *ctx);
/* One event of the kernel; data is epoll_data's u64. */
int ev_run_file_event(struct ev_context *ctx, uint64_t data, uint32_t kernel_events);

/* False if no timer is set. */
bool ev_timer_next_due(const struct ev_context *ctx, int64_t *due_ns);

/* Registers func for EV_WRITE as the kernel finds it, from the next turn on. fd's flags are left alone. Null with
 * errno; EBUSY if anything is registered for fd. */
struct ev_file *ev_file_watch_connect(struct ev_context *ctx, int fd, evFileFunc func, void *uap);
/* 0, or -1 with errno. *was, which may be null, is told if the descriptor was blocking before. */
int ev_fd_set_blocking(int fd, bool blocking, bool *was);
