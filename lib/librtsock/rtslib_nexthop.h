/*
 * Next hops: message type 10, struct rnh_msg.
 *
 * Results, out messages and masks are as in rtslib_table.h. Operations RTM_OP_GET, RTM_OP_GETNEXT, RTM_OP_ADD_GET and
 * RTM_OP_CHG_GET have a reply; without an out message they are 22 and nothing is sent. With RTM_OP_GETNEXT the forms
 * for one kind of next hop pass over those of other kinds, until the kernel has no more.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

/* Types of next hops and of what they carry, as far as the operations here set them. */
enum { RTSLIB_NH_UNICAST = 2, RTSLIB_NH_SERVICE = 22 };
enum { RTSLIB_NHINFO_SERVICE = 5, RTSLIB_NHINFO_IFL = 17 };
enum {
    RTSLIB_SERVICE_INDEX_MAX = 512,      // interfaces of a service
    RTSLIB_SERVICE_NAME_MAX = 64,        // octets of a service's name, with its terminator
    RTSLIB_SERVICE_KIND_SINGLE = 5,      // the kind that is for one interface only
};

int rtslib_rnhm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask);

/* ifidx may be null: no interface. */
int rtslib_rnhm_subunit_nhadd(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint8_t family, void **message,
                              void **mask);
int rtslib_rnhm_subunit_nhdelete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family);

/* One entry only, of a value from 0 to 4 (4 is sent as 0), else 45. *index: of the new next hop; 5 if the kernel
 * answers with another kind of object, as of a walk. */
int rtslib_rnhm_iflnh_add(struct rtslib_cookie *cookie, uint32_t ifidx, uint8_t family, uint16_t aux_half1,
                          uint32_t count, const uint8_t *entries, uint32_t *index, uint32_t aux_word);
int rtslib_rnhm_iflnh_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family);
/* Mind: a walk here ends at its first reply; if that is of another kind, the result is 22. */
int rtslib_rnhm_iflnh_get_by_index(struct rtslib_cookie *cookie, uint8_t operation, uint32_t index, uint8_t family,
                                   void **message, void **mask);

/* The service is named "NAME-TUNNEL-HALF1-HALF2", the name cut to 31 characters. */
int rtslib_rnhm_l2tp_service_add(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint8_t family, uint8_t aux_byte1,
                                 const char *name, uint32_t tunnel_id, uint8_t aux_byte2, uint16_t aux_half1,
                                 uint16_t aux_half2, void **message, void **mask);
int rtslib_rnhm_l2tp_service_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family);
int rtslib_rnhm_l2tp_service_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family,
                                          uint8_t operation, void **message, void **mask);

/* A service as the client describes it. */
struct rtslib_service {
    uint32_t id;        // tunnel or unit, 28 bits
    uint8_t id_kind;    // 4 bits
    uint8_t kind, owner;
    const char *name;   // cut to RTSLIB_SERVICE_NAME_MAX; null for none
};

/* 22 for more than RTSLIB_SERVICE_INDEX_MAX indexes, a count without an array or an array without a count, an index of
 * 0, or kind RTSLIB_SERVICE_KIND_SINGLE with a count other than 1. */
int rtslib_rnhm_service_add(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint32_t count, uint8_t family,
                            const struct rtslib_service *service, void **message, void **mask);
int rtslib_rnhm_service_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family);
int rtslib_rnhm_service_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                                     void **message, void **mask);
/* The first service next hop behind that index. owner goes to the kernel, which may leave out those of others. */
int rtslib_rnhm_service_get_by_owner(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t aux_byte1,
                                     uint8_t owner, void **message, void **mask);

}   // extern "C"
