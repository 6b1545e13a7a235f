/*
 * Filter language of the routing socket: compiles an expression over message fields into a flat program, which a client
 * hands to the socket layer with its registration.
 *
 * A program is one block: a head of 16 octets, then instructions in postfix order, operands before their operator. An
 * instruction is a head of 16 octets and a payload, padded with zeros to a multiple of 16. Numbers are in the host's
 * order, addresses in network order. docs/filters.md tells the language and what each operation means.
 *
 * The compiler has state of the process: one compilation at a time. Between two of them it holds no memory. Everything
 * it has to say goes to standard error, as the text, a blank and a line end.
 */
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a compilation comes to. */
enum rts_filter_result {
    RTS_FILTER_DONE = 0,
    RTS_FILTER_REFUSED = -1,    // not in the language, too long, or out of memory; the reason is on standard error
    RTS_FILTER_FULL = -2,       // the program does not fit into the buffer
    RTS_FILTER_NO_INPUT = -3,   // the source could not be opened
};

enum {
    RTS_FILTER_ALIGN = 16,         // instructions start at multiples of it
    RTS_FILTER_SOURCE_MAX = 511,   // longest text that rts_filter_string_parse takes
    RTS_FILTER_LENGTH_MAX = 65534, // most octets of instructions
    RTS_FILTER_BLOCK_SIZE = 748,   // program with its head, as a registration carries it
};

/* rts_filter_instr.code */
enum rts_filter_code {
    RTS_FILTER_FIELD = 1,         // payload: name of a message's field, with terminator
    RTS_FILTER_FIELD_NEXT = 9,    // a further name of the same path
    RTS_FILTER_INTEGER = 10,      // int32_t
    RTS_FILTER_OPERATOR = 11,     // int32_t, enum rts_filter_operation
    RTS_FILTER_STRING = 12,       // text with terminator
    RTS_FILTER_CONTEXT = 13,      // name of a context ("$"), with terminator
    RTS_FILTER_ADDRESS_4 = 14,    // 4 octets
    RTS_FILTER_ADDRESS_6 = 15,    // 16 octets
};

/* Payload of an operator. 8 and 9 are reserved. */
enum rts_filter_operation {
    RTS_FILTER_EQ = 0,
    RTS_FILTER_GT = 1,
    RTS_FILTER_LT = 2,
    RTS_FILTER_GE = 3,
    RTS_FILTER_LE = 4,
    RTS_FILTER_NE = 5,
    RTS_FILTER_ADD = 6,
    RTS_FILTER_SUBTRACT = 7,
    RTS_FILTER_EQ_4 = 10,         // with an IPv4 operand, over the operator's words
    RTS_FILTER_NE_4 = 11,
    RTS_FILTER_EQ_6 = 12,
    RTS_FILTER_NE_6 = 13,
    RTS_FILTER_AND = 14,
    RTS_FILTER_OR = 15,
    RTS_FILTER_STEP = 16,         // "->", and "." before another "."
    RTS_FILTER_STEP_LAST = 17,    // the last "." of a chain of them
    RTS_FILTER_MATCH = 18,
    RTS_FILTER_BIT_AND = 19,
};

/* In front of the instructions. */
struct rts_filter_head {
    uint8_t zero[14];
    uint16_t length;   // octets of instructions, padding included
};
static_assert(sizeof(struct rts_filter_head) == 16 && offsetof(struct rts_filter_head, length) == 14, "block head");

/* In front of each payload. */
struct rts_filter_instr {
    uint32_t jump;     // left operand of && or ||: distance from here to that operator; otherwise 0
    uint32_t sense;    // value of the left operand with which the right one is skipped: 0 for &&, 1 for ||
    uint32_t words;    // addresses and what compares them: 32-bit words of the prefix; may exceed the address
    uint16_t code;     // enum rts_filter_code
    uint16_t length;   // of this head and the payload, without padding
};
static_assert(sizeof(struct rts_filter_instr) == 16, "instruction");
static_assert(offsetof(struct rts_filter_instr, sense) == 4 && offsetof(struct rts_filter_instr, words) == 8, "order");
static_assert(offsetof(struct rts_filter_instr, code) == 12, "order");
static_assert(offsetof(struct rts_filter_instr, length) == 14, "order");

/* What a registration hands to the socket: which messages are listened to, and the filter over them. */
struct rts_filter_registration {
    uint32_t listen_lo, listen_hi;
    uint8_t filter[RTS_FILTER_BLOCK_SIZE];
};
static_assert(sizeof(struct rts_filter_registration) == 756, "registration block");

/* Compiles the file at path, or standard input if path is null, into buffer, of size octets. A value of enum
 * rts_filter_result. After another one than 0, what buffer holds means nothing; beyond size it is never written. buffer
 * needs no alignment. */
int rts_filter_parse(const char *path, void *buffer, size_t size);

/* The same for a text, of RTS_FILTER_SOURCE_MAX octets at most: a longer one counts as input that cannot be opened.
 * Standard input if text is null. With size 0 the result is -1, and nothing is looked at or reported. */
int rts_filter_string_parse(const char *text, void *buffer, size_t size);

/* Where the first error of the last compilation was found, after -1 or -2: line and column of the word being read then,
 * both from 1, columns counted in octets. */
void rts_filter_error_place(unsigned *line, unsigned *column);

/* Reads a program of any origin, one instruction a call. *at is the offset of the next one, to begin with 0.
 * 1: *instr is a copy of its head and *payload points into block, at instr->length - 16 octets of payload; *at has
 * moved behind it. 0: the program has ended. -1: the block of size octets is damaged here. With 0 and -1 the
 * out-parameters are as before. */
int rts_filter_next(const void *block, size_t size, size_t *at, struct rts_filter_instr *instr,
                    const uint8_t **payload);

#ifdef __cplusplus
}
#endif
