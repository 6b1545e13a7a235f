/*
 * The tables of devices and of logical interfaces as one value: all messages, one behind the other, enveloped.
 *
 * Both the question for the size and the one for the value read the links, and links may come between the two; the size
 * told has some room for that.
 */
#include "platform/rtsock/linux/lx.h"

#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

enum { KIND_DEVICES = 1, KIND_UNITS = 2, TYPE_DEVICE = 5, TYPE_UNIT = 6, SIZE_MARGIN = 4096, SIZE_SHARE = 8 };
constexpr int name_head[] = { 4, RTSOCK_LEVEL, 0, 0, 3 };   // the kind follows

struct value {
    uint8_t *octets;     // null: only the size is asked for
    size_t room, length;
};

/* Behind what is there. What does not fit is counted all the same. */
int append(struct value *value, uint8_t type, void *record)
{
    auto *header = static_cast<struct rts_hdr *>(record);
    header->rtsh_type = type;
    header->rtsh_version = rtslib_versions[1 + type];
    header->rtsh_op = RTM_OP_GET;
    uint32_t length;
    uint8_t *octets = rk_encode(RK_FORM_IDR, type, record, &length);
    if (octets == nullptr)
        return TARGET_ENOMEM;
    if (value->octets != nullptr && value->length + length <= value->room)
        memcpy(value->octets + value->length, octets, length);
    value->length += length;
    free(octets);
    return 0;
}

int append_link(struct nl *nl, const struct lx_link *link, int kind, struct value *value)
{
    struct lx_link_room room;
    if (kind == KIND_UNITS) {
        struct ifl_msg record;
        lx_unit_record(link, lx_device_of(nl->fd, link), &room, &record);
        return append(value, TYPE_UNIT, &record);
    }
    if (!lx_link_is_device(link))
        return 0;
    struct ifdev_msg record;
    lx_device_record(link, &room, &record);
    return append(value, TYPE_DEVICE, &record);
}

int build(int kind, struct value *value)
{
    struct nl nl = {};
    struct lx_list links = { sizeof(struct lx_link), nullptr, 0, 0 };
    int error = lx_links_load(&nl, &links);
    for (size_t i = 0; i < links.count && error == 0; i++)
        error = append_link(&nl, &lx_items<struct lx_link>(&links)[i], kind, value);
    lx_list_clear(&links);
    nl_close(&nl);
    return error;
}

int fail(int host_error)
{
    errno = host_error;
    return -1;
}

}   // namespace

int lx_sysctl(const int *name, unsigned count, void *value, size_t *length)
{
    constexpr unsigned head = std::size(name_head);
    if (count != head + 1 || !std::equal(name, name + head, name_head) ||
        (name[head] != KIND_DEVICES && name[head] != KIND_UNITS))
        return fail(ENOENT);
    struct value built = { static_cast<uint8_t *>(value), *length, 0 };
    int error = build(name[head], &built);
    if (error != 0)
        return fail(target_errno_to_host(error));
    if (value != nullptr && built.length > built.room)
        return fail(ENOMEM);
    *length = value != nullptr ? built.length : built.length + built.length / SIZE_SHARE + SIZE_MARGIN;
    return 0;
}
