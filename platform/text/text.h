/*
 * Text: bounded formatting, XML entities and base64, for code that works in fixed buffers.
 * Nothing here keeps state, and only base64_start allocates.
 */
#pragma once

#include <stdarg.h>
#include <stddef.h>

extern "C" {

/* Formats into buffer, always terminated if size is above 0. The number of octets stored, without the terminator: never
 * more than size - 1, also when the text was cut. 0 if size is 0 or the format cannot be rendered. */
[[gnu::format(printf, 3, 4)]] size_t snprintf_safe(char *buffer, size_t size, const char *format, ...);
[[gnu::format(printf, 3, 0)]] size_t vsnprintf_safe(char *buffer, size_t size, const char *format, va_list args);

/* Replaces the entities &lt; &gt; &amp; &apos; &quot; and the character references &#D; and &#xH; (as UTF-8) in the
 * first length octets of in, writing to out, which may be in itself; anything else, an unknown or unfinished entity
 * included, is copied as it stands. Stores a terminating zero behind the result if the result is shorter than length.
 * flags is 0. The length of the result, never above length. */
size_t xml_unescape(const char *in, size_t length, char *out, int flags);

/* Base64 (RFC 4648) in pieces. White space and line ends are skipped, decoding ends at the first '='. */
struct base64_state;
/* A fresh decoder, freed by base64_decode_end; null if memory is out. */
[[nodiscard]] struct base64_state *base64_start(void);
/* Decodes length octets of in to out, which may be in itself. The octets stored, at most length * 3 / 4 + 2; -1 if an
 * octet is not of the alphabet or state is null: what was stored before it is then worthless. */
[[nodiscard]] int base64_decode_chunk(const char *in, char *out, size_t length, struct base64_state *state);
/* Frees the decoder (null allowed). 0, or -1 if it ended in the middle of a group or had met a bad octet. */
int base64_decode_end(struct base64_state *state);

}   // extern "C"
