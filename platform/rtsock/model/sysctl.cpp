/*
 * Names that are read without a socket: whole tables of interfaces, and one switch.
 *
 * A table is a run of enveloped messages, also where replies are raw: who reads it tells messages apart by their
 * envelopes.
 */
#include "platform/rtsock/kernel/rk_queue.h"
#include "platform/rtsock/model/rm.h"

#include "platform/target.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

enum { KIND_DEVICES = 1, KIND_UNITS = 2 };
constexpr int interface_tables[] = { 4, 17, 0, 0, 3 };   // the kind is the sixth

int32_t peer_mask;   // blobs of major type 4 name their peers by mask

/* A run of messages; without room only its length is counted. */
struct run {
    uint8_t *octets;
    size_t room, length;
};

int append(struct run *to, enum rk_form form, const struct rm_kind *kind, const struct rm_object *object)
{
    uint32_t length;
    uint8_t *octets = rk_encode(form, kind->mk_type, object->mo_record, &length);
    if (octets == nullptr)
        return ENOMEM;
    bool fits = to->octets == nullptr || length <= to->room - to->length;
    if (fits && to->octets != nullptr)
        memcpy(to->octets + to->length, octets, length);
    to->length += fits ? length : 0;
    free(octets);
    return fits ? 0 : ENOMEM;
}

/* Whether a fault takes the call's place; errno then says which. */
bool call_fails(void)
{
    if (!rk_happens(&rm_kernel.faults->failed_sysctls))
        return false;
    errno = target_errno_to_host(rm_kernel.faults->failed_sysctl_error);
    return true;
}

}   // namespace

int rm_sysctl(const int *name, unsigned count, void *value, size_t *length)
{
    if (call_fails())
        return -1;
    constexpr unsigned parts = std::size(interface_tables) + 1;
    if (count != parts || !std::equal(std::begin(interface_tables), std::end(interface_tables), name) ||
        (name[parts - 1] != KIND_DEVICES && name[parts - 1] != KIND_UNITS)) {
        errno = ENOENT;
        return -1;
    }
    const struct rm_kind *kind = name[parts - 1] == KIND_DEVICES ? &rm_devices : &rm_units;
    enum rk_form form = rm_kernel.form == RK_FORM_TLV ? RK_FORM_TLV : RK_FORM_IDR;
    struct run to = { static_cast<uint8_t *>(value), *length, 0 };
    for (struct rm_object *o = rm_following(kind, nullptr); o != nullptr; o = rm_following(kind, o)) {
        int error = append(&to, form, kind, o);
        if (error != 0) {
            errno = error;
            return -1;
        }
    }
    *length = to.length;
    return 0;
}

int rm_sysctlbyname(const char *name, void *value, size_t *length, const void *set, size_t set_length)
{
    if (call_fails())
        return -1;
    bool known = strcmp(name, "kern.gencfg_cfg2_peermask") == 0;
    bool fits = (value == nullptr || *length >= sizeof peer_mask) && (set == nullptr || set_length == sizeof peer_mask);
    if (!known || !fits) {
        errno = known ? EINVAL : ENOENT;
        return -1;
    }
    if (value != nullptr)
        memcpy(value, &peer_mask, sizeof peer_mask);
    if (length != nullptr)
        *length = sizeof peer_mask;
    if (set != nullptr)
        memcpy(&peer_mask, set, sizeof peer_mask);
    return 0;
}

void rm_sysctl_reset(void)
{
    peer_mask = 0;
}
