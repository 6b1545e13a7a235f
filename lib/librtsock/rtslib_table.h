/*
 * Routing tables: message type 1, struct rtb_msg.
 *
 * Names are sent with their terminator, cut to RTSLIB_NAME_MAX octets with it, without a report; a null one is not
 * sent, unless a function says otherwise. Results are 0 or an error number: 22 for a null cookie or out message, 12
 * without memory (nothing was sent then), the error of writing or reading, or the kernel's. An out message is the
 * caller's until rtslib_msg_idl_release, and null on failure; mask as in rtslib_msg_idl_decode.
 */
#pragma once

#include "lib/librtsock/rtslib_io.h"

extern "C" {

enum { RTSLIB_NAME_MAX = 128 };

int rtslib_rtbm_get_by_name(struct rtslib_cookie *cookie, uint8_t family, const char *name, void **message,
                            void **mask);
/* operation: RTM_OP_GET, or RTM_OP_GETNEXT for the table behind that index. */
int rtslib_rtbm_get_by_index(struct rtslib_cookie *cookie, uint8_t family, uint16_t index, uint8_t operation,
                             void **message, void **mask);

/* No replies. A name of null makes a table named "default" that has no name of its own. flag is the header's. */
int rtslib_rtbm_add(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family, uint8_t flag);
int rtslib_rtbm_add_prflag(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family, uint8_t flag,
                           uint32_t prflags);
int rtslib_rtbm_add_lr(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family,
                       const char *lrname, uint8_t lrid, uint8_t flag, uint32_t prflags);
int rtslib_rtbm_update(struct rtslib_cookie *cookie, uint16_t index, uint8_t family, uint32_t aux_word1,
                       const char *name, uint32_t aux_word2, uint16_t aux_half, uint8_t operation);
int rtslib_rtbm_update_svcs_chan(struct rtslib_cookie *cookie, uint16_t index, uint8_t family, uint32_t aux_word1,
                                 const char *name, uint32_t aux_word2, uint16_t aux_half, uint16_t channel,
                                 uint32_t prflags);

}   // extern "C"
