/*
 * Walk over a TLV record, element by element, by the rules of the decoder: an unknown tag is skipped, the first
 * occurrence of a field holds, a list is one run, and a nested record must fill its element to the last octet.
 */
#include "tools/idlcat/idlcat.h"

#include <string.h>

namespace {

struct element {
    uint32_t tag;
    size_t value, end;   // offsets of the value and behind it
};

struct record_walk {
    walk &w;
    const struct idl_type *type;
    size_t begin, end;
    size_t header;   // octets of an element's header
    std::vector<bool> seen;
};

uint64_t read_number(const record_walk &r, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width; i++) {
        size_t at = r.type->it_dialect == IDL_DIALECT_NETWORK ? i : width - 1 - i;
        value = value << 8 | r.w.input[offset + at];
    }
    return value;
}

/* False if no whole element stands at offset. */
bool read_element(const record_walk &r, size_t offset, element &e)
{
    if (r.end - offset < r.header)
        return false;
    size_t word = r.header / 2;
    e.tag = uint32_t(read_number(r, offset, word));
    uint64_t length = read_number(r, offset + word, word);
    if (length > r.end - offset - r.header)
        return false;
    e.value = offset + r.header;
    e.end = e.value + size_t(length);
    return true;
}

std::span<const uint8_t> octets_of(const record_walk &r, const element &e)
{
    return r.w.input.subspan(e.value, e.end - e.value);
}

/* Without asking for a family that there is none of, which would be logged. */
std::string family_text(uint8_t number)
{
    const uint8_t numbers = 92;
    return number < numbers ? integer_text(rts_decode_af(number)) : integer_text(number) + ", no family";
}

bool walk_integer(record_walk &r, const struct idl_field &field, size_t offset, const element &e)
{
    size_t length = e.end - e.value;
    if (length < field.if_width)
        return set_fault(r.w, offset,
                         "an integer of " + std::to_string(field.if_width) + " octets has " + std::to_string(length));
    uint64_t value = read_number(r, e.value, field.if_width);
    print_field(r.w, offset, field.if_name,
                field.if_kind == IDL_KIND_AF ? family_text(uint8_t(value)) : integer_text(value));
    return true;
}

bool walk_flexible(record_walk &r, const struct idl_field &field, size_t offset, const element &e)
{
    size_t length = e.end - e.value;
    bool fits = length == 1 || length == 2 || length == 4 || length == 8;
    uint64_t value = fits ? read_number(r, e.value, length) : 0;
    if (field.if_width < sizeof value)
        value &= (uint64_t(1) << field.if_width * 8) - 1;   // a narrower field takes the low part
    std::string text = integer_text(value);
    if (!fits)
        text += ", from an odd length of " + std::to_string(length);
    print_field(r.w, offset, field.if_name, text);
    return true;
}

bool walk_words(record_walk &r, const struct idl_field &field, size_t offset, const element &e)
{
    std::string text = "[" + std::to_string((e.end - e.value) / 4) + "]";
    for (size_t at = e.value; e.end - at >= 4; at += 4)
        text += ' ' + std::to_string(read_number(r, at, 4));
    print_field(r.w, offset, field.if_name, text);
    return true;
}

bool walk_nested(record_walk &r, const struct idl_field &field, size_t offset, const element &e,
                 const std::string &index)
{
    walk &w = r.w;
    size_t length = w.path.size();
    w.path += (w.path.empty() ? "" : ".") + std::string(field.if_name) + index;
    print_field(w, offset, field.if_name + index + ": " + field.if_type->it_name, "");
    w.depth++;
    bool good = walk_tlv(w, field.if_type, e.value, e.end);
    w.depth--;
    w.path.resize(length);
    return good;
}

/* Items stand back to back. *offset is the first one's, and then behind the last. */
bool walk_list(record_walk &r, const struct idl_field &field, size_t *offset)
{
    element e;
    for (size_t item = 0; read_element(r, *offset, e) && e.tag == field.if_tag; item++) {
        if (!walk_nested(r, field, *offset, e, "[" + std::to_string(item) + "]"))
            return false;
        *offset = e.end;
    }
    return true;
}

/* As many octets as the field has: what is too much is cut, what is missing is 0. */
std::string fixed_octets_text(std::span<const uint8_t> octets, size_t size)
{
    std::vector<uint8_t> value(octets.begin(), octets.end());
    value.resize(size);
    return octets_text(value);
}

bool walk_value(record_walk &r, const struct idl_field &field, size_t offset, const element &e)
{
    switch (field.if_kind) {
    case IDL_KIND_INT:
    case IDL_KIND_AF:
        return walk_integer(r, field, offset, e);
    case IDL_KIND_FLEX:
        return walk_flexible(r, field, offset, e);
    case IDL_KIND_BYTES:
        print_field(r.w, offset, field.if_name, fixed_octets_text(octets_of(r, e), field.if_size));
        return true;
    case IDL_KIND_OPAQUE:
        print_field(r.w, offset, field.if_name, octets_text(octets_of(r, e)));
        return true;
    case IDL_KIND_WORD_LIST:
        return walk_words(r, field, offset, e);
    default:
        return walk_nested(r, field, offset, e, "");
    }
}

bool is_list(const struct idl_field &field)
{
    return field.if_kind == IDL_KIND_LIST || field.if_kind == IDL_KIND_LIST_PTR;
}

/* The element at *offset; *offset is then behind it. */
bool walk_element(record_walk &r, size_t *offset, const element &e)
{
    const struct idl_field *field = field_by_tag(r.type, e.tag);
    size_t index = field != nullptr ? size_t(field - r.type->it_fields) : 0;
    size_t at = *offset;
    *offset = e.end;
    if (field == nullptr || r.seen[index]) {
        print_field(r.w, at, (field == nullptr ? "unknown tag " : "repeated tag ") + std::to_string(e.tag),
                    octets_text(octets_of(r, e)));
        return true;
    }
    r.seen[index] = true;
    if (!is_list(*field))
        return walk_value(r, *field, at, e);
    *offset = at;
    return walk_list(r, *field, offset);
}

void print_absent(const record_walk &r)
{
    for (size_t i = 0; r.w.absent && i < r.type->it_count; i++) {
        if (!r.seen[i])
            print_field(r.w, r.end, r.type->it_fields[i].if_name, "absent");
    }
}

bool walk_record(walk &w, const struct idl_type *type, size_t begin, size_t end)
{
    size_t header = type->it_dialect == IDL_DIALECT_NETWORK ? 4 : 8;
    record_walk r = { w, type, begin, end, header, std::vector<bool>(type->it_count) };
    size_t offset = begin;
    element e;
    while (offset < end && read_element(r, offset, e)) {
        if (!walk_element(r, &offset, e))
            return false;
        size_t padded = begin + ((offset - begin + 3) & ~size_t(3));
        if (padded > end)
            break;
        offset = padded;
    }
    if (offset != end)
        return set_fault(w, offset, "the last " + std::to_string(end - offset) + " octets are no whole element");
    print_absent(r);
    return true;
}

bool walk_choice(walk &w, const struct idl_type *type, size_t begin, size_t end)
{
    if (end == begin) {
        print_field(w, begin, "tag", "none");   // reads as no member
        return true;
    }
    choice_head head;
    if (!open_choice(w, type, begin, end, &head))
        return false;
    if (head.member != nullptr && !walk_tlv(w, head.member->if_type, head.body, head.end))
        return false;
    return head.end == end || set_fault(w, head.end, std::to_string(end - head.end) + " octets behind the choice");
}

}   // namespace

bool walk_tlv(walk &w, const struct idl_type *type, size_t begin, size_t end)
{
    return type->it_choice ? walk_choice(w, type, begin, end) : walk_record(w, type, begin, end);
}
