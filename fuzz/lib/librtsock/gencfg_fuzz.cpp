/*
 * Fuzz target: blobs both ways.
 *
 * The first octet chooses. A request is filled with any fields, peers and dependencies, goes through the one operation,
 * and is answered with what is left of the input as the body of a blob message. An event is such a body that arrives by
 * itself. Whatever comes out is read to the last octet and written once more, so that a pointer that leads elsewhere is
 * seen; a request that had no reply must have its blob back, and every block taken is given back.
 */
#include "fuzz/lib/librtsock/lib_fuzz.h"
#include "lib/librtsock/rtslib_gencfg.h"
#include "platform/log/log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

enum choice : uint8_t { EVENT = 1, IDR = 2, MASK = 4, NO_COMPRESSION = 8 };

static constexpr uint8_t NUMBER = 72;

static int name_value;
static std::vector<uint8_t> answer;

static ssize_t answer_it(void *, const void *, size_t length)
{
    (void)send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
    return ssize_t(length);
}

/* And tells the one value that is asked for by name. */
static rtsock_kernel make_kernel(void)
{
    rtsock_kernel kernel = kernel_that(answer_it);
    kernel.rk_sysctlbyname = [](const char *, void *value, size_t *, const void *, size_t) {
        return memcpy(value, &name_value, sizeof name_value), 0;
    };
    return kernel;
}
static const rtsock_kernel random_kernel = make_kernel();

/* Halves a blob; one that begins with an odd octet cannot be. */
static int squeeze(void *to, uint32_t *length, const void *from, uint32_t from_length)
{
    if (*length < from_length / 2 || (*static_cast<const uint8_t *>(from) & 1) != 0)
        return 99;
    memcpy(to, from, *length = from_length / 2);
    return 0;
}

/* Doubles it. */
static int expand(void *to, uint32_t *length, const void *from, uint32_t from_length)
{
    must(*length == GENCFG_BLOB_DECOMPRESSED);
    if (from_length == 0 || from_length > *length / 2 || (*static_cast<const uint8_t *>(from) & 1) != 0)
        return 98;
    memcpy(to, from, from_length);
    memcpy(static_cast<uint8_t *>(to) + from_length, from, from_length);
    *length = 2 * from_length;
    return 0;
}

static rtslib_cookie *connect_once(void)
{
    count_blocks();
    logging_set_mode(LOGGING_MODE_DAEMON);
    logging_register_logfunc([](int, const char *, const char *const *, const char *, va_list) {});
    rtsock_set_kernel(&random_kernel);
    rtslib_cookie *cookie = rtslib_cookie_create();
    rtslib_lib_error_register(cookie, 0, [](rtslib_cookie *, uintptr_t, int, const char *) {});
    cookie = rtslib_set_defaults(cookie, 3);
    must(cookie != nullptr);
    return cookie;
}

/* What is left of the input; zeroes behind its end. */
struct source {
    const uint8_t *at;
    size_t left;

    uint32_t octet() { return left != 0 ? (left--, *at++) : 0; }
    uint16_t half() { return uint16_t(octet() | octet() << 8); }
    uint32_t word() { return half() | uint32_t(half()) << 16; }
};

static std::vector<uint8_t> enveloped(const source &body, bool idr)
{
    const uint32_t magic = idr ? IDL_MAGIC_IDR : IDL_MAGIC_TLV;
    const uint32_t envelope[] = { magic, uint32_t(body.left), NUMBER };
    const auto *front = reinterpret_cast<const uint8_t *>(envelope);
    std::vector<uint8_t> octets(front, front + sizeof envelope);
    octets.insert(octets.end(), body.at, body.at + body.left);
    return octets;
}

/* Everything that the message and its mask lead to is read. */
static void read_through(rtslib_cookie *cookie, gencfg_msg *message, void *mask)
{
    void *octets;
    uint32_t length;
    message->rts_hdr.rtsh_type = NUMBER;
    for (uint32_t i = 0; i <= message->peers_len; i++)
        must(rtslib_gencfg_get_peer_index(message, i) <= UINT16_MAX);
    (void)rtslib_gencfg_get_peer_info(message);
    // A message whose lengths no block can have is one that no encoder takes either.
    if (rtslib_msg_idl_encode(cookie, message, mask, &octets, &length) == 0)
        rtslib_msg_free(cookie, octets);
}

static void arrive(rtslib_cookie *cookie, uint8_t choice, const source &body)
{
    void *message = nullptr;
    std::vector<uint8_t> octets = enveloped(body, (choice & IDR) != 0);
    if (rtslib_msg_idl_decode(cookie, octets.data(), octets.size(), &message, nullptr) == 0 && message != nullptr) {
        int result = rtslib_gencfg_async(cookie, &message);
        must(result == 0 || static_cast<gencfg_msg *>(message)->blob_len == 0);
        read_through(cookie, static_cast<gencfg_msg *>(message), nullptr);
    }
    rtslib_msg_idl_release(cookie, message);
}

static void fill(gencfg_t *gencfg, source *input, std::vector<uint8_t> *blob)
{
    gencfg->major = input->half();
    gencfg->flags = input->word();
    gencfg->key_len = uint16_t(input->octet());
    gencfg->key = gencfg->key_len != 0 ? blob->data() : nullptr;
    gencfg->blob = blob->data();
    gencfg->blob_len = uint32_t(blob->size());
    name_value = int(input->octet() % 2);
    uint32_t peers = input->octet();
    for (must(rtslib_gencfg_create_peerinfo(gencfg, peers % (GENCFG_PEERS_MAX + 1)) == 0); peers > 0; peers--) {
        gencfg_peerinfo_t one = {};
        one.peer_type = uint8_t(input->octet());
        one.peer_choice = input->octet() % 4;
        one.peer_index = input->half();
        uint8_t before = gencfg->peer_count;
        must(rtslib_gencfg_add_peerinfo(gencfg, &one) == 0 || gencfg->peer_count == before);
        (void)rtslib_gencfg_is_peer_present_in_peerinfo(gencfg, one.peer_type, one.peer_index);
    }
    must(gencfg->peer_count <= gencfg->peer_max);
    uint32_t records = input->octet();
    if (records != 0)
        must(rtslib_gencfg_create_depend(gencfg) == 0);
    for (; records > 0; records--) {
        uint32_t length = input->half();
        (void)rtslib_gencfg_add_depinfo(gencfg, uint8_t(input->octet()), 1, 2, std::min<uint32_t>(length, 8192),
                                        blob->data(), 3);
    }
}

static void ask(rtslib_cookie *cookie, uint8_t choice, source input)
{
    uint8_t operation = uint8_t(input.octet() % 12);
    std::vector<uint8_t> blob(8192 + input.word() % 0x80000, uint8_t(input.octet()));
    gencfg_t gencfg = {};
    fill(&gencfg, &input, &blob);
    gencfg_t asked = gencfg;
    answer = enveloped(input, (choice & IDR) != 0);
    void *message = nullptr;
    void *mask = nullptr;
    (void)rtslib_gencfg_get(cookie, &gencfg, operation, &message, (choice & MASK) != 0 ? &mask : nullptr);
    must(message != nullptr || (gencfg.blob == blob.data() && gencfg.blob_len == blob.size()));
    if (message != nullptr && gencfg.peers != asked.peers)
        must(rtslib_gencfg_peer_info_compare(gencfg.peers, gencfg.peer_count, gencfg.peers, gencfg.peer_count) <= 1);
    if (message != nullptr)
        read_through(cookie, static_cast<gencfg_msg *>(message), mask);
    rtslib_msg_idl_release(cookie, message);
    rtslib_gencfg_delete_peerinfo(&asked);
    rtslib_gencfg_delete_depend(&asked);
    while (rtsock_read(cookie->socket, blob.data(), blob.size()) >= 0)
        continue;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static rtslib_cookie *cookie = connect_once();
    if (size == 0)
        return 0;
    bool none = (data[0] & NO_COMPRESSION) != 0;
    cookie->blob_compress = none ? nullptr : squeeze;
    cookie->blob_decompress = none ? nullptr : expand;
    int before = block_count;
    if ((data[0] & EVENT) != 0)
        arrive(cookie, data[0], { data + 1, size - 1 });
    else
        ask(cookie, data[0], { data + 1, size - 1 });
    must(block_count == before);
    return 0;
}
