/*
 * The cursor: writes that end at the buffer's end.
 *
 * Rendering a message is mostly this, and the conversions that lines are made of are few, so each has a writer of its
 * own; only a client's own texts go through a format string.
 */
#include "lib/librtsock/format/out.h"
#include "lib/librtsock/format/rtslib_format.h"

#include <limits.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <charconv>

namespace {

enum { NUMBER_MAX = 24, COLUMN_MAX = 16 };

constexpr char digits[] = "0123456789abcdef";

template <typename number> void put_number(struct format_out *out, number value, int base)
{
    char text[NUMBER_MAX];
    const char *end = std::to_chars(text, text + sizeof text, value, base).ptr;
    format_put(out, text, size_t(end - text));
}

bool is_control(char c)
{
    auto octet = static_cast<unsigned char>(c);
    return octet < ' ' || octet == 0x7f;
}

}   // namespace

struct format_out format_out_open(char *buffer, size_t size)
{
    if (buffer != nullptr && size > 0)
        buffer[0] = '\0';
    return { buffer, int64_t(std::min<size_t>(size, INT_MAX)) };
}

bool format_out_fits(const struct format_out *out)
{
    return out->at != nullptr && out->left > 0;
}

void format_put(struct format_out *out, const char *text, size_t length)
{
    if (out->at == nullptr)
        return;
    int64_t stored = std::min(int64_t(length), out->left - 1);
    if (stored >= 0) {
        memcpy(out->at, text, size_t(stored));
        out->at[stored] = '\0';
    }
    out->left -= int64_t(length);
    out->at = out->left < 0 ? nullptr : out->at + length;
}

void format_put_string(struct format_out *out, const char *text)
{
    format_put(out, text, strlen(text));
}

void format_put_dec(struct format_out *out, int64_t value)
{
    put_number(out, value, 10);
}

void format_put_unsigned(struct format_out *out, uint64_t value)
{
    put_number(out, value, 10);
}

void format_put_hex(struct format_out *out, uint64_t value)
{
    put_number(out, value, 16);
}

void format_put_octet(struct format_out *out, uint8_t value)
{
    const char text[] = { digits[value >> 4], digits[value & 0xf] };
    format_put(out, text, sizeof text);
}

void format_put_column(struct format_out *out, const char *text, size_t width)
{
    char column[COLUMN_MAX];
    width = std::min(width, sizeof column);
    memset(column, ' ', width);
    memcpy(column, text, strnlen(text, width));
    format_put(out, column, width);
}

void format_put_right(struct format_out *out, const char *text, size_t width)
{
    char column[COLUMN_MAX];
    width = std::min(width, sizeof column);
    size_t length = strnlen(text, width);
    memset(column, ' ', width);
    memcpy(column + width - length, text, length);
    format_put(out, column, width);
}

void format_put_octets(struct format_out *out, const uint8_t *octets, size_t count, const char *separator)
{
    for (size_t i = 0; i < count && out->at != nullptr; i++) {
        if (i > 0)
            format_put_string(out, separator);
        format_put_octet(out, octets[i]);
    }
}

void format_put_foreign(struct format_out *out, const char *text, size_t length)
{
    if (text == nullptr)
        return;
    const char *end = text + strnlen(text, length);
    for (const char *bad; (bad = std::find_if(text, end, is_control)) != end && out->at != nullptr; text = bad + 1) {
        format_put(out, text, size_t(bad - text));
        format_put(out, "?", 1);
    }
    format_put(out, text, size_t(end - text));
}

void rtslib_fill_format_buf(char **cursor, int *left, const char *format, ...)
{
    if (*cursor == nullptr)
        return;
    va_list args;
    va_start(args, format);
    int written = vsnprintf(*cursor, size_t(std::max(*left, 0)), format, args);
    va_end(args);
    // Kept on purpose: 0 octets left is still room, although the terminator took the place of the last one.
    bool fits = written >= 0 && written <= *left;
    *cursor = fits ? *cursor + written : nullptr;
    *left = written >= 0 && *left >= INT_MIN + written ? *left - written : -1;
}

