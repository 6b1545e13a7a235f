/*
 * What the profiles share: their trace lines, and a piggyback as text.
 */
#pragma once

#include <stdint.h>
#include <string_view>

/* A line of the profiles' class in the trace file, if that is wanted. */
[[gnu::format(printf, 1, 2)]] void profile_trace(const char *format, ...);

/* The text of a piggyback: up to its first zero octet, or all of the block; absent if data is null. The block's, or
 * absent's, for as long as that stands. absent must not be null. */
std::string_view piggyback_text(const char *data, int32_t length, const char *absent);

/* length and octets of a view, for "%.*s" */
#define VIEW(view) static_cast<int>((view).size()), (view).data()
