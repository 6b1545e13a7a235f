/*
 * The Linux kernel of the routing socket, inside: what its files share. Not for others.
 *
 * Objects of the host are read out of netlink messages into plain records (lx_route, lx_link, ...), whose numbers are
 * the host's, and told to clients as records of the catalogue, whose numbers are the target's. Functions give 0 or the
 * target's error numbers, unless told otherwise.
 */
#pragma once

#include "lib/librtsock/rtslib_names.h"
#include "platform/rtsock/kernel/rk.h"
#include "platform/rtsock/linux/lx_list.h"
#include "platform/rtsock/linux/nl.h"

#include <net/if.h>

#include <iterator>

extern "C" {

/* --- Numbers. */

enum {
    LX_TABLE_MAIN = 254,     // also what index 0 means
    LX_TABLE_MAX = 65534,    // index of an instance that can be told; 65535 stands for a name
    LX_PREFIX_MAX = 16,      // octets
    LX_HW_MAX = 32,          // octets of a link's address
};

/* Types of routes and next hops, as clients see them. */
enum { LX_RT_USER = 1, LX_RT_DYNAMIC = 3, LX_RT_INTERFACE = 7 };
enum {
    LX_NH_DISCARD = 0, LX_NH_REJECT = 1, LX_NH_UNICAST = 2, LX_NH_LIST = 3, LX_NH_RESOLVE = 7, LX_NH_LOCAL = 8,
    LX_NH_RECEIVE = 9, LX_NH_BROADCAST = 11, LX_NH_MULTICAST = 12, LX_NH_TABLE = 15,
};

/* --- Addresses. */

/* A prefix or an address in network order; what lies behind bits is zero. */
struct lx_prefix {
    uint8_t family;    // the host's, AF_INET or AF_INET6
    uint8_t bits;
    uint8_t octets[LX_PREFIX_MAX];
};

/* Bits of an address, 0 for a family without. */
unsigned lx_address_bits(int host_family);
/* A prefix as messages carry it. EOPNOTSUPP for another family, EINVAL for one that is too long or not there. */
int lx_prefix_from(uint8_t target_family, const uint8_t *octets, uint32_t length, uint32_t bits,
                   struct lx_prefix *prefix);
/* Zeroes what lies behind bits. */
void lx_prefix_trim(struct lx_prefix *prefix);
/* Octets that a message carries for so many bits: whole words. */
uint32_t lx_prefix_stored(unsigned bits);
/* True if wide has no more bits than narrow, and narrow begins with them. */
bool lx_prefix_covers(const struct lx_prefix *wide, const struct lx_prefix *narrow);
/* Order of walks: by octets, then by bits. Below, equal to or above 0. */
int lx_prefix_compare(const struct lx_prefix *a, const struct lx_prefix *b);

enum { LX_SOCKADDR_MAX = 28 };
/* The target's sockaddr of an address. Octets. */
uint32_t lx_sockaddr_put(const struct lx_prefix *address, uint8_t *sockaddr);
/* An address out of one, an interface out of a link's, or both out of an address with a scope; what it lacks is left
 * alone. EINVAL for a broken one, EOPNOTSUPP for others. */
int lx_sockaddr_get(const uint8_t *sockaddr, uint32_t length, struct lx_prefix *address, uint32_t *ifindex);

/* --- Routes and their next hops. */

struct lx_hop {
    uint32_t ifindex;         // 0: none
    uint16_t weight;
    uint8_t gateway;          // there is one, in address
    struct lx_prefix address;
};

struct lx_route {
    struct lx_prefix prefix;
    uint8_t type, protocol;   // RTN_*, RTPROT_*
    uint32_t table, flags;         // RTNH_F_*
    uint32_t priority, nh_id;
    uint32_t first_hop, hops;      // in the list of hops that was read into
};

/* Reads a message about a route; its hops go behind what is in hops (struct lx_hop). ENOMEM, or EINVAL for what is no
 * route of a table. */
int lx_route_read(const struct nlmsghdr *message, struct lx_route *route, struct lx_list *hops);

/* A next hop as an object of the host. */
struct lx_nexthop {
    uint32_t id;
    uint8_t family;           // the host's, 0 for a group
    uint8_t blackhole;
    struct lx_hop hop;
    uint32_t first_member, members;   // of a group, in the list that was read into
};
struct lx_member {
    uint32_t id, weight;
};
/* Reads a message about one; members go behind what is in the list (struct lx_member). EINVAL too for one whose index
 * is among those that routes' own next hops get. */
int lx_nexthop_read(const struct nlmsghdr *message, struct lx_nexthop *nexthop, struct lx_list *members);

/* --- Links and addresses. */

struct lx_link {
    uint32_t index, flags, mtu;    // IFF_*
    uint32_t change;               // of the flags; all ones in the message about a new link
    uint32_t lower;                // the link that it stands on, 0 for none in this namespace
    uint32_t table;                // where its packets are looked up: its VRF's, or LX_TABLE_MAIN
    uint16_t type;                 // ARPHRD_*
    uint8_t vrf;                   // it is a VRF device, whose table is table
    uint8_t carrier, inet, inet6;  // it has one; the families are in use on it
    uint8_t hw_length, hw[LX_HW_MAX];
    char name[IFNAMSIZ];
    char device[IFNAMSIZ];         // name without the unit
    uint32_t unit;                 // of a link that is named "DEVICE.UNIT", 1 or above; 0 for a device
};

/* Reads a message about a link. EINVAL for what is none. */
int lx_link_read(const struct nlmsghdr *message, struct lx_link *link);
/* A device can be told: it is no unit, and its index fits in 16 bits. */
bool lx_link_is_device(const struct lx_link *link);
/* One link, by name or, if that is null, by index. */
int lx_link_get(struct nl *nl, uint32_t index, const char *name, struct lx_link *link);
/* All links, by index. links: of struct lx_link, emptied first. */
int lx_links_load(struct nl *nl, struct lx_list *links);

struct lx_address {
    uint32_t ifindex, flags;       // IFA_F_*
    struct lx_prefix local;        // all bits
    struct lx_prefix destination;  // the network, or the other end's address
    uint8_t has_broadcast;
    struct lx_prefix broadcast;
};
int lx_address_read(const struct nlmsghdr *message, struct lx_address *address);

/* --- Clients. */

/* What a client walks over: a snapshot, in the order of the walk, which is made when a walk starts and serves as long
 * as each request names what was answered last. */
struct lx_route_walk {
    struct lx_list routes, hops;   // no snapshot if routes is empty
    uint32_t table;
    uint8_t family, by_type;       // by_type: only routes of that type, or 0
    size_t at;                     // index of what was answered last
};
struct lx_nexthop_walk {
    struct lx_list nexthops, members;
    size_t at;
};

/* Of devices, or of units and their families, in the order of what is asked by. */
enum lx_link_order : uint8_t { LX_BY_INDEX, LX_BY_NAME };
struct lx_link_walk {
    struct lx_list links;
    enum lx_link_order order;
    size_t at;
};
struct lx_address_walk {
    struct lx_list addresses;
    size_t at;
};

enum { LX_HOP_BUCKETS = 1024 };

/* A next hop of a route that is no object of the host: it gets an index for the client's life. */
struct lx_named_hop {
    struct lx_hop hop;
    uint8_t family, nh_type;
    uint32_t next;                 // in its bucket: position plus 1, 0 at the end
};

struct lx_client {
    struct nl requests;
    int events;                    // socket for changes
    uint8_t *event_buffer;         // NL_BUFFER_SIZE octets, of its own: an event may ask a question
    uint32_t joined;               // groups, by row of the table in events.cpp
    struct lx_route_walk route_walk;
    struct lx_nexthop_walk nexthop_walk;
    struct lx_link_walk link_walk;
    struct lx_address_walk address_walk;
    struct lx_list named_hops;     // struct lx_named_hop
    uint32_t buckets[LX_HOP_BUCKETS];
};

inline struct lx_client *lx_owner(const struct rk_client *client)
{
    return static_cast<struct lx_client *>(client->rc_owner);
}

/* The index of a hop, from LX_NAMED_HOP up; 0 without memory. */
enum : uint32_t { LX_NAMED_HOP = 0x80000000 };
uint32_t lx_hop_index(struct lx_client *owner, const struct lx_hop *hop, uint8_t family, uint8_t nh_type);
/* The hop of an index, or null. */
const struct lx_named_hop *lx_hop_find(const struct lx_client *owner, uint32_t index);

void lx_route_walk_end(struct lx_client *owner);
void lx_nexthop_walk_end(struct lx_client *owner);
/* The link behind the one that the key names; null at the end or, with *error, without an answer. The key's index, or
 * its device and unit. */
const struct lx_link *lx_link_walk_next(struct lx_client *owner, enum lx_link_order order, const struct lx_link *key,
                                        int *error);

/* --- Records for clients. What they point to lives in room or in the arguments. */

struct lx_route_room {
    uint8_t prefix[LX_PREFIX_MAX];
    struct rt_nh_entry *entries;      // to be freed with lx_route_room_end
    struct idl_sockaddr_gen *addrs;
    uint8_t *sockaddrs;
    char ifname[IFNAMSIZ];
};
int lx_route_record(struct lx_client *owner, const struct lx_route *route, const struct lx_hop *hops, uint16_t tid,
                    struct lx_route_room *room, struct rt_msg *record);
void lx_route_room_end(struct lx_route_room *room);
/* Next-hop type of a route, and its first next hop's index, 0 for none. */
uint8_t lx_route_nh_type(const struct lx_route *route, const struct lx_hop *hops);
uint8_t lx_route_type(const struct lx_route *route);
uint32_t lx_route_nh_index(struct lx_client *owner, const struct lx_route *route, const struct lx_hop *hops);

struct lx_link_room {
    struct lx_link link;
};
void lx_device_record(const struct lx_link *link, struct lx_link_room *room, struct ifdev_msg *record);
/* device: index of the device below it, 0 if that does not exist. */
void lx_unit_record(const struct lx_link *link, uint32_t device, struct lx_link_room *room, struct ifl_msg *record);
void lx_family_record(const struct lx_link *link, uint8_t target_family, struct lx_link_room *room,
                      struct iff_msg *record);
struct lx_address_room {
    struct lx_address address;
    char name[IFNAMSIZ];
};
/* socket: any, to ask for the interface's name. */
void lx_address_record(int socket, const struct lx_address *address, struct lx_address_room *room,
                       struct ifa_msg *record);
/* Index of a link's device: its own, or 0 for a unit whose device does not exist. */
uint32_t lx_device_of(int socket, const struct lx_link *link);
/* Index of a link by name, 0 for none. */
uint32_t lx_index_of(int socket, const char *name);
/* Name of a link by index, empty for none. name: IFNAMSIZ octets. */
void lx_name_of(int socket, uint32_t index, char *name);

/* --- Instances. */

/* The Linux table that an index of the library means. */
inline uint32_t lx_table_of(uint16_t tid)
{
    return tid == 0 ? uint32_t(LX_TABLE_MAIN) : tid;
}
/* The VRF device whose table it is: *found tells whether there is one. */
int lx_vrf_of_table(struct nl *nl, uint32_t table, struct lx_link *vrf, bool *found);
/* The name of a table: a VRF device's, or one from the host's list. ENOENT without one. */
enum { LX_NAME_MAX = 128 };
int lx_table_name(struct nl *nl, uint32_t table, char name[LX_NAME_MAX]);

/* Names of tables in the host's files: adds those that the list (struct lx_table) lacks, by number. */
struct lx_table {
    uint32_t number;
    char name[LX_NAME_MAX];
};
int lx_table_files(struct lx_list *tables);
/* One line of such a file: "NUMBER NAME". False for a comment or what is no such line. */
bool lx_table_line(const char *line, struct lx_table *table);

/* Adds, changes or deletes the route of a request (struct rt_msg). */
int lx_route_change(struct lx_client *owner, const struct rk_request *request, const struct lx_prefix *prefix);

/* --- Message types, and the other hooks of the kernel. */

int lx_serve_table(struct rk_client *client, const struct rk_request *request);
int lx_serve_route(struct rk_client *client, const struct rk_request *request);
int lx_serve_match(struct rk_client *client, const struct rk_request *request);
int lx_serve_nexthop(struct rk_client *client, const struct rk_request *request);
int lx_serve_device(struct rk_client *client, const struct rk_request *request);
int lx_serve_unit(struct rk_client *client, const struct rk_request *request);
int lx_serve_family(struct rk_client *client, const struct rk_request *request);
int lx_serve_address(struct rk_client *client, const struct rk_request *request);

/* As in struct rtsock_kernel. */
int lx_bind_table(int socket, uint32_t table);
int lx_bind_interface(int socket, uint32_t ifl_index);
int lx_sysctl(const int *name, unsigned count, void *value, size_t *length);

/* The socket for changes; what a client asks for is joined by lx_events_listen, and told by lx_events_pump. */
int lx_events_open(void);
void lx_events_listen(struct rk_client *client);
void lx_events_pump(struct rk_client *client);
/* Tells the client of one message, if it is of use to it. */
int lx_events_take(struct rk_client *client, const struct nlmsghdr *message);

}   // extern "C"
