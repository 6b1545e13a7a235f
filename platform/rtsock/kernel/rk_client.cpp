/*
 * Clients of a kernel: their options, and how what they write reaches the functions that serve it.
 *
 * Single writes carry one message; in bulk mode a write carries several, which are served in order until one fails. What
 * was taken up to there stays, and the client reads from the bulk status where it stopped. Replies of a bulk write are
 * gathered into few datagrams.
 */
#include "platform/rtsock/kernel/rk_queue.h"
#include "platform/rtsock/kernel/rk_filter.h"

#include "lib/librtsock/rtslib_names.h"
#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

enum { ALIGNMENT = 16, LISTEN_OCTETS = 8 };

/* Blocks of one decode, freed together. */
struct arena {
    struct arena *next;
};

void *arena_take(size_t size, void *context)
{
    auto **arenas = static_cast<struct arena **>(context);
    auto *block = static_cast<uint8_t *>(calloc(1, ALIGNMENT + size));
    if (block == nullptr)
        return nullptr;
    auto *head = reinterpret_cast<struct arena *>(block);
    head->next = *arenas;
    *arenas = head;
    return block + ALIGNMENT;
}

void arena_end(struct arena *arenas)
{
    while (arenas != nullptr) {
        struct arena *next = arenas->next;
        free(arenas);
        arenas = next;
    }
}

int fail(int target_error)
{
    errno = target_errno_to_host(target_error);
    return -1;
}

uint32_t word_at(const uint8_t *octets, size_t offset)
{
    uint32_t word;
    memcpy(&word, octets + offset, sizeof word);
    return word;
}

bool enveloped(const uint8_t *octets)
{
    uint32_t magic = word_at(octets, 0);
    return magic == IDL_MAGIC_IDR || magic == IDL_MAGIC_TLV;
}

/* Length of the first message, 0 if there is no whole one. */
size_t first_length(const uint8_t *octets, size_t left)
{
    if (left < IDL_ENVELOPE_SIZE)
        return 0;
    bool envelope = enveloped(octets);
    uint64_t length = envelope ? uint64_t(word_at(octets, 4)) + IDL_ENVELOPE_SIZE : word_at(octets, 8);
    size_t least = envelope ? size_t(IDL_ENVELOPE_SIZE) : size_t(RK_HDR_SIZE);
    return length >= least && length <= left ? size_t(length) : 0;
}

int dispatch(struct rk_client *client, const struct rk_request *request)
{
    rk_serve_func serve = request->type < RTSLIB_TYPES ? client->rc_kernel->serve[request->type] : nullptr;
    client->rc_seq = request->seq;
    return serve != nullptr ? serve(client, request) : int(TARGET_EOPNOTSUPP);
}

int serve_raw(struct rk_client *client, const uint8_t *octets, size_t length)
{
    if (length < RK_HDR_SIZE)
        return TARGET_EINVAL;
    struct rts_hdr header = {};
    memcpy(&header, octets, RK_HDR_SIZE);
    struct rk_request request = { header.rtsh_type, header.rtsh_op, header.rtsh_flag, header.rtsh_seq, nullptr, octets,
                                  length };
    return dispatch(client, &request);
}

int serve_decoded(struct rk_client *client, const uint8_t *octets, size_t length)
{
    struct arena *arenas = nullptr;
    struct rts_msg message = {};
    int32_t taken = word_at(octets, 0) == IDL_MAGIC_TLV
                        ? tlv_decode_rts_msg_0(&message, nullptr, octets, length, arena_take, &arenas)
                        : idr_decode_rts_msg_0(&message, octets, length, arena_take, &arenas);
    int error = TARGET_EINVAL;
    if (taken > 0 && message.msg == nullptr)
        error = TARGET_EOPNOTSUPP;
    if (taken > 0 && message.msg != nullptr) {
        const auto *header = static_cast<const struct rts_hdr *>(message.msg);
        struct rk_request request = { uint8_t(message.type), header->rtsh_op, header->rtsh_flag, header->rtsh_seq,
                                      message.msg, octets, length };
        error = dispatch(client, &request);
    } else if (taken == IDL_CODE_ALLOC) {
        error = TARGET_ENOMEM;
    }
    arena_end(arenas);
    return error;
}

int serve_one(struct rk_client *client, const uint8_t *octets, size_t length)
{
    return enveloped(octets) ? serve_decoded(client, octets, length) : serve_raw(client, octets, length);
}

/* The error of the entry that a bulk write has come to, as far as a fault says so. */
int bulk_fault(const struct rk_client *client)
{
    struct rk_faults *faults = client->rc_kernel->faults;
    if (faults == nullptr || client->rc_bulk.count != faults->bulk_stop_at || !rk_happens(&faults->bulk_stops))
        return 0;
    return int(faults->bulk_stop_error);
}

/* Messages up to the first that fails. Octets taken, or -1 if that is the first of all. */
ssize_t serve_bulk(struct rk_client *client, const uint8_t *octets, size_t length)
{
    size_t taken = 0;
    client->rc_bulk = {};
    rk_batch_begin(client);
    while (taken < length && client->rc_bulk.error == 0) {
        size_t message = first_length(octets + taken, length - taken);
        int error = message == 0 ? int(TARGET_EINVAL) : bulk_fault(client);
        if (error == 0)
            error = serve_one(client, octets + taken, message);
        client->rc_bulk.error = uint32_t(error);
        if (error == 0) {
            taken += message;
            client->rc_bulk.count++;
        }
    }
    rk_batch_end(client);
    return client->rc_bulk.error != 0 && taken == 0 ? fail(int(client->rc_bulk.error)) : ssize_t(taken);
}

/* Words that options set, by number. */
uint32_t *option_word(struct rk_client *client, int option)
{
    switch (option) {
    case RTSOCK_ASYNC_MODE:
        return &client->rc_async_mode;
    case RTSOCK_SYNC_MODE:
        return &client->rc_sync_mode;
    case RTSOCK_SEND_PACING:
        return &client->rc_send_pacing;
    case RTSOCK_RECEIVE_PACING:
        return &client->rc_receive_pacing;
    default:
        return nullptr;
    }
}

int set_listen(struct rk_client *client, const void *value)
{
    memcpy(client->rc_listen, value, sizeof client->rc_listen);
    if (client->rc_kernel->listen != nullptr)
        client->rc_kernel->listen(client);
    return 0;
}

int set_filter(struct rk_client *client, const uint8_t *value)
{
    if (!rk_filter_is_sound(value + LISTEN_OCTETS, sizeof client->rc_filter)) {
        errno = EINVAL;
        return -1;
    }
    memcpy(client->rc_filter, value + LISTEN_OCTETS, sizeof client->rc_filter);
    client->rc_filtered = 1;
    return set_listen(client, value);
}

bool refused(const struct rk_client *client, int option)
{
    const struct rk_faults *faults = client->rc_kernel->faults;
    return faults != nullptr && option >= 0 && option < 32 && (faults->refused_options >> option & 1) != 0;
}

int copy_out(void *value, socklen_t *length, const void *from, size_t size)
{
    *length = socklen_t(std::min<size_t>(*length, size));
    memcpy(value, from, *length);
    return 0;
}

}   // namespace

int rk_client_open(struct rk_kernel *kernel, int peer, void **state)
{
    struct rk_faults *faults = kernel->faults;
    if (faults != nullptr && rk_happens(&faults->failed_opens))
        return fail(faults->failed_open_error);
    auto *client = static_cast<struct rk_client *>(calloc(1, sizeof(struct rk_client)));
    if (client == nullptr)
        return -1;
    client->rc_kernel = kernel;
    client->rc_peer = peer;
    client->rc_seq = 1;   // as a fresh cookie has it
    if (kernel->open != nullptr && kernel->open(client) < 0) {
        free(client);
        return -1;
    }
    client->rc_next = kernel->clients;
    kernel->clients = client;
    *state = client;
    return 0;
}

void rk_client_close(void *state)
{
    auto *client = static_cast<struct rk_client *>(state);
    struct rk_client **link = &client->rc_kernel->clients;
    while (*link != client)
        link = &(*link)->rc_next;
    *link = client->rc_next;
    if (client->rc_kernel->close != nullptr)
        client->rc_kernel->close(client);
    rk_queue_clear(client);
    free(client);
}

ssize_t rk_client_write(void *state, const void *octets, size_t length)
{
    auto *client = static_cast<struct rk_client *>(state);
    const auto *message = static_cast<const uint8_t *>(octets);
    struct rk_faults *faults = client->rc_kernel->faults;
    if (faults != nullptr && rk_happens(&faults->failed_writes))
        return fail(faults->failed_write_error);
    if (faults != nullptr && rk_happens(&faults->short_writes))
        return faults->short_write_count;
    if (faults != nullptr && rk_happens(&faults->silent_writes))
        return ssize_t(length);
    if (client->rc_sync_mode != 0)
        return serve_bulk(client, message, length);
    if (length == 0 || first_length(message, length) != length)
        return fail(TARGET_EINVAL);
    int error = serve_one(client, message, length);
    return error != 0 ? fail(error) : ssize_t(length);
}

int rk_client_getsockopt(void *state, int option, void *value, socklen_t *length)
{
    const auto *client = static_cast<const struct rk_client *>(state);
    const struct rk_faults *faults = client->rc_kernel->faults;
    if (refused(client, option)) {
        errno = EPERM;
        return -1;
    }
    if (option == RTSOCK_VERSIONS && faults != nullptr && faults->versions != nullptr)
        return copy_out(value, length, faults->versions, faults->versions_length);
    if (option == RTSOCK_VERSIONS)
        return copy_out(value, length, rtslib_versions, RTSLIB_TYPES + 1);
    if (option == RTSOCK_BULK_STATUS)
        return copy_out(value, length, &client->rc_bulk, sizeof client->rc_bulk);
    errno = ENOPROTOOPT;
    return -1;
}

int rk_client_setsockopt(void *state, int option, const void *value, socklen_t length)
{
    auto *client = static_cast<struct rk_client *>(state);
    if (refused(client, option)) {
        errno = EPERM;
        return -1;
    }
    uint32_t *word = option_word(client, option);
    if (word != nullptr && length == sizeof *word) {
        memcpy(word, value, sizeof *word);
        return 0;
    }
    if (option == RTSOCK_SENDER_ID && length == sizeof client->rc_sender) {
        memcpy(&client->rc_sender, value, sizeof client->rc_sender);
        return 0;
    }
    if (option == RTSOCK_LISTEN_BITS && length == sizeof client->rc_listen)
        return set_listen(client, value);
    if (option == RTSOCK_FILTERS && length == RTSOCK_FILTERS_SIZE)
        return set_filter(client, static_cast<const uint8_t *>(value));
    bool known = word != nullptr || option == RTSOCK_SENDER_ID || option == RTSOCK_LISTEN_BITS ||
                 option == RTSOCK_FILTERS;
    errno = known ? EINVAL : ENOPROTOOPT;
    return -1;
}

void rk_client_pump(void *state)
{
    auto *client = static_cast<struct rk_client *>(state);
    if (client->rc_kernel->pump != nullptr)
        client->rc_kernel->pump(client);
    rk_queue_flush(client);
}
