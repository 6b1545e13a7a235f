/*
 * Statistics. Next hops and routes count the matches that chose them, and nothing else is counted: no packet passes
 * through the model.
 */
#include "platform/rtsock/model/rm.h"

#include "lib/librtsock/rtslib_names.h"
#include "lib/librtsock/rtslib_raw.h"
#include "lib/librtsock/rtslib_stats.h"
#include "platform/target.h"

#include <string.h>
#include <time.h>

namespace {

enum { WORD_BITS = 32, WORD = 4, PADDED_MAX = (UINT16_MAX + WORD_BITS - 1) / WORD_BITS * WORD };

const struct rnh_msg *nexthop(const struct rm_object *object)
{
    return static_cast<const struct rnh_msg *>(object->mo_record);
}

/* By index, which is the second word of the key, or the first one of the type on the interface that is the first. */
struct rm_object *asked_nexthop(const struct rnhs_msg *asked, uint8_t op)
{
    if (asked->key_word2 != 0 && op == RTM_OP_GET)
        return rm_nexthop_at(asked->key_word2);
    uint8_t key[WORD];
    rm_put32(key, asked->key_word2);
    struct rm_object *object = rm_behind(&rm_nexthops, key);
    while (object != nullptr && (nexthop(object)->nh != asked->key_type ||
                                 (op == RTM_OP_GET && nexthop(object)->ifidx != asked->key_word1)))
        object = rm_following(&rm_nexthops, object);
    return object;
}

}   // namespace

int rm_serve_nexthop_stats(struct rk_client *client, const struct rk_request *request)
{
    const auto *asked = static_cast<const struct rnhs_msg *>(request->record);
    if (asked == nullptr || (request->op != RTM_OP_GET && request->op != RTM_OP_GETNEXT))
        return TARGET_EOPNOTSUPP;
    const struct rm_object *object = asked_nexthop(asked, request->op);
    if (object == nullptr)
        return TARGET_ENOENT;
    const struct rnh_msg *found = nexthop(object);
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct rnhs_counter counter = {};
    counter.nhidx = found->idx;
    counter.ifidx = found->ifidx;
    counter.packets = object->mo_packets;
    struct rnhs_msg reply = *asked;
    reply.af = found->af;
    reply.key_type = found->nh;
    reply.key_word1 = found->ifidx;
    reply.key_word2 = found->idx;
    reply.taken_at.tv_sec = uint32_t(now.tv_sec);
    reply.taken_at.tv_usec = uint32_t(now.tv_nsec / 1000);
    reply.counters = &counter;
    reply.counters_len = 1;
    return rk_reply(client, request, request->type, &reply);
}

int rm_serve_route_stats(struct rk_client *client, const struct rk_request *request)
{
    struct rtstats_raw message;
    uint8_t reply[sizeof message + PADDED_MAX + RTSLIB_RTSTATS_WORDS * sizeof(uint32_t)] = {};
    if (request->record != nullptr || request->op != RTM_OP_GET)
        return TARGET_EOPNOTSUPP;
    if (request->length < sizeof message)
        return TARGET_EINVAL;
    memcpy(&message, request->octets, sizeof message);
    size_t padded = (size_t(message.prefix_bits) + WORD_BITS - 1) / WORD_BITS * WORD;
    const uint8_t *prefix = request->octets + sizeof message;
    if (request->length - sizeof message < padded)
        return TARGET_EINVAL;
    const struct rm_object *object =
        rm_route_at(message.tid, message.af, prefix, uint32_t(padded), message.prefix_bits);
    message.hdr.hdrlen = sizeof message;
    message.marker = object != nullptr ? 1 : 0;
    memcpy(reply, &message, sizeof message);
    memcpy(reply + sizeof message, prefix, padded);
    size_t length = sizeof message + padded;
    if (object != nullptr) {
        const uint32_t words[RTSLIB_RTSTATS_WORDS] = { uint32_t(object->mo_packets),
                                                       uint32_t(object->mo_packets >> WORD_BITS) };
        memcpy(reply + length, words, sizeof words);
        length += sizeof words;
    }
    return rk_reply_raw(client, request, request->type, reply, uint32_t(length));
}
