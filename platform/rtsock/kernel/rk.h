/*
 * The kernel's side of a routing socket: what every kernel does alike.
 *
 * A kernel gives one function for each message type that it serves. Everything between that and the socket is here:
 * options, decoding of requests (IDR, TLV or raw), replies in the client's form, bulk writes, events by listen bits,
 * and a queue for what the client has not read yet. An error of a function is the error of the write, so that the
 * client sees it before it looks for a reply.
 *
 * Errors of functions are the target's numbers; errno is the host's.
 */
#pragma once

#include "lib/librtsock/idl/idl.h"
#include "platform/rtsock/rtsock.h"

#include <stddef.h>
#include <stdint.h>

extern "C" {

struct rk_client;

/* A request as it was written. */
struct rk_request {
    uint8_t type, op, flag;
    uint32_t seq;
    void *record;            // decoded, the record of the type; null for a raw message. Lives as long as the call
    const uint8_t *octets;   // the whole message
    size_t length;
};

/* 0, or the target's number of an error. */
typedef int (*rk_serve_func)(struct rk_client *client, const struct rk_request *request);

enum rk_form { RK_FORM_IDR, RK_FORM_TLV, RK_FORM_RAW };

/* What is wrong with messages to a client. */
struct rk_message_faults {
    uint32_t odd_sequences;   // so many carry a sequence number that is one too high
    uint32_t raw;             // so many come raw
    uint32_t oversized;       // so many have oversize octets behind the message
    uint32_t oversize;
    uint32_t cut;             // so many end after cut_length octets
    uint32_t cut_length;
    uint32_t lost;            // so many never come
};

/* What a kernel does wrong when told so. All zero: nothing. Counts go down as the fault happens; of several that are
 * due, the one that stands first happens. Errors are the target's numbers. */
struct rk_faults {
    uint32_t failed_opens;        // so many fail with failed_open_error
    int32_t failed_open_error;
    uint32_t failed_sysctls;      // so many fail with failed_sysctl_error
    int32_t failed_sysctl_error;
    uint32_t refused_options;     // bit n: option n fails with EPERM, as often as it is tried
    const uint8_t *versions;      // instead of the true version table
    uint32_t versions_length;
    uint32_t failed_writes;       // so many fail with failed_write_error and do nothing else
    int32_t failed_write_error;
    uint32_t short_writes;        // so many take short_write_count octets and do nothing else
    int32_t short_write_count;
    uint32_t silent_writes;       // so many are taken and do nothing else
    uint32_t bulk_stops;          // so many bulk writes stop at entry bulk_stop_at, which they must have
    uint32_t bulk_stop_at, bulk_stop_error;
    struct rk_message_faults replies, events;
};

/* A kernel: what it serves and, as far as it keeps something, the clients. Hooks may be null. */
struct rk_kernel {
    rk_serve_func serve[110];                    // by message type; null: EOPNOTSUPP
    int (*open)(struct rk_client *client);       // 0 or -1; may set rc_owner
    void (*close)(struct rk_client *client);
    void (*listen)(struct rk_client *client);    // the listen bits changed
    void (*pump)(struct rk_client *client);      // the client reads: pass on what came from elsewhere
    struct rk_faults *faults;                    // null: none
    enum rk_form form;                           // of replies and events
    struct rk_client *clients;
};

struct rk_datagram;

/* A client: one open socket. */
struct rk_client {
    struct rk_client *rc_next;
    struct rk_kernel *rc_kernel;
    int rc_peer;
    void *rc_owner;                        // the kernel's own, for this client
    uint8_t rc_sender;
    uint32_t rc_listen[2];                 // low word first
    uint32_t rc_async_mode, rc_sync_mode;
    uint32_t rc_send_pacing, rc_receive_pacing;
    uint8_t rc_filter[748];                // as registered last, behind the listen words
    uint8_t rc_filtered;                   // it has one
    struct rtsock_bulk_status rc_bulk;     // of the last bulk write
    uint32_t rc_seq;                       // that the client expects of the next raw event
    uint64_t rc_lost;                      // datagrams dropped: the queue was full, memory out, or they were too large
    struct rk_datagram *rc_head, *rc_tail; // not yet taken by the socket
    size_t rc_queued;                      // octets in there
    struct rk_datagram *rc_batch;          // replies of the bulk write under way, or null
};

enum {
    RK_QUEUE_MAX = 64 << 20,      // octets that wait for one client; beyond that events are dropped
    RK_GATHER_MAX = 32768,        // messages are put together into datagrams of so many octets, where that is allowed
    RK_MODE_SINGLE = 0x400,       // of rc_async_mode: one message for each read
};

/* Functions for the kernel's struct rtsock_kernel. state is the client. */
int rk_client_open(struct rk_kernel *kernel, int peer, void **state);
void rk_client_close(void *state);
ssize_t rk_client_write(void *state, const void *octets, size_t length);
int rk_client_getsockopt(void *state, int option, void *value, socklen_t *length);
int rk_client_setsockopt(void *state, int option, const void *value, socklen_t length);
void rk_client_pump(void *state);

/* Answers with a record of the request's type (or another one, the type stands in its header): the header's version,
 * operation and sequence number are filled in. 0, ENOMEM, or EMSGSIZE for what no datagram takes. */
int rk_reply(struct rk_client *client, const struct rk_request *request, uint8_t type, void *record);
/* The same for a raw message of length octets, RTSLIB_HDR_SIZE at least, whose header is filled in. */
int rk_reply_raw(struct rk_client *client, const struct rk_request *request, uint8_t type, void *octets,
                 uint32_t length);

/* Tells one client of a change, if it listens to one of these classes and no filter of its own holds the event back. */
void rk_event(struct rk_client *client, uint32_t listen_low, uint32_t listen_high, uint8_t type, uint8_t op,
              void *record);
/* The same for all clients of a kernel but one, which may be null. */
void rk_event_all(struct rk_kernel *kernel, const struct rk_client *but, uint32_t listen_low, uint32_t listen_high,
                  uint8_t type, uint8_t op, void *record);

/* Encodes a record in the kernel's form into a new block, to be freed. Null without memory. */
uint8_t *rk_encode(enum rk_form form, uint8_t type, void *record, uint32_t *length);

}   // extern "C"
