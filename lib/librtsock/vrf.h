/*
 * Routing instances by name: their table's index, and ordinary sockets bound to them.
 *
 * An instance is named by a text and, optionally, a logical system: "LOGICAL/INSTANCE". Families are the target's (2,
 * 28, 7). Each call opens a connection to the kernel and ends it; nothing is remembered, so a change shows at once.
 * Failures are -1 with errno: EPROTONOSUPPORT for another family or a socket that has none, EINVAL for a null name, the
 * kernel's error for an unknown one. Under the default error sink a failed connection may end the process.
 */
#pragma once

#include <stdint.h>

extern "C" {

/* Makes the look-ups of a socket use the instance's table. 0 or -1. */
int vrf_setsocketbyvrfname(int socket, const char *instance, const char *logical_system);
/* Index of the instance's table, 0 to 65535, or -1. */
int32_t vrf_getindexbyvrfname(const char *instance, const char *logical_system, int family);
/* Its tenant id, 0 to 65535, or -1. */
int32_t vrf_gettenantidbyvrfname(const char *instance, const char *logical_system, int family);
/* Binds a socket to the table of that index. 0 or -1: EINVAL for an index of -1. */
int _vrf_setsocket(int socket, int32_t table);

}   // extern "C"
