/*
 * Numbers that people know by name: one table of rows for each kind, read both ways.
 */
#include "tools/rtsh/rtsh.h"

#include "platform/target.h"

#include <algorithm>
#include <span>

namespace {

struct name_row {
    uint8_t number;
    const char *name;
};

constexpr name_row families[] = {
    { TARGET_AF_INET, "inet" },
    { TARGET_AF_ISO, "iso" },
    { TARGET_AF_INET6, "inet6" },
    { 39, "mpls" },
    { 45, "ccc" },
    { 63, "vpls" },
};
constexpr name_row route_types[] = {
    { 1, "user" }, { 2, "ignr" },  { 3, "dynm" },  { 5, "perm" },  { 7, "intf" },
    { 9, "dest" }, { 10, "ifdn" }, { 12, "iddn" }, { 13, "clon" }, { 14, "ifcl" },
};
constexpr name_row nexthop_types[] = {
    { 0, "dscd" },    { 1, "rjct" },   { 2, "ucst" },    { 3, "ulst" },   { 4, "idxd" },  { 5, "indr" },
    { 6, "hold" },    { 7, "rslv" },   { 8, "locl" },    { 9, "recv" },   { 10, "mcrt" }, { 11, "bcst" },
    { 12, "mcst" },   { 13, "mgrp" },  { 14, "mdsc" },   { 15, "rtbl" },  { 16, "deny" }, { 17, "aggr" },
    { 18, "crypto" }, { 19, "iflist" }, { 20, "sample" }, { 21, "flood" }, { 22, "service" }, { 23, "mcrtc" },
    { 24, "comp" },   { 31, "le" },
};

/* By enum rtsh_names. */
constexpr std::span<const name_row> tables[] = { families, route_types, nexthop_types };

}   // namespace

std::string rtsh_name(enum rtsh_names kind, uint8_t number)
{
    const auto &rows = tables[kind];
    auto row = std::find_if(rows.begin(), rows.end(), [&](const name_row &r) { return r.number == number; });
    return row != rows.end() ? row->name : std::to_string(number);
}

bool rtsh_number_named(enum rtsh_names kind, const std::string &word, uint8_t *number)
{
    const auto &rows = tables[kind];
    auto row = std::find_if(rows.begin(), rows.end(), [&](const name_row &r) { return word == r.name; });
    uint32_t value = 0;
    if (row == rows.end() && !rtsh_parse_number(word, UINT8_MAX, &value))
        return false;
    *number = row != rows.end() ? row->number : uint8_t(value);
    return true;
}
