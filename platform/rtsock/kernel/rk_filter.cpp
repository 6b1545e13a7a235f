/*
 * Evaluation of filters: one walk over the instructions with a stack of values.
 *
 * A value is a number, octets (a text, an address, a field of octets), a record, or a name that waits for its step. A
 * name that the message does not have is nothing, which is 0 and no octets.
 */
#include "platform/rtsock/kernel/rk_filter.h"

#include "lib/librtsock/filter/rts_filter.h"
#include "lib/librtsock/idl/idl.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum { WORD = 4, ADDRESS_4 = 4, ADDRESS_6 = 16 };

enum value_kind : uint8_t { NOTHING, NUMBER, OCTETS, RECORD, NAME };

struct value {
    value_kind kind;
    int64_t number;
    const uint8_t *octets;   // of OCTETS, and the text of a NAME
    size_t length;
    const struct idl_type *type;   // of a RECORD, with its place
    const void *record;
    bool text;               // OCTETS that the source wrote as a string
};

struct evaluation {
    const void *block;
    size_t size, at;
    const struct idl_type *type;
    const void *record;
    struct value stack[RK_FILTER_DEPTH];
    size_t depth;
};

/* Other words for fields. */
struct alias {
    const char *name, *field;
};
constexpr alias aliases[] = {
    { "rtm_type", "rtsh_op" }, { "op", "rtsh_op" }, { "type", "rtsh_type" }, { "family", "af" }, { "dst", "prefix" },
};

/* --- fields ------------------------------------------------------------------------------------------------------- */

const uint8_t *at(const void *record, uint32_t offset)
{
    return static_cast<const uint8_t *>(record) + offset;
}

template <typename type> type read_at(const void *record, uint32_t offset)
{
    type out;
    memcpy(&out, at(record, offset), sizeof out);
    return out;
}

struct value number(int64_t of)
{
    return { NUMBER, of, nullptr, 0, nullptr, nullptr, false };
}

struct value octets(const uint8_t *from, size_t length)
{
    return { OCTETS, 0, from, from != nullptr ? length : 0, nullptr, nullptr, false };
}

struct value integer(const void *record, const struct idl_field &field)
{
    switch (field.if_width) {
    case 1:
        return number(read_at<uint8_t>(record, field.if_offset));
    case 2:
        return number(read_at<uint16_t>(record, field.if_offset));
    case 4:
        return number(read_at<uint32_t>(record, field.if_offset));
    default:
        return number(int64_t(read_at<uint64_t>(record, field.if_offset)));
    }
}

/* A list stands for its first item. */
struct value first_item(const void *record, const struct idl_field &field)
{
    auto count = read_at<uint32_t>(record, field.if_len_offset);
    const auto *items = read_at<const uint8_t *>(record, field.if_offset);
    if (count == 0 || items == nullptr)
        return {};
    if (field.if_kind == IDL_KIND_LIST_PTR)
        items = read_at<const uint8_t *>(items, 0);
    return { RECORD, 0, nullptr, 0, field.if_type, items, false };
}

struct value field_value(const void *record, const struct idl_field &field)
{
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
        return integer(record, field);
    case IDL_KIND_AF:
        return number(read_at<uint8_t>(record, field.if_offset));
    case IDL_KIND_BYTES:
        return octets(at(record, field.if_offset), field.if_size);
    case IDL_KIND_OPAQUE:
        return octets(read_at<const uint8_t *>(record, field.if_offset),
                      read_at<uint32_t>(record, field.if_len_offset));
    case IDL_KIND_WORD_LIST:
        return octets(read_at<const uint8_t *>(record, field.if_offset),
                      size_t(read_at<uint32_t>(record, field.if_len_offset)) * WORD);
    case IDL_KIND_RECORD:
        return { RECORD, 0, nullptr, 0, field.if_type, at(record, field.if_offset), false };
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        return first_item(record, field);
    default:
        return {};
    }
}

bool same_name(const char *name, const uint8_t *text, size_t length)
{
    return strlen(name) == length && memcmp(name, text, length) == 0;
}

/* A field of that name, of the record itself or of its header. */
struct value find(const struct idl_type *type, const void *record, const uint8_t *text, size_t length)
{
    for (uint32_t i = 0; record != nullptr && !type->it_choice && i < type->it_count; i++) {
        const struct idl_field &field = type->it_fields[i];
        if (same_name(field.if_name, text, length))
            return field_value(record, field);
        if (field.if_type != nullptr && field.if_kind == IDL_KIND_RECORD && strcmp(field.if_name, "rts_hdr") == 0) {
            struct value found = find(field.if_type, at(record, field.if_offset), text, length);
            if (found.kind != NOTHING)
                return found;
        }
    }
    return {};
}

/* The first name of a path: a field, or another word for one. */
struct value find_first(const struct idl_type *type, const void *record, const uint8_t *text, size_t length)
{
    struct value found = find(type, record, text, length);
    for (const struct alias &alias : aliases) {
        if (found.kind == NOTHING && same_name(alias.name, text, length))
            found = find(type, record, reinterpret_cast<const uint8_t *>(alias.field), strlen(alias.field));
    }
    return found;
}

/* --- operations --------------------------------------------------------------------------------------------------- */

int64_t as_number(const struct value &v)
{
    return v.kind == NUMBER ? v.number : 0;
}

bool truth(const struct value &v)
{
    return v.kind == RECORD || (v.kind == OCTETS && v.length != 0) || as_number(v) != 0;
}

/* A text counts to its terminator. */
size_t text_length(const struct value &v)
{
    return v.kind == OCTETS && v.length != 0 ? strnlen(reinterpret_cast<const char *>(v.octets), v.length) : 0;
}

/* Integers of the source have 32 bits with a sign, fields of that width have none. */
bool same_number(int64_t a, int64_t b)
{
    bool narrow = a >= INT32_MIN && a <= UINT32_MAX && b >= INT32_MIN && b <= UINT32_MAX;
    return a == b || (narrow && uint32_t(a) == uint32_t(b));
}

/* Octets with a string as texts, with other octets whole, and with a number only if there are none and it is 0. */
bool equal(const struct value &left, const struct value &right)
{
    if (left.kind != OCTETS && right.kind != OCTETS)
        return same_number(as_number(left), as_number(right));
    if (left.kind != right.kind)
        return left.length == 0 && right.length == 0 && as_number(left) == 0 && as_number(right) == 0;
    bool text = left.text || right.text;
    size_t length = text ? text_length(left) : left.length;
    return length == (text ? text_length(right) : right.length) &&
           (length == 0 || memcmp(left.octets, right.octets, length) == 0);
}

/* The address in octets, which may be a sockaddr (length, family, then where the family has it). */
struct value address_of(const struct value &v, size_t octets_of_address)
{
    enum { AT_4 = 4, AT_6 = 8 };
    const struct value *sockaddr = &v;
    struct value inner = {};
    if (v.kind == RECORD && v.type != nullptr) {
        static const char name[] = "sa";
        inner = find(v.type, v.record, reinterpret_cast<const uint8_t *>(name), strlen(name));
        sockaddr = &inner;
    }
    if (sockaddr->kind != OCTETS)
        return {};
    size_t offset = octets_of_address == ADDRESS_4 ? AT_4 : AT_6;
    bool is_sockaddr = sockaddr->length > octets_of_address && sockaddr->length >= offset + octets_of_address &&
                       sockaddr->octets[0] == sockaddr->length &&
                       sockaddr->octets[1] == (octets_of_address == ADDRESS_4 ? TARGET_AF_INET : TARGET_AF_INET6);
    return is_sockaddr ? octets(sockaddr->octets + offset, octets_of_address) : *sockaddr;
}

/* Over so many words, or as many as an address has. */
bool same_address(const struct value &left, const struct value &right, uint32_t words, size_t octets_of_address)
{
    struct value a = address_of(left, octets_of_address), b = address_of(right, octets_of_address);
    size_t length = std::min(size_t(words) * WORD, octets_of_address);
    return a.length >= length && b.length >= length && a.length <= octets_of_address &&
           b.length <= octets_of_address && length != 0 && memcmp(a.octets, b.octets, length) == 0;
}

bool contains(const struct value &left, const struct value &right)
{
    size_t length = text_length(right), room = text_length(left);
    return length == 0 || (room != 0 && memmem(left.octets, room, right.octets, length) != nullptr);
}

struct value step(const struct value &left, const struct value &right)
{
    bool possible = left.kind == RECORD && left.type != nullptr && right.kind == NAME;
    return possible ? find(left.type, left.record, right.octets, right.length) : value{};
}

/* False for an operation that is not known. */
bool operate(int32_t operation, uint32_t words, const struct value &left, const struct value &right, struct value *out)
{
    int64_t a = as_number(left), b = as_number(right);
    switch (operation) {
    case RTS_FILTER_EQ: *out = number(equal(left, right)); return true;
    case RTS_FILTER_NE: *out = number(!equal(left, right)); return true;
    case RTS_FILTER_GT: *out = number(a > b); return true;
    case RTS_FILTER_LT: *out = number(a < b); return true;
    case RTS_FILTER_GE: *out = number(a >= b); return true;
    case RTS_FILTER_LE: *out = number(a <= b); return true;
    case RTS_FILTER_ADD: *out = number(int64_t(uint64_t(a) + uint64_t(b))); return true;
    case RTS_FILTER_SUBTRACT: *out = number(int64_t(uint64_t(a) - uint64_t(b))); return true;
    case RTS_FILTER_EQ_4: *out = number(same_address(left, right, words, ADDRESS_4)); return true;
    case RTS_FILTER_NE_4: *out = number(!same_address(left, right, words, ADDRESS_4)); return true;
    case RTS_FILTER_EQ_6: *out = number(same_address(left, right, words, ADDRESS_6)); return true;
    case RTS_FILTER_NE_6: *out = number(!same_address(left, right, words, ADDRESS_6)); return true;
    case RTS_FILTER_AND: *out = number(truth(left) && truth(right)); return true;
    case RTS_FILTER_OR: *out = number(truth(left) || truth(right)); return true;
    case RTS_FILTER_STEP:
    case RTS_FILTER_STEP_LAST: *out = step(left, right); return true;
    case RTS_FILTER_MATCH: *out = number(contains(left, right)); return true;
    case RTS_FILTER_BIT_AND: *out = number(a & b); return true;
    default: return false;
    }
}

/* --- the walk ----------------------------------------------------------------------------------------------------- */

/* False if a value cannot be had. */
bool operand(const struct evaluation *e, const struct rts_filter_instr &instr, const uint8_t *payload,
             struct value *out)
{
    size_t length = instr.length - sizeof instr;
    int32_t word = 0;
    switch (instr.code) {
    case RTS_FILTER_FIELD:
        length = strnlen(reinterpret_cast<const char *>(payload), length);
        *out = e->type != nullptr ? find_first(e->type, e->record, payload, length) : value{};
        return true;
    case RTS_FILTER_FIELD_NEXT:
        *out = { NAME, 0, payload, strnlen(reinterpret_cast<const char *>(payload), length), nullptr, nullptr,
                 false };
        return true;
    case RTS_FILTER_CONTEXT:
        *out = { RECORD, 0, nullptr, 0, e->type, e->record, false };
        return true;
    case RTS_FILTER_INTEGER:
        if (length < sizeof word)
            return false;
        memcpy(&word, payload, sizeof word);
        *out = number(word);
        return true;
    case RTS_FILTER_STRING:
    case RTS_FILTER_ADDRESS_4:
    case RTS_FILTER_ADDRESS_6:
        *out = octets(payload, length);
        out->text = instr.code == RTS_FILTER_STRING;
        return true;
    default:
        return false;
    }
}

/* One operator on the two values on top. */
bool run_operator(struct evaluation *e, const struct rts_filter_instr &instr, const uint8_t *payload)
{
    int32_t operation;
    if (instr.length - sizeof instr < sizeof operation || e->depth < 2)
        return false;
    memcpy(&operation, payload, sizeof operation);
    struct value out = {};
    if (!operate(operation, instr.words, e->stack[e->depth - 2], e->stack[e->depth - 1], &out))
        return false;
    e->depth--;
    e->stack[e->depth - 1] = out;
    return true;
}

/* The operator that a jump leads to; its value is the left operand's. False if there is none. */
bool follow_jump(struct evaluation *e, size_t from, struct rts_filter_instr *instr, size_t *here)
{
    size_t target = from + instr->jump;
    const uint8_t *payload;
    int32_t operation;
    if (target < e->at || target % RTS_FILTER_ALIGN != 0)
        return false;
    *here = e->at = target;
    if (rts_filter_next(e->block, e->size, &e->at, instr, &payload) != 1 || instr->code != RTS_FILTER_OPERATOR ||
        instr->length - sizeof *instr < sizeof operation)
        return false;
    memcpy(&operation, payload, sizeof operation);
    e->stack[e->depth - 1] = number(truth(e->stack[e->depth - 1]));
    return operation == RTS_FILTER_AND || operation == RTS_FILTER_OR;
}

/* 1 with one value on the stack, or -1. jumps: whether they are followed. */
int walk(struct evaluation *e, bool jumps)
{
    struct rts_filter_instr instr;
    const uint8_t *payload;
    int next;
    size_t here = sizeof(struct rts_filter_head);
    while ((next = rts_filter_next(e->block, e->size, &e->at, &instr, &payload)) == 1) {
        if (instr.code == RTS_FILTER_OPERATOR) {
            if (!run_operator(e, instr, payload))
                return -1;
        } else {
            if (e->depth == RK_FILTER_DEPTH || !operand(e, instr, payload, &e->stack[e->depth]))
                return -1;
            e->depth++;
        }
        while (jumps && instr.jump != 0 && truth(e->stack[e->depth - 1]) == (instr.sense != 0)) {
            if (!follow_jump(e, here, &instr, &here))
                return -1;
        }
        here = e->at;
    }
    return next == 0 && e->depth == 1 ? 1 : -1;
}

bool is_empty(const void *block, size_t size)
{
    struct rts_filter_head head;
    if (size < sizeof head)
        return false;
    memcpy(&head, block, sizeof head);
    return head.length == 0;
}

}   // namespace

int rk_filter_holds(const void *block, size_t size, uint8_t type, const void *record)
{
    if (is_empty(block, size))
        return 1;
    struct evaluation e;
    e.block = block;
    e.size = size;
    e.at = 0;
    e.type = idl_message_type(type);
    e.record = record;
    e.depth = 0;
    return walk(&e, true) < 0 ? -1 : int(truth(e.stack[0]));
}

bool rk_filter_is_sound(const void *block, size_t size)
{
    if (is_empty(block, size))
        return true;
    struct evaluation e;
    e.block = block;
    e.size = size;
    e.at = 0;
    e.type = nullptr;
    e.record = nullptr;
    e.depth = 0;
    return walk(&e, false) == 1;
}
