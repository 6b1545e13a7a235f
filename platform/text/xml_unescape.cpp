/*
 * XML entities back to text.
 *
 * One pass from left to right. At each '&' the longest thing that could be a reference is looked at, and either
 * replaced as a whole or left alone, in which case only the '&' itself is copied: what follows it is looked at afresh.
 * The result of a replacement is never looked at again, so "&amp;lt;" becomes "&lt;".
 *
 * Working in place is safe because no replacement is longer than its reference: the shortest references to a character
 * of n octets in UTF-8 ("&#9;", "&#x80;", "&#x800;", "&#x10000;") have more than n octets. Hence at every moment the
 * writer stands at or before the reader.
 *
 * A character reference that names no character (0, a surrogate, anything past the last code point) is left as it
 * stands; a sender's mistake stays visible and never becomes a terminator in the middle of a text.
 */
#include "platform/text/text.h"

#include <stdint.h>

#include <string_view>

static constexpr struct entity {
    std::string_view en_reference;
    char en_character;
} entities[] = {
    { "&lt;", '<' }, { "&gt;", '>' }, { "&amp;", '&' }, { "&apos;", '\'' }, { "&quot;", '"' },
};

static constexpr uint32_t CODE_POINT_MAX = 0x10ffff;

static bool is_character(uint32_t code)
{
    return code != 0 && code <= CODE_POINT_MAX && (code < 0xd800 || code > 0xdfff);
}

/* Writes code as UTF-8. The octets written, 1 to 4. */
static size_t put_utf8(uint32_t code, char *out)
{
    static constexpr struct {
        uint32_t end, lead;
    } forms[] = { { 0x80, 0 }, { 0x800, 0xc0 }, { 0x10000, 0xe0 }, { CODE_POINT_MAX + 1, 0xf0 } };

    size_t more = 0;
    while (code >= forms[more].end) more++;
    for (size_t i = more; i > 0; i--, code >>= 6) out[i] = (char)(0x80 | (code & 0x3f));
    out[0] = (char)(forms[more].lead | code);
    return more + 1;
}

/* The value of c as a digit, or base if it is none. */
static uint32_t digit_value(char c, uint32_t base)
{
    uint32_t value = base;
    if (c >= '0' && c <= '9') value = (uint32_t)(c - '0');
    else if (c >= 'a' && c <= 'f') value = (uint32_t)(c - 'a') + 10;
    else if (c >= 'A' && c <= 'F') value = (uint32_t)(c - 'A') + 10;
    return value < base ? value : base;
}

/* Reads the character reference at the start of text. Its length, or 0 if there is none. */
static size_t character_reference(std::string_view text, uint32_t *code)
{
    if (!text.starts_with("&#")) return 0;
    uint32_t base = text.substr(2).starts_with('x') ? 16 : 10;
    size_t first = base == 16 ? 3 : 2, at = first;

    uint32_t value = 0;
    for (; at < text.size() && digit_value(text[at], base) < base; at++) {
        // Stays where it is once it is past all characters, so that many digits cannot bring it back by overflow.
        if (value <= CODE_POINT_MAX) value = value * base + digit_value(text[at], base);
    }
    if (at == first || at == text.size() || text[at] != ';' || !is_character(value)) return 0;
    *code = value;
    return at + 1;
}

/* Replaces the reference at the start of text. Its length, or 0 if there is none. */
static size_t replace_reference(std::string_view text, char *out, size_t *written)
{
    for (const entity &row : entities) {
        if (!text.starts_with(row.en_reference)) continue;
        *out = row.en_character;
        *written = 1;
        return row.en_reference.size();
    }
    uint32_t code = 0;
    size_t length = character_reference(text, &code);
    if (length != 0) *written = put_utf8(code, out);
    return length;
}

size_t xml_unescape(const char *in, size_t length, char *out, int)
{
    size_t stored = 0;
    for (size_t at = 0; at < length;) {
        size_t written = 0, taken = 0;
        if (in[at] == '&') taken = replace_reference({ in + at, length - at }, out + stored, &written);
        if (taken == 0) {
            out[stored] = in[at];
            taken = written = 1;
        }
        at += taken;
        stored += written;
    }
    if (stored < length) out[stored] = '\0';
    return stored;
}
