/*
 * Inside of the filter compiler: what scanner, parser, builders and input share. Nobody else includes it, but for a
 * tool that wants the scanner's output stream. Every symbol has the prefix of the generated parser, so that a program
 * may hold others of the kind.
 */
#pragma once

#include "lib/librtsock/filter/rts_filter.h"

#include <setjmp.h>
#include <stdio.h>

enum yyrts_kind {
    YYRTS_INTEGER = 0,
    YYRTS_STRING = 1,
    YYRTS_OPERATOR = 2,
    YYRTS_NAME = 3,
    YYRTS_IPV4 = 4,
    YYRTS_IPV6 = 5,
};

enum { YYRTS_OPERANDS = 2 };

/* An operand or operator whose instruction has been written. Owned by the list of live nodes. */
struct yyrts_node {
    enum yyrts_kind kind;
    uint8_t *output;                            // its instruction, in the caller's buffer
    int32_t value;                              // integer: the value; operator: its token
    unsigned argument_count;                    // of an operator, otherwise 0
    struct yyrts_node *arguments[YYRTS_OPERANDS];
    struct yyrts_node *next;                    // list of live nodes
};

/* The compilation that runs. */
struct yyrts_state {
    uint8_t *buffer;           // the caller's
    size_t size;               // of buffer
    size_t cursor;             // offset of the next instruction
    struct yyrts_node *live;   // every node that is allocated
    jmp_buf top;               // where yyrts_abandon goes
    unsigned errors;           // reports so far
    bool full;                 // the program did not fit

    unsigned names;            // of the path that is being read
    int last_step;             // token of its last step, 0 before the first
    uint8_t *last_dot;         // instruction of the last "." of a chain that is not closed

    unsigned line, column;     // behind the word being read, from 1
    unsigned word_line, word_column;
    unsigned error_line, error_column;
};
extern struct yyrts_state yyrts_state;

extern FILE *yyrtsout;   // takes the characters that begin no word; standard output unless set before a compilation

extern "C" {

/* Parser and scanner, generated. yyrtsparse is 0, or not if it reported something. */
int yyrtsparse(void);
int yyrtslex(void);
void yyrts_free_stack(void);    // the parser's, if it was left by a jump
void yyrts_flush_buffer(void);  // forgets what the scanner has read ahead, and its memory

/* Prints text and a blank and a line end on standard error, and counts. */
void yyrtserror(const char *text);
/* Gives the compilation up: control goes back to its top. */
[[noreturn]] void yyrts_abandon(void);

/* Input. 0, or -1 with the reason reported; then nothing is open. */
int yyrts_setyyin(const char *path);
int yyrts_setyyin_mem(const char *text);
void yyrts_closeyyin(void);
/* The next octets of the open input, or of standard input. Their count, 0 at the end. */
size_t yyrts_read(char *octets, size_t room);

/* Scanner. Puts the value of a named constant into *value, if name is one. */
bool yyrts_id_constant(const char *name, int32_t *value);
void yyrts_word(size_t length);                       // a word of length octets begins
void yyrts_line_ends(const char *text, size_t length);  // it was this, and may hold line ends

/* Builders: each writes the instruction of what was read and returns its node, never null. Texts are only read. */
struct yyrts_node *yyrts_int_constant(int32_t value);
struct yyrts_node *yyrts_string_constant(const char *text);
struct yyrts_node *yyrts_identifier(const char *name);
struct yyrts_node *yyrts_context_operator(const char *name);
struct yyrts_node *yyrts_ipv4_address(const char *text);
struct yyrts_node *yyrts_ipv6_address(const char *text);
struct yyrts_node *yyrts_operator(int token, struct yyrts_node *left, struct yyrts_node *right);
struct yyrts_node *yyrts_set_prefix_len(struct yyrts_node *address, int32_t bits);
void yyrts_path_begin(void);
void yyrts_path_end(void);
void yyrts_code_gen(void);          // head of the block; a program that is too long is reported instead
void yyrts_free_parse_tree(void);   // every live node

}   // extern "C"
