/*
 * What the files of this folder share: how a text becomes one line, and the form of a line for the system log.
 */
#pragma once

#include "platform/log/log.h"

#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

enum {
    LOG_LINE_SIZE = 8192,    // octets of a line in the system log; what is longer is cut
    LOG_VALUE_SIZE = 1024,   // octets of an attribute's value, terminator included
};

enum log_shown {
    LOG_SHOW_ALL,        // line breaks become spaces, all else stays as it is
    LOG_SHOW_PRINTED,    // all control characters become spaces
};

/* Formats into buffer as one line without a line end: line ends at the text's end are dropped. size is above 0. The
 * length stored, without the terminator. */
[[gnu::format(printf, 4, 0)]] size_t log_text(char *buffer, size_t size, enum log_shown shown, const char *format,
                                              va_list args);

/* Writes the text and a line end to standard error, in one write. */
[[gnu::format(printf, 1, 0)]] void log_to_stderr(const char *format, va_list args);

/* The value of the next conversion of *format that takes an argument, as text in value, and *format moved behind it.
 * Numbers are shown without the conversion's padding, a precision bounds a string, a null string is "(null)". False at
 * the format's end or at a conversion that is not known. */
bool log_next_value(const char **format, va_list *args, char *value, size_t size);

/* What stands in front of the text in a line for the system log. */
struct event_head {
    int eh_priority;         // facility and severity
    struct timespec eh_time; // since the epoch
    const char *eh_host;
    const char *eh_ident;    // the program's name
    pid_t eh_pid;            // 0: not shown
};

/* One RFC 5424 line: "<PRI>1 TIME HOST APP PID TAG [keld@32473 NAME="VALUE" ...] TEXT", "-" for what is missing. Always
 * well-formed: an attribute that does not fit is left out, the text is cut. size is at least 512. The length stored;
 * the line is terminated but has no line end. */
[[gnu::format(printf, 6, 0)]] size_t event_line(char *line, size_t size, const struct event_head *head, const char *tag,
                                                const char *const *attributes, const char *format, va_list args);

/* Turns all records off but kept, and takes their descriptors for closed. kept rotates no more. */
void trace_keep_only(struct dtf_options *kept);
