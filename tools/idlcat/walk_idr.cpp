/*
 * Walk over an IDR record: fields one after the other at their natural alignment, counted from the start of the record.
 * Whatever is missing is a fault.
 */
#include "tools/idlcat/idlcat.h"

#include <string.h>

#include <algorithm>

namespace {

enum { WORD = 4 };

struct record_walk {
    walk &w;
    size_t begin, end;   // of the record; its end may lie beyond it while its length is not known
    size_t offset;
};

/* Where a nested walk got to. */
bool walk_any(walk &w, const struct idl_type *type, size_t begin, size_t end, size_t *reached);

void align(record_walk &r, size_t alignment)
{
    size_t used = r.offset - r.begin;
    r.offset = r.begin + ((used + alignment - 1) & ~(alignment - 1));
}

bool wants(record_walk &r, const struct idl_field &field, uint64_t octets)
{
    if (r.offset <= r.end && octets <= r.end - r.offset)
        return true;
    size_t left = r.offset <= r.end ? r.end - r.offset : 0;
    return set_fault(r.w, std::min(r.offset, r.end),
                     std::string(field.if_name) + " wants " + std::to_string(octets) + " octets, " +
                         std::to_string(left) + " are left");
}

uint64_t read_number(const record_walk &r, size_t offset, size_t width)
{
    uint64_t value = 0;
    memcpy(&value, r.w.input.data() + offset, width);
    return value;
}

bool walk_integer(record_walk &r, const struct idl_field &field)
{
    align(r, std::min<size_t>(field.if_width, WORD));
    if (!wants(r, field, field.if_width))
        return false;
    print_field(r.w, r.offset, field.if_name, integer_text(read_number(r, r.offset, field.if_width)));
    r.offset += field.if_width;
    return true;
}

bool walk_bytes(record_walk &r, const struct idl_field &field, size_t length)
{
    if (!wants(r, field, length))
        return false;
    print_field(r.w, r.offset, field.if_name, octets_text(r.w.input.subspan(r.offset, length)));
    r.offset += length;
    return true;
}

bool read_count(record_walk &r, const struct idl_field &field, uint32_t *count)
{
    align(r, WORD);
    if (!wants(r, field, WORD))
        return false;
    *count = uint32_t(read_number(r, r.offset, WORD));
    r.offset += WORD;
    return true;
}

bool walk_words(record_walk &r, const struct idl_field &field, uint32_t count)
{
    if (!wants(r, field, uint64_t(count) * WORD))
        return false;
    std::string text = "[" + std::to_string(count) + "]";
    size_t first = r.offset;
    for (uint32_t i = 0; i < count; i++, r.offset += WORD)
        text += ' ' + std::to_string(read_number(r, r.offset, WORD));
    print_field(r.w, first, field.if_name, text);
    return true;
}

bool walk_nested(record_walk &r, const struct idl_field &field, const std::string &index)
{
    walk &w = r.w;
    size_t length = w.path.size();
    w.path += (w.path.empty() ? "" : ".") + std::string(field.if_name) + index;
    print_field(w, r.offset, field.if_name + index + ": " + field.if_type->it_name, "");
    w.depth++;
    bool good = walk_any(w, field.if_type, r.offset, r.end, &r.offset);
    w.depth--;
    w.path.resize(length);
    return good;
}

bool walk_list(record_walk &r, const struct idl_field &field, uint32_t count)
{
    if (count == 0)
        print_field(r.w, r.offset - WORD, field.if_name, "[0]");
    for (uint32_t item = 0; item < count; item++) {
        if (!walk_nested(r, field, "[" + std::to_string(item) + "]"))
            return false;
    }
    return true;
}

bool walk_field(record_walk &r, const struct idl_field &field)
{
    uint32_t count = 0;
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_FLEX:
    case IDL_KIND_AF:
        return walk_integer(r, field);
    case IDL_KIND_BYTES:
        return walk_bytes(r, field, field.if_size);
    case IDL_KIND_OPAQUE:
        return read_count(r, field, &count) && walk_bytes(r, field, count);
    case IDL_KIND_WORD_LIST:
        return read_count(r, field, &count) && walk_words(r, field, count);
    case IDL_KIND_LIST:
    case IDL_KIND_LIST_PTR:
        return read_count(r, field, &count) && walk_list(r, field, count);
    default:
        align(r, WORD);
        return walk_nested(r, field, "");
    }
}

bool walk_record(walk &w, const struct idl_type *type, size_t begin, size_t end, size_t *reached)
{
    record_walk r = { w, begin, end, begin };
    for (size_t i = 0; i < type->it_count; i++) {
        if (!walk_field(r, type->it_fields[i]))
            return false;
    }
    align(r, WORD);
    if (r.offset > end)
        return set_fault(w, end, "the padding to a multiple of 4 is missing");
    *reached = r.offset;
    return true;
}

bool walk_choice(walk &w, const struct idl_type *type, size_t begin, size_t end, size_t *reached)
{
    choice_head head;
    if (!open_choice(w, type, begin, end, &head))
        return false;
    *reached = head.end;
    size_t used = head.end;
    if (head.member != nullptr && !walk_any(w, head.member->if_type, head.body, head.end, &used))
        return false;
    return used == head.end || set_fault(w, used, std::to_string(head.end - used) + " octets too many in the choice");
}

bool walk_any(walk &w, const struct idl_type *type, size_t begin, size_t end, size_t *reached)
{
    return type->it_choice ? walk_choice(w, type, begin, end, reached) : walk_record(w, type, begin, end, reached);
}

}   // namespace

bool walk_idr(walk &w, const struct idl_type *type, size_t begin, size_t end)
{
    size_t reached = begin;
    if (!walk_any(w, type, begin, end, &reached))
        return false;
    return reached == end || set_fault(w, reached, std::to_string(end - reached) + " octets behind the record");
}
