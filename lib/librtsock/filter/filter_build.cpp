/*
 * Builders of the filter compiler. The parser calls one for each thing that it has recognized; the builder writes the
 * instruction at the cursor and returns a node that points to it, so the program is complete when the last rule is.
 *
 * True between two builders:
 *   - the cursor stands behind the last instruction, at a multiple of 16 from the start of the block;
 *   - octets behind the cursor have not been written;
 *   - every node is on the live list, and points to its own instruction. An operator's is the last one of what it
 *     computes, so a short-circuit is put on the left operand's node and lands on the operator.
 * A builder that has no room or no memory does not return: it gives the compilation up. The caller's buffer may stand
 * at any address, so numbers go in and out by copy.
 *
 * The steps of a path are told apart by what follows: the last "." of a chain has a number of its own, which is put in
 * when another kind of step or the end of the path shows that it was the last.
 */
#include "lib/librtsock/filter/filter_build.h"
#include <filter_grammar.h>   // generated; the tokens

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

namespace {

enum { WORD_BITS = 32, SHORTEST_NAME = 4 };

constexpr struct operation_row {
    int token;
    int32_t plain, ipv4, ipv6;   // operation, by what the operands are
} operations[] = {
    { EQ, RTS_FILTER_EQ, RTS_FILTER_EQ_4, RTS_FILTER_EQ_6 },
    { NE, RTS_FILTER_NE, RTS_FILTER_NE_4, RTS_FILTER_NE_6 },
    { '>', RTS_FILTER_GT, RTS_FILTER_GT, RTS_FILTER_GT },
    { '<', RTS_FILTER_LT, RTS_FILTER_LT, RTS_FILTER_LT },
    { GE, RTS_FILTER_GE, RTS_FILTER_GE, RTS_FILTER_GE },
    { LE, RTS_FILTER_LE, RTS_FILTER_LE, RTS_FILTER_LE },
    { '+', RTS_FILTER_ADD, RTS_FILTER_ADD, RTS_FILTER_ADD },
    { '-', RTS_FILTER_SUBTRACT, RTS_FILTER_SUBTRACT, RTS_FILTER_SUBTRACT },
    { AND, RTS_FILTER_AND, RTS_FILTER_AND, RTS_FILTER_AND },
    { OR, RTS_FILTER_OR, RTS_FILTER_OR, RTS_FILTER_OR },
    { ARROW, RTS_FILTER_STEP, RTS_FILTER_STEP, RTS_FILTER_STEP },
    { '.', RTS_FILTER_STEP, RTS_FILTER_STEP, RTS_FILTER_STEP },
    { '~', RTS_FILTER_MATCH, RTS_FILTER_MATCH, RTS_FILTER_MATCH },
    { '&', RTS_FILTER_BIT_AND, RTS_FILTER_BIT_AND, RTS_FILTER_BIT_AND },
};

constexpr struct constant_row {
    const char *name;
    int32_t value;
} constants[] = {
    { "AF_INET", 2 },           { "AF_INET6", 28 },
    { "AF_ATM", 30 },           { "AF_ROUTE", 17 },
    { "AF_LINK", 18 },          { "GENCFG_SDK_MAJOR_TYPE", 32768 },
    { "MEM_1MB", 1048576 },     { "RTM_ADD", 1 },
    { "RTM_CHANGE", 2 },        { "RTM_CLEAR", 6 },
    { "RTM_DELETE", 3 },        { "RTM_GET", 4 },
    { "RTM_GETNEXT", 5 },       { "GENCFG_TYPE_PUBLIC", 19 },
    { "GENCFG_MPSDK_CFG", 21 },
};

/* An instruction of length octets at the cursor, zeros but for its code and length. */
uint8_t *reserve(enum rts_filter_code code, size_t length)
{
    size_t padded = (length + RTS_FILTER_ALIGN - 1) / RTS_FILTER_ALIGN * RTS_FILTER_ALIGN;
    if (yyrts_state.size < yyrts_state.cursor || yyrts_state.size - yyrts_state.cursor < padded) {
        yyrts_state.full = true;
        yyrtserror("Insufficient parse buffer size!\n");
        yyrts_abandon();
    }
    uint8_t *output = yyrts_state.buffer + yyrts_state.cursor;
    yyrts_state.cursor += padded;
    memset(output, 0, padded);
    // A length that does not fit 16 bits is of a program that is refused in the end.
    struct rts_filter_instr instr = { 0, 0, 0, uint16_t(code), uint16_t(length) };
    memcpy(output, &instr, sizeof instr);
    return output;
}

/* A node for a new instruction with the payload; room is what the payload takes at least. */
struct yyrts_node *build(enum yyrts_kind kind, enum rts_filter_code code, const void *payload, size_t length,
                         size_t room = 0)
{
    size_t taken = length < room ? room : length;
    uint8_t *output = reserve(code, sizeof(struct rts_filter_instr) + taken);
    memcpy(output + sizeof(struct rts_filter_instr), payload, length);
    auto *node = static_cast<struct yyrts_node *>(calloc(1, sizeof(struct yyrts_node)));
    if (node == nullptr) {
        yyrtserror("Out of memory!\n");
        yyrts_abandon();
    }
    node->kind = kind;
    node->output = output;
    node->next = yyrts_state.live;
    yyrts_state.live = node;
    return node;
}

struct rts_filter_instr instr_of(const uint8_t *output)
{
    struct rts_filter_instr instr;
    memcpy(&instr, output, sizeof instr);
    return instr;
}

void set_words(uint8_t *output, uint32_t words)
{
    memcpy(output + offsetof(struct rts_filter_instr, words), &words, sizeof words);
}

void set_operation(uint8_t *output, int32_t operation)
{
    memcpy(output + sizeof(struct rts_filter_instr), &operation, sizeof operation);
}

/* The first of the operands that is an address, or null. */
const struct yyrts_node *address_of(const struct yyrts_node *node)
{
    for (unsigned i = 0; i < node->argument_count; i++)
        if (node->arguments[i]->kind == YYRTS_IPV4 || node->arguments[i]->kind == YYRTS_IPV6)
            return node->arguments[i];
    return nullptr;
}

/* The operation of an operator, and the words of those that compare addresses. */
void choose_operation(struct yyrts_node *node)
{
    for (const auto &row : operations) {
        if (row.token != node->value)
            continue;
        const struct yyrts_node *address = address_of(node);
        if (address == nullptr) {
            set_operation(node->output, row.plain);
            return;
        }
        set_operation(node->output, address->kind == YYRTS_IPV4 ? row.ipv4 : row.ipv6);
        if (row.ipv4 != row.plain)
            set_words(node->output, instr_of(address->output).words);
        return;
    }
    yyrtserror("Unknown op \n");   // the operation stays 0
}

/* Evaluation skips from behind the left operand to the operator if the left value decides. */
void short_circuit(const struct yyrts_node *node)
{
    uint8_t *left = node->arguments[0]->output;
    struct rts_filter_instr instr = instr_of(left);
    instr.jump = uint32_t(node->output - left);
    instr.sense = node->value == OR;
    memcpy(left, &instr, sizeof instr);
}

void close_dots()
{
    if (yyrts_state.last_step != '.')
        return;
    if (yyrts_state.last_dot == nullptr)
        yyrtserror("-> messup!\n");
    else
        set_operation(yyrts_state.last_dot, RTS_FILTER_STEP_LAST);
    yyrts_state.last_dot = nullptr;
}

void take_step(const struct yyrts_node *node)
{
    if (node->value == '.')
        yyrts_state.last_dot = node->output;
    else
        close_dots();
    yyrts_state.last_step = node->value;
}

}   // namespace

bool yyrts_id_constant(const char *name, int32_t *value)
{
    for (const auto &row : constants) {
        if (row.name[0] == name[0] && strcmp(row.name, name) == 0) {
            *value = row.value;
            return true;
        }
    }
    return false;
}

struct yyrts_node *yyrts_int_constant(int32_t value)
{
    struct yyrts_node *node = build(YYRTS_INTEGER, RTS_FILTER_INTEGER, &value, sizeof value);
    node->value = value;
    return node;
}

struct yyrts_node *yyrts_string_constant(const char *text)
{
    return build(YYRTS_STRING, RTS_FILTER_STRING, text, strlen(text) + 1);
}

struct yyrts_node *yyrts_identifier(const char *name)
{
    enum rts_filter_code code = yyrts_state.names++ == 0 ? RTS_FILTER_FIELD : RTS_FILTER_FIELD_NEXT;
    return build(YYRTS_NAME, code, name, strlen(name) + 1, SHORTEST_NAME);
}

struct yyrts_node *yyrts_context_operator(const char *name)
{
    // The room comes first: a "$" that does not fit is not looked at.
    struct yyrts_node *node = build(YYRTS_NAME, RTS_FILTER_CONTEXT, name, strlen(name) + 1, SHORTEST_NAME);
    if (yyrts_state.names++ != 0)
        yyrtserror("Parse error: Context operator can not be a field\n");
    return node;
}

struct yyrts_node *yyrts_ipv4_address(const char *text)
{
    struct in_addr address = {};
    if (inet_aton(text, &address) == 0) {
        yyrtserror("Invalid ip prefix\n");
        address = {};   // Kept on purpose: 0.0.0.0 goes on into the program, which is refused only in the end
    }
    struct yyrts_node *node = build(YYRTS_IPV4, RTS_FILTER_ADDRESS_4, &address, sizeof address);
    set_words(node->output, sizeof address * 8 / WORD_BITS);
    return node;
}

struct yyrts_node *yyrts_ipv6_address(const char *text)
{
    struct in6_addr address = {};
    if (inet_pton(AF_INET6, text, &address) != 1) {
        yyrtserror("Invalid ipv6 prefix");   // Kept on purpose: without a line end of its own, unlike its neighbours
        address = {};                        // Kept on purpose: :: goes on, as 0.0.0.0 does
    }
    struct yyrts_node *node = build(YYRTS_IPV6, RTS_FILTER_ADDRESS_6, &address, sizeof address);
    set_words(node->output, sizeof address * 8 / WORD_BITS);
    return node;
}

struct yyrts_node *yyrts_set_prefix_len(struct yyrts_node *address, int32_t bits)
{
    // Kept on purpose: whole words only, at least one, and no limit: 10.0.0.0/33 compares two words. The sum is 64 bits
    // wide, so that no number can make it wrap.
    uint64_t words = (uint64_t(uint32_t(bits)) + WORD_BITS - 1) / WORD_BITS;
    set_words(address->output, bits == 0 ? 1 : uint32_t(words));
    return address;
}

struct yyrts_node *yyrts_operator(int token, struct yyrts_node *left, struct yyrts_node *right)
{
    const int32_t none = 0;
    struct yyrts_node *node = build(YYRTS_OPERATOR, RTS_FILTER_OPERATOR, &none, sizeof none);
    node->value = token;
    node->argument_count = YYRTS_OPERANDS;
    node->arguments[0] = left;
    node->arguments[1] = right;
    choose_operation(node);
    if (token == AND || token == OR)
        short_circuit(node);
    if (token == '.' || token == ARROW)
        take_step(node);
    return node;
}

void yyrts_path_begin(void)
{
    yyrts_state.names = 0;
    yyrts_state.last_step = 0;
    yyrts_state.last_dot = nullptr;
}

void yyrts_path_end(void)
{
    close_dots();
}

void yyrts_code_gen(void)
{
    size_t length = yyrts_state.cursor - sizeof(struct rts_filter_head);
    if (length > RTS_FILTER_LENGTH_MAX) {
        yyrtserror("Filter length exceeds maximum size\n");
        return;
    }
    struct rts_filter_head head = { {}, uint16_t(length) };
    memcpy(yyrts_state.buffer, &head, sizeof head);
}

void yyrts_free_parse_tree(void)
{
    while (yyrts_state.live != nullptr) {
        struct yyrts_node *node = yyrts_state.live;
        yyrts_state.live = node->next;
        free(node);
    }
}
