/*
 * Lists of messages.
 *
 * What a list owns is told by its kind, and by lent: a buffer of raw messages that it was filled from stays the
 * filler's, though the kind is that of decoded ones. Filling gives the list version and type of the last message, and
 * nothing asks that they be alike; adding goes by the first one. count and free are 16 bits, so a list ends at 65535
 * messages.
 */
#include "lib/librtsock/rtslib_list.h"
#include "lib/librtsock/io_private.h"
#include "platform/target.h"

#include <string.h>

#include <algorithm>

namespace {

enum {
    FIRST_SLOTS = 16,
    WORD = 4,
    LENGTH_AT = 8,        // rtsh_msglen of a raw message
};

/* Messages in a run of octets; magic is told by the first. */
struct run {
    const uint8_t *octets;
    size_t left;
    bool enveloped;
};

/* Octets of the next message, or 0 if no whole one is left. */
uint32_t next_length(const struct run *run)
{
    uint32_t length;
    if (run->left < (run->enveloped ? size_t(IDL_ENVELOPE_SIZE) : size_t(RTSLIB_HDR_SIZE)))
        return 0;
    if (run->enveloped)
        (void)rtslib_idl_peek_length(&length, run->octets, run->left);
    else
        memcpy(&length, run->octets + LENGTH_AT, sizeof length);
    uint32_t least = run->enveloped ? uint32_t(IDL_ENVELOPE_SIZE) : uint32_t(RTSLIB_HDR_SIZE);
    return length >= least && length <= run->left ? length : 0;
}

/* Steps over them all. How many there are; 0 if they are not all whole. */
size_t count_messages(struct run run)
{
    size_t count = 0;
    for (uint32_t length; run.left > 0; count++, run.octets += length, run.left -= length) {
        length = next_length(&run);
        if (length == 0)
            return 0;
    }
    return count;
}

void adopt(struct rtslib_msg_list *list, void *message)
{
    const auto *header = static_cast<const struct rts_hdr *>(message);   // its front, in a raw message
    list->version = header->rtsh_version;
    list->type = header->rtsh_type;
    list->array[list->count++] = message;
    list->free--;
}

int take(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, const struct run *run, uint32_t length)
{
    if (!run->enveloped) {
        adopt(list, const_cast<uint8_t *>(run->octets));
        return 0;
    }
    void *message = nullptr;
    int error = rtslib_msg_idl_decode(cookie, run->octets, length, &message, &list->masks[list->count]);
    if (error != 0)
        return error;
    if (message == nullptr)
        return TARGET_EOPNOTSUPP;
    adopt(list, message);
    return 0;
}

/* 0 or 12. */
int make_arrays(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, size_t count)
{
    if (count > UINT16_MAX)
        return TARGET_ENOMEM;
    list->array = static_cast<void **>(rtslib_size_alloc(cookie, count * sizeof *list->array));
    list->masks = static_cast<void **>(rtslib_size_alloc(cookie, count * sizeof *list->masks));
    if (list->array == nullptr || list->masks == nullptr)
        return TARGET_ENOMEM;
    list->free = uint16_t(count);
    return 0;
}

bool is_alike(const void *first, const void *message)
{
    const auto *a = static_cast<const struct rts_hdr *>(first), *b = static_cast<const struct rts_hdr *>(message);
    return a->rtsh_type == b->rtsh_type && a->rtsh_version == b->rtsh_version;
}

/* Messages of the array that are blocks of their own. */
uint32_t owned_blocks(const struct rtslib_msg_list *list)
{
    if (list->lent != 0)
        return 0;
    return list->kind == RTSLIB_LIST_BUFFER ? std::min<uint32_t>(list->count, 1) : list->count;
}

/* 0 or 12. */
int make_room(struct rtslib_cookie *cookie, struct rtslib_msg_list *list)
{
    if (list->free > 0)
        return 0;
    size_t slots = std::min<size_t>(list->count == 0 ? size_t(FIRST_SLOTS) : 2 * size_t(list->count), UINT16_MAX);
    if (slots == list->count)
        return TARGET_ENOMEM;
    auto *larger = static_cast<void **>(rtslib_size_alloc(cookie, slots * sizeof(void *)));
    if (larger == nullptr)
        return TARGET_ENOMEM;
    if (list->count > 0)
        memcpy(larger, list->array, list->count * sizeof *larger);
    rtslib_msg_free(cookie, list->array);
    list->array = larger;
    list->free = uint16_t(slots - list->count);
    return 0;
}

}   // namespace

struct rtslib_msg_list *rtslib_msg_list_alloc(struct rtslib_cookie *cookie)
{
    return static_cast<struct rtslib_msg_list *>(rtslib_size_alloc(cookie, sizeof(struct rtslib_msg_list)));
}

int rtslib_msg_list_add(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, void *message)
{
    if (cookie == nullptr || list == nullptr || message == nullptr || list->lent != 0)
        return TARGET_EINVAL;
    // A buffer of messages cannot be freed one by one.
    if (list->count > 0 && (list->kind == RTSLIB_LIST_BUFFER || !is_alike(list->array[0], message)))
        return TARGET_EINVAL;
    int error = make_room(cookie, list);
    if (error != 0)
        return error;
    rtslib_msg_free(cookie, list->masks);
    list->masks = nullptr;
    list->kind = RTSLIB_LIST_ADDED;
    adopt(list, message);
    return 0;
}

int rtslib_msg_list_fillin(struct rtslib_cookie *cookie, struct rtslib_msg_list *list, uint32_t size, void *buffer)
{
    if (cookie == nullptr || list == nullptr || size == 0 || buffer == nullptr)
        return TARGET_EINVAL;
    struct run run = { static_cast<const uint8_t *>(buffer), size, size >= WORD && rtslib_is_enveloped(buffer) };
    *list = {};
    // Kept on purpose: the kind is that of decoded messages for raw ones too, where one would expect the kind to tell.
    list->kind = size >= WORD ? RTSLIB_LIST_DECODED : RTSLIB_LIST_BUFFER;
    list->lent = run.enveloped ? 0 : 1;
    size_t count = count_messages(run);
    if (count == 0)
        return TARGET_EINVAL;
    int error = make_arrays(cookie, list, count);
    for (uint32_t length; error == 0 && run.left > 0; run.octets += length, run.left -= length) {
        length = next_length(&run);
        error = take(cookie, list, &run, length);
    }
    return error;
}

void *rtslib_msg_list_get_by_index(const struct rtslib_msg_list *list, uint32_t index)
{
    return list != nullptr && index < list->count ? list->array[index] : nullptr;
}

void rtslib_msg_list_free(struct rtslib_cookie *cookie, struct rtslib_msg_list *list)
{
    if (list == nullptr)
        return;
    uint32_t blocks = owned_blocks(list);
    for (uint32_t i = 0; i < blocks; i++)
        rtslib_msg_free(cookie, list->array[i]);
    rtslib_msg_free(cookie, list->array);
    if (list->kind == RTSLIB_LIST_DECODED)
        rtslib_msg_free(cookie, list->masks);
    rtslib_msg_free(cookie, list);
}
