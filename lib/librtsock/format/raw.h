/*
 * Raw messages, read as far as they go. Internal to the rendering.
 */
#pragma once

#include "lib/librtsock/rtslib_raw.h"

#include <string.h>

#include <algorithm>

/* The message in its layout, with 0 for what is missing of it. The header is always there. */
template <typename layout> layout format_raw_of(const void *message)
{
    layout whole = {};
    struct rts_raw_hdr header;
    memcpy(&header, message, sizeof header);
    size_t there = std::clamp<size_t>(header.msglen, sizeof header, sizeof whole);
    memcpy(&whole, message, there);
    return whole;
}
