/*
 * Shared parents for timers of equal interval and jitter. Internal to the daemon timers.
 */
#pragma once

#include "lib/libtarne-timers/qtimers.h"

extern "C" {

/* Moves a leaf, stopping it, below the shared parent of this interval and jitter, unless it is there already; without
 * memory it ends without a parent. */
void qtimer_set_autoparent(struct qtimer *timer, struct ev_timespec interval, uint32_t jitter);
/* Gives back the timer's share of its parent, which goes with the last one. */
void qtimer_release_autoparent(struct qtimer *timer);

}   // extern "C"
