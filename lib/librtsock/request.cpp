/*
 * Requests: buffer, header, variable parts, and the two ways to send one.
 */
#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_table.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum { BITS_IN_OCTET = 8, WORD_BITS = 32, WORD = 4 };

size_t rounded(size_t size, size_t unit)
{
    return (size + unit - 1) / unit * unit;
}

}   // namespace

void *rtslib_request_new(struct rtslib_cookie *cookie, const struct rtslib_request_form *form, uint8_t operation,
                         uint8_t **cursor)
{
    auto *buffer = static_cast<uint8_t *>(rtslib_msg_malloc(cookie));
    if (buffer == nullptr)
        return nullptr;
    auto *header = reinterpret_cast<struct rts_hdr *>(buffer);
    header->rtsh_version = form->version;
    header->rtsh_type = form->type;
    header->rtsh_op = operation;
    header->rtsh_seq = ++cookie->seq;
    header->rtsh_hdrlen = form->hdrlen;
    *cursor = buffer + rounded(std::max<size_t>(form->hdrlen, form->record), sizeof(void *));
    return buffer;
}

void *rtslib_request_room(void *request, uint8_t **cursor, size_t size)
{
    uint8_t *room = *cursor;
    const uint8_t *end = static_cast<uint8_t *>(request) + RTSLIB_MSG_MAX;
    if (room == nullptr || size > size_t(end - room))
        return nullptr;
    *cursor = std::min(room + rounded(size, sizeof(void *)), static_cast<uint8_t *>(request) + RTSLIB_MSG_MAX);
    return room;
}

char *rtslib_request_name(void *request, uint8_t **cursor, const char *text, uint32_t *length)
{
    size_t octets = strnlen(text, RTSLIB_NAME_MAX - 1);
    auto *name = static_cast<char *>(rtslib_request_room(request, cursor, octets + 1));
    if (name == nullptr)
        return nullptr;
    memcpy(name, text, octets);
    name[octets] = '\0';
    *length = uint32_t(octets + 1);
    return name;
}

uint8_t *rtslib_request_octets(void *request, uint8_t **cursor, const void *octets, size_t size)
{
    auto *copy = static_cast<uint8_t *>(rtslib_request_room(request, cursor, size));
    if (copy != nullptr)
        memcpy(copy, octets, size);
    return copy;
}

uint8_t *rtslib_request_prefix(void *request, uint8_t **cursor, const void *prefix, uint16_t bits, uint32_t *length)
{
    size_t octets = (size_t(bits) + BITS_IN_OCTET - 1) / BITS_IN_OCTET;
    size_t stored = (size_t(bits) + WORD_BITS - 1) / BITS_IN_OCTET / WORD * WORD;
    auto *copy = static_cast<uint8_t *>(rtslib_request_room(request, cursor, stored));
    if (copy == nullptr)
        return nullptr;
    if (octets != 0)
        memcpy(copy, prefix, octets);
    *length = uint32_t(stored);
    return copy;
}

int rtslib_request_send(struct rtslib_cookie *cookie, void *request)
{
    int result = rtslib_msg_write_idl(cookie, request, nullptr);
    rtslib_msg_free(cookie, request);
    return result;
}

int rtslib_request_ask(struct rtslib_cookie *cookie, void *request, rtslib_reply_func read, void **message,
                       void **mask)
{
    int result = rtslib_request_send(cookie, request);
    if (result == 0)
        result = read(cookie, message, mask);
    if (result != 0)
        *message = nullptr;
    return result;
}

bool rtslib_reply_is(const void *reply, uint8_t type)
{
    return reply != nullptr && static_cast<const struct rts_hdr *>(reply)->rtsh_type == type;
}

bool rtslib_request_is_answered(uint8_t operation, uint32_t answered)
{
    return operation < RTSLIB_OPS && (answered >> operation & 1) != 0;
}

int rtslib_request_check(const struct rtslib_cookie *cookie, uint8_t operation, uint32_t answered, void **message)
{
    if (message != nullptr)
        *message = nullptr;
    bool missing = message == nullptr && rtslib_request_is_answered(operation, answered);
    return cookie == nullptr || missing ? int(TARGET_EINVAL) : 0;
}

int rtslib_request_run(struct rtslib_cookie *cookie, void *request, uint32_t answered, rtslib_reply_func read,
                       void **message, void **mask)
{
    uint8_t operation = static_cast<const struct rts_hdr *>(request)->rtsh_op;
    return rtslib_request_is_answered(operation, answered) ? rtslib_request_ask(cookie, request, read, message, mask)
                                                           : rtslib_request_send(cookie, request);
}

size_t rtslib_sockaddr_length(const void *sockaddr)
{
    return sockaddr != nullptr ? *static_cast<const uint8_t *>(sockaddr) : 0;
}
