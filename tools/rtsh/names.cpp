/*
 * Numbers that people know by name: the library's own names, read both ways.
 */
#include "tools/rtsh/rtsh.h"

#include "lib/librtsock/format/rtslib_format.h"

namespace {

/* Numbers below count may have a name; others have the look-up's last one, which is nobody's. */
struct name_kind {
    const char *(*name)(int number);
    unsigned count;
};

/* By enum rtsh_names. */
constexpr name_kind kinds[] = {
    { rtslib_format_af, 146 }, { rtslib_format_route_type, 15 }, { rtslib_format_nexthop_type, 35 },
};

/* Empty if it has none. */
std::string name_of(const name_kind &kind, unsigned number)
{
    std::string name = number < kind.count ? kind.name(int(number)) : "";
    return name == "unknown" ? "" : name;
}

}   // namespace

std::string rtsh_name(enum rtsh_names kind, uint8_t number)
{
    std::string name = name_of(kinds[kind], number);
    return name.empty() ? std::to_string(number) : name;
}

bool rtsh_number_named(enum rtsh_names kind, const std::string &word, uint8_t *number)
{
    for (unsigned i = 0; i < kinds[kind].count; i++) {
        if (!word.empty() && name_of(kinds[kind], i) == word) {
            *number = uint8_t(i);
            return true;
        }
    }
    uint32_t value = 0;
    if (!rtsh_parse_number(word, UINT8_MAX, &value))
        return false;
    *number = uint8_t(value);
    return true;
}
