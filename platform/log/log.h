/*
 * Logging and tracing: the two roads out of a program.
 *
 * The system log is for operators: logging() for plain lines, logging_event() for events that have a tag and named
 * attributes. Both go through one registered function; event_send_vsyslog is the real one. It sends RFC 5424 lines with
 * structured data to /dev/log, or, when KELD_ROOT is set, appends the text, one a line, to var/log/messages under it.
 *
 * The trace file is for developers: daemon_trace() writes a line if its class is enabled. It is off until the
 * configuration turns it on. Lines stand in the file when the call returns; nothing is buffered or synced.
 *
 * Nothing here fails towards the caller: what cannot be written is lost. errno is kept by every function that logs.
 */
#pragma once

#include <stdarg.h>
#include <stdint.h>

extern "C" {

/* --- system log ------------------------------------------------------------------------------------------------ */

/* Takes one line. tag is null for a plain line. attributes is a null-terminated list of attribute names, one for each
 * conversion of format, in order; null for a plain line. */
typedef void (*logging_func)(int severity, const char *tag, const char *const *attributes, const char *format,
                             va_list args);

/* Sets the one function that gets every line. Until then lines go to standard error. */
void logging_register_logfunc(logging_func func);
enum {
    LOGGING_MODE_DEVELOP = 0,   // at start: every line also goes to standard error
    LOGGING_MODE_DAEMON = 2,    // system log only
};
void logging_set_mode(int mode);

/* severity is a syslog level, 0 (emergency) to 7 (debug). */
[[gnu::format(printf, 2, 3)]] void logging(int severity, const char *format, ...);
/* tag is a KELD_ word with which format begins. */
[[gnu::format(printf, 4, 5)]] void logging_event(int severity, const char *tag, const char *const *attributes,
                                                 const char *format, ...);
/* A failed internal assertion: severity 0, "%s:%s:%d: insist '%s' failed". The program goes on. line is a constant of
 * the place, which people search for, not the line in today's file. */
void logging_insist(const char *unit, const char *function, int line, const char *expression);

/* Names the sender of the lines to come: ident is copied (48 octets of it), option and facility are syslog's; of the
 * options LOG_PID counts. Before it, and after event_close, lines bear the program's name and the facility of users.
 * The socket is connected with the first line. */
void event_open(const char *ident, int option, int facility);
void event_close(void);
/* Ends the connection alone, for a child that closes descriptors; the next line makes another. */
void event_disconnect(void);
/* A logging_func. A line is at most 8 KiB, what is longer is cut. Control characters are shown as spaces, and line ends
 * at the text's end are dropped, so that a line stays one. Never waits. */
[[gnu::format(printf, 4, 0)]] void event_send_vsyslog(int severity, const char *tag, const char *const *attributes,
                                                      const char *format, va_list args);

/* --- trace file ------------------------------------------------------------------------------------------------ */

enum dtf_class {
    DTF_BEEP = 0,      // "beep": the engine
    DTF_PROFILE = 1,   // "profile": the profiles
    DTF_CORE = 2,      // "core": the daemon
    DTF_OCTETS = 3,    // "octets": counts of the BEEP stream
    DTF_DUMP = 4,      // "dump": its octets
    DTF_CLASSES
};

enum { DTF_LEVEL_OFF = -2, DTF_LEVEL_ON = 0 };

/* Trace state. Zero-initialised records are not valid: use DTF_OPTIONS_INIT or daemon_trace_initialize. A record that
 * is on stays where it is until it is turned off.
 *
 * Records that trace into one file have its limits in common: the larger size (none if one of them has none) and the
 * larger number of files, of those that are on. Whichever passes the limit rotates for all. Each has a descriptor of
 * its own, so that one which goes off takes nothing from the others. */
struct dtf_options {
    int32_t dtf_level;        // DTF_LEVEL_OFF while nothing is traced; tracing is on at -1 and above
    uint32_t dtf_classes;     // bit n: class n is wanted
    int dtf_fd;               // trace file, -1 while closed
    uint64_t dtf_size;        // octets in the file before the last line
    uint64_t dtf_max_size;    // rotated before a line that would pass this; 0 for no limit
    uint32_t dtf_max_files;   // files kept in all, the current one among them; at least 1
    char dtf_path[256];       // as given, without the root
    struct dtf_options *dtf_next = nullptr;   // another one that is on
};
#define DTF_OPTIONS_INIT { DTF_LEVEL_OFF, 0, -1, 0, 0, 10, "" }

/* Binds options to the file path; nothing is opened or traced yet. */
void daemon_trace_initialize(struct dtf_options *options, const char *path);
/* Turns on the classes of the mask (0: all off, the file is closed), opening the file if it is not open or another one
 * stands at its path by now. max_size and max_files as in the record. 0, or -1 with errno if the file cannot be opened:
 * tracing is then off. */
int daemon_trace_set(struct dtf_options *options, uint32_t classes, uint64_t max_size, uint32_t max_files);
/* Applies the `traceoptions` under path, a null-terminated list of keywords, in the open configuration database.
 * first is 0. Without such a stanza tracing goes off. */
void daemon_trace_read_config(int first, const char *const *path, struct dtf_options *options);

/* True when a line of the class would be written. */
static inline bool daemon_trace_wants(const struct dtf_options *options, int trace_class)
{
    return options->dtf_level >= -1 && (options->dtf_classes >> trace_class & 1) != 0;
}

/* One line, if its class is wanted: "YYYY-MM-DD HH:MM:SS.mmm CLASS TEXT", in local time. Line ends at the text's end
 * are dropped, so that a text that brings its own leaves no empty line; others are shown as spaces. What is longer than
 * 4 KiB is cut. flags is 0. */
[[gnu::format(printf, 4, 5)]] void daemon_trace(struct dtf_options *options, int trace_class, int flags,
                                                const char *format, ...);
[[gnu::format(printf, 4, 0)]] void daemon_vtrace(struct dtf_options *options, int trace_class, int flags,
                                                 const char *format, va_list args);

/* Outbound SSH's own road into the trace file /var/log/keld, of class "core". Any flag of its `traceoptions` turns it
 * on, since the flags name what the engine does. level selects nothing: callers give 1, or 0 for what is of interest
 * only when memory or a tree is in doubt. May be called in a forked child, up to its end by _exit or exec. */
[[gnu::format(printf, 2, 3)]] void tarne_trace(int level, const char *format, ...);
/* daemon_trace_read_config for it. first is 0. */
void tarne_trace_read_config(int first, const char *const *path);
/* For a forked child that is to become another program: closes every descriptor from first on but for the one of
 * tarne_trace. All other tracing of the child is off then, and rotation is left to the parent. */
void tarne_trace_keep_only(int first);

/* A development print: goes to standard error when the environment variable KELD_DEBUG is set, else nowhere. */
[[gnu::format(printf, 1, 2)]] void dbgpr(const char *format, ...);

}   // extern "C"
