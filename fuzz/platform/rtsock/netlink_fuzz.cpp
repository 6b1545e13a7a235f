/*
 * Fuzz target: what the host's kernel says over netlink, and a line of its list of tables.
 *
 * An input is a datagram of messages. Each goes through the readers of links, addresses, routes and next hops; what a
 * reader takes is told as a record, which must encode, and obeys what the rest of the kernel relies on.
 */
#include "platform/rtsock/linux/lx.h"

#include <stdlib.h>
#include <string.h>

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static void must(bool holds)
{
    if (!holds)
        abort();
}

static void encodes(uint8_t type, void *record)
{
    uint32_t length = 0;
    uint8_t *octets = rk_encode(RK_FORM_IDR, type, record, &length);
    must(octets != nullptr && length > IDL_ENVELOPE_SIZE);
    free(octets);
}

static void clean(const lx_prefix &prefix)
{
    lx_prefix cut = prefix;
    lx_prefix_trim(&cut);
    must(prefix.bits <= lx_address_bits(prefix.family) && lx_prefix_compare(&cut, &prefix) == 0);
    must(lx_prefix_covers(&prefix, &cut));
}

static void tell_link(const lx_link &link)
{
    lx_link_room room;
    ifdev_msg device;
    ifl_msg unit;
    iff_msg family;
    must(link.index != 0 && memchr(link.name, '\0', sizeof link.name) && memchr(link.device, '\0', sizeof link.device));
    must(link.hw_length <= LX_HW_MAX && (link.unit == 0) == (strcmp(link.name, link.device) == 0));
    lx_device_record(&link, &room, &device);
    encodes(5, &device);
    lx_unit_record(&link, 0, &room, &unit);
    encodes(6, &unit);
    lx_family_record(&link, 2, &room, &family);
    encodes(7, &family);
}

static void tell_address(const lx_address &address)
{
    lx_address_room room;
    ifa_msg record;
    clean(address.local);
    clean(address.destination);
    lx_address_record(-1, &address, &room, &record);
    encodes(8, &record);
}

static void tell_route(lx_client *owner, const lx_route &route, const lx_list &hops)
{
    lx_route_room room;
    rt_msg record;
    clean(route.prefix);
    must(route.first_hop + size_t(route.hops) <= hops.count);
    must(lx_route_record(owner, &route, lx_items<lx_hop>(&hops), 1, &room, &record) == 0);
    must(record.nhidx < LX_NAMED_HOP || lx_hop_find(owner, record.nhidx) != nullptr);
    encodes(2, &record);
    lx_route_room_end(&room);
}

static int take(const nlmsghdr *message, void *context)
{
    auto *owner = static_cast<lx_client *>(context);
    lx_list hops = { sizeof(lx_hop), nullptr, 0, 0 }, members = { sizeof(lx_member), nullptr, 0, 0 };
    lx_link link;
    lx_address address;
    lx_route route;
    lx_nexthop nexthop;
    if (lx_link_read(message, &link) == 0)
        tell_link(link);
    if (lx_address_read(message, &address) == 0)
        tell_address(address);
    if (lx_route_read(message, &route, &hops) == 0)
        tell_route(owner, route, hops);
    if (lx_nexthop_read(message, &nexthop, &members) == 0)
        must(nexthop.first_member + size_t(nexthop.members) == members.count);
    lx_list_clear(&hops);
    lx_list_clear(&members);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto *owner = static_cast<lx_client *>(calloc(1, sizeof(lx_client)));
    auto *aligned = static_cast<uint8_t *>(malloc(size + 1));
    owner->requests.fd = -1;
    owner->named_hops.item_size = sizeof(lx_named_hop);
    if (size != 0)
        memcpy(aligned, data, size);
    must(nl_messages(aligned, size, take, owner) == 0);
    lx_table table;
    if (lx_table_line(std::string(data, data + size).c_str(), &table))
        must(table.name[0] != '\0' && memchr(table.name, '\0', sizeof table.name) != nullptr);
    lx_prefix address = {};
    uint32_t ifindex = 0;
    if (lx_sockaddr_get(aligned, uint32_t(size), &address, &ifindex) == 0 && address.bits != 0)
        clean(address);
    lx_list_clear(&owner->named_hops);
    free(aligned);
    free(owner);
    return 0;
}
