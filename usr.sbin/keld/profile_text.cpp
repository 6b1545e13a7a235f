/*
 * What the profiles share.
 *
 * A piggyback reaches a profile as a block of so many octets, without a terminator, that need not be text at all. Whoever
 * searches one works on the view made here, which never reaches behind the block.
 */
#include "usr.sbin/keld/profile_text.h"

#include "usr.sbin/keld/beep/beep.h"

#include <stdarg.h>
#include <string.h>

void profile_trace(const char *format, ...)
{
    if (!daemon_trace_wants(&keld_dtf_options, DTF_PROFILE)) return;
    va_list args;
    va_start(args, format);
    daemon_vtrace(&keld_dtf_options, DTF_PROFILE, 0, format, args);
    va_end(args);
}

std::string_view piggyback_text(const char *data, int32_t length, const char *absent)
{
    if (!data) return absent;
    return { data, length > 0 ? strnlen(data, static_cast<size_t>(length)) : 0 };
}
