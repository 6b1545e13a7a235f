/*
 * Where a rendering writes: a pointer into the output and the octets left there. Internal to the rendering.
 *
 * Once a text does not fit, it is cut, the pointer becomes null, and every further write does nothing. What has been
 * written always ends in a terminator. A text that takes all that is left loses its last octet to that and leaves 0,
 * the pointer not being null yet: format_out_fits knows.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct format_out {
    char *at;       // null: full
    int64_t left;
};

/* A fresh output; size 0 and buffer null are allowed. */
struct format_out format_out_open(char *buffer, size_t size);
/* True if nothing was lost. */
bool format_out_fits(const struct format_out *out);

/* Each is what the conversion in its comment writes. */
void format_put(struct format_out *out, const char *text, size_t length);         // %.*s
void format_put_string(struct format_out *out, const char *text);                 // %s
void format_put_dec(struct format_out *out, int64_t value);                       // %lld
void format_put_unsigned(struct format_out *out, uint64_t value);                 // %llu
void format_put_hex(struct format_out *out, uint64_t value);                      // %llx
void format_put_octet(struct format_out *out, uint8_t value);                     // %02x
void format_put_column(struct format_out *out, const char *text, size_t width);   // %-W.Ws
void format_put_right(struct format_out *out, const char *text, size_t width);    // %W.Ws
/* Octets in hexadecimal, each by itself, with separator between them. */
void format_put_octets(struct format_out *out, const uint8_t *octets, size_t count, const char *separator);
/* Text out of a message: up to its terminator, if it has one, with control characters replaced. Null is empty. */
void format_put_foreign(struct format_out *out, const char *text, size_t length);

}   // extern "C"
