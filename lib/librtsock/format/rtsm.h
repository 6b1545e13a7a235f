/*
 * Statistics of the socket in the table's form. Internal to the rendering.
 */
#pragma once

#include "lib/librtsock/format/out.h"

/* The rows that a message of type 26 makes: a title for the first message type, a row unless all packet counts are 0,
 * without a line end. */
void format_put_socket_stats(struct format_out *out, const void *message);
