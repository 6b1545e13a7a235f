/*
 * Adding, changing and deleting routes.
 *
 * Where packets go is said in one of these ways, in this order: entries with a gateway, an interface or both; the index
 * of a next hop, an object of the host or one that a route was told with; an interface. Without any of them the type of
 * the next hop decides: to discard or to reject. Routes made here carry the protocol that Linux keeps for static ones.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/rtnetlink.h>

namespace {

enum { ENTRIES_MAX = 128 };

struct operation_row {
    uint8_t op;
    uint16_t type, flags;
};
constexpr operation_row operations[] = {
    { RTM_OP_ADD, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL },
    { RTM_OP_ADD_GET, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL },
    { RTM_OP_CHANGE, RTM_NEWROUTE, NLM_F_REPLACE },
    { RTM_OP_DELETE, RTM_DELROUTE, 0 },
};

const operation_row *find_operation(uint8_t op)
{
    for (const operation_row &row : operations) {
        if (row.op == op)
            return &row;
    }
    return nullptr;
}

/* An entry of the message. Its gateway may be an interface in disguise. */
int read_entry(const struct rt_nh_entry *entry, struct lx_hop *hop)
{
    *hop = { entry->ifidx, entry->weight, 0, {} };
    if (entry->addrs_len == 0 || entry->addrs == nullptr)
        return hop->ifindex != 0 ? 0 : int(TARGET_EINVAL);
    uint32_t ifindex = 0;
    int error = lx_sockaddr_get(entry->addrs[0].sa, entry->addrs[0].sa_len, &hop->address, &ifindex);
    hop->gateway = hop->address.bits != 0;
    if (ifindex != 0)
        hop->ifindex = ifindex;
    return error;
}

void put_gateway(struct nl_request *request, const struct lx_hop *hop, uint8_t family)
{
    size_t size = lx_address_bits(hop->address.family) / 8;
    if (hop->address.family == family) {
        nl_put(request, RTA_GATEWAY, hop->address.octets, size);
        return;
    }
    uint8_t via[sizeof(struct rtvia) + LX_PREFIX_MAX];
    struct rtvia head = {};
    head.rtvia_family = hop->address.family;
    memcpy(via, &head, sizeof head);
    memcpy(via + sizeof head, hop->address.octets, size);
    nl_put(request, RTA_VIA, via, sizeof head + size);
}

void put_hop(struct nl_request *request, const struct lx_hop *hop, uint8_t family)
{
    if (hop->ifindex != 0)
        nl_put_u32(request, RTA_OIF, hop->ifindex);
    if (hop->gateway)
        put_gateway(request, hop, family);
}

/* One of several. Its own length stands at its front, and its gateway inside. */
void put_path(struct nl_request *request, const struct lx_hop *hop, uint8_t family)
{
    struct rtnexthop head = {};
    if (request->length + sizeof head > NL_REQUEST_MAX) {
        request->length = NL_REQUEST_MAX + 1;
        return;
    }
    size_t start = request->length;
    request->length += sizeof head;
    if (hop->gateway)
        put_gateway(request, hop, family);
    if (request->length > NL_REQUEST_MAX)
        return;
    head.rtnh_len = uint16_t(request->length - start);
    head.rtnh_hops = uint8_t(std::clamp(int(hop->weight), 1, UINT8_MAX + 1) - 1);
    head.rtnh_ifindex = int(hop->ifindex);
    memcpy(request->octets + start, &head, sizeof head);
}

int put_entries(struct nl_request *request, const struct rt_msg *asked, uint8_t family)
{
    if (asked->nh_entries_len > ENTRIES_MAX)
        return TARGET_EINVAL;
    bool several = asked->nh_entries_len > 1;
    size_t nest = several ? nl_nest_begin(request, RTA_MULTIPATH) : 0;
    for (uint32_t i = 0; i < asked->nh_entries_len; i++) {
        struct lx_hop hop;
        int error = read_entry(&asked->nh_entries[i], &hop);
        if (error != 0)
            return error;
        if (several)
            put_path(request, &hop, family);
        else
            put_hop(request, &hop, family);
    }
    if (several)
        nl_nest_end(request, nest);
    return 0;
}

/* By index. */
int put_index(struct nl_request *request, const struct lx_client *owner, uint32_t index, uint8_t family)
{
    if (index < LX_NAMED_HOP) {
        nl_put_u32(request, RTA_NH_ID, index);
        return 0;
    }
    const struct lx_named_hop *named = lx_hop_find(owner, index);
    if (named == nullptr)
        return TARGET_ENOENT;
    put_hop(request, &named->hop, family);
    return 0;
}

/* Where packets go; the route's type becomes what suits it. */
int put_destination(struct nl_request *request, const struct lx_client *owner, const struct rt_msg *asked,
                    uint8_t family, struct rtmsg *head)
{
    head->rtm_type = RTN_UNICAST;
    if (asked->nh_entries_len != 0)
        return put_entries(request, asked, family);
    if (asked->nhidx != 0)
        return put_index(request, owner, asked->nhidx, family);
    if (asked->ifidx != 0) {
        nl_put_u32(request, RTA_OIF, asked->ifidx);
        return 0;
    }
    head->rtm_type = asked->nh_type == LX_NH_REJECT ? RTN_UNREACHABLE : RTN_BLACKHOLE;
    return asked->nh_type == LX_NH_REJECT || asked->nh_type == LX_NH_DISCARD ? 0 : int(TARGET_EINVAL);
}

bool has_attr(const struct nl_request *request, size_t from, uint16_t wanted)
{
    struct nl_attr rest = { request->octets + from, std::min<size_t>(request->length, NL_REQUEST_MAX) - from };
    uint16_t number;
    struct nl_attr attr;
    while (nl_next_attr(&rest, &number, &attr)) {
        if (number == wanted)
            return true;
    }
    return false;
}

/* An IPv4 route to what is on the link has a narrower scope; a next-hop object has one itself. */
uint8_t scope_of(const struct nl_request *request, size_t from, const struct rtmsg *head)
{
    static constexpr uint16_t wide[] = { RTA_GATEWAY, RTA_VIA, RTA_MULTIPATH, RTA_NH_ID };
    if (head->rtm_family != AF_INET || head->rtm_type != RTN_UNICAST)
        return RT_SCOPE_UNIVERSE;
    for (uint16_t attr : wide) {
        if (has_attr(request, from, attr))
            return RT_SCOPE_UNIVERSE;
    }
    return RT_SCOPE_LINK;
}

}   // namespace

int lx_route_change(struct lx_client *owner, const struct rk_request *request, const struct lx_prefix *prefix)
{
    const auto *asked = static_cast<const struct rt_msg *>(request->record);
    const operation_row *row = find_operation(request->op);
    if (row == nullptr)
        return TARGET_EOPNOTSUPP;
    struct rtmsg head = {};
    head.rtm_family = prefix->family;
    head.rtm_dst_len = prefix->bits;
    struct nl_request change;
    nl_begin(&change, row->type, row->flags, &head, sizeof head);
    size_t attrs = change.length;
    nl_put(&change, RTA_DST, prefix->octets, lx_address_bits(prefix->family) / 8);
    nl_put_u32(&change, RTA_TABLE, lx_table_of(asked->tid));
    head.rtm_scope = RT_SCOPE_NOWHERE;   // a deletion takes the route whatever it is
    if (row->type == RTM_NEWROUTE) {
        int error = put_destination(&change, owner, asked, prefix->family, &head);
        if (error != 0)
            return error;
        head.rtm_protocol = RTPROT_STATIC;
        head.rtm_scope = scope_of(&change, attrs, &head);
    }
    memcpy(change.octets + NLMSG_HDRLEN, &head, sizeof head);
    return nl_ask(&owner->requests, &change, nullptr, nullptr);
}
