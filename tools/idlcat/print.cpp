/*
 * How fields and values look.
 */
#include "tools/idlcat/idlcat.h"

#include <ctype.h>
#include <inttypes.h>

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

bool set_fault(walk &w, size_t offset, const std::string &text)
{
    if (w.fault.text.empty())
        w.fault = { offset, w.path.empty() ? text : w.path + ": " + text };
    return false;
}
