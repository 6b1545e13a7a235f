/*
 * Names and indexes of interfaces, for programs that have no cookie of their own.
 *
 * A name is a device with a unit, "ge-0/0/0.5"; without a unit it is unit 0. Each function makes a connection and ends
 * it, unless it says otherwise. The result is -1, with errno, on failure: EINVAL for a null, empty or too long name,
 * the host's number of what the kernel answered, EIO if it answered nothing.
 *
 * The library also takes the place of the C library's if_nametoindex, if_indextoname, if_nameindex and if_freenameindex
 * (declared in <net/if.h>), in the whole program, host libraries included: there they are about logical interfaces of
 * the routing socket. They share one connection, made at first use and kept, and are for one thread.
 *
 *   if_nametoindex    index of the logical interface of that name, or 0 with ENXIO
 *   if_indextoname    writes "device.unit" into IFL_NAME_SIZE octets - mind that this is more than IF_NAMESIZE - and
 *                     gives them back, or null with ENXIO
 *   if_nameindex      index and device name of all logical interfaces, ended by an entry of zeroes, or null with errno.
 *                     One block: the entries, which are the host's struct if_nameindex (16 octets), and behind them
 *                     IFL_NAME_SIZE octets for each name
 *   if_freenameindex  frees that block
 */
#pragma once

#include <net/if.h>
#include <stddef.h>
#include <stdint.h>

extern "C" {

enum {
    IFL_NAME_SIZE = 60,     // octets of a name with its terminator
    IFL_SUBSET_BITS = 16,
};

/* Index, tenant or logical router of the interface. */
int32_t ifl_getindexbyifname(const char *name);
int32_t ifl_getindexbysnmpifindex(uint32_t snmp_index);
int32_t ifl_gettenantidbyifname(const char *name);
int32_t ifl_getlrindexbyifindex(uint32_t index);
int32_t ifl_getlrindexbyifname(const char *name);
/* The same on a connection that is kept for the next call, until a lookup fails. An empty name is asked for. For one
 * thread. */
int32_t ifl_getindexbyifname_cachesocket(const char *name);

/* "device.unit", cut to size octets with the terminator. 0 or -1. */
int ifl_getnamebyifindex(uint32_t index, char *buffer, size_t size);
int ifl_getnamebysnmpifindex(uint32_t snmp_index, char *buffer, size_t size);
/* The device at the bottom of the interfaces that this one stands on. 0 or -1; for index 0 it is 0 and the buffer stays
 * as it was. ELOOP if there is no bottom. */
int ifl_get_underlying_device_byifindex(uint32_t index, char *buffer, size_t size);
/* Splits a name at its last dot, without asking the kernel. *unit, if asked for, is -1 where there is no dot. 0, or -1
 * with EINVAL if size octets do not hold the name with its terminator. */
int ifl_get_device_name(const char *name, char *buffer, size_t size, int32_t *unit);

/* Pins what an ordinary IPv4 or IPv6 socket sends to the interface. 0 or -1, with EPROTONOSUPPORT for other sockets. */
int ifl_setsendifbyifindex(int socket, uint32_t index);
int ifl_setsendifbyifname(int socket, const char *name);
int ifl_setsendifbysnmpifindex(int socket, uint32_t snmp_index);

/* One bit, 0 to 15, of the map of input interfaces of subset forwarding. 0 or an error number of the target
 * (platform/target.h), 22 for another bit. *value is 0 or 1, and written on success only. */
int ifl_set_subset_iif(uint32_t index, uint8_t bit, uint8_t value);
int ifl_get_subset_iif(uint32_t index, uint8_t bit, uint8_t *value);

}   // extern "C"
