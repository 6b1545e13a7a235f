/*
 * A message that has room for another blob.
 *
 * A decoded message is one block whose parts point into it, optional items and presence maps with theirs included. The
 * copy is one block too, the message at its start, so that freeing the message frees all. The old blob is left behind:
 * in its place stands an area that is large enough for any decompressed one, as the size is told nowhere.
 */
#include "lib/librtsock/gencfg/gencfg.h"
#include "lib/librtsock/gencfg/record_copy.h"

struct gencfg_msg *gencfg_duplicate(struct rtslib_cookie *cookie, const struct gencfg_msg *message, void **mask)
{
    struct gencfg_msg source = *message;
    source.blob = nullptr;
    source.blob_len = 0;
    void *map_copy;
    size_t octets = record_copy(&idl_type_gencfg_msg, &source, *mask, nullptr, &map_copy);
    auto *block = static_cast<uint8_t *>(rtslib_size_alloc(cookie, octets + GENCFG_BLOB_DECOMPRESSED));
    if (block == nullptr) {
        rtslib_err(cookie, RTSLIB_ERROR, "Failed to allocate memory for duplicated gencfg_msg\n");
        return nullptr;
    }
    (void)record_copy(&idl_type_gencfg_msg, &source, *mask, block, &map_copy);
    auto *copy = reinterpret_cast<struct gencfg_msg *>(block);
    copy->blob = block + octets;
    copy->blob_len = GENCFG_BLOB_DECOMPRESSED;
    *mask = map_copy;
    return copy;
}
