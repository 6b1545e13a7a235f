/*
 * Time texts: times as people read them.
 *
 * Both calls give a text of their own that stands until their next call, and never null.
 */
#pragma once

#include <time.h>

extern "C" {

/* A point in time, in local time with its zone: "2026-11-22 22:45:33 UTC". "unknown" for a time that the calendar does
 * not have. */
const char *tarne_time_isostr(const time_t *when);
/* A number of seconds as hours, minutes and seconds, with days in front from a day on: "00:01:05", "3d 04:00:00". A
 * negative one, as a clock that was set back makes it, has a minus in front. */
const char *tarne_time_diffstr(const time_t *seconds);

}   // extern "C"
