/*
 * Autoparents: one parent for all timers of the same interval and jitter.
 *
 * Such timers, started in the order of time, each land at the tail of their parent's list, so a start costs one
 * comparison instead of a walk. Entries are counted references in one patricia tree for the whole process. A new
 * reference is taken before the old one is dropped, so that a timer restarted alike cannot take its parent away from
 * under itself.
 *
 * Kept on purpose: the tree is the process's, so timers of a second context come below parents of the first. A parent
 * for which there was no memory is not asked for again while its entry lives. A count that is 0 already is reported and
 * counted down all the same.
 */
#include "lib/libtarne-timers/autoparent.h"
#include "platform/patricia/patricia.h"

#include <stddef.h>
#include <stdlib.h>

namespace {

const char unit[] = "lib/libtarne-timers/qtimers";

struct autoparent_key {
    int32_t seconds;
    int32_t nanoseconds;
    uint32_t jitter;
};
enum { KEY_LENGTH = 12 };
static_assert(sizeof(autoparent_key) == KEY_LENGTH);

struct patricia_root *autoparents;   // made at first use, kept for good
struct qtimer_autoparent *found_last;   // what the last start found: mostly the next one's, too. Null, or in the tree

bool is_key(const autoparent_key &a, const autoparent_key &b)
{
    return a.seconds == b.seconds && a.nanoseconds == b.nanoseconds && a.jitter == b.jitter;
}

}   // namespace

struct qtimer_autoparent {
    struct patricia_node node;
    autoparent_key key;
    struct qtimer *parent;   // null if there was no memory for it: timers below it never fire
    uint32_t references;
};
static_assert(offsetof(struct qtimer_autoparent, key) == sizeof(struct patricia_node), "the key is behind the node");

namespace {

struct qtimer_autoparent *make_entry(struct qtimer_ctx *ctx, const autoparent_key &key)
{
    auto *entry = static_cast<qtimer_autoparent *>(calloc(1, sizeof(qtimer_autoparent)));
    if (entry == nullptr)
        return nullptr;
    patricia_node_init_length(&entry->node, 0);
    entry->key = key;
    patricia_add(autoparents, &entry->node);
    entry->parent = qtimer_create_parent(ctx, nullptr);
    return entry;
}

/* The entry with one more reference, or null without memory. */
struct qtimer_autoparent *qtimer_find_autoparent(struct qtimer_ctx *ctx, const autoparent_key &key)
{
    if (autoparents == nullptr)
        autoparents = patricia_root_init(nullptr, 0, KEY_LENGTH, 0);
    if (autoparents == nullptr)
        return nullptr;
    auto *entry = found_last;
    if (entry == nullptr || !is_key(entry->key, key))
        entry = reinterpret_cast<qtimer_autoparent *>(patricia_lookup(autoparents, &key));
    if (entry == nullptr)
        entry = make_entry(ctx, key);
    if (entry != nullptr)
        entry->references++;
    found_last = entry;
    return entry;
}

}   // namespace

void qtimer_release_autoparent(struct qtimer *timer)
{
    struct qtimer_autoparent *entry = timer->qt_autoparent;
    if (entry == nullptr)
        return;
    if (entry->references == 0)
        qtimer_assert(unit, __LINE__, "refcount is zero");
    entry->references--;
    if (entry->references == 0) {
        if (found_last == entry)
            found_last = nullptr;
        qtimer_destroy(entry->parent);
        patricia_delete(autoparents, &entry->node);
        free(entry);
    }
    timer->qt_autoparent = nullptr;
}

void qtimer_set_autoparent(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter)
{
    if (!htimer_is_leaf(&timer->qt_timer))
        qtimer_assert(unit, __LINE__, "autoparenting non-leaf timer");
    const autoparent_key key = { interval.tv_sec, interval.tv_nsec, jitter };
    struct qtimer_autoparent *entry = qtimer_find_autoparent(timer->qt_ctx, key);
    qtimer_release_autoparent(timer);
    timer->qt_autoparent = entry;
    struct htimer *parent = entry != nullptr && entry->parent != nullptr ? &entry->parent->qt_timer : nullptr;
    if (timer->qt_timer.ht_parent == parent)
        return;
    qtimer_stop(timer);
    uintptr_t user = timer->qt_timer.ht_user;
    htimer_init_leaf(&timer->qt_timer, parent, 0);
    timer->qt_timer.ht_user = user;
}
