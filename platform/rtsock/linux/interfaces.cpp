/*
 * Devices, logical interfaces and families.
 *
 * They are found by index if a request has one, then by name, or by the number that management protocols know them by,
 * which is the index again. A logical interface is also found by its device and unit. A walk is a snapshot of the
 * links, in the order of what is asked by: index, or device and unit.
 *
 * What can be changed is whether a link is up. Changes of anything else are not Linux's.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include <linux/rtnetlink.h>

namespace {

enum { CHANGE_FLAGS = 1 };   // of change words

enum { TARGET_IFF_UP = 1 };

/* A name out of a message. False if there is none, or it is longer than any. */
bool name_of(const char *text, uint32_t length, char name[IFNAMSIZ])
{
    size_t there = text != nullptr ? strnlen(text, length) : 0;
    memset(name, 0, IFNAMSIZ);
    if (there == 0 || there >= IFNAMSIZ)
        return false;
    memcpy(name, text, there);
    return true;
}

bool less_by_name(const struct lx_link &a, const struct lx_link &b)
{
    int order = strncmp(a.device, b.device, IFNAMSIZ);
    return order != 0 ? order < 0 : a.unit < b.unit;
}

bool less_by_index(const struct lx_link &a, const struct lx_link &b)
{
    return a.index < b.index;
}

/* --- Devices. */

int reply_device(struct rk_client *client, const struct rk_request *request, const struct lx_link *link)
{
    struct lx_link_room room;
    struct ifdev_msg record;
    lx_device_record(link, &room, &record);
    return rk_reply(client, request, request->type, &record);
}

/* The link that a request names. */
int find_device(struct nl *nl, const struct ifdev_msg *asked, struct lx_link *link)
{
    char name[IFNAMSIZ];
    int error = TARGET_ENOENT;
    if (asked->idx != 0 || asked->name_len == 0)
        error = lx_link_get(nl, asked->idx != 0 ? asked->idx : asked->snmpid, nullptr, link);
    else if (name_of(asked->name, asked->name_len, name))
        error = lx_link_get(nl, 0, name, link);
    return error == 0 && !lx_link_is_device(link) ? int(TARGET_ENOENT) : error;
}

int get_device(struct rk_client *client, const struct rk_request *request)
{
    struct lx_link link;
    int error = find_device(&lx_owner(client)->requests, static_cast<const struct ifdev_msg *>(request->record), &link);
    return error == 0 ? reply_device(client, request, &link) : error;
}

int next_device(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct ifdev_msg *>(request->record);
    struct lx_link key = {};
    key.index = asked->idx;
    bool by_name = asked->idx == 0 && name_of(asked->name, asked->name_len, key.device);
    int error = 0;
    const struct lx_link *link;
    do {
        link = lx_link_walk_next(lx_owner(client), by_name ? LX_BY_NAME : LX_BY_INDEX, &key, &error);
        if (link != nullptr)
            key = *link;
    } while (link != nullptr && !lx_link_is_device(link));
    return link != nullptr ? reply_device(client, request, &key) : error;
}

int set_up(struct nl *nl, uint32_t index, bool up)
{
    struct ifinfomsg head = {};
    head.ifi_index = int(index);
    head.ifi_change = IFF_UP;
    head.ifi_flags = up ? IFF_UP : 0;
    struct nl_request change;
    nl_begin(&change, RTM_NEWLINK, 0, &head, sizeof head);
    return nl_ask(nl, &change, nullptr, nullptr);
}

int change_device(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct ifdev_msg *>(request->record);
    // A change that is not about the flags has them 0, and must not take the link down.
    bool of_flags = (asked->change & CHANGE_FLAGS) != 0 || asked->flags != 0;
    if (!of_flags || asked->addr_len != 0 || asked->hw_addr_len != 0 || asked->alt_addr_len != 0 || asked->tlv_marker != 0 ||
        asked->rts_hdr.rtsh_info_len != 0)
        return TARGET_EOPNOTSUPP;
    struct nl *nl = &lx_owner(client)->requests;
    struct lx_link link;
    int error = find_device(nl, asked, &link);
    return error == 0 ? set_up(nl, link.index, (asked->flags & TARGET_IFF_UP) != 0) : error;
}

/* --- Logical interfaces. */

int reply_unit(struct rk_client *client, const struct rk_request *request, const struct lx_link *link)
{
    struct lx_link_room room;
    struct ifl_msg record;
    lx_unit_record(link, lx_device_of(lx_owner(client)->requests.fd, link), &room, &record);
    return rk_reply(client, request, request->type, &record);
}

/* The link of a device's unit. */
int find_unit_of(struct nl *nl, const char *device, uint32_t unit, struct lx_link *link)
{
    char name[IFNAMSIZ];
    int length = unit == 0 ? snprintf(name, sizeof name, "%s", device)
                           : snprintf(name, sizeof name, "%s.%u", device, unit);
    if (length < 0 || size_t(length) >= sizeof name)
        return TARGET_ENOENT;
    int error = lx_link_get(nl, 0, name, link);
    return error == 0 && link->unit != unit ? int(TARGET_ENOENT) : error;
}

int find_unit(struct nl *nl, const struct ifl_msg *asked, struct lx_link *link)
{
    char name[IFNAMSIZ];
    struct lx_link device;
    if (asked->ifl_idx != 0)
        return lx_link_get(nl, asked->ifl_idx, nullptr, link);
    if (asked->name_len != 0)
        return name_of(asked->name, asked->name_len, name) ? find_unit_of(nl, name, asked->unit, link)
                                                           : int(TARGET_ENOENT);
    if (asked->snmpid != 0)
        return lx_link_get(nl, asked->snmpid, nullptr, link);
    int error = lx_link_get(nl, asked->ifd_idx, nullptr, &device);
    return error == 0 ? find_unit_of(nl, device.name, asked->unit, link) : error;
}

int get_unit(struct rk_client *client, const struct rk_request *request)
{
    struct lx_link link;
    int error = find_unit(&lx_owner(client)->requests, static_cast<const struct ifl_msg *>(request->record), &link);
    return error == 0 ? reply_unit(client, request, &link) : error;
}

int next_unit(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct ifl_msg *>(request->record);
    struct lx_client *owner = lx_owner(client);
    struct lx_link key = {}, device;
    key.index = asked->ifl_idx != 0 ? asked->ifl_idx : asked->snmpid;
    key.unit = asked->unit;
    bool by_name = asked->ifl_idx == 0 && name_of(asked->name, asked->name_len, key.device);
    int error = 0;
    if (!by_name && key.index == 0 && asked->ifd_idx != 0) {
        error = lx_link_get(&owner->requests, asked->ifd_idx, nullptr, &device);
        memcpy(key.device, device.device, sizeof key.device);
        by_name = true;
    }
    const struct lx_link *link =
        error == 0 ? lx_link_walk_next(owner, by_name ? LX_BY_NAME : LX_BY_INDEX, &key, &error) : nullptr;
    return link != nullptr ? reply_unit(client, request, link) : error;
}

int change_unit(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct ifl_msg *>(request->record);
    // An update that is not about the flags has them 0, and must not take the link down.
    if ((asked->change & CHANGE_FLAGS) == 0 || asked->gateway_len != 0 || asked->privflags != 0 ||
        asked->priv_byte != 0 || asked->rts_hdr.rtsh_info_len != 0)
        return TARGET_EOPNOTSUPP;
    struct nl *nl = &lx_owner(client)->requests;
    struct lx_link link;
    int error = find_unit(nl, asked, &link);
    return error == 0 ? set_up(nl, link.index, (asked->flags & TARGET_IFF_UP) != 0) : error;
}

/* --- Families. */

/* The first family in use that is above another one, in the target's numbers; 0 if there is none. */
uint8_t family_above(const struct lx_link *link, uint8_t above)
{
    if (link->inet && above < TARGET_AF_INET)
        return TARGET_AF_INET;
    return link->inet6 && above < TARGET_AF_INET6 ? uint8_t(TARGET_AF_INET6) : uint8_t(TARGET_AF_UNSPEC);
}

int reply_family(struct rk_client *client, const struct rk_request *request, const struct lx_link *link, uint8_t family)
{
    struct lx_link_room room;
    struct iff_msg record;
    lx_family_record(link, family, &room, &record);
    return rk_reply(client, request, request->type, &record);
}

int find_family_link(struct nl *nl, const struct iff_msg *asked, struct lx_link *link)
{
    char name[IFNAMSIZ];
    if (asked->ifl_idx != 0 || asked->name_len == 0)
        return lx_link_get(nl, asked->ifl_idx, nullptr, link);
    return name_of(asked->name, asked->name_len, name) ? find_unit_of(nl, name, asked->subunit, link)
                                                       : int(TARGET_ENOENT);
}

int get_family(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct iff_msg *>(request->record);
    struct lx_link link;
    int error = find_family_link(&lx_owner(client)->requests, asked, &link);
    if (error != 0)
        return error;
    bool used = (asked->af == TARGET_AF_INET && link.inet) || (asked->af == TARGET_AF_INET6 && link.inet6);
    return used ? reply_family(client, request, &link, asked->af) : int(TARGET_ENOENT);
}

/* The next family of the interface, or the first of the next interface by index. */
int next_family(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct iff_msg *>(request->record);
    struct lx_client *owner = lx_owner(client);
    struct lx_link link = {};
    bool begins = asked->name_len == 0 && asked->ifl_idx == 0;
    int error = begins ? 0 : find_family_link(&owner->requests, asked, &link);
    if (error != 0 && asked->ifl_idx == 0)
        return error;
    if (error != 0)   // an interface that is gone still has a place in the order
        link.index = asked->ifl_idx;
    uint8_t family = family_above(&link, asked->af);
    while (family == 0) {
        const struct lx_link *next = lx_link_walk_next(owner, LX_BY_INDEX, &link, &error);
        if (next == nullptr)
            return error;
        link = *next;
        family = family_above(&link, 0);
    }
    return reply_family(client, request, &link, family);
}

/* --- What they share. */

struct operation_row {
    uint8_t op;
    rk_serve_func serve;
};

int serve(struct rk_client *client, const struct rk_request *request, const operation_row (&rows)[3])
{
    if (request->record == nullptr)
        return TARGET_EINVAL;
    for (const operation_row &row : rows) {
        if (row.op == request->op && row.serve != nullptr)
            return row.serve(client, request);
    }
    return TARGET_EOPNOTSUPP;
}

}   // namespace

const struct lx_link *lx_link_walk_next(struct lx_client *owner, enum lx_link_order order, const struct lx_link *key,
                                        int *error)
{
    struct lx_link_walk *walk = &owner->link_walk;
    auto less = order == LX_BY_NAME ? less_by_name : less_by_index;
    const auto *links = lx_items<const struct lx_link>(&walk->links);
    bool goes_on = walk->at < walk->links.count && walk->order == order && !less(links[walk->at], *key) &&
                   !less(*key, links[walk->at]);
    *error = 0;
    if (goes_on) {
        walk->at++;
    } else {
        walk->order = order;
        *error = lx_links_load(&owner->requests, &walk->links);
        auto *first = lx_items<struct lx_link>(&walk->links), *last = first + walk->links.count;
        std::sort(first, last, less);
        walk->at = size_t(std::upper_bound(first, last, *key, less) - first);
    }
    if (*error == 0 && walk->at < walk->links.count)
        return lx_items<struct lx_link>(&walk->links) + walk->at;
    if (*error == 0)
        *error = TARGET_ENOENT;
    lx_list_clear(&walk->links);
    return nullptr;
}

int lx_serve_device(struct rk_client *client, const struct rk_request *request)
{
    static constexpr operation_row rows[] = {
        { RTM_OP_GET, get_device }, { RTM_OP_GETNEXT, next_device }, { RTM_OP_CHANGE, change_device },
    };
    return serve(client, request, rows);
}

int lx_serve_unit(struct rk_client *client, const struct rk_request *request)
{
    static constexpr operation_row rows[] = {
        { RTM_OP_GET, get_unit }, { RTM_OP_GETNEXT, next_unit }, { RTM_OP_CHANGE, change_unit },
    };
    return serve(client, request, rows);
}

int lx_serve_family(struct rk_client *client, const struct rk_request *request)
{
    static constexpr operation_row rows[] = {
        { RTM_OP_GET, get_family }, { RTM_OP_GETNEXT, next_family }, {},
    };
    return serve(client, request, rows);
}
