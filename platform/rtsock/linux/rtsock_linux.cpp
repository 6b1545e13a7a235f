/*
 * The Linux kernel of the routing socket: the functions of its table, and what is kept for a client.
 *
 * A client has a socket for questions and one for changes. Neither is shared, so that a client stays in the network
 * namespace that it was opened in, and one's unread changes never crowd out another's. Nothing of the host is kept but
 * the snapshot of a walk and the names of next hops.
 */
#include "platform/rtsock/linux/rtsock_linux.h"
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

void free_owner(struct lx_client *owner)
{
    if (owner->events >= 0)
        close(owner->events);
    nl_close(&owner->requests);
    lx_route_walk_end(owner);
    lx_nexthop_walk_end(owner);
    lx_list_clear(&owner->link_walk.links);
    lx_list_clear(&owner->address_walk.addresses);
    lx_list_clear(&owner->named_hops);
    free(owner->event_buffer);
    free(owner);
}

struct lx_client *new_owner(void)
{
    auto *owner = static_cast<struct lx_client *>(calloc(1, sizeof(struct lx_client)));
    if (owner == nullptr)
        return nullptr;
    owner->route_walk.routes.item_size = sizeof(struct lx_route);
    owner->route_walk.hops.item_size = sizeof(struct lx_hop);
    owner->nexthop_walk.nexthops.item_size = sizeof(struct lx_nexthop);
    owner->nexthop_walk.members.item_size = sizeof(struct lx_member);
    owner->link_walk.links.item_size = sizeof(struct lx_link);
    owner->address_walk.addresses.item_size = sizeof(struct lx_address);
    owner->named_hops.item_size = sizeof(struct lx_named_hop);
    owner->events = -1;
    return owner;
}

int open_client(struct rk_client *client)
{
    struct lx_client *owner = new_owner();
    if (owner == nullptr)
        return -1;
    int error = nl_open(&owner->requests);
    if (error != 0)
        errno = target_errno_to_host(error);
    if (error == 0)
        owner->events = lx_events_open();
    if (owner->events >= 0)
        owner->event_buffer = static_cast<uint8_t *>(malloc(NL_BUFFER_SIZE));
    if (owner->event_buffer == nullptr) {
        int saved = errno;
        free_owner(owner);
        errno = saved;
        return -1;
    }
    client->rc_owner = owner;
    return 0;
}

void close_client(struct rk_client *client)
{
    free_owner(lx_owner(client));
}

enum {
    TYPE_TABLE = 1, TYPE_ROUTE = 2, TYPE_DEVICE = 5, TYPE_UNIT = 6, TYPE_FAMILY = 7, TYPE_ADDRESS = 8,
    TYPE_NEXTHOP = 10, TYPE_MATCH = 12,
};

struct rk_kernel make_kernel(void)
{
    struct rk_kernel kernel = {};
    kernel.serve[TYPE_TABLE] = lx_serve_table;
    kernel.serve[TYPE_ROUTE] = lx_serve_route;
    kernel.serve[TYPE_DEVICE] = lx_serve_device;
    kernel.serve[TYPE_UNIT] = lx_serve_unit;
    kernel.serve[TYPE_FAMILY] = lx_serve_family;
    kernel.serve[TYPE_ADDRESS] = lx_serve_address;
    kernel.serve[TYPE_NEXTHOP] = lx_serve_nexthop;
    kernel.serve[TYPE_MATCH] = lx_serve_match;
    kernel.open = open_client;
    kernel.close = close_client;
    kernel.listen = lx_events_listen;
    kernel.pump = lx_events_pump;
    kernel.form = RK_FORM_IDR;
    return kernel;
}

int open_linux(int peer, void **state)
{
    static struct rk_kernel kernel = make_kernel();
    return rk_client_open(&kernel, peer, state);
}

int source(void *state)
{
    return lx_owner(static_cast<const struct rk_client *>(state))->events;
}

/* Linux has its values in files. */
int sysctl_by_name(const char *, void *, size_t *, const void *, size_t)
{
    errno = ENOENT;
    return -1;
}

}   // namespace

const struct rtsock_kernel rtsock_linux = {
    "linux",
    open_linux,
    rk_client_close,
    rk_client_write,
    rk_client_getsockopt,
    rk_client_setsockopt,
    lx_sysctl,
    sysctl_by_name,
    lx_bind_table,
    lx_bind_interface,
    source,
    rk_client_pump,
};
