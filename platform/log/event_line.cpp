/*
 * The form of a line in the system log: RFC 5424 with structured data.
 *
 * The names of an event's attributes come from its tag's row, their values from the conversions of the format, first
 * name to first conversion. So the format is walked once for the values and once more, by the C library, for the text;
 * each walk has its own copy of the arguments.
 *
 * A walk must take every argument with the type it was passed with, or the ones behind it are lost. It therefore ends
 * at the first conversion that it does not know, and the attributes from there on are left out.
 *
 * A line that is too long stays well-formed. Structured data comes first and whole attributes are left out if the room
 * ends; the text takes what is left and is cut.
 */
#include "platform/log/log_private.h"

#include "platform/text/text.h"

#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

static_assert(sizeof(long) == sizeof(long long) && sizeof(size_t) == sizeof(long), "one kind of wide argument");

static bool is_control(char c)
{
    return (unsigned char)c < ' ' || c == '\x7f';
}

static bool is_break(char c)
{
    return c == '\n' || c == '\r';
}

size_t log_text(char *buffer, size_t size, enum log_shown shown, const char *format, va_list args)
{
    int result = vsnprintf(buffer, size, format, args);
    size_t length = result < 0 ? 0 : (size_t)result < size ? (size_t)result : size - 1;

    while (length > 0 && is_break(buffer[length - 1])) length--;
    buffer[length] = '\0';
    for (size_t i = 0; i < length; i++) {
        if (is_break(buffer[i]) || (shown == LOG_SHOW_PRINTED && is_control(buffer[i]))) buffer[i] = ' ';
    }
    return length;
}

/* --- the values of a format's conversions ---------------------------------------------------------------------- */

struct conversion {
    char cv_kind;        // the letter
    int cv_octets;       // size of an integer argument
    int cv_precision;    // -1: none
};

/* Reads digits or '*'. The number; 0 without any. */
static int take_number(const char **at, va_list *args)
{
    if (**at == '*') {
        ++*at;
        return va_arg(*args, int);
    }
    int number = 0;
    for (; isdigit((unsigned char)**at); ++*at) {
        if (number < INT_MAX / 10 - 1) number = number * 10 + (**at - '0');
    }
    return number;
}

static int take_length(const char **at)
{
    static constexpr struct {
        const char *word;
        int octets;
    } lengths[] = {
        { "hh", sizeof(char) },   { "h", sizeof(short) },    { "ll", sizeof(long long) }, { "l", sizeof(long) },
        { "j", sizeof(intmax_t) }, { "z", sizeof(size_t) }, { "t", sizeof(ptrdiff_t) },
    };
    for (const auto &row : lengths) {
        if (strncmp(*at, row.word, strlen(row.word)) != 0) continue;
        *at += strlen(row.word);
        return row.octets;
    }
    return sizeof(int);
}

/* Finds the next conversion from *format on, which is moved behind it. False if there is none. */
static bool next_conversion(const char **format, va_list *args, struct conversion *found)
{
    const char *at = strchr(*format, '%');
    while (at && at[1] == '%') at = strchr(at + 2, '%');
    if (!at) return false;

    at++;
    at += strspn(at, "-+ #0'");
    (void)take_number(&at, args);   // the width
    found->cv_precision = -1;
    if (*at == '.') {
        at++;
        found->cv_precision = take_number(&at, args);
    }
    found->cv_octets = take_length(&at);
    found->cv_kind = *at;
    if (*at == '\0') return false;
    *format = at + 1;
    return true;
}

/* Cut to the size of its type, as the conversion shows it. */
static uint64_t take_integer(const struct conversion *conversion, va_list *args)
{
    uint64_t value = conversion->cv_octets > (int)sizeof(int) ? va_arg(*args, unsigned long) : va_arg(*args, unsigned);
    int unused_bits = 64 - 8 * conversion->cv_octets;
    return value << unused_bits >> unused_bits;
}

static int64_t take_signed(const struct conversion *conversion, va_list *args)
{
    int unused_bits = 64 - 8 * conversion->cv_octets;
    return (int64_t)(take_integer(conversion, args) << unused_bits) >> unused_bits;
}

static void put_string(const struct conversion *conversion, va_list *args, char *value, size_t size)
{
    const char *text = va_arg(*args, const char *);
    if (!text) text = "(null)";
    int most = conversion->cv_precision >= 0 ? conversion->cv_precision : INT_MAX;
    (void)snprintf_safe(value, size, "%.*s", most, text);
}

bool log_next_value(const char **format, va_list *args, char *value, size_t size)
{
    struct conversion found;
    if (!next_conversion(format, args, &found)) return false;

    switch (found.cv_kind) {
    case 'd':
    case 'i': (void)snprintf_safe(value, size, "%" PRId64, take_signed(&found, args)); return true;
    case 'u': (void)snprintf_safe(value, size, "%" PRIu64, take_integer(&found, args)); return true;
    case 'x':
    case 'X': (void)snprintf_safe(value, size, "%" PRIx64, take_integer(&found, args)); return true;
    case 'c': (void)snprintf_safe(value, size, "%c", va_arg(*args, int)); return true;
    case 's': put_string(&found, args, value, size); return true;
    case 'p': (void)snprintf_safe(value, size, "%p", va_arg(*args, void *)); return true;
    case 'm': (void)snprintf_safe(value, size, "%s", strerror(errno)); return true;
    default:  return false;
    }
}

/* --- the line -------------------------------------------------------------------------------------------------- */

/* A line being written. What does not fit is not stored. */
struct line_writer {
    char *lw_at, *lw_end;    // the next octet's place; one behind the last that may be used
    bool lw_full;            // something did not fit
};

static void put_octet(struct line_writer *line, char c)
{
    line->lw_full = line->lw_full || line->lw_at == line->lw_end;
    if (!line->lw_full) *line->lw_at++ = c;
}

static void put_word(struct line_writer *line, const char *text)
{
    for (; *text; text++) put_octet(line, *text);
}

/* A field of the head: printable, without spaces, at most most octets, "-" if nothing is left. */
static void put_field(struct line_writer *line, const char *text, size_t most)
{
    put_octet(line, ' ');
    size_t stored = 0;
    for (; text && *text && stored < most; text++) {
        if (!isgraph((unsigned char)*text)) continue;
        put_octet(line, *text);
        stored++;
    }
    if (stored == 0) put_octet(line, '-');
}

/* The attribute, or nothing at all if it does not fit. */
static void put_attribute(struct line_writer *line, const char *name, const char *value)
{
    char *start = line->lw_at;
    put_octet(line, ' ');
    put_word(line, name);
    put_word(line, "=\"");
    for (; *value; value++) {
        if (*value == '"' || *value == '\\' || *value == ']') put_octet(line, '\\');
        put_octet(line, is_control(*value) ? ' ' : *value);
    }
    put_octet(line, '"');
    if (line->lw_full) line->lw_at = start;
    line->lw_full = false;
}

static void put_structured_data(struct line_writer *line, const char *const *attributes, const char *format,
                                va_list *args)
{
    if (!attributes || !attributes[0]) {
        put_word(line, " -");
        return;
    }
    put_word(line, " [keld@32473");
    line->lw_end -= 2;   // the bracket and the space behind it
    char value[LOG_VALUE_SIZE];
    for (; *attributes && log_next_value(&format, args, value, sizeof value); attributes++) {
        put_attribute(line, *attributes, value);
    }
    line->lw_end += 2;
    put_octet(line, ']');
}

static void put_head(struct line_writer *line, const struct event_head *head, const char *tag)
{
    enum { HOST_MOST = 255, IDENT_MOST = 48, TAG_MOST = 32, NUMBER_SIZE = 24, TIME_SIZE = 40 };   // RFC 5424, 6

    char number[NUMBER_SIZE], when[TIME_SIZE], second[TIME_SIZE];
    struct tm utc{};
    (void)gmtime_r(&head->eh_time.tv_sec, &utc);
    (void)strftime(second, sizeof second, "%Y-%m-%dT%H:%M:%S", &utc);
    (void)snprintf_safe(when, sizeof when, "%s.%06ldZ", second, head->eh_time.tv_nsec / 1000);

    (void)snprintf_safe(number, sizeof number, "<%d>1", head->eh_priority);
    put_word(line, number);
    put_field(line, when, TIME_SIZE);
    put_field(line, head->eh_host, HOST_MOST);
    put_field(line, head->eh_ident, IDENT_MOST);
    (void)snprintf_safe(number, sizeof number, "%ld", (long)head->eh_pid);
    put_field(line, head->eh_pid != 0 ? number : nullptr, NUMBER_SIZE);
    put_field(line, tag, TAG_MOST);
}

size_t event_line(char *line, size_t size, const struct event_head *head, const char *tag,
                  const char *const *attributes, const char *format, va_list args)
{
    struct line_writer writer = { line, line + size - 1, false };
    put_head(&writer, head, tag);

    va_list walk;
    va_copy(walk, args);
    put_structured_data(&writer, attributes, format, &walk);
    va_end(walk);
    put_octet(&writer, ' ');

    size_t before = (size_t)(writer.lw_at - line);
    return before + log_text(writer.lw_at, size - before, LOG_SHOW_PRINTED, format, args);
}
