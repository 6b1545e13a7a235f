/*
 * Routes and next-hop objects out of netlink messages.
 *
 * A route has hops: one in the message itself, several in an attribute of their own, or none (a route that drops
 * packets, or one whose next hop is an object). A gateway may be of another family than the route. The hops of all
 * routes that are read together stand in one list, and a route knows its stretch of it.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

namespace {

/* An address that fills its family's octets. False if it is shorter. */
bool read_address(struct nl_attr attr, uint8_t family, struct lx_prefix *address)
{
    *address = {};
    unsigned bits = lx_address_bits(family);
    if (attr.octets == nullptr || bits == 0 || attr.length < bits / 8)
        return false;
    address->family = family;
    address->bits = uint8_t(bits);
    memcpy(address->octets, attr.octets, bits / 8);
    return true;
}

/* The gateway among a route's or a hop's attributes. */
void read_gateway(const struct nl_attr *attrs, uint8_t family, struct lx_hop *hop)
{
    struct nl_attr via = attrs[RTA_VIA];
    struct rtvia head;
    if (via.octets != nullptr && via.length > sizeof head) {
        memcpy(&head, via.octets, sizeof head);
        const struct nl_attr address = { via.octets + sizeof head, via.length - sizeof head };
        hop->gateway = read_address(address, uint8_t(head.rtvia_family), &hop->address);
    } else {
        hop->gateway = read_address(attrs[RTA_GATEWAY], family, &hop->address);
    }
}

/* One of several hops, at the front of rest. False at the end, or where it is broken. */
bool read_path(struct nl_attr *rest, uint8_t family, struct lx_hop *hop)
{
    struct rtnexthop head;
    if (rest->octets == nullptr || rest->length < sizeof head)
        return false;
    memcpy(&head, rest->octets, sizeof head);
    if (head.rtnh_len < sizeof head || head.rtnh_len > rest->length)
        return false;
    struct nl_attr attrs[RTA_MAX + 1];
    nl_nested({ rest->octets + sizeof head, head.rtnh_len - sizeof head }, attrs, std::size(attrs));
    *hop = { uint32_t(head.rtnh_ifindex), uint16_t(head.rtnh_hops + 1), 0, {} };
    read_gateway(attrs, family, hop);
    size_t step = std::min<size_t>(RTNH_ALIGN(size_t(head.rtnh_len)), rest->length);
    *rest = { rest->octets + step, rest->length - step };
    return true;
}

int read_hops(const struct nl_attr *attrs, uint8_t family, struct lx_route *route, struct lx_list *hops)
{
    struct nl_attr paths = attrs[RTA_MULTIPATH];
    struct lx_hop hop = { nl_u32(attrs[RTA_OIF], 0), 1, 0, {} };
    route->first_hop = uint32_t(hops->count);
    read_gateway(attrs, family, &hop);
    if (hop.ifindex != 0 || hop.gateway) {
        if (!lx_list_add(hops, &hop))
            return TARGET_ENOMEM;
        route->hops++;
    }
    while (read_path(&paths, family, &hop)) {
        if (!lx_list_add(hops, &hop))
            return TARGET_ENOMEM;
        route->hops++;
    }
    return 0;
}

}   // namespace

int lx_route_read(const struct nlmsghdr *message, struct lx_route *route, struct lx_list *hops)
{
    struct rtmsg head;
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr || (message->nlmsg_type != RTM_NEWROUTE && message->nlmsg_type != RTM_DELROUTE))
        return TARGET_EINVAL;
    memcpy(&head, fixed, sizeof head);
    unsigned bits = lx_address_bits(head.rtm_family);
    // Routes for a type of service, or for packets of some sources, are not those of their prefix.
    if (bits == 0 || head.rtm_dst_len > bits || (head.rtm_flags & RTM_F_CLONED) != 0 || head.rtm_tos != 0 ||
        head.rtm_src_len != 0)
        return TARGET_EINVAL;
    struct nl_attr attrs[RTA_MAX + 1];
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    *route = {};
    route->prefix.family = head.rtm_family;
    route->prefix.bits = head.rtm_dst_len;
    (void)nl_copy(attrs[RTA_DST], route->prefix.octets, bits / 8);
    lx_prefix_trim(&route->prefix);
    route->type = head.rtm_type;
    route->protocol = head.rtm_protocol;
    route->flags = head.rtm_flags;
    route->table = nl_u32(attrs[RTA_TABLE], head.rtm_table);
    route->priority = nl_u32(attrs[RTA_PRIORITY], 0);
    route->nh_id = nl_u32(attrs[RTA_NH_ID], 0);
    if (route->nh_id >= LX_NAMED_HOP)   // cannot be told; the hops are in the message too
        route->nh_id = 0;
    return read_hops(attrs, head.rtm_family, route, hops);
}

int lx_nexthop_read(const struct nlmsghdr *message, struct lx_nexthop *nexthop, struct lx_list *members)
{
    struct nhmsg head;
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr || (message->nlmsg_type != RTM_NEWNEXTHOP && message->nlmsg_type != RTM_DELNEXTHOP))
        return TARGET_EINVAL;
    memcpy(&head, fixed, sizeof head);
    struct nl_attr attrs[NHA_MAX + 1];
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    *nexthop = {};
    nexthop->id = nl_u32(attrs[NHA_ID], 0);
    if (nexthop->id == 0 || nexthop->id >= LX_NAMED_HOP)
        return TARGET_EINVAL;
    nexthop->family = head.nh_family;
    nexthop->blackhole = attrs[NHA_BLACKHOLE].octets != nullptr;
    nexthop->hop = { nl_u32(attrs[NHA_OIF], 0), 1, 0, {} };
    nexthop->hop.gateway = read_address(attrs[NHA_GATEWAY], head.nh_family, &nexthop->hop.address);
    nexthop->first_member = uint32_t(members->count);
    struct nl_attr group = attrs[NHA_GROUP];
    struct nexthop_grp one;
    for (; group.octets != nullptr && group.length >= sizeof one; nexthop->members++) {
        memcpy(&one, group.octets, sizeof one);
        // Newer hosts have weights of 16 bits, whose high octet is reserved in older ones.
        const struct lx_member member = { one.id, (one.weight | uint32_t(one.resvd1) << 8) + 1 };
        if (!lx_list_add(members, &member))
            return TARGET_ENOMEM;
        group = { group.octets + sizeof one, group.length - sizeof one };
    }
    return 0;
}
