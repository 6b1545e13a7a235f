/*
 * Fuzz target: a kernel that sends any octets unasked, by way of the event loop.
 *
 * Four octets come first: bits that choose how the loop reads and what is registered, what a handler does meanwhile, at
 * which of its calls, and how long a datagram is. The sink returns, so that every fatal report is gone past. Whatever
 * handlers do to what they run in, all that was taken is given back when the cookie is closed.
 */
#include "fuzz/lib/librtsock/lib_fuzz.h"
#include "lib/librtsock/rtslib_async.h"
#include "lib/librtsock/rtslib_gencfg.h"
#include "lib/librtsock/rtslib_unnum.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

static constexpr uint32_t TYPES = RTSLIB_TYPES;

static uint8_t deed, deed_at, calls;   // what a handler does, at which call
static bool is_closed;
static rtslib_async_reg *pairs;        // of the subtype table, which end with nobody

static const rtsock_kernel sending_kernel =
    kernel_that([](void *, const void *, size_t length) { return ssize_t(length); });

static int expand(void *to, uint32_t *length, const void *from, uint32_t from_length)
{
    *length = std::min(*length, from_length);
    memcpy(to, from, *length);
    return int(*length & 1);
}

static void do_deed(rtslib_cookie *cookie)
{
    switch (deed % 8) {
    case 0: rtslib_rtm_async_unregister(cookie); break;
    case 1: rtslib_destroy_async_context(cookie); break;
    case 2: is_closed = true, rtslib_close(cookie); break;
    case 3: rtslib_set_buffers(cookie, RTSLIB_BUFFER_SIZE, deed); break;
    case 4: rtslib_async_event_process(cookie); break;
    case 5: rtslib_destroy_async_context(cookie), (void)rtslib_set_async_context(cookie, nullptr); break;
    default: break;
    }
}

static void handler(rtslib_cookie *cookie, uintptr_t type, void *message, void *mask)
{
    rts_raw_hdr header;
    memcpy(&header, message, sizeof header);
    must(mask == nullptr && header.type == type);
    rtslib_msg_idl_release(cookie, message);
    if (calls++ == deed_at)
        do_deed(cookie);
}

static rtslib_cookie *open_with(uint8_t bits)
{
    rtslib_cookie *cookie = rtslib_cookie_create();
    rtslib_lib_error_register(cookie, 0, [](rtslib_cookie *, uintptr_t, int, const char *) {});
    cookie = rtslib_set_defaults(cookie, 3);
    must(cookie != nullptr && rtslib_set_async_context(cookie, nullptr) == 0);
    if ((bits & 1) != 0)
        must(rtslib_set_async_mode(cookie, RTSLIB_ASYNC_ON | RTSLIB_ASYNC_ONE_MESSAGE) == 0);
    if ((bits & 2) != 0)
        rtslib_init_blob_compression(cookie, expand, expand);
    for (uint32_t type = 0; type < TYPES; type++) {
        if (type != 85 && (bits & 4 << type % 4) != 0)
            must(rtslib_setup_async_registration(cookie, type, 0, 0, type, handler) == 0);
    }
    if ((bits & 64) != 0) {
        int first = peer;   // the second connection is not the one to send to
        must(rtslib_unnum_ifa_register_callback(cookie, [](uintptr_t value, uint8_t, uint8_t, const void *address,
                                                           uint32_t length, uint16_t) {
            must(value == 5 && (address != nullptr) == (length != 0));
        }) == 0);
        must(rtslib_unnum_ifa_register_interest(cookie, 1, 0, 2, 1, 5) == 0);
        peer = first;
    }
    must(rtslib_ifstate_eochain_register(cookie, 85, handler) == 0);
    pairs = reinterpret_cast<rtslib_async_subtypes *>(cookie->async_info->handlers[85]->context)->entries;
    return cookie;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 4)
        return 0;
    count_blocks();
    rtsock_set_kernel(&sending_kernel);
    rtslib_cookie *cookie = open_with(data[0]);
    deed = data[1], deed_at = data[2], calls = 0, is_closed = false;
    cookie->seq = 0;
    size_t cut = data[3] != 0 ? size_t(data[3]) * 4 : size;
    for (size_t at = 4; at < size; at += cut)
        (void)send(peer, data + at, std::min(cut, size - at), MSG_NOSIGNAL | MSG_DONTWAIT);
    for (int wake_ups = 0; wake_ups < 3 && !is_closed && cookie->async_info != nullptr; wake_ups++) {
        int result = rtslib_async_event_process(cookie);
        must(result == 0 || (result == -1 && errno != 0));
    }
    if (!is_closed)
        rtslib_close(cookie);
    rtslib_free(MEMID_RTSLIB_ASYNC_REG, pairs);
    must(block_count == 0);
    return 0;
}
