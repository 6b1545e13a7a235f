/*
 * Changes of the host, as events of the routing socket.
 *
 * A client that listens to classes of messages has its socket joined to the groups of netlink that carry them, and left
 * again when the class is no longer asked for. When the client reads, what waits in that socket is turned into events,
 * a bounded number at a time, and none while much waits for the client already: what then overflows in the host is
 * counted as lost. A message of the host can mean several events: a link is a device, a logical interface and families.
 *
 * Changes made through this socket come back as events like anyone else's. What the client listens to, the machinery
 * behind clients decides; here only what may be wanted is looked at.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/process/process.h"
#include "platform/target.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>

namespace {

/* Classes of messages: bits of the low listen word. */
enum : uint32_t {
    LISTEN_DEVICE = 0x1, LISTEN_UNIT = 0x2, LISTEN_FAMILY = 0x14, LISTEN_ADDRESS = 0x28, LISTEN_TABLE = 0x2000,
    LISTEN_ROUTE = 0x200380,
};
enum { TYPE_TABLE = 1, TYPE_ROUTE = 2, TYPE_DEVICE = 5, TYPE_UNIT = 6, TYPE_FAMILY = 7, TYPE_ADDRESS = 8 };
enum {
    DATAGRAMS_MAX = 256,            // read for one read of the client
    WAITING_MAX = RK_QUEUE_MAX / 4, // octets that wait for the client; no more is read then
    RECEIVE_BUFFER = 8 << 20,       // octets that the host keeps for us
};
constexpr uint32_t NEW_LINK = UINT32_MAX;   // flags that changed, in the message about a new link

struct group_row {
    uint32_t listen;
    int group;
};
constexpr group_row groups[] = {
    { LISTEN_DEVICE | LISTEN_UNIT | LISTEN_FAMILY | LISTEN_TABLE, RTNLGRP_LINK },
    { LISTEN_ADDRESS, RTNLGRP_IPV4_IFADDR },
    { LISTEN_ADDRESS, RTNLGRP_IPV6_IFADDR },
    { LISTEN_ROUTE, RTNLGRP_IPV4_ROUTE },
    { LISTEN_ROUTE, RTNLGRP_IPV6_ROUTE },
    { LISTEN_TABLE, RTNLGRP_IPV4_RULE },
    { LISTEN_TABLE, RTNLGRP_IPV6_RULE },
};

bool wants(const struct rk_client *client, uint32_t listen)
{
    return (client->rc_listen[0] & listen) != 0;
}

void tell_table(struct rk_client *client, uint32_t number, char *name, uint8_t family, uint8_t op)
{
    if (number == 0 || number > LX_TABLE_MAX)
        return;
    struct rtb_msg record = {};
    record.tid = uint16_t(number);
    record.af = family;
    record.name = name;
    record.name_len = uint32_t(strlen(name) + 1);
    rk_event(client, LISTEN_TABLE, 0, TYPE_TABLE, op, &record);
}

void tell_families(struct rk_client *client, const struct lx_link *link, uint8_t op)
{
    const struct {
        bool used;
        uint8_t family;
    } rows[] = { { link->inet != 0, TARGET_AF_INET }, { link->inet6 != 0, TARGET_AF_INET6 } };
    for (const auto &row : rows) {
        struct lx_link_room room;
        struct iff_msg record;
        if (!row.used)
            continue;
        lx_family_record(link, row.family, &room, &record);
        rk_event(client, LISTEN_FAMILY, 0, TYPE_FAMILY, op, &record);
    }
}

void tell_device(struct rk_client *client, const struct lx_link *link, uint8_t op)
{
    struct lx_link_room room;
    struct ifdev_msg record;
    if (!lx_link_is_device(link))
        return;
    lx_device_record(link, &room, &record);
    rk_event(client, LISTEN_DEVICE, 0, TYPE_DEVICE, op, &record);
}

void tell_unit(struct rk_client *client, const struct lx_link *link, uint8_t op)
{
    struct lx_link_room room;
    struct ifl_msg record;
    lx_unit_record(link, lx_device_of(lx_owner(client)->requests.fd, link), &room, &record);
    rk_event(client, LISTEN_UNIT, 0, TYPE_UNIT, op, &record);
}

int take_link(struct rk_client *client, const struct nlmsghdr *message)
{
    struct lx_link link;
    int error = lx_link_read(message, &link);
    if (error != 0)
        return error;
    bool gone = message->nlmsg_type == RTM_DELLINK;
    // Linux has taken the families off by then, and did not say which there were.
    if (gone)
        link.inet = link.inet6 = 1;
    uint8_t op = gone ? RTM_OP_DELETE : link.change == NEW_LINK ? RTM_OP_ADD : RTM_OP_CHANGE;
    // What stands on something else comes after it, and goes before it.
    if (!gone) {
        tell_device(client, &link, op);
        tell_unit(client, &link, op);
    }
    tell_families(client, &link, op);
    if (gone) {
        tell_unit(client, &link, op);
        tell_device(client, &link, op);
    }
    if (link.vrf && op != RTM_OP_CHANGE)
        tell_table(client, link.table, link.name, TARGET_AF_UNSPEC, op);
    return 0;
}

int take_address(struct rk_client *client, const struct nlmsghdr *message)
{
    struct lx_address address;
    int error = lx_address_read(message, &address);
    if (error != 0)
        return error;
    struct lx_address_room room;
    struct ifa_msg record;
    lx_address_record(lx_owner(client)->requests.fd, &address, &room, &record);
    rk_event(client, LISTEN_ADDRESS, 0, TYPE_ADDRESS,
             message->nlmsg_type == RTM_DELADDR ? RTM_OP_DELETE : RTM_OP_ADD, &record);
    return 0;
}

uint8_t route_op(const struct nlmsghdr *message)
{
    if (message->nlmsg_type == RTM_DELROUTE)
        return RTM_OP_DELETE;
    return (message->nlmsg_flags & NLM_F_REPLACE) != 0 ? RTM_OP_CHANGE : RTM_OP_ADD;
}

int take_route(struct rk_client *client, const struct nlmsghdr *message)
{
    struct lx_list hops = { sizeof(struct lx_hop), nullptr, 0, 0 };
    struct lx_route route;
    struct lx_route_room room = {};
    struct rt_msg record;
    int error = lx_route_read(message, &route, &hops);
    if (error == 0 && route.table <= LX_TABLE_MAX) {
        error = lx_route_record(lx_owner(client), &route, lx_items<struct lx_hop>(&hops), uint16_t(route.table), &room,
                                &record);
        if (error == 0)
            rk_event(client, LISTEN_ROUTE, 0, TYPE_ROUTE, route_op(message), &record);
        lx_route_room_end(&room);
    }
    lx_list_clear(&hops);
    return error;
}

/* A rule decides what reaches a table, which therefore counts as changed. A table without a name is no instance. */
int take_rule(struct rk_client *client, const struct nlmsghdr *message)
{
    struct fib_rule_hdr head;
    struct nl_attr attrs[FRA_TABLE + 1];
    char name[LX_NAME_MAX];
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr)
        return TARGET_EINVAL;
    memcpy(&head, fixed, sizeof head);
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    uint32_t table = nl_u32(attrs[FRA_TABLE], head.table);
    int family = target_family_from_host(head.family);
    if (family > 0 && lx_table_name(&lx_owner(client)->requests, table, name) == 0)
        tell_table(client, table, name, uint8_t(family), RTM_OP_CHANGE);
    return 0;
}

struct event_row {
    uint16_t first, last;   // types of netlink
    uint32_t listen;
    int (*take)(struct rk_client *client, const struct nlmsghdr *message);
};
constexpr event_row events[] = {
    { RTM_NEWLINK, RTM_DELLINK, LISTEN_DEVICE | LISTEN_UNIT | LISTEN_FAMILY | LISTEN_TABLE, take_link },
    { RTM_NEWADDR, RTM_DELADDR, LISTEN_ADDRESS, take_address },
    { RTM_NEWROUTE, RTM_DELROUTE, LISTEN_ROUTE, take_route },
    { RTM_NEWRULE, RTM_DELRULE, LISTEN_TABLE, take_rule },
};

int take_event(const struct nlmsghdr *message, void *context)
{
    auto *client = static_cast<struct rk_client *>(context);
    if (lx_events_take(client, message) == TARGET_ENOMEM)
        client->rc_lost++;
    return 0;
}

}   // namespace

int lx_events_open(void)
{
    int fd = platform_lift_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    const int size = RECEIVE_BUFFER;
    struct sockaddr_nl any = {};
    any.nl_family = AF_NETLINK;
    // A socket without an address of its own hears nothing.
    if (fd >= 0 && bind(fd, reinterpret_cast<struct sockaddr *>(&any), sizeof any) < 0) {
        close(fd);
        return -1;
    }
    // Beyond the host's limit only the privileged may go; others get as much as that allows.
    if (fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return fd;
}

void lx_events_listen(struct rk_client *client)
{
    struct lx_client *owner = lx_owner(client);
    for (size_t i = 0; i < std::size(groups); i++) {
        bool joined = (owner->joined >> i & 1) != 0, wanted = wants(client, groups[i].listen);
        int option = wanted ? NETLINK_ADD_MEMBERSHIP : NETLINK_DROP_MEMBERSHIP;
        // A host without a family has no group for it either; then there is nothing to hear.
        if (joined != wanted &&
            setsockopt(owner->events, SOL_NETLINK, option, &groups[i].group, sizeof groups[i].group) == 0)
            owner->joined ^= 1U << i;
    }
    // What came before a group was left would keep the socket readable; nobody wants it.
    while (owner->joined == 0 && recv(owner->events, owner->event_buffer, NL_BUFFER_SIZE, MSG_DONTWAIT) >= 0)
        continue;
}

void lx_events_pump(struct rk_client *client)
{
    struct lx_client *owner = lx_owner(client);
    for (int i = 0; i < DATAGRAMS_MAX && owner->joined != 0 && client->rc_queued < WAITING_MAX; i++) {
        ssize_t count = recv(owner->events, owner->event_buffer, NL_BUFFER_SIZE, MSG_DONTWAIT);
        if (count < 0 && errno == ENOBUFS) {
            client->rc_lost++;
            continue;
        }
        if (count < 0)
            return;
        (void)nl_messages(owner->event_buffer, size_t(count), take_event, client);
    }
}

int lx_events_take(struct rk_client *client, const struct nlmsghdr *message)
{
    for (const event_row &row : events) {
        if (message->nlmsg_type >= row.first && message->nlmsg_type <= row.last && wants(client, row.listen))
            return row.take(client, message);
    }
    return TARGET_ENOENT;
}
