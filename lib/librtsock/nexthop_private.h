/*
 * What the operations on next hops share. Internal to the library.
 */
#pragma once

#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_nexthop.h"

extern "C" {

/* A kind of next hop: what its requests carry, and how a reply is told to be one. */
struct rtslib_nh_kind {
    uint8_t nh;
    uint32_t infotype;
    bool (*matches)(const struct rnh_msg *reply);
    bool walks;   // a walk goes on behind a reply of another kind
};
extern const struct rtslib_nh_kind rtslib_nh_subunit, rtslib_nh_ifl, rtslib_nh_service;

/* A request of that kind, or null. */
struct rnh_msg *rtslib_nh_request(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, uint8_t operation,
                                  uint32_t index, uint8_t family, uint8_t **cursor);
/* What a get asks for. */
struct rtslib_nh_query {
    uint8_t operation;
    uint32_t index;
    uint8_t family;
    uint8_t aux_byte1, owner;
};
int rtslib_nh_get(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, const struct rtslib_nh_query *get,
                  void **message, void **mask);
int rtslib_nh_delete(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, uint32_t index, uint8_t family);

}   // extern "C"
