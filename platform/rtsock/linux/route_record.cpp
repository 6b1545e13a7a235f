/*
 * Routes as clients are told of them.
 *
 * What Linux says with the kind of a route, the library says with the type of its next hop; what made the route becomes
 * its type. The hops travel with the route, each with its gateway, and the index of the first is the route's.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include <linux/rtnetlink.h>

namespace {

struct kind_row {
    uint8_t kind, nh_type;   // RTN_*
};
/* A unicast route's depends on its hops. */
constexpr kind_row kinds[] = {
    { RTN_LOCAL, LX_NH_LOCAL },         { RTN_BROADCAST, LX_NH_BROADCAST }, { RTN_ANYCAST, LX_NH_RECEIVE },
    { RTN_MULTICAST, LX_NH_MULTICAST }, { RTN_BLACKHOLE, LX_NH_DISCARD },   { RTN_UNREACHABLE, LX_NH_REJECT },
    { RTN_PROHIBIT, LX_NH_REJECT },     { RTN_THROW, LX_NH_TABLE },
};

uint8_t hop_nh_type(const struct lx_route *route, const struct lx_hop *hop)
{
    for (const kind_row &row : kinds) {
        if (row.kind == route->type)
            return row.nh_type;
    }
    return hop->gateway ? LX_NH_UNICAST : LX_NH_RESOLVE;
}

/* Room for so many hops. */
bool room_begin(struct lx_route_room *room, size_t count)
{
    *room = {};
    if (count == 0)
        return true;
    room->entries = static_cast<struct rt_nh_entry *>(calloc(count, sizeof(struct rt_nh_entry)));
    room->addrs = static_cast<struct idl_sockaddr_gen *>(calloc(count, sizeof(struct idl_sockaddr_gen)));
    room->sockaddrs = static_cast<uint8_t *>(calloc(count, LX_SOCKADDR_MAX));
    if (room->entries != nullptr && room->addrs != nullptr && room->sockaddrs != nullptr)
        return true;
    lx_route_room_end(room);
    return false;
}

void put_hop(struct lx_route_room *room, size_t at, const struct lx_hop *hop)
{
    struct rt_nh_entry *entry = &room->entries[at];
    entry->ifidx = hop->ifindex;
    entry->weight = hop->weight;
    if (!hop->gateway)
        return;
    uint8_t *sockaddr = room->sockaddrs + at * LX_SOCKADDR_MAX;
    room->addrs[at].sa = sockaddr;
    room->addrs[at].sa_len = lx_sockaddr_put(&hop->address, sockaddr);
    entry->addrs = &room->addrs[at];
    entry->addrs_len = 1;
}

}   // namespace

uint32_t lx_index_of(int socket, const char *name)
{
    struct ifreq request = {};
    if (strlen(name) >= sizeof request.ifr_name)
        return 0;
    memcpy(request.ifr_name, name, strlen(name));
    return ioctl(socket, SIOCGIFINDEX, &request) == 0 ? uint32_t(request.ifr_ifindex) : 0;
}

void lx_name_of(int socket, uint32_t index, char *name)
{
    struct ifreq request = {};
    request.ifr_ifindex = int(index);
    bool there = ioctl(socket, SIOCGIFNAME, &request) == 0;
    memcpy(name, request.ifr_name, IFNAMSIZ);
    name[there ? IFNAMSIZ - 1 : 0] = '\0';
}

uint8_t lx_route_type(const struct lx_route *route)
{
    if (route->protocol == RTPROT_REDIRECT)
        return LX_RT_DYNAMIC;
    return route->protocol == RTPROT_KERNEL ? LX_RT_INTERFACE : LX_RT_USER;
}

uint8_t lx_route_nh_type(const struct lx_route *route, const struct lx_hop *hops)
{
    static constexpr struct lx_hop none = {};
    if (route->hops > 1)
        return LX_NH_LIST;
    return hop_nh_type(route, route->hops == 0 ? &none : &hops[route->first_hop]);
}

uint32_t lx_route_nh_index(struct lx_client *owner, const struct lx_route *route, const struct lx_hop *hops)
{
    if (route->nh_id != 0)
        return route->nh_id;
    if (route->hops == 0)
        return 0;
    const struct lx_hop *hop = &hops[route->first_hop];
    return lx_hop_index(owner, hop, route->prefix.family, hop_nh_type(route, hop));
}

int lx_route_record(struct lx_client *owner, const struct lx_route *route, const struct lx_hop *hops, uint16_t tid,
                    struct lx_route_room *room, struct rt_msg *record)
{
    *record = {};
    if (!room_begin(room, route->hops))
        return TARGET_ENOMEM;
    for (uint32_t i = 0; i < route->hops; i++)
        put_hop(room, i, &hops[route->first_hop + i]);
    memcpy(room->prefix, route->prefix.octets, sizeof room->prefix);
    record->tid = tid;
    record->af = uint8_t(target_family_from_host(route->prefix.family));
    record->rt_type = lx_route_type(route);
    record->nh_type = lx_route_nh_type(route, hops);
    record->nhidx = lx_route_nh_index(owner, route, hops);
    record->prefix_bits = route->prefix.bits;
    record->prefix = room->prefix;
    record->prefix_len = lx_prefix_stored(route->prefix.bits);
    record->nh_entries = room->entries;
    record->nh_entries_len = route->hops;
    if (route->hops == 0)
        return 0;
    record->ifidx = hops[route->first_hop].ifindex;
    lx_name_of(owner->requests.fd, record->ifidx, room->ifname);
    if (room->ifname[0] != '\0') {
        record->ifname = room->ifname;
        record->ifname_len = uint32_t(strlen(room->ifname) + 1);
    }
    return 0;
}

void lx_route_room_end(struct lx_route_room *room)
{
    free(room->entries);
    free(room->addrs);
    free(room->sockaddrs);
    room->entries = nullptr;
    room->addrs = nullptr;
    room->sockaddrs = nullptr;
}
