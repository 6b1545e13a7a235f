/*
 * The Linux kernel behind the routing socket, by way of rtnetlink. docs/linux.md has what maps to what; what Linux has
 * no notion of answers EOPNOTSUPP.
 *
 * A routing instance is a VRF device or a table named in the host's list of tables; its index is the number of the
 * Linux table.
 */
#pragma once

#include "platform/rtsock/rtsock.h"

extern "C" {

/* For rtsock_set_kernel. */
extern const struct rtsock_kernel rtsock_linux;

}   // extern "C"
