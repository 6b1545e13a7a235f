/*
 * Base64 decoder that takes its text in pieces.
 *
 * Every character of the alphabet brings six bits. They are shifted into a small accumulator, and an octet is stored as
 * soon as eight are there, so that between calls at most six bits are held back. Decoding in place is safe for that
 * reason: a character read stores one octet at most.
 *
 * bs_characters counts modulo 4 and tells at the end whether the last group is whole. A group of two or three
 * characters is a good end only if padding followed it; how much padding is not looked at.
 *
 * A bad octet is remembered: every later piece fails too, and so does the end.
 */
#include "platform/text/text.h"

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>

#include <array>

struct base64_state {
    uint32_t bs_bits;         // what is not stored yet, in the low bits
    uint32_t bs_bit_count;    // 0, 2, 4 or 6 between characters
    uint32_t bs_characters;   // of the current group, 0 to 3
    bool bs_padded;           // the first '=' has been met: the rest is not looked at
    bool bs_bad;              // an octet that is not of the alphabet has been met
};

enum : uint8_t { CODE_BAD = 0xff, CODE_SPACE = 0xfe, CODE_PAD = 0xfd };

static constexpr std::array<uint8_t, 256> codes = [] {
    std::array<uint8_t, 256> table{};
    table.fill(CODE_BAD);
    for (uint8_t i = 0; i < 26; i++) {
        table['A' + i] = i;
        table['a' + i] = (uint8_t)(26 + i);
    }
    for (uint8_t i = 0; i < 10; i++) table['0' + i] = (uint8_t)(52 + i);
    table['+'] = 62;
    table['/'] = 63;
    table['='] = CODE_PAD;
    for (char c : { ' ', '\t', '\r', '\n' }) table[(uint8_t)c] = CODE_SPACE;
    return table;
}();

struct base64_state *base64_start(void)
{
    return (struct base64_state *)calloc(1, sizeof(struct base64_state));
}

int base64_decode_chunk(const char *in, char *out, size_t length, struct base64_state *state)
{
    if (!state || state->bs_bad || length > INT_MAX) return -1;

    int stored = 0;
    for (size_t i = 0; i < length && !state->bs_padded; i++) {
        uint8_t code = codes[(uint8_t)in[i]];
        if (code == CODE_SPACE) continue;
        if (code == CODE_BAD) {
            state->bs_bad = true;
            return -1;
        }
        if (code == CODE_PAD) {
            state->bs_padded = true;
            break;
        }
        state->bs_bits = (state->bs_bits << 6 | code) & 0xfff;
        state->bs_bit_count += 6;
        state->bs_characters = (state->bs_characters + 1) % 4;
        if (state->bs_bit_count < 8) continue;
        state->bs_bit_count -= 8;
        out[stored++] = (char)(state->bs_bits >> state->bs_bit_count);
    }
    return stored;
}

int base64_decode_end(struct base64_state *state)
{
    if (!state) return -1;
    bool whole = state->bs_characters == 0 || (state->bs_characters >= 2 && state->bs_padded);
    int result = whole && !state->bs_bad ? 0 : -1;
    free(state);
    return result;
}
