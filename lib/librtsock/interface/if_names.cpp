/*
 * The C library's functions about interface names, for the interfaces of the routing socket.
 *
 * They stand in a source of their own: whoever links them gets them for the whole program. The connection is made at
 * first use and kept; if it could not be made, the next call tries again. The two that find one interface do not ask: a
 * request without a connection fails like any other.
 */
#include "lib/librtsock/ifl.h"
#include "lib/librtsock/interface/exchange.h"
#include "lib/librtsock/interface/ifl_lookup.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace {

enum { TYPE_UNIT = 6 };   // message type of logical interfaces

enum { SENDER_ID = 3 };

struct rtslib_cookie *shared_cookie;   // of all functions here; never closed

struct rtslib_cookie *connection(void)
{
    if (shared_cookie == nullptr)
        shared_cookie = rtslib_open(SENDER_ID);
    return shared_cookie;
}

/* Entries first, an empty one behind them, then the names, which begin zeroed. */
struct if_nameindex *make_entries(const struct rtslib_msg_list *list)
{
    size_t entries = size_t(list->count) + 1;
    auto *block = static_cast<struct if_nameindex *>(rtslib_calloc(
        MEMID_RTSLIB_NAMEINDEX, 1, entries * sizeof(struct if_nameindex) + size_t(list->count) * IFL_NAME_SIZE));
    if (block == nullptr)
        return nullptr;
    auto *name = reinterpret_cast<char *>(block + entries);
    for (uint32_t i = 0; i < list->count; i++, name += IFL_NAME_SIZE) {
        const auto *message = static_cast<const struct ifl_msg *>(rtslib_msg_list_get_by_index(list, i));
        block[i].if_name = name;
        if (message->rts_hdr.rtsh_type != TYPE_UNIT)   // its record has other fields there
            continue;
        block[i].if_index = message->ifl_idx;
        ifl_print_device(message, name, IFL_NAME_SIZE);
    }
    return block;
}

bool is_unit(const void *message)
{
    return message != nullptr && static_cast<const struct rts_hdr *>(message)->rtsh_type == TYPE_UNIT;
}

}   // namespace

unsigned int if_nametoindex(const char *name) noexcept
{
    struct ifl_place place;
    void *message = nullptr;
    if (ifl_find_place(name, &place))
        (void)rtslib_iflm_get_by_name(connection(), place.device, place.unit, RTM_OP_GET, &message, nullptr);
    if (!is_unit(message)) {
        errno = ENXIO;
        return 0;
    }
    // Kept on purpose: the message is not released, here and below; each call leaves one behind.
    return static_cast<const struct ifl_msg *>(message)->ifl_idx;
}

char *if_indextoname(unsigned int index, char *name) noexcept
{
    void *message = nullptr;
    (void)rtslib_iflm_get_by_index(connection(), index, RTM_OP_GET, &message, nullptr);
    if (!is_unit(message)) {
        errno = ENXIO;
        return nullptr;
    }
    ifl_print_name(static_cast<const struct ifl_msg *>(message), name, IFL_NAME_SIZE);
    return name;
}

struct if_nameindex *if_nameindex(void) noexcept
{
    if (connection() == nullptr)
        return nullptr;   // errno tells why
    struct rtslib_msg_list *list = nullptr;
    int error = rtslib_iflm_get_all(shared_cookie, &list);
    if (error != 0) {
        errno = rtslib_errno_of(error);
        return nullptr;
    }
    struct if_nameindex *entries = make_entries(list);
    rtslib_msg_list_free(shared_cookie, list);
    if (entries == nullptr)
        errno = ENOMEM;
    return entries;
}

void if_freenameindex(struct if_nameindex *entries) noexcept
{
    rtslib_free(MEMID_RTSLIB_NAMEINDEX, entries);
}
