/*
 * What both walks share: how fields and values look, and the header of choices.
 */
#include "tools/idlcat/idlcat.h"

#include <ctype.h>
#include <inttypes.h>
#include <string.h>

#include <algorithm>

namespace {

enum { LONGEST_SHOWN = 64, INDENT = 2 };

bool is_text(std::span<const uint8_t> octets)
{
    if (octets.empty() || octets.back() != 0)
        return false;
    for (uint8_t octet : octets.first(octets.size() - 1)) {
        if (isprint(octet) == 0)
            return false;
    }
    return true;
}

}   // namespace

std::string integer_text(uint64_t value)
{
    char text[48];
    if (value < 10)
        snprintf(text, sizeof text, "%" PRIu64, value);
    else
        snprintf(text, sizeof text, "%" PRIu64 " (0x%" PRIx64 ")", value, value);
    return text;
}

std::string octets_text(std::span<const uint8_t> octets)
{
    if (is_text(octets))
        return '"' + std::string(octets.begin(), octets.end() - 1) + '"';
    std::string text = "[" + std::to_string(octets.size()) + "]";
    for (uint8_t octet : octets.first(std::min<size_t>(octets.size(), LONGEST_SHOWN))) {
        char pair[4];
        snprintf(pair, sizeof pair, " %02x", octet);
        text += pair;
    }
    return octets.size() > LONGEST_SHOWN ? text + " ..." : text;
}

void print_field(const walk &w, size_t offset, const std::string &name, const std::string &value)
{
    if (w.out != nullptr)
        fprintf(w.out, "%06zx  %*s%s%s%s\n", offset, w.depth * INDENT, "", name.c_str(), value.empty() ? "" : " = ",
                value.c_str());
}

const struct idl_field *field_by_tag(const struct idl_type *type, uint32_t tag)
{
    const struct idl_field *end = type->it_fields + type->it_count;
    const struct idl_field *field = std::find_if(type->it_fields, end, [=](const auto &f) { return f.if_tag == tag; });
    return field != end ? field : nullptr;
}

bool open_choice(walk &w, const struct idl_type *type, size_t begin, size_t end, choice_head *head)
{
    uint32_t words[3];   // 0, length of the body, tag; in host order in both dialects
    if (end - begin < sizeof words)
        return set_fault(w, begin, "a choice of " + std::to_string(end - begin) + " octets has no whole header");
    memcpy(words, w.input.data() + begin, sizeof words);
    size_t body = begin + sizeof words;
    if (words[1] > end - body)
        return set_fault(w, begin,
                         "a choice of " + std::to_string(words[1]) + " octets, " + std::to_string(end - body) +
                             " are left");
    *head = { field_by_tag(type, words[2]), body, body + words[1] };
    print_field(w, begin, "tag", integer_text(words[2]) + ' ' + (head->member ? head->member->if_name : "unknown"));
    return true;
}

bool set_fault(walk &w, size_t offset, const std::string &text)
{
    if (w.fault.text.empty())
        w.fault = { offset, w.path.empty() ? text : w.path + ": " + text };
    return false;
}
