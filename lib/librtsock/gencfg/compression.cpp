/*
 * Blobs on their way out are compressed, and on their way in decompressed, by two functions that the client gives. The
 * library knows nothing of how they do it.
 *
 * A compressed copy takes the blob's place in the request for the time of one operation. It may be no larger than the
 * blob, so what does not shrink fails. A decompressed blob cannot take its place in a decoded message, which is one
 * block: the whole message is copied to a larger one. A function that says it wrote more than it had room for is not
 * believed: that is a failure with 22.
 */
#include "lib/librtsock/gencfg/gencfg.h"
#include "platform/target.h"

#include <algorithm>

namespace {

void report_uninitialized(struct rtslib_cookie *cookie)
{
    rtslib_err(cookie, RTSLIB_ERROR, "Compression was not initialized for rtslib\n");
}

/* What a function's success is worth. */
int judge(int result, uint32_t said, uint32_t room)
{
    return result == 0 && said > room ? int(TARGET_EINVAL) : result;
}

/* 0 with the copy's blob filled, or why not; the copy is the caller's in any case. */
int decompress_into(struct rtslib_cookie *cookie, struct gencfg_msg *copy, const struct gencfg_msg *message)
{
    int result = cookie->blob_decompress(copy->blob, &copy->blob_len, message->blob, message->blob_len);
    result = judge(result, copy->blob_len, GENCFG_BLOB_DECOMPRESSED);
    rtslib_err(cookie, RTSLIB_DEBUG, "Gencfg blob was decompressed from %ld to %ld bytes (rc %d)\n",
               long(message->blob_len), long(copy->blob_len), result);
    if (result != 0)
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to decompress blob (rc %d)\n", result);
    return result;
}

int decompress(struct rtslib_cookie *cookie, struct gencfg_msg **message, void **mask)
{
    if (cookie == nullptr || cookie->blob_decompress == nullptr) {
        report_uninitialized(cookie);
        return TARGET_EOPNOTSUPP;
    }
    void *copied_mask = mask != nullptr ? *mask : nullptr;
    struct gencfg_msg *copy = gencfg_duplicate(cookie, *message, &copied_mask);
    if (copy == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to duplicate msg for decompressed blob\n");
        return TARGET_ENOMEM;
    }
    int result = decompress_into(cookie, copy, *message);
    if (result != 0) {
        rtslib_msg_free(cookie, copy);
        return result;
    }
    rtslib_msg_free(cookie, *message);
    *message = copy;
    if (mask != nullptr)
        *mask = copied_mask;
    return 0;
}

}   // namespace

int gencfg_compress(struct rtslib_cookie *cookie, gencfg_t *gencfg)
{
    if (cookie == nullptr || cookie->blob_compress == nullptr) {
        report_uninitialized(cookie);
        return TARGET_EOPNOTSUPP;
    }
    // Kept on purpose: a request without a blob has its nothing compressed, and sends what comes of that.
    uint32_t room = gencfg->blob != nullptr ? gencfg->blob_len : 0;
    void *copy = rtslib_malloc(MEMID_RTSLIB_READ_BUFFER, std::max<size_t>(room, 1));
    if (copy == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to allocate memory for compressed blob\n");
        return TARGET_ENOMEM;
    }
    uint32_t length = room;
    int result = cookie->blob_compress(copy, &length, gencfg->blob, room);
    result = judge(result, length, room);
    if (result != 0) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to compress gencfg blob of %d bytes (rc %d)\n", int(room), result);
        rtslib_free(MEMID_RTSLIB_READ_BUFFER, copy);
        return result;
    }
    rtslib_err(cookie, RTSLIB_DEBUG, "Gencfg blob was compressed from %ld to %ld bytes (rc %d)\n", long(room),
               long(length), result);
    gencfg->blob = copy;
    gencfg->blob_len = length;
    return 0;
}

int gencfg_decompress(struct rtslib_cookie *cookie, struct gencfg_msg **message, void **mask)
{
    int result = decompress(cookie, message, mask);
    // Nobody takes the compressed octets for the blob.
    if (result != 0)
        (*message)->blob_len = 0;
    return result;
}

int rtslib_gencfg_async(struct rtslib_cookie *cookie, void **message)
{
    if (message == nullptr || *message == nullptr)
        return TARGET_EINVAL;
    auto *gencfg = static_cast<struct gencfg_msg *>(*message);
    // Kept on purpose: an event that says compressed and has no blob is decompressed too, unlike a reply.
    if ((gencfg->flags & GENCFG_FLAG_COMPRESSED) == 0)
        return 0;
    int result = gencfg_decompress(cookie, &gencfg, nullptr);
    *message = gencfg;
    return result;
}

void rtslib_init_blob_compression(struct rtslib_cookie *cookie, rtslib_compress_func compress,
                                  rtslib_compress_func decompress)
{
    if (cookie == nullptr || compress == nullptr || decompress == nullptr)
        return;
    cookie->blob_compress = compress;
    cookie->blob_decompress = decompress;
}
