/*
 * Next hops: objects of the host by their own indexes, and behind them those that routes of this client were told with.
 *
 * A host that knows no such objects says so itself (EOPNOTSUPP); the hops of routes are there all the same. A walk is a
 * snapshot, as for routes. Groups are lists of others; what only this library's own kinds of next hops carry has no
 * counterpart.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

namespace {

enum { MEMBERS_MAX = 256 };   // of a group that are told; the rest is left out

/* Objects read by one question. */
struct found {
    struct lx_list nexthops, members;
};

constexpr struct found nothing = { { sizeof(struct lx_nexthop), nullptr, 0, 0 },
                                   { sizeof(struct lx_member), nullptr, 0, 0 } };

int take(const struct nlmsghdr *message, struct lx_list *nexthops, struct lx_list *members)
{
    struct lx_nexthop nexthop;
    int error = lx_nexthop_read(message, &nexthop, members);
    if (error != 0)
        return error == TARGET_ENOMEM ? error : 0;
    return lx_list_add(nexthops, &nexthop) ? 0 : int(TARGET_ENOMEM);
}

int take_found(const struct nlmsghdr *message, void *context)
{
    auto *found = static_cast<struct found *>(context);
    return take(message, &found->nexthops, &found->members);
}

int take_step(const struct nlmsghdr *message, void *context)
{
    auto *walk = static_cast<struct lx_nexthop_walk *>(context);
    return take(message, &walk->nexthops, &walk->members);
}

void forget_steps(void *context)
{
    auto *walk = static_cast<struct lx_nexthop_walk *>(context);
    walk->nexthops.count = walk->members.count = 0;
}

uint8_t type_of(const struct lx_nexthop *nexthop)
{
    if (nexthop->blackhole)
        return LX_NH_DISCARD;
    return nexthop->members != 0 ? LX_NH_LIST : LX_NH_UNICAST;
}

int reply(struct rk_client *client, const struct rk_request *request, const struct lx_nexthop *nexthop, uint8_t nh_type,
          const struct lx_member *members)
{
    uint8_t sockaddr[LX_SOCKADDR_MAX];
    uint32_t ids[MEMBERS_MAX], weights[MEMBERS_MAX];
    uint32_t count = std::min<uint32_t>(nexthop->members, MEMBERS_MAX);
    for (uint32_t i = 0; i < count; i++) {
        ids[i] = members[nexthop->first_member + i].id;
        weights[i] = members[nexthop->first_member + i].weight;
    }
    struct rnh_msg record = {};
    record.idx = nexthop->id;
    record.ifidx = nexthop->hop.ifindex;
    record.af = uint8_t(std::max(target_family_from_host(nexthop->family), 0));
    record.nh = nh_type;
    if (nexthop->hop.gateway) {
        record.addr = sockaddr;
        record.addr_len = lx_sockaddr_put(&nexthop->hop.address, sockaddr);
    }
    if (count != 0) {
        record.nhidx_list = ids;
        record.weights = weights;
        record.nhidx_list_len = record.weights_len = count;
    }
    return rk_reply(client, request, request->type, &record);
}

int reply_object(struct rk_client *client, const struct rk_request *request, const struct lx_list *nexthops, size_t at,
                 const struct lx_list *members)
{
    const struct lx_nexthop *nexthop = &lx_items<struct lx_nexthop>(nexthops)[at];
    return reply(client, request, nexthop, type_of(nexthop), lx_items<struct lx_member>(members));
}

int reply_named(struct rk_client *client, const struct rk_request *request, uint32_t index)
{
    const struct lx_named_hop *named = lx_hop_find(lx_owner(client), index);
    if (named == nullptr)
        return TARGET_ENOENT;
    const struct lx_nexthop nexthop = { index, named->family, 0, named->hop, 0, 0 };
    return reply(client, request, &nexthop, named->nh_type, nullptr);
}

void begin(struct nl_request *request, uint16_t type, uint16_t flags, uint8_t family)
{
    struct nhmsg head = {};
    head.nh_family = family;
    nl_begin(request, type, flags, &head, sizeof head);
}

int get(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rnh_msg *>(request->record);
    if (asked->idx >= LX_NAMED_HOP)
        return reply_named(client, request, asked->idx);
    if (asked->idx == 0)
        return TARGET_ENOENT;
    struct nl_request question;
    begin(&question, RTM_GETNEXTHOP, 0, AF_UNSPEC);
    nl_put_u32(&question, NHA_ID, asked->idx);
    struct found found = nothing;
    int error = nl_ask(&lx_owner(client)->requests, &question, take_found, &found);
    if (error == 0)
        error = found.nexthops.count != 0 ? reply_object(client, request, &found.nexthops, 0, &found.members)
                                          : int(TARGET_ENOENT);
    lx_list_clear(&found.nexthops);
    lx_list_clear(&found.members);
    return error;
}

/* Objects of the host, by index, from the first one above. */
int start_walk(struct lx_client *owner, uint32_t above)
{
    struct lx_nexthop_walk *walk = &owner->nexthop_walk;
    struct nl_request question;
    lx_nexthop_walk_end(owner);
    begin(&question, RTM_GETNEXTHOP, 0, AF_UNSPEC);
    const struct nl_sink sink = { take_step, forget_steps, walk };
    int error = nl_dump(&owner->requests, &question, &sink);
    if (error == TARGET_EOPNOTSUPP)   // the hops of routes are still to be walked over
        return owner->named_hops.count != 0 ? 0 : error;
    auto *first = lx_items<struct lx_nexthop>(&walk->nexthops), *last = first + walk->nexthops.count;
    std::sort(first, last, [](const struct lx_nexthop &a, const struct lx_nexthop &b) { return a.id < b.id; });
    walk->at = size_t(std::partition_point(first, last, [above](const struct lx_nexthop &nexthop) {
                          return nexthop.id <= above;
                      }) - first);
    return error;
}

int get_next(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rnh_msg *>(request->record);
    struct lx_client *owner = lx_owner(client);
    struct lx_nexthop_walk *walk = &owner->nexthop_walk;
    if (asked->idx >= LX_NAMED_HOP)
        return asked->idx == UINT32_MAX ? int(TARGET_ENOENT) : reply_named(client, request, asked->idx + 1);
    int error = 0;
    bool goes_on = walk->at < walk->nexthops.count &&
                   lx_items<struct lx_nexthop>(&walk->nexthops)[walk->at].id == asked->idx;
    if (goes_on)
        walk->at++;
    else
        error = start_walk(owner, asked->idx);
    if (error == 0 && walk->at < walk->nexthops.count)
        return reply_object(client, request, &walk->nexthops, walk->at, &walk->members);
    lx_nexthop_walk_end(owner);
    return error != 0 ? error : reply_named(client, request, LX_NAMED_HOP);
}

/* Where the next hop leads, by the message: an interface, and a neighbour if there is one. */
int put_hop(struct nl_request *change, const struct rnh_msg *asked, uint8_t *family)
{
    struct lx_prefix address = {};
    uint32_t ifindex = 0;
    int host = target_family_to_host(asked->af);
    if (asked->addr_len != 0) {
        int error = lx_sockaddr_get(asked->addr, asked->addr_len, &address, &ifindex);
        if (error != 0)
            return error;
    }
    if (address.bits != 0)
        host = address.family;
    if (lx_address_bits(host) == 0)
        return TARGET_EOPNOTSUPP;
    *family = uint8_t(host);
    if (asked->ifidx != 0 || ifindex != 0)
        nl_put_u32(change, NHA_OIF, asked->ifidx != 0 ? asked->ifidx : ifindex);
    if (address.bits != 0)
        nl_put(change, NHA_GATEWAY, address.octets, address.bits / 8);
    return asked->ifidx == 0 && ifindex == 0 ? int(TARGET_EINVAL) : 0;
}

/* Only a plain next hop: what other kinds carry is not Linux's. Index 0 lets the host choose one, which it tells. */
int add(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rnh_msg *>(request->record);
    if (asked->nh != LX_NH_UNICAST || asked->infotype != 0)
        return TARGET_EOPNOTSUPP;
    if (asked->idx >= LX_NAMED_HOP)
        return TARGET_EINVAL;
    struct nhmsg head = {};
    struct nl_request change;
    nl_begin(&change, RTM_NEWNEXTHOP, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ECHO, &head, sizeof head);
    if (asked->idx != 0)
        nl_put_u32(&change, NHA_ID, asked->idx);
    int error = put_hop(&change, asked, &head.nh_family);
    if (error != 0)
        return error;
    head.nh_protocol = RTPROT_STATIC;
    memcpy(change.octets + NLMSG_HDRLEN, &head, sizeof head);
    struct found found = nothing;
    error = nl_ask(&lx_owner(client)->requests, &change, take_found, &found);
    if (error == 0 && request->op == RTM_OP_ADD_GET)
        error = found.nexthops.count != 0 ? reply_object(client, request, &found.nexthops, 0, &found.members)
                                          : int(TARGET_EIO);
    lx_list_clear(&found.nexthops);
    lx_list_clear(&found.members);
    return error;
}

int remove(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rnh_msg *>(request->record);
    if (asked->idx >= LX_NAMED_HOP)   // it goes with its routes
        return TARGET_EOPNOTSUPP;
    struct nl_request change;
    begin(&change, RTM_DELNEXTHOP, 0, AF_UNSPEC);
    nl_put_u32(&change, NHA_ID, asked->idx);
    return nl_ask(&lx_owner(client)->requests, &change, nullptr, nullptr);
}

}   // namespace

void lx_nexthop_walk_end(struct lx_client *owner)
{
    lx_list_clear(&owner->nexthop_walk.nexthops);
    lx_list_clear(&owner->nexthop_walk.members);
    owner->nexthop_walk.at = 0;
}

int lx_serve_nexthop(struct rk_client *client, const struct rk_request *request)
{
    static constexpr struct {
        uint8_t op;
        rk_serve_func serve;
    } operations[] = {
        { RTM_OP_GET, get }, { RTM_OP_GETNEXT, get_next }, { RTM_OP_ADD, add }, { RTM_OP_ADD_GET, add },
        { RTM_OP_DELETE, remove },
    };
    if (request->record == nullptr)
        return TARGET_EINVAL;
    for (const auto &row : operations) {
        if (row.op == request->op)
            return row.serve(client, request);
    }
    return TARGET_EOPNOTSUPP;
}
