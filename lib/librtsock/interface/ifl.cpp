/*
 * Names, indexes and properties of logical interfaces: a connection for each question.
 *
 * A question is one of three ways to ask for the interface, and what is wanted of the reply. All of them pass through
 * look_up, which sees to the connection, the reply and errno.
 */
#include "lib/librtsock/ifl.h"
#include "lib/librtsock/interface/exchange.h"
#include "lib/librtsock/interface/ifl_lookup.h"
#include "lib/librtsock/socket_option.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

enum { TYPE_UNIT = 6 };   // message type of logical interfaces

enum {
    SENDER_ID = 3,
    DECIMAL = 10,
    CHAIN_MAX = 64,          // interfaces one upon the other; more than any router has
    CHANGE_SUBSET_MAP = 16,  // of ifl_msg's change
    ITEM_SUBSET_BIT = 225,
};

/* What pins a socket of each family to an interface. */
constexpr struct rtslib_family_option send_options[] = {
    { TARGET_AF_INET, 0, 107 },
    { TARGET_AF_INET6, 41, 64 },
};

struct rtslib_cookie *kept_cookie;   // of ifl_getindexbyifname_cachesocket

auto by_index(uint32_t index)
{
    return [=](struct rtslib_cookie *cookie, void **message) {
        return rtslib_iflm_get_by_index(cookie, index, RTM_OP_GET, message, nullptr);
    };
}

auto by_snmp_index(uint32_t index)
{
    return [=](struct rtslib_cookie *cookie, void **message) {
        return rtslib_iflm_get_by_snmp_index(cookie, index, RTM_OP_GET, message, nullptr);
    };
}

auto by_place(const struct ifl_place &place)
{
    return [&place](struct rtslib_cookie *cookie, void **message) {
        return rtslib_iflm_get_by_name(cookie, place.device, place.unit, RTM_OP_GET, message, nullptr);
    };
}

int32_t index_of(const struct ifl_msg *message)
{
    return int32_t(message->ifl_idx);
}

int32_t tenant_of(const struct ifl_msg *message)
{
    return message->tenant;
}

int32_t logical_router_of(const struct ifl_msg *message)
{
    return message->lrid;
}

/* It may lack a terminator. */
int octets_of_name(const struct ifl_msg *message)
{
    return int(std::min<uint32_t>(message->name_len, INT16_MAX));
}

int refuse(int host_error)
{
    errno = host_error;
    return -1;
}

/* Asks and gives the reply to take, releasing it. 0, an error number, or -1: answered without a message. */
template <typename question, typename taker>
int look_up_with(struct rtslib_cookie *cookie, question ask, taker take)
{
    void *message = nullptr;
    int error = ask(cookie, &message);
    if (error != 0)
        return error;
    if (message == nullptr)
        return -1;
    // A late answer to another question would be read as what it is not.
    if (static_cast<const struct rts_hdr *>(message)->rtsh_type != TYPE_UNIT) {
        rtslib_msg_idl_release(cookie, message);
        return -1;
    }
    take(static_cast<const struct ifl_msg *>(message));
    rtslib_msg_idl_release(cookie, message);
    return 0;
}

/* The same on a connection of its own. 0, or -1 with errno. */
template <typename question, typename taker> int look_up(question ask, taker take)
{
    struct rtslib_cookie *cookie = rtslib_open(SENDER_ID);
    if (cookie == nullptr)
        return -1;
    int error = look_up_with(cookie, ask, take);
    rtslib_close(cookie);
    return error == 0 ? 0 : refuse(rtslib_errno_of(error));
}

template <typename question> int32_t value_of(question ask, int32_t (*value)(const struct ifl_msg *))
{
    int32_t found = -1;
    return look_up(ask, [&](const struct ifl_msg *message) { found = value(message); }) == 0 ? found : -1;
}

int32_t value_by_name(const char *name, int32_t (*value)(const struct ifl_msg *))
{
    struct ifl_place place;
    if (!ifl_find_place(name, &place) || name[0] == '\0')
        return refuse(EINVAL);
    return value_of(by_place(place), value);
}

template <typename question> int name_of(question ask, char *buffer, size_t size)
{
    return look_up(ask, [=](const struct ifl_msg *message) { ifl_print_name(message, buffer, size); });
}

int set_send_interface(int socket, int32_t index)
{
    return index != -1 ? ifl_setsendifbyifindex(socket, uint32_t(index)) : -1;
}

/* 0, an error number of the target, or -1. */
template <typename operation> int on_own_connection(operation run)
{
    struct rtslib_cookie *cookie = rtslib_open(SENDER_ID);
    if (cookie == nullptr)
        return errno != 0 ? target_errno_from_host(errno) : int(TARGET_EIO);
    int error = run(cookie);
    rtslib_close(cookie);
    return error >= 0 ? error : int(TARGET_EIO);
}

}   // namespace

void ifl_print_device(const struct ifl_msg *message, char *buffer, size_t size)
{
    snprintf(buffer, size, "%.*s", octets_of_name(message), message->name != nullptr ? message->name : "");
}

void ifl_print_name(const struct ifl_msg *message, char *buffer, size_t size)
{
    snprintf(buffer, size, "%.*s.%" PRIu32, octets_of_name(message), message->name != nullptr ? message->name : "",
             message->unit);
}

int ifl_get_device_name(const char *name, char *buffer, size_t size, int32_t *unit)
{
    size_t length = name != nullptr ? strlen(name) : 0;
    if (name == nullptr || buffer == nullptr || length >= size)
        return refuse(EINVAL);
    memcpy(buffer, name, length + 1);
    char *dot = strrchr(buffer, '.');
    if (unit != nullptr)
        *unit = dot != nullptr ? int32_t(uint32_t(std::min<unsigned long>(strtoul(dot + 1, nullptr, DECIMAL),
                                                                          UINT32_MAX)))
                               : -1;
    if (dot != nullptr)
        *dot = '\0';
    return 0;
}

bool ifl_find_place(const char *name, struct ifl_place *place)
{
    int32_t unit;
    if (ifl_get_device_name(name, place->device, sizeof place->device, &unit) != 0)
        return false;
    place->unit = unit != -1 ? uint32_t(unit) : 0;
    return true;
}

int32_t ifl_getindexbyifname(const char *name)
{
    return value_by_name(name, index_of);
}

int32_t ifl_gettenantidbyifname(const char *name)
{
    return value_by_name(name, tenant_of);
}

int32_t ifl_getlrindexbyifname(const char *name)
{
    return value_by_name(name, logical_router_of);
}

int32_t ifl_getlrindexbyifindex(uint32_t index)
{
    return value_of(by_index(index), logical_router_of);
}

int32_t ifl_getindexbysnmpifindex(uint32_t snmp_index)
{
    return value_of(by_snmp_index(snmp_index), index_of);
}

int32_t ifl_getindexbyifname_cachesocket(const char *name)
{
    struct ifl_place place;
    if (!ifl_find_place(name, &place))
        return refuse(EINVAL);
    if (kept_cookie == nullptr)
        kept_cookie = rtslib_open(SENDER_ID);
    if (kept_cookie == nullptr)
        return -1;
    int32_t index = -1;
    int error = look_up_with(kept_cookie, by_place(place),
                             [&](const struct ifl_msg *message) { index = index_of(message); });
    if (error == 0)
        return index;
    rtslib_close(kept_cookie);
    kept_cookie = nullptr;
    return refuse(rtslib_errno_of(error));
}

int ifl_getnamebyifindex(uint32_t index, char *buffer, size_t size)
{
    return name_of(by_index(index), buffer, size);
}

int ifl_getnamebysnmpifindex(uint32_t snmp_index, char *buffer, size_t size)
{
    return name_of(by_snmp_index(snmp_index), buffer, size);
}

int ifl_get_underlying_device_byifindex(uint32_t index, char *buffer, size_t size)
{
    if (index == 0)
        return 0;
    struct rtslib_cookie *cookie = rtslib_open(SENDER_ID);
    if (cookie == nullptr)
        return -1;
    int error = 0;
    for (int hops = 0; index != 0 && error == 0 && hops < CHAIN_MAX; hops++)
        error = look_up_with(cookie, by_index(index), [&](const struct ifl_msg *message) {
            index = message->parent_idx;
            if (index == 0)
                ifl_print_device(message, buffer, size);
        });
    rtslib_close(cookie);
    if (error != 0)
        return refuse(rtslib_errno_of(error));
    return index == 0 ? 0 : refuse(ELOOP);
}

int ifl_setsendifbyifindex(int socket, uint32_t index)
{
    return rtslib_set_family_option(socket, send_options, index);
}

int ifl_setsendifbyifname(int socket, const char *name)
{
    return set_send_interface(socket, ifl_getindexbyifname(name));
}

int ifl_setsendifbysnmpifindex(int socket, uint32_t snmp_index)
{
    return set_send_interface(socket, ifl_getindexbysnmpifindex(snmp_index));
}

int ifl_set_subset_iif(uint32_t index, uint8_t bit, uint8_t value)
{
    if (bit >= IFL_SUBSET_BITS)
        return TARGET_EINVAL;
    return on_own_connection([=](struct rtslib_cookie *cookie) {
        struct rts_msg_info item = {};
        item.tag = ITEM_SUBSET_BIT;
        item.u.ifl_subset_iif = { bit, value };
        return rtslib_tell(cookie, rtslib_units, RTM_OP_CHANGE,
                           [&](struct ifl_msg *request, struct rtslib_parts *parts) {
                               // Kept on purpose: the message has no number, where all others have the next one.
                               request->rts_hdr.rtsh_seq = 0;
                               request->ifl_idx = index;
                               request->change = CHANGE_SUBSET_MAP;
                               rtslib_put_item(parts, &item);
                           });
    });
}

int ifl_get_subset_iif(uint32_t index, uint8_t bit, uint8_t *value)
{
    if (bit >= IFL_SUBSET_BITS || value == nullptr)
        return TARGET_EINVAL;
    return on_own_connection([=](struct rtslib_cookie *cookie) {
        return look_up_with(cookie, by_index(index),
                            [=](const struct ifl_msg *message) { *value = message->subset_map >> bit & 1; });
    });
}
