/*
 * Next hops of routes that are no objects of the host. A client asks for them by index all the same, so each gets one
 * when a route with it is told: LX_NAMED_HOP and above, the same for the same hop, for the life of the client.
 *
 * They stand in one list in the order of their indexes, and in buckets by what they are; a router has few of them,
 * however many its routes are.
 */
#include "platform/rtsock/linux/lx.h"

#include <string.h>

namespace {

constexpr uint32_t FNV_START = 2166136261U, FNV_FACTOR = 16777619U;

uint32_t mix(uint32_t hash, const void *octets, size_t length)
{
    for (size_t i = 0; i < length; i++)
        hash = (hash ^ static_cast<const uint8_t *>(octets)[i]) * FNV_FACTOR;
    return hash;
}

uint32_t bucket_of(const struct lx_named_hop *hop)
{
    uint32_t hash = mix(FNV_START, &hop->hop.ifindex, sizeof hop->hop.ifindex);
    hash = mix(hash, hop->hop.address.octets, sizeof hop->hop.address.octets);
    hash = mix(hash, &hop->family, sizeof hop->family);
    return mix(hash, &hop->nh_type, sizeof hop->nh_type) % LX_HOP_BUCKETS;
}

bool same(const struct lx_named_hop *a, const struct lx_named_hop *b)
{
    return a->hop.ifindex == b->hop.ifindex && a->hop.gateway == b->hop.gateway && a->family == b->family &&
           a->nh_type == b->nh_type && a->hop.address.family == b->hop.address.family &&
           memcmp(a->hop.address.octets, b->hop.address.octets, LX_PREFIX_MAX) == 0;
}

}   // namespace

uint32_t lx_hop_index(struct lx_client *owner, const struct lx_hop *hop, uint8_t family, uint8_t nh_type)
{
    struct lx_named_hop named = { *hop, family, nh_type, 0 };
    named.hop.weight = 1;
    uint32_t *bucket = &owner->buckets[bucket_of(&named)];
    const auto *hops = lx_items<const struct lx_named_hop>(&owner->named_hops);
    for (uint32_t at = *bucket; at != 0; at = hops[at - 1].next) {
        if (same(&hops[at - 1], &named))
            return LX_NAMED_HOP | (at - 1);
    }
    named.next = *bucket;
    if (!lx_list_add(&owner->named_hops, &named))
        return 0;
    *bucket = uint32_t(owner->named_hops.count);
    return LX_NAMED_HOP | (*bucket - 1);
}

const struct lx_named_hop *lx_hop_find(const struct lx_client *owner, uint32_t index)
{
    uint32_t at = index & ~LX_NAMED_HOP;
    if ((index & LX_NAMED_HOP) == 0 || at >= owner->named_hops.count)
        return nullptr;
    return &lx_items<const struct lx_named_hop>(&owner->named_hops)[at];
}
