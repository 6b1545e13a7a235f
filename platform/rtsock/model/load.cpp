/*
 * Objects from text: a record for each line, added as a request's would be.
 */
#include "platform/rtsock/model/load_parse.h"
#include "platform/rtsock/model/rm.h"
#include "platform/rtsock/model/rtsock_model.h"

#include "lib/librtsock/format/rtslib_format.h"
#include "platform/target.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <iterator>

namespace {

enum {
    DEVICE_UP = 1,
    UNNUMBERED = 0x20000000,
    ITEM_DONOR = 183,
    SOCKADDR_MAX = 28,
    INET_ADDRESS_AT = 4,
    INET6_ADDRESS_AT = 8,
    INET_SOCKADDR = 16,
    BITS = 8,
};

enum { ROUTE_TYPES = 15, NEXTHOP_TYPES = 25 };   // that have names of their own

uint32_t text_length(const char *text)
{
    return uint32_t(strlen(text) + 1);
}

uint32_t number_of(const struct rm_line *line, enum rm_clause clause)
{
    return line->number[__builtin_ctz(clause)];
}

uint8_t *octets_of(const struct rm_prefix *prefix)
{
    return const_cast<uint8_t *>(prefix->octets);
}

int refuse(struct rm_line *line, const char *why)
{
    line->wrong = why;
    return TARGET_EINVAL;
}

int add_table(struct rm_line *line)
{
    struct rtb_msg record = {};
    record.tid = uint16_t(number_of(line, RM_INDEX));
    record.af = line->family;
    record.tenant = uint16_t(number_of(line, RM_TENANT));
    record.name = line->name;
    record.name_len = text_length(line->name);
    return rm_add(&rm_tables, &record);
}

int add_device(struct rm_line *line)
{
    struct rm_line copy = *line;
    struct ifdev_msg record = {};
    record.idx = uint16_t(number_of(line, RM_INDEX));
    record.snmpid = number_of(line, RM_SNMP);
    record.mtu = number_of(line, RM_MTU);
    record.flags = (line->seen & RM_DOWN) != 0 ? 0 : DEVICE_UP;
    if ((line->seen & RM_MAC) != 0) {
        record.hw_addr = copy.mac;
        record.hw_addr_len = sizeof copy.mac;
    }
    record.name = line->name;
    record.name_len = text_length(line->name);
    return rm_add(&rm_devices, &record);
}

/* NAME.UNIT */
int add_unit(struct rm_line *line)
{
    char *dot = strrchr(line->name, '.');
    char *end = nullptr;
    unsigned long unit = dot != nullptr ? strtoul(dot + 1, &end, 10) : 0;
    if (dot == nullptr || end == dot + 1 || *end != '\0' || unit > UINT32_MAX)
        return refuse(line, "the name of a unit is DEVICE.NUMBER");
    *dot = '\0';
    struct ifl_msg record = {};
    record.ifl_idx = number_of(line, RM_INDEX);
    record.unit = uint32_t(unit);
    record.snmpid = number_of(line, RM_SNMP);
    record.tenant = uint16_t(number_of(line, RM_TENANT));
    record.lrid = uint8_t(number_of(line, RM_LR));
    record.parent_idx = number_of(line, RM_PARENT);
    record.name = line->name;
    record.name_len = text_length(line->name);
    return rm_add(&rm_units, &record);
}

int add_family(struct rm_line *line)
{
    struct iff_msg record = {};
    struct rts_msg_info item = {};
    struct rts_msg_info *items[] = { &item };
    record.ifl_idx = number_of(line, RM_INDEX);
    record.af = line->family;
    record.mtu = number_of(line, RM_MTU);
    if ((line->seen & RM_DONOR) != 0) {
        item.tag = ITEM_DONOR;
        item.u.ifftlv_donor.ifl_idx = number_of(line, RM_DONOR);
        record.flags = UNNUMBERED;
        record.rts_hdr.rtsh_info = items;
        record.rts_hdr.rtsh_info_len = 1;
    }
    return rm_add(&rm_families, &record);
}

/* The address itself, and as its destination the other end or the network that its length says. */
int add_address(struct rm_line *line)
{
    bool pointed = (line->seen & RM_DESTINATION) != 0;
    struct rm_prefix destination = pointed ? line->destination : line->prefix;
    uint32_t octets = destination.most / BITS;
    struct ifa_msg record = {};
    record.ifl_idx = number_of(line, RM_INDEX);
    record.af = line->family;
    record.local = octets_of(&line->prefix);
    record.local_len = octets;
    record.local_bits = line->prefix.most;
    if (pointed || destination.bits != destination.most) {
        rm_mask_prefix(destination.octets, octets, destination.bits);
        record.dest = destination.octets;
        record.dest_len = octets;
        record.dest_bits = destination.bits;
    }
    return rm_add(&rm_addresses, &record);
}

int add_nexthop(struct rm_line *line)
{
    uint8_t sockaddr[SOCKADDR_MAX] = {};
    bool inet = line->family == TARGET_AF_INET;
    struct rnh_msg record = {};
    record.idx = number_of(line, RM_INDEX);
    record.af = line->family;
    record.nh = uint8_t(number_of(line, RM_TYPE));
    record.ifidx = number_of(line, RM_INTERFACE);
    if ((line->seen & RM_ADDRESS) != 0) {
        record.addr = sockaddr;
        record.addr_len = inet ? INET_SOCKADDR : SOCKADDR_MAX;
        sockaddr[0] = uint8_t(record.addr_len);
        sockaddr[1] = line->family;
        memcpy(sockaddr + (inet ? INET_ADDRESS_AT : INET6_ADDRESS_AT), line->address.octets, line->address.most / BITS);
    }
    return rm_add(&rm_nexthops, &record);
}

int add_route(struct rm_line *line)
{
    const struct rm_object *table = rm_table_named(line->name, text_length(line->name), line->family);
    if (table == nullptr)
        return TARGET_ENOENT;
    const struct rm_object *nexthop = rm_nexthop_at(number_of(line, RM_NEXTHOP));
    if (nexthop == nullptr)
        return TARGET_ENOENT;
    struct rt_msg record = {};
    record.tid = static_cast<const struct rtb_msg *>(table->mo_record)->tid;
    record.af = line->family;
    record.rt_type = uint8_t(number_of(line, RM_TYPE));
    record.nh_type = static_cast<const struct rnh_msg *>(nexthop->mo_record)->nh;
    record.nhidx = number_of(line, RM_NEXTHOP);
    record.prefix = octets_of(&line->prefix);
    record.prefix_len = line->prefix.most / BITS;
    record.prefix_bits = line->prefix.bits;
    return rm_add(&rm_routes, &record);
}

constexpr uint32_t NO_INDEX = 0;   // where a request that says it means any, or none

constexpr struct rm_statement statements[] = {
    { "table", "W", RM_INDEX | RM_FAMILY | RM_TENANT, RM_INDEX | RM_FAMILY, 0, UINT16_MAX - 1, nullptr, 0, add_table,
      nullptr },
    { "device", "W", RM_INDEX | RM_SNMP | RM_MTU | RM_MAC | RM_DOWN, RM_INDEX, NO_INDEX + 1, UINT16_MAX, nullptr, 0,
      add_device, nullptr },
    { "unit", "W", RM_INDEX | RM_SNMP | RM_TENANT | RM_LR | RM_PARENT, RM_INDEX, NO_INDEX + 1, UINT32_MAX, nullptr, 0,
      add_unit, "its device or its parent" },
    { "family", "NF", RM_MTU | RM_DONOR, 0, NO_INDEX + 1, UINT32_MAX, nullptr, 0, add_family, "its unit" },
    { "address", "NFP", RM_DESTINATION, 0, NO_INDEX + 1, UINT32_MAX, nullptr, 0, add_address,
      "its family on that unit" },
    { "nexthop", "N", RM_FAMILY | RM_TYPE | RM_INTERFACE | RM_ADDRESS, RM_FAMILY | RM_TYPE, NO_INDEX + 1, UINT32_MAX,
      rtslib_format_nexthop_type, NEXTHOP_TYPES, add_nexthop, nullptr },
    { "route", "WFP", RM_TYPE | RM_NEXTHOP, RM_TYPE | RM_NEXTHOP, 0, 0, rtslib_format_route_type, ROUTE_TYPES,
      add_route, "its table or its next hop" },
};

/* All lines of a file up to the first bad one. */
int load_stream(FILE *file, const char *path, char *error, size_t size)
{
    char *line = nullptr;
    size_t room = 0;
    unsigned number = 0;
    int result = 0;
    errno = 0;
    while (result == 0 && getline(&line, &room, file) >= 0) {
        char wrong[256] = "";
        number++;
        result = rtsock_model_line(line, wrong, sizeof wrong);
        if (result != 0 && size != 0)
            snprintf(error, size, "%s:%u: %s", path, number, wrong);
    }
    if (result == 0 && feof(file) == 0) {
        result = target_errno_from_host(errno);
        if (size != 0)
            snprintf(error, size, "%s: %s", path, strerror(errno));
    }
    free(line);
    return result;
}

}   // namespace

int rtsock_model_line(const char *line, char *error, size_t size)
{
    char *copy = strdup(line);
    int result = copy != nullptr ? rm_begin() : int(TARGET_ENOMEM);
    if (result == 0)
        result = rm_line_run(statements, std::size(statements), copy, error, size);
    else if (size != 0)
        snprintf(error, size, "out of memory");
    free(copy);
    return result;
}

int rtsock_model_load(const char *path, char *error, size_t size)
{
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        int result = target_errno_from_host(errno);
        if (size != 0)
            snprintf(error, size, "%s: %s", path, strerror(errno));
        return result;
    }
    int result = load_stream(file, path, error, size);
    fclose(file);
    return result;
}
