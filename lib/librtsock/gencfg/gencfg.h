/*
 * What the parts of the blob operations share. Internal to the library.
 */
#pragma once

#include "lib/librtsock/rtslib_gencfg.h"

extern "C" {

/* --- the mask form of peers ------------------------------------------------------------------------------------- */

enum { GENCFG_MASK_GROUPS = 48, GENCFG_MASK_SLOTS = 8 };

/* True for a bit that is set; false for one that is not, or is lost or beyond the mask. */
bool gencfg_mask_has(const uint32_t *mask, uint8_t peer_class, uint16_t index);
/* False, and the mask as before, for an index beyond it. What the mask has no place for by design is left out. */
[[nodiscard]] bool gencfg_mask_set(uint32_t *mask, uint8_t peer_class, uint16_t index);

/* --- compression ------------------------------------------------------------------------------------------------ */

/* 0 with a copy, memory id RTSLIB_READ_BUFFER, in place as gencfg's blob; otherwise gencfg is as before. */
[[nodiscard]] int gencfg_compress(struct rtslib_cookie *cookie, gencfg_t *gencfg);
/* Replaces *message, and *mask if there is one, by a copy whose blob is decompressed. On failure both stay, the
 * message's blob_len being 0. mask may be null. */
[[nodiscard]] int gencfg_decompress(struct rtslib_cookie *cookie, struct gencfg_msg **message, void **mask);
/* A copy of message and *mask (null: no mask) in one block, in which nothing points to the old one. Its blob is an
 * empty area of GENCFG_BLOB_DECOMPRESSED octets, and blob_len that number; *mask is then the copy. Null, and *mask as
 * before, without memory, which is reported. */
[[nodiscard]] struct gencfg_msg *gencfg_duplicate(struct rtslib_cookie *cookie, const struct gencfg_msg *message,
                                                  void **mask);

}   // extern "C"
