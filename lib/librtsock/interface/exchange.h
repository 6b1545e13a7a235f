/*
 * How an operation on an interface object is written: it fills a record, the rest is the same for all. Internal.
 *
 * A filler is called with the record, zeroed behind its header, and the parts that it puts variable data with. A part
 * that finds no room is remembered and fails the operation; the filler need not look.
 */
#pragma once

#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_interface.h"
#include "platform/target.h"

extern "C" {

struct rtslib_parts {
    void *request;
    uint8_t *cursor;
    int error;   // the first one, or 0
};

/* Each stores where the part stands and how long it is. Null or empty: nothing is stored. */
void rtslib_put_name(struct rtslib_parts *parts, const char *name, char **to, uint32_t *length);   // of a device
void rtslib_put_octets(struct rtslib_parts *parts, const void *octets, size_t size, uint8_t **to, uint32_t *length);
void rtslib_put_sockaddr(struct rtslib_parts *parts, const void *sockaddr, uint8_t **to, uint32_t *length);
void rtslib_put_prefix(struct rtslib_parts *parts, const void *prefix, uint16_t bits, uint8_t **to, uint32_t *length);
/* The item stays where it is. */
void rtslib_put_item(struct rtslib_parts *parts, struct rts_msg_info *item);

/* A converter: rtslib_interface.h tells of streams. All elements of a device, and those of an address. */
int rtslib_convert_device(void *message, uint8_t **cursor, const void *stream, uint32_t length);
int rtslib_convert_address(void *message, uint8_t **cursor, const void *stream, uint32_t length);

/* host errno of a failed operation: EIO where the kernel answered without a message. */
int rtslib_errno_of(int error);

}   // extern "C"

/* A level of interface objects. */
template <typename record> struct rtslib_level {
    struct rtslib_request_form form;
    rtslib_reply_func read;
};

inline constexpr rtslib_level<struct ifdev_msg> rtslib_devices = { { 5, 106, 164, sizeof(struct ifdev_msg) },
                                                                   rtslib_long_msg_read_idl };
inline constexpr rtslib_level<struct ifl_msg> rtslib_units = { { 6, 107, 204, sizeof(struct ifl_msg) },
                                                               rtslib_long_msg_read_idl };
inline constexpr rtslib_level<struct iff_msg> rtslib_families = { { 7, 102, 296, sizeof(struct iff_msg) },
                                                                  rtslib_msg_read_idl };
inline constexpr rtslib_level<struct ifa_msg> rtslib_addresses = { { 8, 101, 156, sizeof(struct ifa_msg) },
                                                                   rtslib_msg_read_idl };

/* The request, or null with *error. */
template <typename record, typename filler>
record *rtslib_fill(struct rtslib_cookie *cookie, const rtslib_level<record> &level, uint8_t operation, filler fill,
                    int *error)
{
    struct rtslib_parts parts = {};
    auto *request = static_cast<record *>(rtslib_request_new(cookie, &level.form, operation, &parts.cursor));
    *error = TARGET_ENOMEM;
    if (request == nullptr)
        return nullptr;
    parts.request = request;
    fill(request, &parts);
    *error = parts.error;
    if (parts.error == 0)
        return request;
    rtslib_msg_free(cookie, request);
    return nullptr;
}

/* A request without a reply. */
template <typename record, typename filler>
int rtslib_tell(struct rtslib_cookie *cookie, const rtslib_level<record> &level, uint8_t operation, filler fill)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    int error;
    record *request = rtslib_fill(cookie, level, operation, fill, &error);
    return request != nullptr ? rtslib_request_send(cookie, request) : error;
}

/* A request with a reply. */
template <typename record, typename filler>
int rtslib_ask(struct rtslib_cookie *cookie, const rtslib_level<record> &level, uint8_t operation, void **message,
               void **mask, filler fill)
{
    if (cookie == nullptr || message == nullptr)
        return TARGET_EINVAL;
    *message = nullptr;
    int error;
    record *request = rtslib_fill(cookie, level, operation, fill, &error);
    return request != nullptr ? rtslib_request_ask(cookie, request, level.read, message, mask) : error;
}
