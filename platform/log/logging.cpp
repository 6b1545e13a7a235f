/*
 * The entry to the system log, and prints for development.
 *
 * Every line passes log_line, which knows two places: the registered function, and standard error as long as the
 * program is being developed or nothing is registered yet. A line is thus never silent before the road to the system
 * log stands.
 *
 * errno belongs to the caller. It is put back at the end, and also between the two places, for %m in a format.
 */
#include "platform/log/log.h"
#include "platform/log/log_private.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

static logging_func registered;
static int logging_mode = LOGGING_MODE_DEVELOP;

void logging_register_logfunc(logging_func func)
{
    registered = func;
}

void logging_set_mode(int mode)
{
    logging_mode = mode;
}

void log_to_stderr(const char *format, va_list args)
{
    int error = errno;
    char line[LOG_LINE_SIZE + 1];
    size_t length = log_text(line, LOG_LINE_SIZE, LOG_SHOW_PRINTED, format, args);
    line[length++] = '\n';
    ssize_t written = write(STDERR_FILENO, line, length);
    (void)written;   // what was not written is lost, and there is no one to tell
    errno = error;
}

[[gnu::format(printf, 4, 0)]] static void log_line(int severity, const char *tag, const char *const *attributes,
                                                   const char *format, va_list args)
{
    int error = errno;
    if (!registered || logging_mode == LOGGING_MODE_DEVELOP) {
        va_list copy;
        va_copy(copy, args);
        log_to_stderr(format, copy);
        va_end(copy);
    }
    if (registered) registered(severity, tag, attributes, format, args);
    errno = error;
}

void logging(int severity, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    log_line(severity, nullptr, nullptr, format, args);
    va_end(args);
}

void logging_event(int severity, const char *tag, const char *const *attributes, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    log_line(severity, tag, attributes, format, args);
    va_end(args);
}

void logging_insist(const char *unit, const char *function, int line, const char *expression)
{
    logging(0, "%s:%s:%d: insist '%s' failed", unit, function, line, expression);
}

void dbgpr(const char *format, ...)
{
    if (!getenv("KELD_DEBUG")) return;
    va_list args;
    va_start(args, format);
    log_to_stderr(format, args);
    va_end(args);
}
