/*
 * Statistics of devices, logical interfaces and families: raw requests, raw replies.
 *
 * A request is the layout of its type with what it asks for filled in, and the object's name behind it. On an
 * asynchronous cookie the reply goes to the handler; a client that does nothing but statistics has its answers told
 * from events by their number, which is 0.
 */
#include "lib/librtsock/rtslib_interface.h"
#include "lib/librtsock/rtslib_raw.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <span>

namespace {

enum {
    NAME_MAX = 60,           // characters, the terminator comes on top
    OPTION_QUEUES = 0x100,   // of option_half: virtual output queues
    OPTION_ANSWER_LATER = 1,
    OPTION_LOAD_BALANCE = 16384,   // of option_word
};

template <typename layout> struct message_type {
    uint8_t type, version;
};
constexpr message_type<struct ifdstats_raw> device_stats = { 15, 99 };
constexpr message_type<struct iflstats_raw> unit_stats = { 16, 100 };
constexpr message_type<struct iffstats_raw> family_stats = { 70, 100 };

/* Kinds of devices that keep statistics, in the order in which a name is compared. */
constexpr std::array<const char *, 8> unit_prefixes = { "ae", "fe", "et", "ge", "xe", "sxe", "mge", "ot" };
constexpr std::array<const char *, 10> device_prefixes = { "xle", "ae", "af", "et", "fe",
                                                           "ge",  "xe", "sxe", "mge", "ot" };

/* Writes the layout, whose own fields are filled in, and the name (may be null) behind it. */
template <typename layout>
int send(struct rtslib_cookie *cookie, const message_type<layout> &type, layout request, uint8_t operation,
         uint32_t seq, const char *name)
{
    uint8_t octets[sizeof request + NAME_MAX + 1] = {};
    size_t length = name != nullptr ? strnlen(name, NAME_MAX) + 1 : 0;
    request.hdr.version = type.version;
    request.hdr.type = type.type;
    request.hdr.op = operation;
    request.hdr.msglen = uint32_t(sizeof request + length);
    request.hdr.seq = seq;
    request.hdr.hdrlen = sizeof request;
    if constexpr (requires { request.name_length; })
        request.name_length = uint8_t(length);
    memcpy(octets, &request, sizeof request);
    if (length > 0)
        memcpy(octets + sizeof request, name, length - 1);
    return rtslib_write(cookie, octets, request.hdr.msglen);
}

template <typename layout>
int tell(struct rtslib_cookie *cookie, const message_type<layout> &type, const layout &request, uint8_t operation)
{
    return cookie != nullptr ? send(cookie, type, request, operation, ++cookie->seq, nullptr) : int(TARGET_EINVAL);
}

template <typename layout>
int ask(struct rtslib_cookie *cookie, const message_type<layout> &type, const layout &request, uint8_t operation,
        const char *name, void **out)
{
    if (cookie == nullptr || out == nullptr)
        return TARGET_EINVAL;
    *out = nullptr;
    int result = send(cookie, type, request, operation, ++cookie->seq, name);
    if (result != 0)
        return result;
    result = rtslib_long_msg_read(cookie, out, nullptr);
    if (result == 0)
        return 0;
    rtslib_msg_free(cookie, *out);   // the reply to another request is delivered too
    *out = nullptr;
    return result;
}

struct ifdstats_raw device(uint16_t index, uint8_t aux_byte, uint16_t option_half = 0, uint32_t option_word = 0,
                           uint8_t option_byte = 0)
{
    struct ifdstats_raw request = {};
    request.idx = index;
    request.aux_byte = aux_byte;
    request.option_half = option_half;
    request.option_word = option_word;
    request.option_byte = option_byte;
    return request;
}

struct iflstats_raw unit(uint32_t index, uint8_t aux_byte, uint32_t subtype = 0)
{
    struct iflstats_raw request = {};
    request.idx = index;
    request.aux_byte = aux_byte;
    request.subtype = subtype;
    return request;
}

bool begins_with_one_of(const char *name, std::span<const char *const> prefixes)
{
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [name](const char *prefix) { return strncmp(name, prefix, strlen(prefix)) == 0; });
}

template <typename layout>
int ask_later(struct rtslib_cookie *cookie, const message_type<layout> &type, layout request, uint8_t operation,
              const char *name, uint32_t client_word)
{
    request.option_half |= OPTION_ANSWER_LATER;
    request.trailing_word = client_word;
    bool unnumbered = cookie->used_by_stats != 0 && cookie->async_info != nullptr;
    return send(cookie, type, request, operation, unnumbered ? 0 : ++cookie->seq, name);
}

}   // namespace

int rtslib_ifdsm_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte, uint8_t operation,
                              void **out)
{
    return ask(cookie, device_stats, device(index, aux_byte), operation, nullptr, out);
}

int rtslib_ifdsm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte, uint8_t operation,
                             void **out)
{
    return ask(cookie, device_stats, device(0, aux_byte), operation, name, out);
}

int rtslib_ifdsm_voq_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte, uint8_t operation,
                                  void **out)
{
    return ask(cookie, device_stats, device(index, aux_byte, OPTION_QUEUES), operation, nullptr, out);
}

int rtslib_ifdsm_lb_stats_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                       uint8_t operation, void **out, uint32_t option_word, uint8_t option_byte)
{
    return ask(cookie, device_stats, device(index, aux_byte, 0, option_word, option_byte), operation, nullptr, out);
}

int rtslib_ifdsm_buffer_stats_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                           uint8_t operation, void **out, uint16_t option_half)
{
    return ask(cookie, device_stats, device(index, aux_byte, option_half), operation, nullptr, out);
}

int rtslib_ifdsm_clear_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte)
{
    return tell(cookie, device_stats, device(index, aux_byte), RTM_OP_CLEAR);
}

int rtslib_ifdsm_lb_stats_clear_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                         uint8_t option_byte)
{
    return tell(cookie, device_stats, device(index, aux_byte, 0, OPTION_LOAD_BALANCE, option_byte), RTM_OP_CLEAR);
}

int rtslib_iffsm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t aux_byte,
                              uint8_t operation, void **out)
{
    if (cookie == nullptr || out == nullptr)
        return TARGET_EINVAL;
    *out = nullptr;
    void *reply = rtslib_msg_malloc(cookie);
    if (reply == nullptr)
        return TARGET_ENOMEM;
    struct iffstats_raw request = {};
    request.ifl_idx = index;
    request.af = family;
    request.aux_byte = aux_byte;
    int result = send(cookie, family_stats, request, operation, ++cookie->seq, nullptr);
    if (result == 0)
        result = rtslib_msg_read(cookie, reply, nullptr);
    if (result == 0)
        *out = reply;
    else
        rtslib_msg_free(cookie, reply);
    return result;
}

int __rtslib_iflsm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte, uint8_t operation,
                                void **out)
{
    return ask(cookie, unit_stats, unit(index, aux_byte), operation, nullptr, out);
}

int __rtslib_iflsm_get_by_index_and_subtype(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte,
                                            uint8_t operation, uint32_t subtype, void **out)
{
    return ask(cookie, unit_stats, unit(index, aux_byte, subtype), operation, nullptr, out);
}

int __rtslib_iflsm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte, uint8_t operation,
                               void **out)
{
    return ask(cookie, unit_stats, unit(0, aux_byte), operation, name, out);
}

int __rtslib_iflsm_get_by_name_and_subtype(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte,
                                           uint8_t operation, uint32_t subtype, void **out)
{
    return ask(cookie, unit_stats, unit(0, aux_byte, subtype), operation, name, out);
}

int __rtslib_iflsm_clear_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte)
{
    return tell(cookie, unit_stats, unit(index, aux_byte), RTM_OP_CLEAR);
}

void __rtslib_iflsm_cleanup(struct rtslib_cookie *)
{
    // the kernel's statistics leave nothing behind
}

int (*rtslib_iflsm_get_by_index)(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte, uint8_t operation,
                                 void **out) = __rtslib_iflsm_get_by_index;
int (*rtslib_iflsm_get_by_index_and_subtype)(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte,
                                             uint8_t operation, uint32_t subtype,
                                             void **out) = __rtslib_iflsm_get_by_index_and_subtype;
int (*rtslib_iflsm_get_by_name)(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte, uint8_t operation,
                                void **out) = __rtslib_iflsm_get_by_name;
int (*rtslib_iflsm_get_by_name_and_subtype)(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte,
                                            uint8_t operation, uint32_t subtype,
                                            void **out) = __rtslib_iflsm_get_by_name_and_subtype;
int (*rtslib_iflsm_clear_by_index)(struct rtslib_cookie *cookie, uint32_t index,
                                   uint8_t aux_byte) = __rtslib_iflsm_clear_by_index;
void (*rtslib_iflsm_cleanup)(struct rtslib_cookie *cookie) = __rtslib_iflsm_cleanup;

int async_rtslib_ifdsm_get_by_index_kernel(struct rtslib_cookie *cookie, uint32_t device_options, uint16_t index,
                                           const char *name, uint8_t aux_byte, uint8_t operation,
                                           uint32_t client_word)
{
    if (cookie == nullptr || name == nullptr)
        return TARGET_EINVAL;
    if (!begins_with_one_of(name, device_prefixes))
        return TARGET_EOPNOTSUPP;
    return ask_later(cookie, device_stats, device(index, aux_byte, 0, device_options), operation, name, client_word);
}

int async_rtslib_iflsm_get_by_index_kernel(struct rtslib_cookie *cookie, uint32_t index, const char *name,
                                           uint8_t aux_byte, uint8_t operation, uint32_t client_word)
{
    if (cookie == nullptr || name == nullptr)
        return TARGET_EINVAL;
    if (operation == RTM_OP_CLEAR || !begins_with_one_of(name, unit_prefixes))
        return TARGET_EOPNOTSUPP;
    return ask_later(cookie, unit_stats, unit(index, aux_byte), operation, name, client_word);
}
