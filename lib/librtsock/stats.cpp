/*
 * Statistics of next hops and routes: the operations that wait.
 *
 * The kernel may answer later than the write. A next hop's statistics are waited for without limit, looking again every
 * half second; a route's as long as the client says, a number of times.
 */
#include "lib/librtsock/rtslib_stats.h"
#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_raw.h"
#include "platform/target.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr struct rtslib_request_form rnhs_form = { 21, 101, 224, sizeof(struct rnhs_msg) };

enum {
    LOOK_US = 500000,
    SELECT_MAX = 1024,       // descriptors from here on are not for select
    RTSTATS_TYPE = 4,
    RTSTATS_VERSION = 101,
    RTSTATS_ATTEMPTS = 11,
    KEY_NEXTHOP = 2,
    MS_OF_SECOND = 1000,
    US_OF_MS = 1000,
    US_OF_SECOND = 1000000,
};

constexpr uint8_t key_types[] = { KEY_NEXTHOP, 3, 4, 20, 24 };

/* Until the socket may have something, or half a second. */
void look_again(int fd)
{
    if (fd >= SELECT_MAX) {
        usleep(LOOK_US);
        return;
    }
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    struct timeval limit = { 0, LOOK_US };
    select(fd + 1, &readable, nullptr, nullptr, &limit);
}

int read_patiently(struct rtslib_cookie *cookie, rtslib_reply_func read, void **message, void **mask)
{
    int result;
    do {
        look_again(cookie->socket);
        result = read(cookie, message, mask);
    } while (result == TARGET_EAGAIN);
    return result;
}

/* 0 or 12. */
int put_key(struct rnhs_msg *request, uint8_t **cursor, const struct rtslib_nh_key *key)
{
    request->key_type = key->key_type;
    request->aux_byte1 = key->aux_byte1;
    request->aux_byte2 = key->aux_byte2;
    request->aux_half = key->aux_half;
    request->key_word1 = key->word1;
    request->key_word2 = key->word2;
    request->aux_word = key->aux_word;
    request->addr_len = uint32_t(rtslib_sockaddr_length(key->address));
    request->labels_len = key->labels != nullptr ? key->label_count : 0;
    request->addr_octets_len = key->octets != nullptr ? key->octets_length : 0;
    if (request->addr_len != 0)
        request->addr = rtslib_request_octets(request, cursor, key->address, request->addr_len);
    if (request->labels_len != 0)
        request->labels = reinterpret_cast<uint32_t *>(
            rtslib_request_octets(request, cursor, key->labels, request->labels_len * sizeof *key->labels));
    if (request->addr_octets_len != 0)
        request->addr_octets = rtslib_request_octets(request, cursor, key->octets, request->addr_octets_len);
    bool fits = (request->addr_len == 0 || request->addr != nullptr) &&
                (request->labels_len == 0 || request->labels != nullptr) &&
                (request->addr_octets_len == 0 || request->addr_octets != nullptr);
    return fits ? 0 : int(TARGET_ENOMEM);
}

struct rnhs_msg *new_request(struct rtslib_cookie *cookie, uint8_t family, uint8_t operation,
                             const struct rtslib_nh_key *key)
{
    uint8_t *cursor;
    auto *request = static_cast<struct rnhs_msg *>(rtslib_request_new(cookie, &rnhs_form, operation, &cursor));
    if (request == nullptr)
        return nullptr;
    request->af = family;
    if (put_key(request, &cursor, key) == 0)
        return request;
    rtslib_msg_free(cookie, request);
    return nullptr;
}

bool known_key(uint8_t key_type)
{
    return std::find(std::begin(key_types), std::end(key_types), key_type) != std::end(key_types);
}

size_t padded_octets(uint16_t bits)
{
    enum { WORD_BITS = 32, WORD = 4 };
    return (size_t(bits) + WORD_BITS - 1) / WORD_BITS * WORD;
}

/* Waits for as long as the client says, null for ever. 0 or an error number. */
int wait_readable(int fd, const struct timeval *limit)
{
    struct pollfd wanted = { fd, POLLIN, 0 };
    if (limit != nullptr && (limit->tv_sec < 0 || limit->tv_sec > INT32_MAX || limit->tv_usec < 0 ||
                             limit->tv_usec >= US_OF_SECOND))
        return TARGET_EINVAL;
    int64_t ms = limit != nullptr ? int64_t(limit->tv_sec) * MS_OF_SECOND + (limit->tv_usec + US_OF_MS - 1) / US_OF_MS
                                  : -1;
    return poll(&wanted, 1, int(std::min<int64_t>(ms, INT32_MAX))) < 0 ? target_errno_from_host(errno) : 0;
}

/* What a reply holds. 0, or 2 if there is nothing. */
int take_words(const uint8_t *octets, uint32_t length, uint32_t *words)
{
    struct rtstats_raw reply;
    if (length < sizeof reply)
        return TARGET_ENOENT;
    memcpy(&reply, octets, sizeof reply);
    size_t at = reply.hdr.hdrlen + padded_octets(reply.prefix_bits);
    size_t size = RTSLIB_RTSTATS_WORDS * sizeof *words;
    if (length != reply.hdr.msglen || reply.marker == 0 || at > length || length - at < size)
        return TARGET_ENOENT;
    memcpy(words, octets + at, size);
    return 0;
}

int read_stats(struct rtslib_cookie *cookie, uint32_t *words, const struct timeval *limit)
{
    int result = TARGET_EAGAIN;
    for (int attempt = 0; attempt < RTSTATS_ATTEMPTS && result == TARGET_EAGAIN; attempt++) {
        result = wait_readable(cookie->socket, limit);
        if (result != 0)
            return result;
        void *reply;
        uint32_t length;
        result = rtslib_long_msg_read(cookie, &reply, &length);
        if (result == 0)
            result = take_words(static_cast<const uint8_t *>(reply), length, words);
        rtslib_msg_free(cookie, reply);
    }
    // Kept on purpose: that nothing came is told as if a number had been missed.
    if (result == TARGET_EAGAIN && cookie->seq_err_fn != nullptr)
        cookie->seq_err_fn(cookie, cookie->seq_err_ctx, cookie->seq, cookie->seq - 1);
    return result;
}

}   // namespace

int rtslib_rnhsm_get(struct rtslib_cookie *cookie, uint8_t family, uint8_t operation, const struct rtslib_nh_key *key,
                     void **message, void **mask)
{
    if (message != nullptr)
        *message = nullptr;
    if (cookie == nullptr || message == nullptr || key == nullptr)
        return TARGET_EINVAL;
    if (!known_key(key->key_type))
        return TARGET_EOPNOTSUPP;
    struct rnhs_msg *request = new_request(cookie, family, operation, key);
    if (request == nullptr)
        return TARGET_ENOMEM;
    int result = rtslib_request_send(cookie, request);
    if (result == 0)
        result = read_patiently(cookie, rtslib_long_msg_read_idl, message, mask);
    if (result != 0)
        *message = nullptr;
    return result;
}

int rtslib_rnhsm_get_by_nexthop(struct rtslib_cookie *cookie, uint8_t family, uint8_t operation, const void *nexthop,
                                void **message, void **mask)
{
    if (message != nullptr)
        *message = nullptr;
    // A get hands out whatever the kernel answered; the key leads to octets of the message.
    if (!rtslib_reply_is(nexthop, RTSLIB_TYPE_NEXTHOP))
        return TARGET_EINVAL;
    const auto *hop = static_cast<const struct rnh_msg *>(nexthop);
    struct rtslib_nh_key key = {};
    key.key_type = hop->nh;
    key.word1 = hop->ifidx;
    key.word2 = hop->idx;
    key.labels = hop->labels;
    key.label_count = hop->labels_len;
    key.octets = hop->addr;
    key.octets_length = hop->addr_len;
    return rtslib_rnhsm_get(cookie, family, operation, &key, message, mask);
}

int rtslib_rnhsm_get_by_index(struct rtslib_cookie *cookie, uint32_t word1, uint32_t word2, uint8_t key_type,
                              uint8_t aux_byte1, const uint32_t *labels, uint32_t label_count, const void *address,
                              uint8_t family, uint8_t operation, void **message, void **mask)
{
    if (message != nullptr)
        *message = nullptr;
    if (mask != nullptr)
        *mask = nullptr;
    if (cookie == nullptr || message == nullptr)
        return TARGET_EINVAL;
    if (key_type != KEY_NEXTHOP)
        return TARGET_EOPNOTSUPP;
    struct rtslib_nh_key key = {};
    key.key_type = key_type;
    key.aux_byte1 = aux_byte1;
    key.word1 = word1;
    key.word2 = word2;
    key.labels = labels;
    key.label_count = label_count;
    key.address = address;
    struct rnhs_msg *request = new_request(cookie, family, operation, &key);
    if (request == nullptr)
        return TARGET_ENOMEM;
    int result = rtslib_request_send(cookie, request);
    if (result != 0) {
        if (result != TARGET_ENOMEM && result != TARGET_EOPNOTSUPP)
            fprintf(stderr, "NH stats rtslib_write failed [%d - %s]\n", errno, strerror(errno));
        return result;
    }
    result = read_patiently(cookie, rtslib_msg_read_idl, message, mask);
    // Kept on purpose: the line is printed and the answer taken away also when the reading went well, where one would
    // expect both after a failure only.
    fprintf(stderr, "NH stats rtslib_msg_read failed [%d - %s]\n", errno, strerror(errno));
    rtslib_msg_idl_release(cookie, *message);
    *message = nullptr;
    if (mask != nullptr)
        *mask = nullptr;
    return result;
}

int rtslib_rtstats_get(struct rtslib_cookie *cookie, uint8_t family, uint16_t tid, uint8_t aux_byte, uint32_t aux_word,
                       uint16_t prefix_bits, const void *prefix, uint32_t *words, const struct timeval *limit)
{
    if (cookie == nullptr || prefix == nullptr || words == nullptr)
        return TARGET_EINVAL;
    auto *octets = static_cast<uint8_t *>(rtslib_msg_malloc(cookie));
    if (octets == nullptr)
        return TARGET_ENOMEM;
    struct rtstats_raw request = {};
    size_t stored = padded_octets(prefix_bits);
    request.hdr.version = RTSTATS_VERSION;
    request.hdr.type = RTSTATS_TYPE;
    request.hdr.op = RTM_OP_GET;
    request.hdr.msglen = uint32_t(sizeof request + stored);
    request.hdr.seq = ++cookie->seq;
    request.hdr.hdrlen = sizeof request;
    request.tid = tid;
    request.af = family;
    request.aux_byte = aux_byte;
    request.aux_word = aux_word;
    request.one = 1;
    request.prefix_bits = prefix_bits;
    memcpy(octets, &request, sizeof request);
    memcpy(octets + sizeof request, prefix, (size_t(prefix_bits) + 7) / 8);
    int result = rtslib_write(cookie, octets, request.hdr.msglen);
    rtslib_msg_free(cookie, octets);
    return result == 0 ? read_stats(cookie, words, limit) : result;
}
