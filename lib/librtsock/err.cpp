/*
 * Reports of the library. Every one goes through rtslib_err, which formats it in place - no memory, so that running out
 * of memory can be reported - and hands it to one sink. errno is the same behind a report as before it, so that a
 * report inside a failure road does not disturb what the caller reads.
 */
#include "lib/librtsock/rtslib_cookie.h"
#include "platform/log/log.h"
#include "platform/target.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <syslog.h>

namespace {

enum { TEXT_SIZE = 256, TEXT_ROOM = 254 };

struct severity_row {
    const char *word;
    int priority;
};
constexpr severity_row severities[] = {
    { "DEBUG ", LOG_DEBUG },
    { "INFO ", LOG_INFO },
    { "WARNING ", LOG_WARNING },
    { "ERROR ", LOG_ERR },
    { "FATAL ERROR ", LOG_CRIT },
};

bool known(int severity)
{
    return severity >= RTSLIB_DEBUG && severity <= RTSLIB_FATAL;
}

}   // namespace

void rtslib_err(struct rtslib_cookie *cookie, int severity, const char *format, ...)
{
    int saved = errno;
    if (cookie != nullptr && cookie->err_fn == nullptr)
        return;
    char text[TEXT_SIZE];
    int used = snprintf(text, sizeof text, "%s%s", "rtslib: ", known(severity) ? severities[severity].word : "");
    if (used <= TEXT_ROOM) {
        va_list args;
        va_start(args, format);
        errno = saved;
        vsnprintf(text + used, sizeof text - size_t(used), format, args);
        va_end(args);
    }
    if (cookie != nullptr)
        cookie->err_fn(cookie, cookie->err_ctx, severity, text);
    else
        rtslib_lib_error(nullptr, 0, severity, text);
    errno = saved;
}

void rtslib_lib_error(struct rtslib_cookie *, uintptr_t, int severity, const char *text)
{
    if (known(severity))
        logging(severities[severity].priority, "%s\n", text);
    else
        fprintf(stderr, "%s\n", text);
    if (severity == RTSLIB_FATAL)
        exit(1);
}

int rtslib_lib_error_register(struct rtslib_cookie *cookie, uintptr_t context, rtslib_err_func func)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    cookie->err_ctx = context;
    cookie->err_fn = func;
    return 0;
}

void rtslib_assert_failed(const char *source, const char *function, int line, const char *expression)
{
    logging(LOG_CRIT, "%s:%d: %s: assertion \"%s\" failed", source, line, function, expression);
    abort();
}
