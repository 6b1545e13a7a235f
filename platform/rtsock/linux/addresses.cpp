/*
 * Addresses of interfaces.
 *
 * What Linux calls the address and its prefix length is here a local address with all its bits, and a destination: the
 * network on the link, or on a point-to-point link the other end's address. An address is asked for by interface and
 * family, and by local or destination as far as given. A walk goes by interface, then by local address; without a local
 * address it goes on behind the interface. IPv4 comes before IPv6.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

namespace {

bool read_octets(struct nl_attr attr, uint8_t family, struct lx_prefix *address)
{
    *address = {};
    address->family = family;
    address->bits = uint8_t(lx_address_bits(family));
    return nl_copy(attr, address->octets, address->bits / 8U) == address->bits / 8U;
}

int take(const struct nlmsghdr *message, void *context)
{
    struct lx_address address;
    if (lx_address_read(message, &address) != 0)
        return 0;
    return lx_list_add(static_cast<struct lx_list *>(context), &address) ? 0 : int(TARGET_ENOMEM);
}

void forget(void *context)
{
    static_cast<struct lx_list *>(context)->count = 0;
}

bool less(const struct lx_address &a, const struct lx_address &b)
{
    if (a.ifindex != b.ifindex)
        return a.ifindex < b.ifindex;
    if (a.local.family != b.local.family)
        return a.local.family < b.local.family;
    int order = lx_prefix_compare(&a.local, &b.local);
    return order != 0 ? order < 0 : lx_prefix_compare(&a.destination, &b.destination) < 0;
}

/* Those of one interface, or of all with index 0; of one family, or of both with 0. In the order of walks. */
int load(struct nl *nl, uint32_t ifindex, uint8_t family, struct lx_list *addresses)
{
    struct ifaddrmsg head = {};
    head.ifa_family = family;
    head.ifa_index = ifindex;
    struct nl_request request;
    nl_begin(&request, RTM_GETADDR, 0, &head, sizeof head);
    const struct nl_sink sink = { take, forget, addresses };
    int error = nl_dump(nl, &request, &sink);
    auto *first = lx_items<struct lx_address>(addresses);
    std::sort(first, first + addresses->count, less);
    return error;
}

/* What a request names: zero bits where it says nothing. */
struct key {
    uint32_t ifindex;
    struct lx_prefix local, destination;   // both with the family asked for, 0 for any
};

int read_key(const struct ifa_msg *asked, struct key *key)
{
    *key = {};
    key->ifindex = asked->ifl_idx;
    if (asked->af == TARGET_AF_UNSPEC)
        return 0;
    int error = lx_prefix_from(asked->af, asked->local, asked->local_len, asked->local_bits, &key->local);
    return error != 0 ? error
                      : lx_prefix_from(asked->af, asked->dest, asked->dest_len, asked->dest_bits, &key->destination);
}

bool fits(const struct lx_address *address, const struct key *key)
{
    if (key->local.family != 0 && address->local.family != key->local.family)
        return false;
    bool local = key->local.bits == 0 || lx_prefix_covers(&key->local, &address->local);
    bool destination = key->destination.bits == 0 || lx_prefix_compare(&key->destination, &address->destination) == 0;
    return local && destination && (key->ifindex == 0 || key->ifindex == address->ifindex);
}

int reply(struct rk_client *client, const struct rk_request *request, const struct lx_address *address)
{
    struct lx_address_room room;
    struct ifa_msg record;
    lx_address_record(lx_owner(client)->requests.fd, address, &room, &record);
    return rk_reply(client, request, request->type, &record);
}

int get(struct rk_client *client, const struct rk_request *request, const struct key *key)
{
    struct lx_list addresses = { sizeof(struct lx_address), nullptr, 0, 0 };
    int error = load(&lx_owner(client)->requests, key->ifindex, key->local.family, &addresses);
    const auto *first = lx_items<const struct lx_address>(&addresses), *last = first + addresses.count;
    const auto *hit = std::find_if(first, last, [key](const struct lx_address &one) { return fits(&one, key); });
    if (error == 0)
        error = hit != last ? reply(client, request, hit) : int(TARGET_ENOENT);
    lx_list_clear(&addresses);
    return error;
}

/* A place in the order of walks: behind the address, behind all that are alike but for the destination if none is
 * named, or behind all of the interface. */
bool is_behind(const struct lx_address *address, const struct key *key)
{
    if (key->local.bits == 0)
        return address->ifindex > key->ifindex;
    if (key->destination.bits == 0 && address->ifindex == key->ifindex &&
        address->local.family == key->local.family && lx_prefix_compare(&address->local, &key->local) == 0)
        return false;
    const struct lx_address place = { key->ifindex, 0, key->local, key->destination, 0, {} };
    return less(place, *address);
}

/* True if the request names what was answered last. */
bool goes_on(const struct lx_address_walk *walk, const struct key *key)
{
    if (walk->at >= walk->addresses.count)
        return false;
    const struct lx_address *at = &lx_items<const struct lx_address>(&walk->addresses)[walk->at];
    return key->local.bits != 0 && at->ifindex == key->ifindex && at->local.family == key->local.family &&
           lx_prefix_compare(&at->local, &key->local) == 0 &&
           (key->destination.bits == 0 || lx_prefix_compare(&at->destination, &key->destination) == 0);
}

int get_next(struct rk_client *client, const struct rk_request *request, const struct key *key)
{
    struct lx_client *owner = lx_owner(client);
    struct lx_address_walk *walk = &owner->address_walk;
    int error = 0;
    if (!goes_on(walk, key)) {
        walk->at = 0;
        error = load(&owner->requests, 0, AF_UNSPEC, &walk->addresses);
    }
    const auto *first = lx_items<const struct lx_address>(&walk->addresses), *last = first + walk->addresses.count;
    const auto *next = std::find_if(first + walk->at, last, [key](const struct lx_address &one) {
        return is_behind(&one, key) && (key->local.family == 0 || one.local.family == key->local.family);
    });
    walk->at = size_t(next - first);
    if (error == 0 && next != last)
        return reply(client, request, next);
    lx_list_clear(&walk->addresses);
    return error != 0 ? error : int(TARGET_ENOENT);
}

void put_prefix(struct nl_request *change, uint16_t attr, const struct lx_prefix *prefix)
{
    nl_put(change, attr, prefix->octets, lx_address_bits(prefix->family) / 8);
}

/* A deletion may leave out the destination; Linux wants the length of its prefix. */
int complete(struct nl *nl, struct key *key)
{
    struct lx_list addresses = { sizeof(struct lx_address), nullptr, 0, 0 };
    int error = load(nl, key->ifindex, key->local.family, &addresses);
    const auto *first = lx_items<const struct lx_address>(&addresses), *last = first + addresses.count;
    const auto *hit = std::find_if(first, last, [key](const struct lx_address &one) { return fits(&one, key); });
    if (error == 0 && hit == last)
        error = TARGET_ENOENT;
    if (error == 0)
        key->destination = hit->destination;
    lx_list_clear(&addresses);
    return error;
}

int change(struct rk_client *client, const struct rk_request *request, const struct key *asked)
{
    struct key whole = *asked, *key = &whole;
    if (key->local.family == 0 || key->ifindex == 0 || key->local.bits != lx_address_bits(key->local.family))
        return TARGET_EINVAL;
    bool adds = request->op == RTM_OP_ADD;
    int error = !adds && key->destination.bits == 0 ? complete(&lx_owner(client)->requests, key) : 0;
    if (error != 0)
        return error;
    // A network on the link gives the length of its prefix; a destination with all its bits is the other end.
    bool network = key->destination.bits != 0;
    bool peer = network && key->destination.bits == key->local.bits;
    struct ifaddrmsg head = {};
    head.ifa_family = key->local.family;
    head.ifa_prefixlen = network ? key->destination.bits : key->local.bits;
    head.ifa_index = key->ifindex;
    struct nl_request message;
    nl_begin(&message, adds ? RTM_NEWADDR : RTM_DELADDR, adds ? NLM_F_CREATE | NLM_F_EXCL : 0, &head, sizeof head);
    put_prefix(&message, IFA_LOCAL, &key->local);
    put_prefix(&message, IFA_ADDRESS, peer ? &key->destination : &key->local);
    error = nl_ask(&lx_owner(client)->requests, &message, nullptr, nullptr);
    return error == TARGET_EADDRNOTAVAIL ? int(TARGET_ENOENT) : error;
}

}   // namespace

int lx_address_read(const struct nlmsghdr *message, struct lx_address *address)
{
    struct ifaddrmsg head;
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr || (message->nlmsg_type != RTM_NEWADDR && message->nlmsg_type != RTM_DELADDR))
        return TARGET_EINVAL;
    memcpy(&head, fixed, sizeof head);
    unsigned bits = lx_address_bits(head.ifa_family);
    if (bits == 0 || head.ifa_prefixlen > bits)
        return TARGET_EINVAL;
    struct nl_attr attrs[IFA_MAX + 1];
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    *address = {};
    address->ifindex = head.ifa_index;
    address->flags = nl_u32(attrs[IFA_FLAGS], head.ifa_flags);
    bool there = read_octets(attrs[IFA_ADDRESS], head.ifa_family, &address->destination);
    if (!read_octets(attrs[IFA_LOCAL], head.ifa_family, &address->local)) {
        if (!there)
            return TARGET_EINVAL;
        address->local = address->destination;
    }
    if (!there)
        address->destination = address->local;
    address->destination.bits = head.ifa_prefixlen;
    lx_prefix_trim(&address->destination);
    address->has_broadcast = read_octets(attrs[IFA_BROADCAST], head.ifa_family, &address->broadcast);
    return 0;
}

int lx_serve_address(struct rk_client *client, const struct rk_request *request)
{
    static constexpr struct {
        uint8_t op;
        int (*serve)(struct rk_client *client, const struct rk_request *request, const struct key *key);
    } operations[] = {
        { RTM_OP_GET, get }, { RTM_OP_GETNEXT, get_next }, { RTM_OP_ADD, change }, { RTM_OP_DELETE, change },
    };
    if (request->record == nullptr)
        return TARGET_EINVAL;
    struct key key;
    int error = read_key(static_cast<const struct ifa_msg *>(request->record), &key);
    if (error != 0)
        return error;
    for (const auto &row : operations) {
        if (row.op == request->op)
            return row.serve(client, request, &key);
    }
    return TARGET_EOPNOTSUPP;
}
