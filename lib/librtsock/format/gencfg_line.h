/*
 * The line of a configuration blob, message type 72. Internal to the rendering.
 */
#pragma once

#include "lib/librtsock/format/line.h"

extern const struct format_line format_gencfg_line;
