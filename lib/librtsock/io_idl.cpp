/*
 * Single messages in encoded form: encode and write, read and decode.
 *
 * The four reads differ in where the raw octets land, where the message is decoded to, and in what becomes of a
 * decoder's failure; one row of a table each would hide that, so each stands for itself on two shared steps.
 */
#include "lib/librtsock/rtslib_io.h"
#include "platform/target.h"

namespace {

/* Negative codes have no number of their own. */
int positive(int error)
{
    return error < 0 ? int(TARGET_EINVAL) : error;
}

}   // namespace

int rtslib_msg_write_idl(struct rtslib_cookie *cookie, const void *message, const void *mask)
{
    void *octets;
    uint32_t length;
    int result = rtslib_msg_idl_encode(cookie, message, mask, &octets, &length);
    if (result != 0)
        return result;
    result = rtslib_write(cookie, octets, length);
    rtslib_msg_free(cookie, octets);
    return result;
}

int rtslib_msg_read_idl(struct rtslib_cookie *cookie, void **message, void **mask)
{
    void *octets = rtslib_msg_malloc(cookie);
    if (octets == nullptr)
        return TARGET_ENOMEM;
    uint32_t length;
    int result = rtslib_msg_read(cookie, octets, &length);
    if (result == 0)
        result = positive(rtslib_msg_idl_decode(cookie, octets, length, message, mask));
    rtslib_msg_free(cookie, octets);
    return result;
}

int rtslib_msg_read_idl_pa(struct rtslib_cookie *cookie, void **message, void **mask, void *arena, size_t arena_size)
{
    void *octets = rtslib_msg_malloc(cookie);
    if (octets == nullptr)
        return TARGET_ENOMEM;
    uint32_t length;
    int result = rtslib_msg_read(cookie, octets, &length);
    if (result == 0)
        result = positive(rtslib_msg_idl_decode_pa(cookie, octets, length, message, mask, arena, arena_size));
    rtslib_msg_free(cookie, octets);
    return result;
}

int rtslib_long_msg_read_idl(struct rtslib_cookie *cookie, void **message, void **mask)
{
    void *octets;
    uint32_t length;
    int result = rtslib_long_msg_read(cookie, &octets, &length);
    if (result == 0)
        result = rtslib_msg_idl_decode(cookie, octets, length, message, mask);
    rtslib_msg_free(cookie, octets);
    return result;
}

int rtslib_long_msg_read_idl_pa(struct rtslib_cookie *cookie, void **message, void **mask, void *arena,
                                size_t arena_size)
{
    void *octets;
    uint32_t length;
    int result = rtslib_long_msg_read(cookie, &octets, &length);
    if (result == 0) {
        // Kept on purpose: a message that is broken, or too large for the arena, is dropped with 0 as the result.
        int error = rtslib_msg_idl_decode_pa(cookie, octets, length, message, mask, arena, arena_size);
        result = error < 0 ? int(TARGET_EINVAL) : 0;
    }
    rtslib_msg_free(cookie, octets);
    return result;
}
