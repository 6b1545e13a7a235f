/*
 * Interfaces in four levels: the device (ifd: message type 5, struct ifdev_msg), the logical unit on it (ifl: 6,
 * ifl_msg), the address family on that (iff: 7, iff_msg) and the address (ifa: 8, ifa_msg); and their statistics, which
 * are raw (rtslib_raw.h).
 *
 * Results are 0 or an error number: 22 for a null cookie or out message, 12 without memory or room in the message
 * (nothing was sent then), the error of writing or reading, or the kernel's. An out message is the caller's until
 * rtslib_msg_idl_release, and null on failure; mask as in rtslib_msg_idl_decode. Operations of gets are RTM_OP_GET, or
 * RTM_OP_GETNEXT for what stands behind; a get reads a reply whatever its operation is.
 *
 * Names are sent with their terminator, cut to IFL_NAME_SIZE octets with it, without a report; a null one is not sent.
 * Addresses of devices and gateways are sockaddrs in the target's form (length, family, ...), null or of length 0 for
 * none. Prefixes are octets in network order, and a length in bits; (bits + 7) / 8 octets are read. One without bits is
 * not sent; for addresses, 22 for bits without octets. Arguments named aux_* are only carried. What is called change
 * says which parts of the object a change is about.
 */
#pragma once

#include "lib/librtsock/ifl.h"
#include "lib/librtsock/rtslib_list.h"

extern "C" {

/* --- devices --------------------------------------------------------------------------------------------------- */

int rtslib_ifdm_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t operation, void **message,
                             void **mask);
int rtslib_ifdm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t operation, void **message,
                            void **mask);
/* RTM_OP_GET, else 22. */
int rtslib_ifdm_get_by_snmp_index(struct rtslib_cookie *cookie, uint32_t snmp_index, uint8_t operation, void **message,
                                  void **mask);
/* All devices, or all logical interfaces, in one read that does not use the cookie's socket. The list is the caller's
 * until rtslib_msg_list_free, and null on failure: 22 also if there is none at all, 45 if the kernel answers raw. */
int rtslib_ifdm_get_all(struct rtslib_cookie *cookie, struct rtslib_msg_list **list);
int rtslib_iflm_get_all(struct rtslib_cookie *cookie, struct rtslib_msg_list **list);
/* Behind both. */
enum rtslib_ifxm_kind { RTSLIB_IFXM_DEVICES = 1, RTSLIB_IFXM_UNITS = 2 };
int rtslib_ifxm_get_all(struct rtslib_cookie *cookie, int kind, struct rtslib_msg_list **list);

/* A stream of options, as a client passes it: elements of a 16-bit type, a 16-bit length that counts these four octets
 * and the value, in host order, each element beginning at a multiple of 4. An element of length 0 ends the stream
 * before its length does. Elements with a number that the catalogue of items has for devices become that item; all
 * others go together, heads included, into one last item, and so does one that does not fit its item. 22 for a stream
 * that is no run of whole elements; a null one is none.
 *
 * A client may convert the stream itself: message begins a buffer of RTSLIB_MSG_MAX octets, *cursor is where its free
 * room begins; items go in by rtsm_info_user_add. Stream and length come as they were given, null too. 0, or an error
 * number: nothing is sent then, and a negative one becomes 22. */
typedef int (*rtslib_tlv_converter)(void *message, uint8_t **cursor, const void *stream, uint32_t length);

/* No replies. */
int rtslib_ifdm_add(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint16_t aux_half,
                    const void *address, const void *hw_address, const void *alt_address);
int rtslib_ifdm_add_with_tlvs(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint16_t aux_half,
                              uint32_t aux_word1, uint32_t aux_word2, const void *address, const void *hw_address,
                              const void *alt_address, const void *stream, uint32_t length);
int rtslib_ifdm_change_addr(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, const void *address,
                            const void *hw_address);
int rtslib_ifdm_change_flags(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, uint32_t flags);
int rtslib_ifdm_change_tlvs(struct rtslib_cookie *cookie, uint16_t index, uint32_t change, const void *stream,
                            uint32_t length);
/* converter null: the library's own. */
int rtslib_ifdm_pointchange(struct rtslib_cookie *cookie, uint16_t index, uint32_t change,
                            rtslib_tlv_converter converter, const void *stream, uint32_t length);

/* --- logical interfaces ---------------------------------------------------------------------------------------- */

int rtslib_iflm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t operation, void **message,
                             void **mask);
int rtslib_iflm_get_by_name(struct rtslib_cookie *cookie, const char *device, uint32_t unit, uint8_t operation,
                            void **message, void **mask);
int rtslib_iflm_get_by_device(struct rtslib_cookie *cookie, uint16_t device_index, uint32_t unit, uint8_t operation,
                              void **message, void **mask);
int rtslib_iflm_get_by_snmp_index(struct rtslib_cookie *cookie, uint32_t snmp_index, uint8_t operation, void **message,
                                  void **mask);

/* No replies. The last three change: those with an operation take RTM_OP_CHANGE, else 45. Flags and private flags can
 * be set to 0. */
int rtslib_iflm_update(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                       uint32_t snmp_index, const char *name, const void *gateway, uint8_t operation);
int rtslib_iflm_update_flags(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                             uint32_t snmp_index, const char *name, uint32_t flags, uint8_t operation);
int rtslib_iflm_update_privflags(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                                 uint32_t snmp_index, const char *name, uint32_t privflags, uint8_t priv_byte,
                                 uint8_t operation);
/* Sends the item as it stands; it stays the caller's. */
int rtslib_iflm_pointchange_tlv(struct rtslib_cookie *cookie, uint32_t index, uint32_t device_index, uint32_t unit,
                                uint32_t snmp_index, const char *name, struct rts_msg_info *item);

/* --- families -------------------------------------------------------------------------------------------------- */

int rtslib_iffm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask);
int rtslib_iffm_get_by_dev_name(struct rtslib_cookie *cookie, uint8_t family, const char *device, uint32_t unit,
                                uint8_t operation, void **message, void **mask);
/* No reply. options: octets for the kernel, or null. */
int rtslib_iffm_update(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint32_t aux_word1,
                       uint32_t aux_word2, uint16_t aux_half1, uint16_t aux_half2, const void *options,
                       uint32_t options_length, uint8_t operation);

/* --- addresses ------------------------------------------------------------------------------------------------- */

int rtslib_ifam_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask);
int rtslib_ifam_get_by_local(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *local,
                             uint16_t local_bits, uint8_t operation, void **message, void **mask);
int rtslib_ifam_get_by_dest(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                            uint16_t dest_bits, uint8_t operation, void **message, void **mask);
int rtslib_ifam_get_by_local_dest(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                                  uint16_t dest_bits, const void *local, uint16_t local_bits, uint8_t operation,
                                  void **message, void **mask);
/* No replies. */
int rtslib_ifam_update(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *dest,
                       uint16_t dest_bits, const void *local, uint16_t local_bits, uint8_t operation);
/* Changes the options of the address that prefix names, which must have a bit; stream as for devices, and not empty:
 * else 22. Each element becomes an item of its own, under its number if the catalogue has an item for that and the
 * element fits it, otherwise as octets with its head. */
int rtslib_ifa_pointchange(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, const void *prefix,
                           uint16_t prefix_bits, const void *stream, uint32_t length);

/* --- statistics ------------------------------------------------------------------------------------------------ */

/* A reply is plain octets, a struct ifdstats_raw, iflstats_raw or iffstats_raw with the name behind it; msglen in it
 * tells how many. It is freed with rtslib_msg_free, and null on failure. Names are cut to 60 characters. */
int rtslib_ifdsm_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte, uint8_t operation,
                              void **out);
int rtslib_ifdsm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte, uint8_t operation,
                             void **out);
int rtslib_ifdsm_voq_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte, uint8_t operation,
                                  void **out);
int rtslib_ifdsm_lb_stats_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                       uint8_t operation, void **out, uint32_t option_word, uint8_t option_byte);
int rtslib_ifdsm_buffer_stats_get_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                           uint8_t operation, void **out, uint16_t option_half);
/* No replies. */
int rtslib_ifdsm_clear_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte);
int rtslib_ifdsm_lb_stats_clear_by_index(struct rtslib_cookie *cookie, uint16_t index, uint8_t aux_byte,
                                         uint8_t option_byte);

int rtslib_iffsm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t aux_byte,
                              uint8_t operation, void **out);

/* Statistics of logical interfaces, which a client may take over: it puts functions of its own here. Of the process. */
extern int (*rtslib_iflsm_get_by_index)(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte,
                                        uint8_t operation, void **out);
extern int (*rtslib_iflsm_get_by_index_and_subtype)(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte,
                                                    uint8_t operation, uint32_t subtype, void **out);
extern int (*rtslib_iflsm_get_by_name)(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte,
                                       uint8_t operation, void **out);
extern int (*rtslib_iflsm_get_by_name_and_subtype)(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte,
                                                   uint8_t operation, uint32_t subtype, void **out);
extern int (*rtslib_iflsm_clear_by_index)(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte);
extern void (*rtslib_iflsm_cleanup)(struct rtslib_cookie *cookie);
/* What stands there at the start: the kernel's statistics. The last does nothing. */
int __rtslib_iflsm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte, uint8_t operation,
                                void **out);
int __rtslib_iflsm_get_by_index_and_subtype(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte,
                                            uint8_t operation, uint32_t subtype, void **out);
int __rtslib_iflsm_get_by_name(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte, uint8_t operation,
                               void **out);
int __rtslib_iflsm_get_by_name_and_subtype(struct rtslib_cookie *cookie, const char *name, uint8_t aux_byte,
                                           uint8_t operation, uint32_t subtype, void **out);
int __rtslib_iflsm_clear_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t aux_byte);
void __rtslib_iflsm_cleanup(struct rtslib_cookie *cookie);

/* The same on an asynchronous cookie: the answer goes to its handler, with client_word in trailing_word. 22 for a null
 * cookie or name; 45 for a device of a kind that keeps none, and for clearing a logical interface. */
int async_rtslib_ifdsm_get_by_index_kernel(struct rtslib_cookie *cookie, uint32_t device_options, uint16_t index,
                                           const char *name, uint8_t aux_byte, uint8_t operation,
                                           uint32_t client_word);
int async_rtslib_iflsm_get_by_index_kernel(struct rtslib_cookie *cookie, uint32_t index, const char *name,
                                           uint8_t aux_byte, uint8_t operation, uint32_t client_word);

}   // extern "C"
