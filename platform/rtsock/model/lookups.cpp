/*
 * What is asked of the routes as a whole: the route that a packet takes, and the multicast groups.
 *
 * A match counts for the route and for its next hop. Groups are the routes whose prefix is a multicast one.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

namespace {

enum {
    INET_GROUPS = 0xe0,        // the first octet of group addresses
    INET_GROUPS_MASK = 0xf0,
    INET_GROUPS_BITS = 4,
    INET6_GROUPS = 0xff,
    INET6_GROUPS_BITS = 8,
};

const struct rt_msg *route(const struct rm_object *object)
{
    return static_cast<const struct rt_msg *>(object->mo_record);
}

bool is_group(const struct rt_msg *r)
{
    if (r->af == TARGET_AF_INET)
        return r->prefix_bits >= INET_GROUPS_BITS && (r->prefix[0] & INET_GROUPS_MASK) == INET_GROUPS;
    return r->af == TARGET_AF_INET6 && r->prefix_bits >= INET6_GROUPS_BITS && r->prefix[0] == INET6_GROUPS;
}

void count_match(struct rm_object *object)
{
    object->mo_packets++;
    struct rm_object *nexthop = rm_nexthop_at(route(object)->nhidx);
    if (nexthop != nullptr)
        nexthop->mo_packets++;
}

struct rm_object *group_at(const struct mgr_msg *asked, uint8_t op)
{
    if (op == RTM_OP_GET) {
        struct rm_object *object =
            rm_route_at(asked->tid, asked->af, asked->prefix, asked->prefix_len, asked->prefix_bits);
        return object != nullptr && is_group(route(object)) ? object : nullptr;
    }
    struct rm_object *object =
        rm_route_behind(asked->tid, asked->af, asked->prefix, asked->prefix_len, asked->prefix_bits);
    while (object != nullptr && !is_group(route(object)))
        object = rm_following(&rm_routes, object);
    return object;
}

}   // namespace

int rm_serve_match(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rtm_msg *>(request->record);
    if (asked == nullptr || request->op != RTM_OP_GET)
        return TARGET_EOPNOTSUPP;
    if (!rm_table_exists(asked->tid, asked->af))
        return TARGET_ENOENT;
    struct rm_object *object =
        rm_route_longest(asked->tid, asked->af, asked->prefix, asked->prefix_len, asked->prefix_bits);
    if (object == nullptr)
        return TARGET_ENOENT;
    const struct rt_msg *found = route(object);
    struct rtm_msg reply = {};
    reply.rts_hdr.rtsh_type = request->type;
    reply.rts_hdr.rtsh_hdrlen = 52;
    reply.tid = found->tid;
    reply.af = found->af;
    reply.aux_byte = asked->aux_byte;
    reply.rt_type = found->rt_type;
    reply.nh_type = found->nh_type;
    reply.rt_flags = found->rt_flags;
    reply.nhidx = found->nhidx;
    reply.prefix_bits = found->prefix_bits;
    reply.prefix = found->prefix;
    reply.prefix_len = found->prefix_len;
    int error = rk_reply(client, request, request->type, &reply);
    if (error == 0)
        count_match(object);
    return error;
}

int rm_serve_group(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct mgr_msg *>(request->record);
    if (asked == nullptr || (request->op != RTM_OP_GET && request->op != RTM_OP_GETNEXT))
        return TARGET_EOPNOTSUPP;
    const struct rm_object *object = group_at(asked, request->op);
    if (object == nullptr)
        return TARGET_ENOENT;
    const struct rt_msg *found = route(object);
    struct mgr_msg reply = {};
    reply.tid = found->tid;
    reply.af = found->af;
    reply.rt_type = found->rt_type;
    reply.rt_flags = found->rt_flags;
    reply.nhidx = found->nhidx;
    reply.iif_ifidx = found->ifidx;
    reply.counter.packets = object->mo_packets;
    reply.prefix_bits = found->prefix_bits;
    reply.prefix = found->prefix;
    reply.prefix_len = found->prefix_len;
    return rk_reply(client, request, request->type, &reply);
}
