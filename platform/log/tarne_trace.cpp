/*
 * Outbound SSH's trace: a second record on the daemon's trace file.
 *
 * It is a record of its own since it has settings of its own: it may be on while the daemon's is off. That both write
 * one file is settled where files are rotated.
 *
 * Its lines also come from children between fork and exec. They hold back nothing, take no lock and allocate nothing,
 * so there is nothing that a child could have inherited in the middle. A child leaves rotation to its parent: two that
 * rotate at the same moment would push the same file out twice.
 */
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include <limits.h>
#include <unistd.h>

static struct dtf_options tarne_options = { DTF_LEVEL_OFF, 0, -1, 0, 0, 10, "/var/log/keld" };

void tarne_trace_read_config(int first, const char *const *path)
{
    daemon_trace_read_config(first, path, &tarne_options);
    if (tarne_options.dtf_level >= DTF_LEVEL_ON) tarne_options.dtf_classes |= 1u << DTF_CORE;
}

void tarne_trace(int, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    daemon_vtrace(&tarne_options, DTF_CORE, 0, format, args);
    va_end(args);
}

void tarne_trace_keep_only(int first)
{
    trace_keep_only(&tarne_options);
    unsigned from = (unsigned)first;
    if (tarne_options.dtf_fd >= first) {
        unsigned kept = (unsigned)tarne_options.dtf_fd;
        if (kept > from) (void)close_range(from, kept - 1, 0);
        from = kept + 1;
    }
    (void)close_range(from, UINT_MAX, 0);   // kernels have it since 5.9; without it nothing is closed
}
