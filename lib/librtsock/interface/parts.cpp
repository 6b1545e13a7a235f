/*
 * Variable parts of requests about interfaces.
 *
 * The table of items is carved out of the message by whoever adds the first item, without a look at what is left of the
 * buffer. So all items pass through here, where there is one.
 */
#include "lib/librtsock/interface/exchange.h"

#include <errno.h>
#include <string.h>

namespace {

void keep(struct rtslib_parts *parts, const void *part)
{
    if (part == nullptr && parts->error == 0)
        parts->error = TARGET_ENOMEM;
}

}   // namespace

void rtslib_put_name(struct rtslib_parts *parts, const char *name, char **to, uint32_t *length)
{
    if (name == nullptr)
        return;
    char cut[IFL_NAME_SIZE];
    size_t octets = strnlen(name, sizeof cut - 1);
    memcpy(cut, name, octets);
    cut[octets] = '\0';
    *to = rtslib_request_name(parts->request, &parts->cursor, cut, length);
    keep(parts, *to);
}

void rtslib_put_octets(struct rtslib_parts *parts, const void *octets, size_t size, uint8_t **to, uint32_t *length)
{
    if (octets == nullptr || size == 0)
        return;
    *to = rtslib_request_octets(parts->request, &parts->cursor, octets, size);
    *length = uint32_t(size);
    keep(parts, *to);
}

void rtslib_put_sockaddr(struct rtslib_parts *parts, const void *sockaddr, uint8_t **to, uint32_t *length)
{
    rtslib_put_octets(parts, sockaddr, rtslib_sockaddr_length(sockaddr), to, length);
}

void rtslib_put_prefix(struct rtslib_parts *parts, const void *prefix, uint16_t bits, uint8_t **to, uint32_t *length)
{
    if (prefix == nullptr || bits == 0)
        return;
    *to = rtslib_request_prefix(parts->request, &parts->cursor, prefix, bits, length);
    keep(parts, *to);
}

void rtslib_put_item(struct rtslib_parts *parts, struct rts_msg_info *item)
{
    auto *header = static_cast<struct rts_hdr *>(parts->request);
    uint8_t *behind = parts->cursor;
    bool has_table = header->rtsh_info != nullptr || rtslib_request_room(header, &behind, RTSM_INFO_TABLE) != nullptr;
    int error = has_table ? rtsm_info_user_add(header, item, &parts->cursor) : int(TARGET_ENOMEM);
    if (parts->error == 0)
        parts->error = error;
}

int rtslib_errno_of(int error)
{
    return error > 0 ? target_errno_to_host(error) : EIO;
}
