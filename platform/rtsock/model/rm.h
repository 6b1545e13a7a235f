/*
 * Objects of the model kernel. Internal.
 *
 * All kinds of object are kept alike: a tree ordered by a key of fixed length, whose objects hold a record of the
 * kind's message type. What differs stands in the kind: how a request names an object, what must hold before one is
 * taken in, what else moves when one comes or goes. A change is prepared whole before the first word of state moves, so
 * that a shortage of memory leaves everything as it was.
 *
 * Errors are the target's numbers.
 */
#pragma once

#include "platform/patricia/patricia.h"
#include "platform/rtsock/kernel/rk.h"

extern "C" {

enum { RM_KEY_MAX = 272, RM_PREFIX_MAX = 32 };   // octets

struct rm_object {
    struct patricia_node mo_node;
    void *mo_record;             // owned, with all its parts
    struct rm_object *mo_made;   // of a route not yet in: the next hop that comes with it; owned
    uint64_t mo_packets;         // counted by matches
    bool mo_of_route;            // a next hop that goes with the last route that uses it
    uint8_t mo_key[];
};

struct rm_kind {
    struct patricia_root mk_tree;
    const struct idl_type *mk_record;
    uint8_t mk_type;
    uint16_t mk_hdrlen;                  // rtsh_hdrlen of its messages
    uint32_t mk_listen[2] = {};              // who is told of changes, low word first; 0: nobody
    /* The key that a record or a request says. False: out of range. */
    bool (*mk_key)(const void *record, uint8_t *key);
    /* May be null. True if the request names its object by something else; *found is it, or null. */
    bool (*mk_other)(const void *request, struct rm_object **found) = nullptr;
    /* May be null. False for objects that a walk with that request passes over. */
    bool (*mk_passes)(const void *request, const struct rm_object *object) = nullptr;
    /* May be null. What a record must obey, and what is filled in, before it is copied into fresh. old: the object that
     * it replaces, or null. draft's parts belong to the request or to old. */
    int (*mk_check)(void *draft, struct rm_object *fresh, const struct rm_object *old) = nullptr;
    /* May be null. What a request changes beyond the fields that it gives. draft is merged already. 0 or EINVAL. */
    int (*mk_change)(void *draft, const void *request) = nullptr;
    /* May be null. Why an object must stay, or 0. */
    int (*mk_held)(const struct rm_object *object) = nullptr;
    /* May be null. The object has come into its tree; it goes, removed or replaced by another that is in already. */
    void (*mk_joined)(struct rm_object *object) = nullptr;
    void (*mk_left)(const struct rm_object *object) = nullptr;
    /* May be null. Removes what cannot be without the object, which is being removed. by: whose request it is, or
     * null. */
    void (*mk_below)(const struct rm_object *object, struct rk_client *by) = nullptr;
    /* May be null: those that listen for the kind. */
    void (*mk_tell)(struct rk_client *by, uint8_t op, struct rm_object *object) = nullptr;
};

}   // extern "C"

/* An empty tree of keys of that length. */
constexpr struct patricia_root rm_tree(uint16_t key_length)
{
    return { nullptr, key_length, offsetof(struct rm_object, mo_key) - sizeof(struct patricia_node), 0, false };
}

extern "C" {

extern struct rm_kind rm_tables, rm_routes, rm_nexthops, rm_devices, rm_units, rm_families, rm_addresses, rm_blobs;
extern struct rk_kernel rm_kernel;

/* The object of that key; the first one behind it, or the first of all for a null key. Or null. */
struct rm_object *rm_get(const struct rm_kind *kind, const uint8_t *key);
struct rm_object *rm_behind(struct rm_kind *kind, const uint8_t *key);
/* In key order; the first one for null. */
struct rm_object *rm_following(const struct rm_kind *kind, const struct rm_object *object);

/* An object with a copy of the record, not in the tree yet. Replaces old, if that is not null: then what the record
 * leaves 0 or empty stays as it was. 0 and *fresh, or EEXIST, ENOMEM, EINVAL or what the kind's check says. */
int rm_make(struct rm_kind *kind, void *record, const struct rm_object *old, struct rm_object **fresh);
/* One that was not put into the tree. */
void rm_discard(struct rm_kind *kind, struct rm_object *object);
/* Puts fresh into the tree, in the place of old if that is not null, and tells of it. */
void rm_commit(struct rm_kind *kind, struct rm_object *fresh, struct rm_object *old, struct rk_client *by);
/* Tells of it, takes the object out of the tree and frees it. */
void rm_remove(struct rm_kind *kind, struct rm_object *object, struct rk_client *by);
/* Frees all objects, and tells nobody. */
void rm_clear(struct rm_kind *kind);

/* Adds a record outside of any request. */
int rm_add(struct rm_kind *kind, void *record);
/* Serves a request for an object of a kind: get, get-next, add, change, delete, and the two with an answer. */
int rm_serve_kind(struct rm_kind *kind, struct rk_client *client, const struct rk_request *request);

/* Parts of keys, so that their order is that of the numbers. The place behind. */
uint8_t *rm_put16(uint8_t *key, uint32_t value);
uint8_t *rm_put32(uint8_t *key, uint32_t value);
/* The octets of a prefix up to its last bit in room octets, and the number of bits. Null if it has fewer octets than
 * bits or more than room. */
uint8_t *rm_put_prefix(uint8_t *key, const uint8_t *prefix, uint32_t length, uint32_t bits, size_t room);
/* Clears the bits behind the prefix, in place. */
void rm_mask_prefix(uint8_t *prefix, uint32_t length, uint32_t bits);

/* Texts of messages, which may end without a terminator. */
bool rm_text_equals(const char *a, uint32_t a_length, const char *b, uint32_t b_length);

/* The model is there, with its first tables. 0 or ENOMEM. */
int rm_begin(void);

/* Family 0: any. */
struct rm_object *rm_table_named(const char *name, uint32_t length, uint8_t family);
bool rm_table_exists(uint32_t tid, uint8_t family);
int rm_serve_table(struct rk_client *client, const struct rk_request *request);

struct rm_object *rm_route_at(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits);
struct rm_object *rm_route_behind(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits);
/* The one of the longest prefix that holds the given one. */
struct rm_object *rm_route_longest(uint32_t tid, uint8_t family, const uint8_t *prefix, uint32_t length, uint32_t bits);
/* Removes all routes of a table. */
void rm_table_empty(uint16_t tid, uint8_t family, struct rk_client *by);
void rm_route_reset(void);

struct rm_object *rm_nexthop_at(uint32_t index);
/* A next hop for a gateway, a sockaddr in the target's form. 0 and *made, not in the tree yet. */
int rm_nexthop_make(uint32_t ifidx, uint8_t family, uint8_t *address, uint32_t length, struct rm_object **made);
/* A route uses it; does so no longer. */
void rm_nexthop_hold(uint32_t index);
void rm_nexthop_release(uint32_t index);
void rm_nexthop_reset(void);

struct rm_object *rm_device_at(uint32_t index);
struct rm_object *rm_device_named(const char *name, uint32_t length);
struct rm_object *rm_unit_at(uint32_t index);
/* By device name and unit. */
struct rm_object *rm_unit_named(const char *name, uint32_t length, uint32_t unit);
struct rm_object *rm_family_at(uint32_t ifl_index, uint8_t family);
struct rm_object *rm_family_behind(uint32_t ifl_index, uint8_t family);
/* Remove what stands on a unit or on one family of it. */
void rm_families_empty(uint32_t ifl_index, struct rk_client *by);
void rm_addresses_empty(uint32_t ifl_index, uint8_t family, struct rk_client *by);

int rm_serve_blob(struct rk_client *client, const struct rk_request *request);
int rm_serve_match(struct rk_client *client, const struct rk_request *request);
int rm_serve_group(struct rk_client *client, const struct rk_request *request);
int rm_serve_nexthop_stats(struct rk_client *client, const struct rk_request *request);
int rm_serve_route_stats(struct rk_client *client, const struct rk_request *request);
int rm_serve_device_stats(struct rk_client *client, const struct rk_request *request);
int rm_serve_unit_stats(struct rk_client *client, const struct rk_request *request);
int rm_serve_family_stats(struct rk_client *client, const struct rk_request *request);

/* For struct rtsock_kernel. */
int rm_sysctl(const int *name, unsigned count, void *value, size_t *length);
int rm_sysctlbyname(const char *name, void *value, size_t *length, const void *set, size_t set_length);
void rm_sysctl_reset(void);

}   // extern "C"
