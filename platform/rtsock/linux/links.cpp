/*
 * Links of the host, read out of netlink messages.
 *
 * A link that is named "DEVICE.UNIT", with a unit of 1 or more in plain decimal, is that unit of that device; any other
 * link is a device, and its unit 0 as well. The name decides, not the kind of the link and not whether the device is
 * there, so that a message about a link that is going tells the same as those before it.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <linux/rtnetlink.h>

namespace {

enum { DEVICE_INDEX_MAX = UINT16_MAX };
constexpr int KIND_SIZE = 32, VRF_ATTRS = 2;
static_assert(IFLA_VRF_TABLE < VRF_ATTRS && IFLA_VRF_PORT_TABLE < VRF_ATTRS);
constexpr char KIND_VRF[] = "vrf";
/* Kinds that come in pairs. */
constexpr const char *pair_kinds[] = { "veth", "vxcan", "netkit" };

/* The unit that a name ends in, and where the device's name ends. False if it is a device's as a whole. */
bool split_name(const char *name, size_t *device_length, uint32_t *unit)
{
    const char *dot = strrchr(name, '.');
    if (dot == nullptr || dot == name || dot[1] < '1' || dot[1] > '9' || dot[1 + strspn(dot + 1, "0123456789")] != '\0')
        return false;
    unsigned long long value = strtoull(dot + 1, nullptr, 10);   // a name is too short for more than 64 bits
    if (value > UINT32_MAX)
        return false;
    *device_length = size_t(dot - name);
    *unit = uint32_t(value);
    return true;
}

void read_name(struct nl_attr attr, struct lx_link *link)
{
    size_t length = nl_text(attr, link->name, sizeof link->name);
    (void)split_name(link->name, &length, &link->unit);
    memcpy(link->device, link->name, length);
}

/* What depends on the kind of a link, or of the one that it belongs to. */
void read_kind(struct nl_attr info, struct nl_attr lower, bool elsewhere, struct lx_link *link)
{
    struct nl_attr attrs[IFLA_INFO_SLAVE_DATA + 1], data[VRF_ATTRS];
    char kind[KIND_SIZE];
    nl_nested(info, attrs, std::size(attrs));
    (void)nl_text(attrs[IFLA_INFO_SLAVE_KIND], kind, sizeof kind);
    link->table = LX_TABLE_MAIN;
    if (strcmp(kind, KIND_VRF) == 0) {
        nl_nested(attrs[IFLA_INFO_SLAVE_DATA], data, std::size(data));
        link->table = nl_u32(data[IFLA_VRF_PORT_TABLE], LX_TABLE_MAIN);
    }
    (void)nl_text(attrs[IFLA_INFO_KIND], kind, sizeof kind);
    if (strcmp(kind, KIND_VRF) == 0) {
        nl_nested(attrs[IFLA_INFO_DATA], data, std::size(data));
        link->table = nl_u32(data[IFLA_VRF_TABLE], 0);
        link->vrf = link->table != 0;
    }
    // The other end of a pair is named in the same place, but is not below it.
    bool pair = std::any_of(std::begin(pair_kinds), std::end(pair_kinds),
                            [&kind](const char *one) { return strcmp(kind, one) == 0; });
    if (!pair && !elsewhere)
        link->lower = nl_u32(lower, 0);
}

void read_families(struct nl_attr families, struct lx_link *link)
{
    uint16_t family;
    struct nl_attr attr;
    while (families.octets != nullptr && nl_next_attr(&families, &family, &attr)) {
        link->inet |= family == AF_INET;
        link->inet6 |= family == AF_INET6;
    }
}

int take_one(const struct nlmsghdr *message, void *context)
{
    (void)lx_link_read(message, static_cast<struct lx_link *>(context));
    return 0;
}

int take_each(const struct nlmsghdr *message, void *context)
{
    struct lx_link link;
    if (lx_link_read(message, &link) != 0)
        return 0;
    return lx_list_add(static_cast<struct lx_list *>(context), &link) ? 0 : int(TARGET_ENOMEM);
}

void forget(void *context)
{
    static_cast<struct lx_list *>(context)->count = 0;
}

/* Of one link, or of all with index 0. */
void begin(struct nl_request *request, uint32_t index)
{
    struct ifinfomsg head = {};
    head.ifi_index = int(index);
    nl_begin(request, RTM_GETLINK, 0, &head, sizeof head);
    nl_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
}

}   // namespace

int lx_link_read(const struct nlmsghdr *message, struct lx_link *link)
{
    struct ifinfomsg head;
    const void *fixed = nl_fixed(message, sizeof head);
    if (fixed == nullptr || (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK))
        return TARGET_EINVAL;
    memcpy(&head, fixed, sizeof head);
    // Bridges and IPv6 tell of their own view of a link with the same message.
    if (head.ifi_family != AF_UNSPEC || head.ifi_index <= 0)
        return TARGET_EINVAL;
    struct nl_attr attrs[IFLA_MAX + 1];
    nl_attrs(message, sizeof head, attrs, std::size(attrs));
    *link = {};
    link->index = uint32_t(head.ifi_index);
    link->flags = head.ifi_flags;
    link->change = head.ifi_change;
    link->type = head.ifi_type;
    link->mtu = nl_u32(attrs[IFLA_MTU], 0);
    link->carrier = attrs[IFLA_CARRIER].length != 0 && attrs[IFLA_CARRIER].octets[0] != 0;
    link->hw_length = uint8_t(nl_copy(attrs[IFLA_ADDRESS], link->hw, sizeof link->hw));
    read_name(attrs[IFLA_IFNAME], link);
    read_kind(attrs[IFLA_LINKINFO], attrs[IFLA_LINK], attrs[IFLA_LINK_NETNSID].octets != nullptr, link);
    if (link->lower == link->index)
        link->lower = 0;
    read_families(attrs[IFLA_AF_SPEC], link);
    return 0;
}

bool lx_link_is_device(const struct lx_link *link)
{
    return link->unit == 0 && link->index <= DEVICE_INDEX_MAX;
}

int lx_link_get(struct nl *nl, uint32_t index, const char *name, struct lx_link *link)
{
    *link = {};
    if (name == nullptr ? index == 0 || index > INT32_MAX : strlen(name) >= IFNAMSIZ || name[0] == '\0')
        return TARGET_ENOENT;
    struct nl_request request;
    begin(&request, name == nullptr ? index : 0);
    if (name != nullptr)
        nl_put(&request, IFLA_IFNAME, name, strlen(name) + 1);
    int error = nl_ask(nl, &request, take_one, link);
    return error == 0 && link->index == 0 ? int(TARGET_ENOENT) : error;
}

int lx_links_load(struct nl *nl, struct lx_list *links)
{
    struct nl_request request;
    begin(&request, 0);
    const struct nl_sink sink = { take_each, forget, links };
    int error = nl_dump(nl, &request, &sink);
    auto *first = lx_items<struct lx_link>(links);
    std::sort(first, first + links->count,
              [](const struct lx_link &a, const struct lx_link &b) { return a.index < b.index; });
    return error;
}
