/*
 * Bounded formatting for code that appends piece after piece to one buffer.
 *
 * The C library's answer is the length that the text would have had, so "at += snprintf(...)" walks out of the buffer
 * as soon as a piece is cut. Here the answer is what stands in the buffer, which makes that addition safe:
 *   - the answer is below size, and the octet at it is the terminator;
 *   - a size of 0 touches nothing.
 */
#include "platform/text/text.h"

#include <stdio.h>

size_t vsnprintf_safe(char *buffer, size_t size, const char *format, va_list args)
{
    if (size == 0) return 0;

    int length = vsnprintf(buffer, size, format, args);
    if (length < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return (size_t)length < size ? (size_t)length : size - 1;
}

size_t snprintf_safe(char *buffer, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    size_t length = vsnprintf_safe(buffer, size, format, args);
    va_end(args);
    return length;
}
