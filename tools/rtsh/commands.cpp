/*
 * What the commands do: each asks the library once, and lists walk with get-next.
 *
 * A walk asks for what stands behind the last reply until the kernel says that there is nothing. What a table or route
 * walk starts from is an object itself - table 0, the default route - so that one is asked for by itself. A kernel that
 * cannot tell the start of a walk from its second step may give the default route again; it is not shown twice.
 */
#include "tools/rtsh/rtsh.h"

#include "lib/librtsock/rtslib_nexthop.h"
#include "lib/librtsock/rtslib_route.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum { ROUTE_USER = 1, ROUTE_ANY = 0 };

/* A decoded reply, released at the end of the scope. */
struct reply {
    struct rtslib_cookie *cookie;
    void *message = nullptr;
    void *mask = nullptr;

    explicit reply(const struct rtsh &shell) : cookie(shell.cookie) { }
    reply(const reply &) = delete;
    reply &operator=(const reply &) = delete;
    ~reply() { rtslib_msg_idl_release(cookie, message); }

    template <typename record> const record *as() const { return static_cast<const record *>(message); }
};

/* A reply without a record says nothing of the object. */
int judged(int result, const reply &answer)
{
    return result == 0 && answer.message == nullptr ? int(TARGET_EOPNOTSUPP) : result;
}

/* Ends a walk: nothing behind the last object is how it should end. */
bool walk_ended(const struct rtsh &shell, const std::string &what, int result)
{
    return result == TARGET_ENOENT || rtsh_report(shell, what, result);
}

/* --- tables ---------------------------------------------------------------------------------------------------- */

int get_table(const struct rtsh &shell, uint32_t index, uint8_t operation, reply *answer)
{
    return judged(rtslib_rtbm_get_by_index(shell.cookie, shell.family, uint16_t(index), operation, &answer->message,
                                           &answer->mask),
                  *answer);
}

bool show_table(const struct rtsh &shell, const std::string &what, int result, const reply &answer)
{
    if (result != 0)
        return rtsh_report(shell, what, result);
    rtsh_print_table(shell, answer.message, answer.mask);
    return true;
}

bool table_list(const struct rtsh &shell, const struct rtsh_request &request)
{
    uint32_t index = 0;
    for (uint8_t operation = RTM_OP_GET;; operation = RTM_OP_GETNEXT) {
        reply answer(shell);
        int result = get_table(shell, index, operation, &answer);
        if (result == 0) {
            uint32_t found = answer.as<struct rtb_msg>()->tid;
            if (operation == RTM_OP_GETNEXT)
                index = found;
            if (index == found)   // or 0 stands for another table, which has its place in the walk
                rtsh_print_table(shell, answer.message, answer.mask);
        } else if (operation == RTM_OP_GETNEXT || result != TARGET_ENOENT) {
            return walk_ended(shell, request.text, result);
        }
    }
}

bool table_index(const struct rtsh &shell, const struct rtsh_request &request)
{
    reply answer(shell);
    int result = get_table(shell, request.number, RTM_OP_GET, &answer);
    return show_table(shell, request.text, result, answer);
}

/* By name, or by index where the word is a number. */
int get_named_table(const struct rtsh &shell, const struct rtsh_request &request, uint8_t family, reply *answer)
{
    bool by_name = !request.table.empty() && request.table_index == UINT32_MAX;
    auto index = uint16_t(request.table.empty() ? 0 : request.table_index);
    return judged(by_name ? rtslib_rtbm_get_by_name(shell.cookie, family, request.table.c_str(), &answer->message,
                                                    &answer->mask)
                          : rtslib_rtbm_get_by_index(shell.cookie, family, index, RTM_OP_GET, &answer->message,
                                                     &answer->mask),
                  *answer);
}

bool table_get(const struct rtsh &shell, const struct rtsh_request &request)
{
    if (request.table.empty())
        return table_list(shell, request);
    reply answer(shell);
    int result = get_named_table(shell, request, shell.family, &answer);
    return show_table(shell, request.text, result, answer);
}

/* The table that a command on routes is about. */
struct table {
    uint16_t tid = 0;
    std::string name;
};

bool find_table(const struct rtsh &shell, const struct rtsh_request &request, uint8_t family, table *found)
{
    reply answer(shell);
    int result = get_named_table(shell, request, family, &answer);
    if (result != 0)
        return rtsh_report(shell, "table " + (request.table.empty() ? "0" : request.table), result);
    const auto *record = answer.as<struct rtb_msg>();
    found->tid = record->tid;
    found->name = rtsh_text(record->name, record->name_len);
    if (found->name.empty())
        found->name = std::to_string(found->tid);
    return true;
}

/* --- routes ---------------------------------------------------------------------------------------------------- */

int ask_route(const struct rtsh &shell, const table &in, const struct rtsh_prefix &prefix, uint8_t type,
              uint8_t operation, reply *answer)
{
    return judged(rtslib_rtm_get(shell.cookie, in.tid, prefix.family, prefix.octets, prefix.bits, type, 0, 0, 0,
                                 operation, &answer->message, &answer->mask),
                  *answer);
}

/* True if the route is the one that was asked for. A get with a type may tell the first of that type, and a get by
 * prefix the route of another type. */
bool is_asked(const struct rt_msg *route, const struct rtsh_request &request, const table &in)
{
    std::string asked = rtsh_prefix_text(request.prefix.octets, sizeof request.prefix.octets, request.prefix.family,
                                         request.prefix.bits);
    return route->af == request.prefix.family && route->tid == in.tid &&
           (request.type == 0 || route->rt_type == request.type) &&
           rtsh_prefix_text(route->prefix, route->prefix_len, route->af, route->prefix_bits) == asked;
}

/* What the kernel has for the prefix that was asked for. */
bool show_route(const struct rtsh &shell, const struct rtsh_request &request, const table &in)
{
    reply answer(shell);
    int result = ask_route(shell, in, request.prefix, 0, RTM_OP_GET, &answer);
    if (result == 0 && !is_asked(static_cast<const struct rt_msg *>(answer.message), request, in))
        result = TARGET_ENOENT;
    if (result != 0)
        return rtsh_report(shell, request.text, result);
    rtsh_print_route(shell, answer.message, answer.mask, in.name);
    return true;
}

bool route_get(const struct rtsh &shell, const struct rtsh_request &request)
{
    table in;
    return find_table(shell, request, request.prefix.family, &in) && show_route(shell, request, in);
}

bool route_match(const struct rtsh &shell, const struct rtsh_request &request)
{
    table in;
    if (!find_table(shell, request, request.prefix.family, &in))
        return false;
    reply answer(shell);
    int result = judged(rtslib_rtmatch_by_prefix(shell.cookie, in.tid, request.prefix.family, 0,
                                                 request.prefix.octets, request.prefix.bits, &answer.message,
                                                 &answer.mask),
                        answer);
    if (result != 0)
        return rtsh_report(shell, request.text, result);
    rtsh_print_match(shell, answer.message, answer.mask, in.name);
    return true;
}

bool route_add(const struct rtsh &shell, const struct rtsh_request &request)
{
    table in;
    if (!find_table(shell, request, request.prefix.family, &in))
        return false;
    uint8_t gateway[RTSH_SOCKADDR_MAX];
    bool via = (request.clauses & CLAUSE_VIA) != 0;
    if (via)
        rtsh_put_sockaddr(request.via, gateway);
    uint16_t index = 0;
    int result = rtslib_rtm_add(shell.cookie, in.tid, request.prefix.family, request.type, 0,
                                via ? RTSLIB_NH_UNICAST : 0, 0, 0, 0, 0, request.nexthop, 0, 0, request.prefix.octets,
                                request.prefix.bits, via ? gateway : nullptr, &index);
    if (result != 0)
        return rtsh_report(shell, request.text, result);
    return show_route(shell, request, in);
}

bool route_delete(const struct rtsh &shell, const struct rtsh_request &request)
{
    table in;
    if (!find_table(shell, request, request.prefix.family, &in))
        return false;
    int result = rtslib_rtm_delete_prefix(shell.cookie, in.tid, request.prefix.family, request.type, 0,
                                          request.prefix.octets, request.prefix.bits, 0);
    return result == 0 || rtsh_report(shell, request.text, result);
}

/* The prefix of a reply. False if it is longer than any. */
bool read_prefix(const struct rt_msg &route, struct rtsh_prefix *prefix)
{
    if (route.prefix_bits > sizeof prefix->octets * 8)
        return false;
    *prefix = {};
    prefix->family = route.af;
    prefix->bits = route.prefix_bits;
    if (route.prefix != nullptr)
        memcpy(prefix->octets, route.prefix, std::min<size_t>(route.prefix_len, sizeof prefix->octets));
    return true;
}

bool route_list(const struct rtsh &shell, const struct rtsh_request &request)
{
    table in;
    if (!find_table(shell, request, shell.family, &in))
        return false;
    struct rtsh_prefix last;
    last.family = shell.family;
    for (uint8_t operation = RTM_OP_GET;; operation = RTM_OP_GETNEXT) {
        reply answer(shell);
        int result = ask_route(shell, in, last, ROUTE_ANY, operation, &answer);
        if (result == 0) {
            const auto *route = answer.as<struct rt_msg>();
            if (route->tid != in.tid || route->af != shell.family)
                return true;   // the walk goes on with the next table
            if (!read_prefix(*route, &last))
                return rtsh_report(shell, request.text, TARGET_EMSGSIZE);
            if (last.bits != 0 || operation == RTM_OP_GET)
                rtsh_print_route(shell, answer.message, answer.mask, in.name);
        } else if (operation == RTM_OP_GETNEXT || result != TARGET_ENOENT) {
            return walk_ended(shell, request.text, result);
        }
    }
}

/* --- next hops ------------------------------------------------------------------------------------------------- */

int get_nexthop(const struct rtsh &shell, uint32_t index, uint8_t operation, reply *answer)
{
    return judged(rtslib_rnhm_get_by_index(shell.cookie, index, shell.family, operation, &answer->message,
                                           &answer->mask),
                  *answer);
}

bool nexthop_get(const struct rtsh &shell, const struct rtsh_request &request)
{
    reply answer(shell);
    int result = get_nexthop(shell, request.number, RTM_OP_GET, &answer);
    if (result != 0)
        return rtsh_report(shell, request.text, result);
    rtsh_print_nexthop(shell, answer.message, answer.mask);
    return true;
}

bool nexthop_list(const struct rtsh &shell, const struct rtsh_request &request)
{
    for (uint32_t index = 0;;) {
        reply answer(shell);
        int result = get_nexthop(shell, index, RTM_OP_GETNEXT, &answer);
        if (result != 0)
            return walk_ended(shell, request.text, result);
        const auto *nexthop = answer.as<struct rnh_msg>();
        if (!shell.family_given || nexthop->af == shell.family)
            rtsh_print_nexthop(shell, answer.message, answer.mask);
        index = nexthop->idx;
    }
}

/* Deletions name the kind of the next hop, so it is asked for first. */
bool nexthop_delete(const struct rtsh &shell, const struct rtsh_request &request)
{
    reply answer(shell);
    int result = get_nexthop(shell, request.number, RTM_OP_GET, &answer);
    if (result != 0)
        return rtsh_report(shell, request.text, result);
    const auto *nexthop = answer.as<struct rnh_msg>();
    auto remove = nexthop->nh == RTSLIB_NH_SERVICE             ? rtslib_rnhm_service_delete_by_index
                  : nexthop->infotype == RTSLIB_NHINFO_IFL ? rtslib_rnhm_iflnh_delete_by_index
                                                           : rtslib_rnhm_subunit_nhdelete_by_index;
    result = remove(shell.cookie, request.number, nexthop->af);
    return result == 0 || rtsh_report(shell, request.text, result);
}

constexpr unsigned ROUTE_CLAUSES = CLAUSE_TABLE | CLAUSE_TYPE;
constexpr unsigned GATEWAYS = CLAUSE_VIA | CLAUSE_NEXTHOP;

}   // namespace

const struct rtsh_command rtsh_commands[] = {
    { "table", "list", OPERAND_NONE, 0, 0, 0, 0, table_list, "table list", "every table" },
    { "table", "index", OPERAND_NUMBER, UINT16_MAX, 0, 0, 0, table_index, "table index N", "the table of that index" },
    { "table", nullptr, OPERAND_OPTIONAL_TABLE, 0, 0, 0, 0, table_get, "table [TABLE]", "that table, or every one" },
    { "route", "get", OPERAND_PREFIX, 0, ROUTE_CLAUSES, 0, ROUTE_ANY, route_get,
      "route get PREFIX [table TABLE] [type TYPE]", "the route to exactly that prefix" },
    { "route", "match", OPERAND_PREFIX, 0, CLAUSE_TABLE, 0, 0, route_match, "route match ADDRESS [table TABLE]",
      "the route that a packet would take" },
    { "route", "add", OPERAND_PREFIX, 0, ROUTE_CLAUSES | GATEWAYS, GATEWAYS, ROUTE_USER, route_add,
      "route add PREFIX [table TABLE] [type TYPE] via ADDRESS | nexthop N", "a new route" },
    { "route", "delete", OPERAND_PREFIX, 0, ROUTE_CLAUSES, 0, ROUTE_USER, route_delete,
      "route delete PREFIX [table TABLE] [type TYPE]", "takes it out" },
    { "route", "list", OPERAND_NONE, 0, CLAUSE_TABLE, 0, 0, route_list, "route list [table TABLE]",
      "every route of the table" },
    { "nexthop", "get", OPERAND_NUMBER, UINT32_MAX, 0, 0, 0, nexthop_get, "nexthop get N",
      "the next hop of that index" },
    { "nexthop", "list", OPERAND_NONE, 0, 0, 0, 0, nexthop_list, "nexthop list",
      "every next hop, or those of --family" },
    { "nexthop", "delete", OPERAND_NUMBER, UINT32_MAX, 0, 0, 0, nexthop_delete, "nexthop delete N",
      "takes it out" },
    {},
};
