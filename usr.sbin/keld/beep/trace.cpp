/*
 * The engine's traces: what happened (class 0), and what passed the transport, as counts (class 3) and octets (class
 * 4). With tracing off each costs one test.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <stdio.h>
#include <string.h>

extern "C" {

enum { DUMP_SHOWN_MAX = 1018 };   // characters of a dump line behind its prefix

void beep_trace(const char *format, ...)
{
    if (!daemon_trace_wants(&keld_dtf_options, DTF_BEEP)) return;

    va_list args;
    va_start(args, format);
    daemon_vtrace(&keld_dtf_options, DTF_BEEP, 0, format, args);
    va_end(args);
}

/* Shows octets of data on one dump line, up to its LF or until the line is full. The octets used. */
static size_t dump_line(const char *prefix, const char *data, size_t length)
{
    char line[DUMP_SHOWN_MAX + 2];   // the last character may be a CR, which shows as two
    size_t shown = 0, used = 0;

    while (used < length && shown < DUMP_SHOWN_MAX) {
        char octet = data[used++];
        if (octet == '\n') break;
        if (octet == '\r') {
            line[shown++] = '\\';
            octet = 'r';
        }
        line[shown++] = octet != '\0' ? octet : '.';
    }
    line[shown] = '\0';
    daemon_trace(&keld_dtf_options, DTF_DUMP, 0, "%s%s", prefix, line);
    return used;
}

void beep_trace_octets(const char *label, const void *data, size_t length)
{
    if (daemon_trace_wants(&keld_dtf_options, DTF_OCTETS))
        daemon_trace(&keld_dtf_options, DTF_OCTETS, 0, "%s %d octets", label, static_cast<int>(length));
    if (!daemon_trace_wants(&keld_dtf_options, DTF_DUMP)) return;

    const char *prefix = label[0] == 'r' ? "<<< " : ">>> ";
    const char *next = static_cast<const char *>(data);
    while (length > 0) {
        size_t used = dump_line(prefix, next, length);
        next += used;
        length -= used;
    }
}

}   // extern "C"
