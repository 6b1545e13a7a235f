/*
 * Time texts: a moment and a duration, each in the one form that people see everywhere.
 *
 * The texts stand in memory of this file. There is one thread, and a text goes into a line or a document at once, so
 * one buffer for each form is enough. Programs that want the number have it beside the text, in the attribute
 * `seconds`.
 */
#include "platform/text/time_text.h"

#include "platform/text/text.h"

#include <inttypes.h>

enum { TIME_TEXT_SIZE = 64, S_PER_MINUTE = 60, S_PER_HOUR = 60 * S_PER_MINUTE, S_PER_DAY = 24 * S_PER_HOUR };

const char *tarne_time_isostr(const time_t *when)
{
    static char text[TIME_TEXT_SIZE];
    struct tm parts;
    if (!localtime_r(when, &parts)) return "unknown";
    return strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z", &parts) > 0 ? text : "unknown";
}

const char *tarne_time_diffstr(const time_t *seconds)
{
    static char text[TIME_TEXT_SIZE];
    uint64_t left = static_cast<uint64_t>(*seconds);
    if (*seconds < 0) left = 0 - left;
    const char *sign = *seconds < 0 ? "-" : "";
    uint64_t days = left / S_PER_DAY;
    unsigned hours = left % S_PER_DAY / S_PER_HOUR;
    unsigned minutes = left % S_PER_HOUR / S_PER_MINUTE;
    unsigned rest = left % S_PER_MINUTE;
    if (days > 0)
        (void)snprintf_safe(text, sizeof text, "%s%" PRIu64 "d %02u:%02u:%02u", sign, days, hours, minutes, rest);
    else
        (void)snprintf_safe(text, sizeof text, "%s%02u:%02u:%02u", sign, hours, minutes, rest);
    return text;
}
