/*
 * Donor tracking.
 *
 * For each family a table of donors, in it an entry with a table of borrowers. A donor's entry is made with its first
 * borrower and stays until the end of tracking. One event is kept at a time, between the moment the read loop sees it
 * and the report; an event that comes meanwhile, from a handler that reads by itself, is refused.
 */
#include "lib/librtsock/rtslib_unnum.h"
#include "lib/itable/itable.h"
#include "lib/librtsock/rtslib_interface.h"
#include "platform/target.h"

#include <string.h>

namespace {

enum donor_family { DONORS_INET, DONORS_INET6, DONORS_OTHER, DONOR_FAMILIES };

enum {
    SENDER_ID = 3,
    NO_FAMILY = -1,
    TYPE_FAMILY = 7,                // message type of families of logical interfaces
    FLAG_UNNUMBERED = 0x20000000,   // of iff_msg's flags
    ITEM_DONOR = 183,
};

/* A table cannot hold every value that a client may give, so it holds where the value stands. */
struct borrower {
    uintptr_t value;
};

struct donor {
    struct itable32 *borrowers;
    uint32_t count;
};

struct event {
    uint32_t donor;
    uint8_t operation, family;
    uint8_t *address;   // owned; a report to nobody leaves it here
    uint32_t length;
    uint16_t aux_half;
};

}   // namespace

struct rtslib_unnum {
    struct itable32 *donors[DONOR_FAMILIES];   // made when first needed; that of other families stays null
    struct rtslib_cookie *interest;            // the second connection; null until interest is registered
    rtslib_unnum_ifa_func func;
    struct event saved;
    bool is_pending;
};

namespace {

int family_row(uint8_t family)
{
    if (family == TARGET_AF_INET)
        return DONORS_INET;
    return family == TARGET_AF_INET6 ? int(DONORS_INET6) : int(NO_FAMILY);
}

struct itable32 *new_table(uint16_t *memid)
{
    return itable32_create_ext(rtslib_malloc_itable, rtslib_free_itable, reinterpret_cast<uintptr_t>(memid));
}

struct donor *find_donor(const struct rtslib_unnum *unnum, int row, uint32_t index)
{
    return reinterpret_cast<struct donor *>(itable32_lookup(unnum->donors[row], &index));
}

/* Takes the borrower's place in the table, too. */
void free_borrower(struct donor *donor, uint32_t index)
{
    rtslib_free(MEMID_RTSLIB_BORROWER, reinterpret_cast<void *>(itable32_lookup(donor->borrowers, &index)));
    itable32_remove(donor->borrowers, &index);
}

void free_donor(struct donor *donor)
{
    uint32_t index;
    while (donor->borrowers != nullptr && itable32_getnext(donor->borrowers, nullptr, &index) != 0)
        free_borrower(donor, index);
    (void)itable32_destroy(donor->borrowers);
    rtslib_free(MEMID_RTSLIB_BORROWER, donor);
}

/* An entry without borrowers, in its table; or null. */
struct donor *make_donor(struct rtslib_unnum *unnum, int row, uint32_t index)
{
    if (unnum->donors[row] == nullptr)
        unnum->donors[row] = new_table(&memid_rtslib_itable_donor);
    auto *made = static_cast<struct donor *>(rtslib_calloc(MEMID_RTSLIB_BORROWER, 1, sizeof(struct donor)));
    if (unnum->donors[row] == nullptr || made == nullptr) {
        rtslib_free(MEMID_RTSLIB_BORROWER, made);
        return nullptr;
    }
    made->borrowers = new_table(&memid_rtslib_itable_borrower);
    if (made->borrowers != nullptr &&
        itable32_insert(unnum->donors[row], reinterpret_cast<uintptr_t>(made), &index) == ITABLE_DONE)
        return made;
    free_donor(made);
    return nullptr;
}

int add_borrower(struct rtslib_unnum *unnum, int row, uint32_t index, uint32_t borrower, uintptr_t value)
{
    struct donor *donor = find_donor(unnum, row, index);
    if (donor == nullptr)
        donor = make_donor(unnum, row, index);
    if (donor == nullptr)
        return TARGET_ENOMEM;
    if (itable32_lookup(donor->borrowers, &borrower) != 0)
        return TARGET_EEXIST;
    auto *made = static_cast<struct borrower *>(rtslib_calloc(MEMID_RTSLIB_BORROWER, 1, sizeof(struct borrower)));
    if (made == nullptr)
        return TARGET_ENOMEM;
    made->value = value;
    if (itable32_insert(donor->borrowers, reinterpret_cast<uintptr_t>(made), &borrower) != ITABLE_DONE) {
        rtslib_free(MEMID_RTSLIB_BORROWER, made);
        return TARGET_ENOMEM;
    }
    donor->count++;
    return 0;
}

int remove_borrower(struct rtslib_unnum *unnum, int row, uint32_t index, uint32_t borrower)
{
    struct donor *donor = find_donor(unnum, row, index);
    if (donor == nullptr || itable32_lookup(donor->borrowers, &borrower) == 0)
        return TARGET_ENOENT;
    free_borrower(donor, borrower);
    donor->count--;
    return 0;
}

/* The saved address goes with the event. */
void forget_address(struct rtslib_cookie *cookie, struct event *saved)
{
    rtslib_msg_free(cookie, saved->address);
    saved->address = nullptr;
}

/* 0 or -1. */
int save(struct rtslib_cookie *cookie, struct event *saved, const struct ifa_msg *message)
{
    uint32_t length = message->local != nullptr ? message->local_len : 0;
    uint8_t *copy = nullptr;
    if (length > 0) {
        copy = static_cast<uint8_t *>(rtslib_size_alloc(cookie, length));
        if (copy == nullptr)
            return -1;
        memcpy(copy, message->local, length);
    }
    forget_address(cookie, saved);
    *saved = { message->ifl_idx, message->rts_hdr.rtsh_op, message->af, copy, length, message->aux_half };
    return 0;
}

void call_borrowers(const struct rtslib_unnum *unnum, const struct donor *donor)
{
    const struct event *saved = &unnum->saved;
    uint32_t index;
    const uint32_t *from = nullptr;
    while (uintptr_t stored = itable32_getnext(donor->borrowers, from, &index)) {
        from = &index;
        uintptr_t value = reinterpret_cast<const struct borrower *>(stored)->value;
        if (unnum->func != nullptr)
            unnum->func(value, saved->operation, saved->family, saved->address, saved->length, saved->aux_half);
    }
}

}   // namespace

int rtslib_unnum_ifa_register_callback(struct rtslib_cookie *cookie, rtslib_unnum_ifa_func func)
{
    if (cookie == nullptr || cookie->async_info == nullptr)
        return TARGET_EINVAL;
    if (cookie->unnum == nullptr)
        cookie->unnum = static_cast<struct rtslib_unnum *>(
            rtslib_calloc(MEMID_RTSLIB_UNNUM, 1, sizeof(struct rtslib_unnum)));
    if (cookie->unnum == nullptr)
        return TARGET_ENOMEM;
    cookie->unnum->func = func;
    return 0;
}

int rtslib_unnum_ifa_register_interest(struct rtslib_cookie *cookie, uint32_t borrower, uint32_t donor, uint8_t family,
                                       uint8_t add, uintptr_t value)
{
    int row = family_row(family);
    if (cookie == nullptr || cookie->unnum == nullptr || row == NO_FAMILY)
        return TARGET_EINVAL;
    struct rtslib_unnum *unnum = cookie->unnum;
    if (unnum->interest == nullptr)
        unnum->interest = rtslib_open(SENDER_ID);
    if (unnum->interest == nullptr)
        return -1;
    return add != 0 ? add_borrower(unnum, row, donor, borrower, value) : remove_borrower(unnum, row, donor, borrower);
}

int rtslib_unnum_get_donor_ifl_idx(struct rtslib_cookie *cookie, uint32_t ifl_idx, uint8_t family, uint32_t *donor)
{
    if (donor == nullptr)
        return TARGET_EINVAL;
    void *message = nullptr;
    int result = rtslib_iffm_get_by_index(cookie, ifl_idx, family, RTM_OP_GET, &message, nullptr);
    if (result != 0)
        return result;
    if (message == nullptr)
        return TARGET_ENOENT;
    const auto *found = static_cast<const struct iff_msg *>(message);
    // A late answer to another question would be read as what it is not: it is as good as none.
    if (found->rts_hdr.rtsh_type != TYPE_FAMILY) {
        rtslib_msg_idl_release(cookie, message);
        return TARGET_ENOENT;
    }
    bool is_unnumbered = (found->flags & FLAG_UNNUMBERED) != 0;
    result = is_unnumbered ? TARGET_ENOENT : TARGET_EINVAL;
    for (uint32_t i = 0; is_unnumbered && i < found->rts_hdr.rtsh_info_len; i++) {
        const struct rts_msg_info *item = found->rts_hdr.rtsh_info[i];
        if (item->tag != ITEM_DONOR)
            continue;
        *donor = item->u.ifftlv_donor.ifl_idx;
        result = 0;
    }
    rtslib_msg_idl_release(cookie, message);
    return result;
}

int rtslib_unnum_ifa_save_msg(struct rtslib_cookie *cookie, const void *octets)
{
    const auto *message = static_cast<const struct ifa_msg *>(octets);
    if (cookie == nullptr || cookie->unnum == nullptr || message == nullptr || family_row(message->af) == NO_FAMILY)
        return -1;
    struct rtslib_unnum *unnum = cookie->unnum;
    if (unnum->is_pending) {
        rtslib_err(cookie, RTSLIB_WARNING, "Async event arrived while processing pending for a previous event\n");
        return -1;
    }
    if (find_donor(unnum, family_row(message->af), message->ifl_idx) == nullptr)
        return -1;
    if (save(cookie, &unnum->saved, message) != 0)
        return -1;
    unnum->is_pending = true;
    return 0;
}

int rtslib_unnum_ifa_report(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->unnum == nullptr || !cookie->unnum->is_pending)
        return -1;
    struct rtslib_unnum *unnum = cookie->unnum;
    const struct donor *donor = find_donor(unnum, family_row(unnum->saved.family), unnum->saved.donor);
    if (donor != nullptr && donor->count != 0) {
        call_borrowers(unnum, donor);
        forget_address(cookie, &unnum->saved);
    }
    // Kept on purpose: without borrowers the address stays, where one would expect it to go; the next event or the end
    // of tracking frees it.
    unnum->is_pending = false;
    return 0;
}

void rtslib_unnum_ifa_cleanup(struct rtslib_cookie *cookie)
{
    if (cookie == nullptr || cookie->unnum == nullptr)
        return;
    struct rtslib_unnum *unnum = cookie->unnum;
    for (struct itable32 *table : unnum->donors) {
        uint32_t index;
        const uint32_t *from = nullptr;
        while (uintptr_t stored = table != nullptr ? itable32_getnext(table, from, &index) : 0) {
            from = &index;
            free_donor(reinterpret_cast<struct donor *>(stored));
        }
        if (table != nullptr)
            (void)itable32_destroy(table);
    }
    forget_address(cookie, &unnum->saved);
    rtslib_close(unnum->interest);
    rtslib_free(MEMID_RTSLIB_UNNUM, unnum);
    cookie->unnum = nullptr;
}
