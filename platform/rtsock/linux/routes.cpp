/*
 * Looking at routes: the route of a prefix, the one behind it, and the one that a packet would take.
 *
 * The host finds the best route for an address quickly, but only by its own rules: there is no asking for a table. So
 * the question carries the mark of the table, then the index of its VRF device, and an answer counts if it came from
 * that table. Otherwise, and for a prefix that is not the best for its own address, the table is read through.
 *
 * A walk reads the table once: requests that name what was answered last go on in the snapshot, any other one makes a
 * new one. The default route is not behind 0/0, so it is found by a get alone; a get with a type and no prefix is for
 * the first route of that type, and may begin a walk. Of several routes for a prefix the one that Linux prefers is
 * told.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/rtnetlink.h>

namespace {

/* What is looked for, and the best found so far. */
struct search {
    struct lx_prefix prefix;
    uint32_t table;
    bool exact;              // the route of that prefix; otherwise the longest that covers it
    bool drops;              // only a route that drops packets will do
    bool found;
    struct lx_route route;
    struct lx_list hops;
};

void search_begin(struct search *search, const struct lx_prefix *prefix, uint32_t table, bool exact)
{
    *search = {};
    search->prefix = *prefix;
    search->table = table;
    search->exact = exact;
    search->hops.item_size = sizeof(struct lx_hop);
}

bool fits(const struct search *search, const struct lx_route *route)
{
    if (search->exact)
        return lx_prefix_compare(&route->prefix, &search->prefix) == 0;
    if (search->drops && route->hops != 0)
        return false;
    return lx_prefix_covers(&route->prefix, &search->prefix) && (route->flags & RTNH_F_DEAD) == 0;
}

bool better(const struct lx_route *route, const struct lx_route *than)
{
    if (route->prefix.bits != than->prefix.bits)
        return route->prefix.bits > than->prefix.bits;
    return route->priority < than->priority;
}

/* Any message: keeps the route if it is better than what was found. */
int consider(const struct nlmsghdr *message, struct search *search, bool any_table)
{
    struct lx_route route;
    size_t hops = search->hops.count;
    int error = lx_route_read(message, &route, &search->hops);
    bool good = error == 0 && (any_table || route.table == search->table) && fits(search, &route) &&
                (!search->found || better(&route, &search->route));
    if (good) {
        search->route = route;
        search->found = true;
    } else {
        search->hops.count = hops;
    }
    return error == TARGET_ENOMEM ? error : 0;
}

int take_of_table(const struct nlmsghdr *message, void *context)
{
    return consider(message, static_cast<struct search *>(context), false);
}

int take_of_any_table(const struct nlmsghdr *message, void *context)
{
    return consider(message, static_cast<struct search *>(context), true);
}

void forget(void *context)
{
    auto *search = static_cast<struct search *>(context);
    search->found = false;
    search->hops.count = 0;
}

/* The host's own look-up. attr: 0, or what makes it use another table than the main one. That there is no route is no
 * error here, nor that packets to there are dropped. */
int look_up(struct nl *nl, struct search *search, uint16_t attr, uint32_t value)
{
    const struct lx_prefix *prefix = &search->prefix;
    struct rtmsg head = {};
    head.rtm_family = prefix->family;
    head.rtm_dst_len = uint8_t(lx_address_bits(prefix->family));
    // IPv4 names the table only if told to; IPv6 does so anyway, and refuses to be told.
    head.rtm_flags = prefix->family == AF_INET ? RTM_F_FIB_MATCH | RTM_F_LOOKUP_TABLE : RTM_F_FIB_MATCH;
    struct nl_request request;
    nl_begin(&request, RTM_GETROUTE, 0, &head, sizeof head);
    nl_put(&request, RTA_DST, prefix->octets, lx_address_bits(prefix->family) / 8);
    if (attr != 0)
        nl_put_u32(&request, attr, value);
    // A packet of the main table's clients takes the route that the host's rules choose, whatever table that is in.
    bool any_table = attr == 0 && !search->exact;
    int error = nl_ask(nl, &request, any_table ? take_of_any_table : take_of_table, search);
    return error == TARGET_ENOMEM ? error : 0;
}

int ask_for_routes(struct nl *nl, uint8_t family, uint32_t table, const struct nl_sink *sink)
{
    struct rtmsg head = {};
    head.rtm_family = family;
    struct nl_request request;
    nl_begin(&request, RTM_GETROUTE, 0, &head, sizeof head);
    nl_put_u32(&request, RTA_TABLE, table);
    int error = nl_dump(nl, &request, sink);
    return error == TARGET_ENOENT ? 0 : error;   // a table that nothing was put into yet
}

/* By way of the table's VRF device. */
int look_up_by_vrf(struct nl *nl, struct search *search)
{
    struct lx_link vrf;
    bool there;
    int error = lx_vrf_of_table(nl, search->table, &vrf, &there);
    return error == 0 && there ? look_up(nl, search, RTA_OIF, vrf.index) : error;
}

/* ENOENT if there is none. */
int find_route(struct nl *nl, struct search *search)
{
    bool is_main = search->table == LX_TABLE_MAIN;
    int error = look_up(nl, search, is_main ? 0 : RTA_MARK, search->table);
    if (error == 0 && !search->found && !is_main)
        error = look_up_by_vrf(nl, search);
    if (error != 0 || search->found)
        return error;
    // The host's rules have said no to the main table's clients; what is left is the route that says so.
    search->drops = is_main && !search->exact;
    const struct nl_sink sink = { take_of_table, forget, search };
    error = ask_for_routes(nl, search->prefix.family, search->table, &sink);
    return error == 0 && !search->found ? int(TARGET_ENOENT) : error;
}

int reply_route(struct rk_client *client, const struct rk_request *request, const struct lx_route *route,
                const struct lx_list *hops, uint16_t tid)
{
    struct lx_route_room room;
    struct rt_msg record;
    int error = lx_route_record(lx_owner(client), route, lx_items<struct lx_hop>(hops), tid, &room, &record);
    if (error == 0)
        error = rk_reply(client, request, request->type, &record);
    lx_route_room_end(&room);
    return error;
}

int get(struct rk_client *client, const struct rk_request *request, const struct lx_prefix *prefix)
{
    const auto *asked = static_cast<const struct rt_msg *>(request->record);
    struct search search;
    search_begin(&search, prefix, lx_table_of(asked->tid), true);
    int error = find_route(&lx_owner(client)->requests, &search);
    if (error == 0)
        error = reply_route(client, request, &search.route, &search.hops, asked->tid);
    lx_list_clear(&search.hops);
    return error;
}

/* Whoever deletes a route of one type must not take the host's own. 0 or ENOENT. */
int check_type(struct rk_client *client, const struct rt_msg *asked, const struct lx_prefix *prefix)
{
    struct search search;
    search_begin(&search, prefix, lx_table_of(asked->tid), true);
    int error = find_route(&lx_owner(client)->requests, &search);
    if (error == 0 && lx_route_type(&search.route) != asked->rt_type)
        error = TARGET_ENOENT;
    lx_list_clear(&search.hops);
    return error;
}

/* --- Walks. */

int take_step(const struct nlmsghdr *message, void *context)
{
    auto *walk = static_cast<struct lx_route_walk *>(context);
    struct lx_route route;
    size_t hops = walk->hops.count;
    int error = lx_route_read(message, &route, &walk->hops);
    bool good = error == 0 && route.table == walk->table && route.prefix.family == walk->family &&
                (walk->by_type == 0 || lx_route_type(&route) == walk->by_type);
    if (!good)
        walk->hops.count = hops;
    else if (!lx_list_add(&walk->routes, &route))
        error = TARGET_ENOMEM;
    return error == TARGET_ENOMEM ? error : 0;
}

void forget_steps(void *context)
{
    auto *walk = static_cast<struct lx_route_walk *>(context);
    walk->routes.count = walk->hops.count = 0;
}

bool before(const struct lx_route &a, const struct lx_route &b)
{
    int order = lx_prefix_compare(&a.prefix, &b.prefix);
    return order != 0 ? order < 0 : a.priority < b.priority;
}

/* A new snapshot. It begins behind the prefix, or with the first route of all. */
int start_walk(struct lx_client *owner, const struct rt_msg *asked, const struct lx_prefix *prefix, bool from_first)
{
    struct lx_route_walk *walk = &owner->route_walk;
    lx_route_walk_end(owner);
    walk->table = lx_table_of(asked->tid);
    walk->family = prefix->family;
    walk->by_type = asked->rt_type;
    const struct nl_sink sink = { take_step, forget_steps, walk };
    int error = ask_for_routes(&owner->requests, walk->family, walk->table, &sink);
    if (error != 0)
        return error;
    auto *first = lx_items<struct lx_route>(&walk->routes), *last = first + walk->routes.count;
    std::sort(first, last, before);
    const auto *behind =
        std::partition_point(first, last, [prefix](const struct lx_route &route) {
            return lx_prefix_compare(&route.prefix, prefix) <= 0;
        });
    walk->at = from_first ? 0 : size_t(behind - first);
    return 0;
}

/* True if the request names what was answered last. */
bool goes_on(const struct lx_route_walk *walk, const struct rt_msg *asked, const struct lx_prefix *prefix)
{
    return walk->routes.count != 0 && walk->table == lx_table_of(asked->tid) && walk->family == prefix->family &&
           walk->by_type == asked->rt_type &&
           lx_prefix_compare(&lx_items<struct lx_route>(&walk->routes)[walk->at].prefix, prefix) == 0;
}

/* Over the other routes of the prefix. */
void step(struct lx_route_walk *walk)
{
    const auto *routes = lx_items<const struct lx_route>(&walk->routes);
    size_t last = walk->at;
    while (walk->at < walk->routes.count && lx_prefix_compare(&routes[walk->at].prefix, &routes[last].prefix) == 0)
        walk->at++;
}

int get_next(struct rk_client *client, const struct rk_request *request, const struct lx_prefix *prefix)
{
    const auto *asked = static_cast<const struct rt_msg *>(request->record);
    struct lx_client *owner = lx_owner(client);
    struct lx_route_walk *walk = &owner->route_walk;
    bool from_first = request->op == RTM_OP_GET;
    int error = 0;
    if (!from_first && goes_on(walk, asked, prefix))
        step(walk);
    else
        error = start_walk(owner, asked, prefix, from_first);
    if (error == 0 && walk->at >= walk->routes.count)
        error = TARGET_ENOENT;
    if (error == 0)
        error = reply_route(client, request, &lx_items<struct lx_route>(&walk->routes)[walk->at], &walk->hops,
                            asked->tid);
    if (error != 0)
        lx_route_walk_end(owner);
    return error;
}

int reply_match(struct rk_client *client, const struct rk_request *request, const struct search *search)
{
    const auto *asked = static_cast<const struct rtm_msg *>(request->record);
    const struct lx_route *route = &search->route;
    const auto *hops = lx_items<const struct lx_hop>(&search->hops);
    uint8_t prefix[LX_PREFIX_MAX];
    memcpy(prefix, route->prefix.octets, sizeof prefix);
    struct rtm_msg record = {};
    record.tid = asked->tid;
    record.af = asked->af;
    record.rt_type = lx_route_type(route);
    record.nh_type = lx_route_nh_type(route, hops);
    record.nhidx = lx_route_nh_index(lx_owner(client), route, hops);
    record.ifidx = route->hops != 0 ? hops[route->first_hop].ifindex : 0;
    record.prefix_bits = route->prefix.bits;
    record.prefix = prefix;
    record.prefix_len = lx_prefix_stored(route->prefix.bits);
    return rk_reply(client, request, request->type, &record);
}

}   // namespace

void lx_route_walk_end(struct lx_client *owner)
{
    lx_list_clear(&owner->route_walk.routes);
    lx_list_clear(&owner->route_walk.hops);
}

int lx_serve_route(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rt_msg *>(request->record);
    if (asked == nullptr)
        return TARGET_EINVAL;
    struct lx_prefix prefix;
    int error = lx_prefix_from(asked->af, asked->prefix, asked->prefix_len, asked->prefix_bits, &prefix);
    if (error != 0)
        return error;
    bool first_of_type = request->op == RTM_OP_GET && asked->rt_type != 0 && prefix.bits == 0;
    if (request->op == RTM_OP_GET && !first_of_type)
        return get(client, request, &prefix);
    if (request->op == RTM_OP_GETNEXT || first_of_type)
        return get_next(client, request, &prefix);
    if (request->op == RTM_OP_DELETE && asked->rt_type != 0)
        error = check_type(client, asked, &prefix);
    if (error == 0)
        error = lx_route_change(lx_owner(client), request, &prefix);
    // An add that is to be answered: there are no indexes of routes, so the answer is the route as it stands now.
    return error == 0 && request->op == RTM_OP_ADD_GET ? get(client, request, &prefix) : error;
}

int lx_serve_match(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rtm_msg *>(request->record);
    if (asked == nullptr)
        return TARGET_EINVAL;
    if (request->op != RTM_OP_GET)
        return TARGET_EOPNOTSUPP;
    struct lx_prefix prefix;
    int error = lx_prefix_from(asked->af, asked->prefix, asked->prefix_len, asked->prefix_bits, &prefix);
    if (error != 0)
        return error;
    struct search search;
    search_begin(&search, &prefix, lx_table_of(asked->tid), false);
    error = find_route(&lx_owner(client)->requests, &search);
    if (error == 0)
        error = reply_match(client, request, &search);
    lx_list_clear(&search.hops);
    return error;
}
