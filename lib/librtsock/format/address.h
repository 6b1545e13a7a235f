/*
 * Prefixes and addresses at the cursor. Internal to the rendering.
 */
#pragma once

#include "lib/librtsock/format/out.h"

extern "C" {

/* As rtslib_format_prefix and rtslib_format_sockaddr write, of octets that have a length: what is missing reads as 0.
 * Null has no octets. */
void format_put_prefix(struct format_out *out, const uint8_t *octets, size_t length, uint32_t bits, int family,
                       int form);
void format_put_sockaddr(struct format_out *out, const uint8_t *octets, size_t length, bool names);

}   // extern "C"
