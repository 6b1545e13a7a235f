/*
 * Donor tracking: unnumbered interfaces borrow their address from a donor, and whoever looks after the borrowers hears
 * when an address of the donor changes.
 *
 * Works on an asynchronous cookie that has a handler for addresses (rtslib_ifam_async_register). The read loop saves
 * each address event, and reports it to the borrowers before the handler for a deletion, behind it for all else.
 * Families are the target's. Results are 0 or an error number.
 */
#pragma once

#include "lib/librtsock/rtslib_cookie.h"

extern "C" {

/* One call for each borrower of the donor whose address changed. value is the borrower's, from its registration;
 * operation an enum rtm_op. Lends address, length octets in network order, until the return; null if length is 0. May
 * register and unregister interest; may not end the cookie. */
typedef void (*rtslib_unnum_ifa_func)(uintptr_t value, uint8_t operation, uint8_t family, const void *address,
                                      uint32_t length, uint16_t aux_half);

/* Starts tracking on the cookie, or gives it another function. 22 for a null cookie or one without an asynchronous
 * block (rtslib_async.h); 12. */
int rtslib_unnum_ifa_register_callback(struct rtslib_cookie *cookie, rtslib_unnum_ifa_func func);
/* With add other than 0, borrower (a logical interface) hears of donor from now on, otherwise no longer. 22 without
 * tracking and for a family other than TARGET_AF_INET and TARGET_AF_INET6; 17 for a borrower that is there already, 2
 * for one that is not; 12; -1 if no second connection can be made at the first call. value goes to the callback, and
 * counts when adding only. */
int rtslib_unnum_ifa_register_interest(struct rtslib_cookie *cookie, uint32_t borrower, uint32_t donor, uint8_t family,
                                       uint8_t add, uintptr_t value);

/* The interface that the unnumbered one with that index borrows from. 22 if it is not unnumbered, and for a null donor;
 * 2 if the kernel names none or answers with another kind of object; or the error of the request. *donor is written on
 * success only. */
int rtslib_unnum_get_donor_ifl_idx(struct rtslib_cookie *cookie, uint32_t ifl_idx, uint8_t family, uint32_t *donor);

/* The read loop's. Keeps what a decoded ifa_msg tells, the address copied, until the report. 0, or -1: there is nobody
 * to report to, no memory, or an event is pending already, which is a warning. */
int rtslib_unnum_ifa_save_msg(struct rtslib_cookie *cookie, const void *message);
/* Calls the borrowers for the saved event. 0, or -1 if none is pending. */
int rtslib_unnum_ifa_report(struct rtslib_cookie *cookie);
/* Ends tracking: tables, second connection, block. Nothing happens without tracking. */
void rtslib_unnum_ifa_cleanup(struct rtslib_cookie *cookie);

}   // extern "C"
