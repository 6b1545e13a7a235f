/*
 * Interfaces as clients are told of them. One link is three things here: a device, a logical interface on it, and the
 * families in use. All of them carry the link's index, the logical interface of a device's unit 0 the device's own.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>

namespace {

struct flag_row {
    uint32_t host, target;
};
constexpr flag_row flag_rows[] = {
    { IFF_UP, 0x1 },       { IFF_BROADCAST, 0x2 }, { IFF_DEBUG, 0x4 },     { IFF_LOOPBACK, 0x8 },
    { IFF_POINTOPOINT, 0x10 }, { IFF_RUNNING, 0x40 }, { IFF_NOARP, 0x80 }, { IFF_PROMISC, 0x100 },
    { IFF_ALLMULTI, 0x200 }, { IFF_MULTICAST, 0x8000 },
};

enum { TYPE_LAYER3 = 2 };   // of a logical interface and a family: bit 1

uint32_t target_flags(uint32_t host)
{
    uint32_t flags = 0;
    for (const flag_row &row : flag_rows)
        flags |= (host & row.host) != 0 ? row.target : 0;
    return flags;
}

uint32_t text_length(const char *text)
{
    return uint32_t(strlen(text) + 1);
}

}   // namespace

uint32_t lx_device_of(int socket, const struct lx_link *link)
{
    return link->unit == 0 ? link->index : lx_index_of(socket, link->device);
}

void lx_device_record(const struct lx_link *link, struct lx_link_room *room, struct ifdev_msg *record)
{
    room->link = *link;
    *record = {};
    record->idx = uint16_t(link->index);
    record->snmpid = link->index;
    record->flags = target_flags(link->flags);
    record->linkflags = link->carrier;
    record->mtu = link->mtu;
    record->media = link->type;
    record->name = room->link.name;
    record->name_len = text_length(link->name);
    if (link->hw_length != 0) {
        record->hw_addr = room->link.hw;
        record->hw_addr_len = link->hw_length;
    }
}

void lx_unit_record(const struct lx_link *link, uint32_t device, struct lx_link_room *room, struct ifl_msg *record)
{
    room->link = *link;
    *record = {};
    record->ifl_idx = link->index;
    record->unit = link->unit;
    record->ifd_idx = device;
    record->snmpid = link->index;
    // A unit stands on its device; the link below another one is followed to find the device that carries it.
    record->parent_idx = link->unit == 0 ? link->lower : 0;
    record->flags = target_flags(link->flags);
    record->ifl_type = TYPE_LAYER3;
    record->mtu = link->mtu;
    record->name = room->link.device;
    record->name_len = text_length(link->device);
}

void lx_family_record(const struct lx_link *link, uint8_t target_family, struct lx_link_room *room,
                      struct iff_msg *record)
{
    room->link = *link;
    *record = {};
    record->ifl_idx = link->index;
    record->subunit = link->unit;
    record->af = target_family;
    record->tid = uint16_t(link->table <= LX_TABLE_MAX ? link->table : 0);
    record->mtu = link->mtu;
    record->iff_type = TYPE_LAYER3;
    record->name = room->link.device;
    record->name_len = text_length(link->device);
}

void lx_address_record(int socket, const struct lx_address *address, struct lx_address_room *room,
                       struct ifa_msg *record)
{
    room->address = *address;
    *record = {};
    record->ifl_idx = address->ifindex;
    record->af = uint8_t(target_family_from_host(address->local.family));
    record->local_bits = address->local.bits;
    record->local = room->address.local.octets;
    record->local_len = lx_prefix_stored(address->local.bits);
    record->dest_bits = address->destination.bits;
    record->dest = room->address.destination.octets;
    record->dest_len = lx_prefix_stored(address->destination.bits);
    if (address->has_broadcast) {
        record->broadcast_bits = address->broadcast.bits;
        record->broadcast = room->address.broadcast.octets;
        record->broadcast_len = lx_prefix_stored(address->broadcast.bits);
    }
    lx_name_of(socket, address->ifindex, room->name);
    if (room->name[0] != '\0') {
        record->name = room->name;
        record->name_len = text_length(room->name);
    }
}
