/*
 * Replies and events on their way to a client.
 *
 * A message becomes a datagram; several share one where the client reads many at once (replies of a bulk write, events
 * that wait while the socket is full). What the socket does not take waits in a list, in order, and is handed on when
 * the client reads. Replies find room as long as there is memory; events are dropped past RK_QUEUE_MAX. What is lost is
 * counted.
 */
#include "platform/rtsock/kernel/rk_queue.h"
#include "platform/rtsock/kernel/rk_filter.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

struct rk_datagram {
    struct rk_datagram *next;
    size_t length, room;
    uint8_t octets[];
};

namespace {

enum {
    ENCODE_FIRST = 2048,
    DATAGRAM_SURE = 4096,     // octets that every socket takes
    DATAGRAM_OVERHEAD = 32,   // of the host's, for each
};

struct rk_datagram *datagram_new(size_t room)
{
    auto *datagram = static_cast<struct rk_datagram *>(malloc(sizeof(struct rk_datagram) + room));
    if (datagram == nullptr)
        return nullptr;
    datagram->next = nullptr;
    datagram->length = 0;
    datagram->room = room;
    return datagram;
}

void append(struct rk_datagram *datagram, const uint8_t *octets, size_t length)
{
    memcpy(datagram->octets + datagram->length, octets, length);
    datagram->length += length;
}

void enqueue(struct rk_client *client, struct rk_datagram *datagram)
{
    if (client->rc_tail != nullptr)
        client->rc_tail->next = datagram;
    else
        client->rc_head = datagram;
    client->rc_tail = datagram;
    client->rc_queued += datagram->length;
}

/* 0, the host's EAGAIN if the socket is full for now, or another number. */
int hand_over(const struct rk_client *client, const uint8_t *octets, size_t length)
{
    if (send(client->rc_peer, octets, length, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0)
        return 0;
    return errno == ENOBUFS ? EAGAIN : errno;
}

/* What the socket layer set for what goes to the client, which is twice the size that the client reads. */
size_t send_buffer(const struct rk_client *client)
{
    int size = 0;
    socklen_t length = sizeof size;
    return getsockopt(client->rc_peer, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 && size > 0 ? size_t(size) : 0;
}

/* Octets that are put together at most: no more than one read takes. */
size_t gather_room(const struct rk_client *client)
{
    return std::min<size_t>(send_buffer(client) / 2, RK_GATHER_MAX);
}

/* Several messages may share a datagram if the client walks what it reads. */
bool may_gather(const struct rk_client *client)
{
    return (client->rc_async_mode & 1) != 0 && (client->rc_async_mode & RK_MODE_SINGLE) == 0;
}

/* One datagram, now or later. */
int deliver(struct rk_client *client, const uint8_t *octets, size_t length)
{
    if (client->rc_head == nullptr) {
        int error = hand_over(client, octets, length);
        if (error != EAGAIN)
            return error == 0 ? 0 : target_errno_from_host(error);
    }
    struct rk_datagram *last = client->rc_tail;
    if (last != nullptr && may_gather(client) && length <= last->room - last->length) {
        append(last, octets, length);
        client->rc_queued += length;
        return 0;
    }
    if (length > DATAGRAM_SURE && length + DATAGRAM_OVERHEAD > send_buffer(client))
        return TARGET_EMSGSIZE;
    struct rk_datagram *datagram = datagram_new(may_gather(client) ? std::max(length, gather_room(client)) : length);
    if (datagram == nullptr)
        return TARGET_ENOMEM;
    append(datagram, octets, length);
    enqueue(client, datagram);
    return 0;
}

/* What is gathered goes out; the batch begins anew. */
int deliver_batch(struct rk_client *client)
{
    struct rk_datagram *batch = client->rc_batch;
    if (batch->length == 0)
        return 0;
    int error = deliver(client, batch->octets, batch->length);
    batch->length = 0;
    return error;
}

int send_reply(struct rk_client *client, const uint8_t *octets, size_t length)
{
    struct rk_datagram *batch = client->rc_batch;
    if (batch == nullptr)
        return deliver(client, octets, length);
    if (length > batch->room - batch->length) {
        int error = deliver_batch(client);
        if (error != 0)
            return error;
    }
    if (length > batch->room)
        return deliver(client, octets, length);
    append(batch, octets, length);
    return 0;
}

typedef int (*send_func)(struct rk_client *client, const uint8_t *octets, size_t length);

/* A message with the length that a fault gives it. faults may be null. */
int send_faulty(struct rk_client *client, send_func send_on, struct rk_message_faults *faults, const uint8_t *octets,
                uint32_t length)
{
    if (faults == nullptr)
        return send_on(client, octets, length);
    if (rk_happens(&faults->lost))
        return 0;
    if (rk_happens(&faults->cut))
        return send_on(client, octets, std::min(length, faults->cut_length));
    if (!rk_happens(&faults->oversized))
        return send_on(client, octets, length);
    auto *longer = static_cast<uint8_t *>(calloc(1, size_t(length) + faults->oversize));
    if (longer == nullptr)
        return TARGET_ENOMEM;
    memcpy(longer, octets, length);
    int error = send_on(client, longer, size_t(length) + faults->oversize);
    free(longer);
    return error;
}

struct rk_message_faults *reply_faults(const struct rk_client *client)
{
    struct rk_faults *faults = client->rc_kernel->faults;
    return faults != nullptr ? &faults->replies : nullptr;
}

struct rk_message_faults *event_faults(const struct rk_client *client)
{
    struct rk_faults *faults = client->rc_kernel->faults;
    return faults != nullptr ? &faults->events : nullptr;
}

/* Encoded, and sent as the faults say. */
int encode_and_send(struct rk_client *client, send_func send_on, struct rk_message_faults *faults, uint8_t type,
                    void *record)
{
    enum rk_form form = client->rc_kernel->form;
    if (faults != nullptr && rk_happens(&faults->raw))
        form = RK_FORM_RAW;
    uint32_t length;
    uint8_t *octets = rk_encode(form, type, record, &length);
    if (octets == nullptr)
        return TARGET_ENOMEM;
    int error = send_faulty(client, send_on, faults, octets, length);
    free(octets);
    return error;
}

void fill_header(const struct rk_client *client, const struct rk_request *request, uint8_t type, struct rts_hdr *header)
{
    header->rtsh_magic = 0;
    header->rtsh_version = type < RTSLIB_TYPES ? rtslib_versions[1 + type] : 0;
    header->rtsh_type = type;
    header->rtsh_op = request->op;
    header->rtsh_seq = request->seq;
    header->rtsh_sender = client->rc_sender;
}

/* Of a reply. */
void answer_header(const struct rk_client *client, const struct rk_request *request, uint8_t type,
                   struct rts_hdr *header)
{
    struct rk_message_faults *faults = reply_faults(client);
    fill_header(client, request, type, header);
    if (faults != nullptr && rk_happens(&faults->odd_sequences))
        header->rtsh_seq++;
}

int32_t encode_into(enum rk_form form, const struct rts_msg *message, uint8_t *octets, size_t size)
{
    return form == RK_FORM_TLV ? tlv_encode_rts_msg_0(message, nullptr, octets, size)
                               : idr_encode_rts_msg_0(message, octets, size);
}

/* The raw form: the common header, and what follows it in IDR. In place; the new length. */
uint32_t make_raw(uint8_t *octets, uint32_t length, const struct rts_hdr *header)
{
    enum { RAW_OFFSET = IDL_ENVELOPE_SIZE };
    length -= RAW_OFFSET;
    memmove(octets, octets + RAW_OFFSET, length);
    struct rts_hdr raw = *header;
    raw.rtsh_msglen = length;
    memcpy(octets, &raw, RK_HDR_SIZE);
    return length;
}

}   // namespace

uint8_t *rk_encode(enum rk_form form, uint8_t type, void *record, uint32_t *length)
{
    const struct rts_msg message = { type, record };
    size_t size = ENCODE_FIRST;
    auto *octets = static_cast<uint8_t *>(malloc(size));
    if (octets == nullptr)
        return nullptr;
    int32_t needed = encode_into(form, &message, octets, size);
    if (size_t(needed) > size) {
        free(octets);
        size = size_t(needed);
        octets = static_cast<uint8_t *>(malloc(size));
        if (octets == nullptr)
            return nullptr;
        needed = encode_into(form, &message, octets, size);
    }
    *length = form == RK_FORM_RAW ? make_raw(octets, uint32_t(needed), static_cast<const struct rts_hdr *>(record))
                                  : uint32_t(needed);
    return octets;
}

int rk_reply(struct rk_client *client, const struct rk_request *request, uint8_t type, void *record)
{
    answer_header(client, request, type, static_cast<struct rts_hdr *>(record));
    return encode_and_send(client, send_reply, reply_faults(client), type, record);
}

int rk_reply_raw(struct rk_client *client, const struct rk_request *request, uint8_t type, void *octets, uint32_t length)
{
    struct rts_hdr header;
    memcpy(&header, octets, RK_HDR_SIZE);
    answer_header(client, request, type, &header);
    header.rtsh_msglen = length;
    memcpy(octets, &header, RK_HDR_SIZE);
    return send_faulty(client, send_reply, reply_faults(client), static_cast<uint8_t *>(octets), length);
}

void rk_event(struct rk_client *client, uint32_t listen_low, uint32_t listen_high, uint8_t type, uint8_t op,
              void *record)
{
    if ((client->rc_listen[0] & listen_low) == 0 && (client->rc_listen[1] & listen_high) == 0)
        return;
    // The filter sees the message as it would go out.
    const struct rk_request unasked = { type, op, 0, client->rc_seq, nullptr, nullptr, 0 };
    fill_header(client, &unasked, type, static_cast<struct rts_hdr *>(record));
    if (client->rc_filtered != 0 && rk_filter_holds(client->rc_filter, sizeof client->rc_filter, type, record) == 0)
        return;
    client->rc_seq++;
    struct rk_message_faults *faults = event_faults(client);
    if (faults != nullptr && rk_happens(&faults->odd_sequences))
        static_cast<struct rts_hdr *>(record)->rtsh_seq++;
    if (client->rc_queued >= RK_QUEUE_MAX || encode_and_send(client, deliver, faults, type, record) != 0)
        client->rc_lost++;
}

void rk_event_all(struct rk_kernel *kernel, const struct rk_client *but, uint32_t listen_low, uint32_t listen_high,
                  uint8_t type, uint8_t op, void *record)
{
    for (struct rk_client *client = kernel->clients; client != nullptr; client = client->rc_next) {
        if (client != but)
            rk_event(client, listen_low, listen_high, type, op, record);
    }
}

void rk_batch_begin(struct rk_client *client)
{
    client->rc_batch = datagram_new(gather_room(client));
}

void rk_batch_end(struct rk_client *client)
{
    if (client->rc_batch == nullptr)
        return;
    if (deliver_batch(client) != 0)
        client->rc_lost++;
    free(client->rc_batch);
    client->rc_batch = nullptr;
}

void rk_queue_flush(struct rk_client *client)
{
    while (client->rc_head != nullptr) {
        struct rk_datagram *first = client->rc_head;
        int error = hand_over(client, first->octets, first->length);
        if (error == EAGAIN)
            return;
        if (error != 0)
            client->rc_lost++;
        client->rc_head = first->next;
        if (client->rc_head == nullptr)
            client->rc_tail = nullptr;
        client->rc_queued -= first->length;
        free(first);
    }
}

void rk_queue_clear(struct rk_client *client)
{
    while (client->rc_head != nullptr) {
        struct rk_datagram *next = client->rc_head->next;
        free(client->rc_head);
        client->rc_head = next;
    }
    client->rc_tail = nullptr;
    client->rc_queued = 0;
}
