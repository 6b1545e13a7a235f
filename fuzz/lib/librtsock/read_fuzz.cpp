/*
 * Fuzz target: a kernel that answers a request with any octets, by way of every read of the library.
 *
 * The first octet chooses the road; in bulk the second says how many entries there are and where the answer is cut into
 * two datagrams. The sink returns, so that every fatal report is gone past. What a road takes it gives back, and a
 * decode does not start over more often than the input explains.
 */
#include "fuzz/lib/librtsock/lib_fuzz.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* A decode needs at most so much for each octet, and so much in any case. */
static constexpr size_t OCTETS_FOR_ONE = 256, OCTETS_AT_ANY_RATE = 65536, GROWTH = 1024;
static constexpr uint32_t BUFFER = 0x80000;

static size_t retries, cut;
static const uint8_t *answer;
static size_t answer_size;

static const rtsock_kernel random_kernel = kernel_that([](void *, const void *, size_t length) -> ssize_t {
    size_t first = std::min(cut, answer_size);
    if (first != 0)
        (void)send(peer, answer, first, MSG_NOSIGNAL);
    if (first != answer_size)
        (void)send(peer, answer + first, answer_size - first, MSG_NOSIGNAL);
    return ssize_t(length);
});

static rtslib_cookie *connect_once(void)
{
    count_blocks();
    rtsock_set_kernel(&random_kernel);
    rtslib_cookie *cookie = rtslib_cookie_create();
    rtslib_lib_error_register(cookie, 0, [](rtslib_cookie *, uintptr_t, int, const char *text) {
        retries += strstr(text, "Growing") != nullptr ? 1 : 0;
    });
    cookie = rtslib_set_defaults(cookie, 3);
    must(cookie != nullptr && rtslib_set_sync_mode(cookie, RTS_SYNC_BULK_ENABLE) == 0);
    return cookie;
}

static void ask_one(rtslib_cookie *cookie, int road)
{
    alignas(16) static uint8_t arena[4096];
    void *message = nullptr, *mask = nullptr;
    rtb_msg request = {};
    request.rts_hdr.rtsh_type = 1;
    must(rtslib_msg_write_idl(cookie, &request, nullptr) == 0);
    switch (road) {
    case 0: rtslib_msg_read_idl(cookie, &message, &mask); break;
    case 1: rtslib_long_msg_read_idl(cookie, &message, &mask); break;
    case 2: rtslib_msg_read_idl_pa(cookie, &message, nullptr, arena, sizeof arena); break;
    case 3: rtslib_long_msg_read_idl_pa(cookie, &message, &mask, arena, sizeof arena); break;
    default: rtslib_rtbm_get_by_name(cookie, 2, "blue", &message, &mask); break;
    }
    must(message == nullptr || message != arena || road == 2 || road == 3);
    if (message != arena)
        rtslib_msg_idl_release(cookie, message);
}

static void ask_many(rtslib_cookie *cookie, size_t count)
{
    rtb_msg request = {};
    request.rts_hdr.rtsh_type = 1;
    rtslib_iov entries[8] = {};
    void *masks[8] = {};
    for (rtslib_iov &e : entries) {
        e.msg = &request;
        e.reply = &e.reply;
    }
    must(rtslib_msg_writev_idl(cookie, uint32_t(count), entries, masks) == 0);
    for (rtslib_iov &e : entries) {
        if (e.reply != &e.reply)
            rtslib_msg_idl_release(cookie, e.reply);
    }
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static rtslib_cookie *cookie = connect_once();
    constexpr uint8_t roads = 6, bulk = 5;
    if (size < 2)
        return 0;
    cookie->seq = data[1];   // that of a raw answer is then near
    cut = data[0] % roads == bulk ? size_t(data[1] / 8) * 8 : size;
    answer = data + 2;
    answer_size = size - 2;
    retries = 0;
    int before = block_count;
    if (data[0] % roads == bulk)
        ask_many(cookie, data[1] % 8 + 1);
    else
        ask_one(cookie, data[0] % roads);
    must(block_count == before);
    must(retries <= 8 * (OCTETS_FOR_ONE * size + OCTETS_AT_ANY_RATE) / GROWTH);
    while (rtsock_read(cookie->socket, cookie->rbuf_data, BUFFER) >= 0)
        continue;
    return 0;
}
