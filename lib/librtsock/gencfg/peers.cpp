/*
 * Peers of a blob: whom it is for.
 *
 * A request carries an array of entries in storage that the client gave or had made. An entry is one peer by its index,
 * or a mask of many; all entries of a request are of one kind, the first entry's. In the major types that know the mask
 * a client does not ask for it: it adds peers by index, undecided, and they gather in one mask entry.
 *
 * There is no cookie here, so reports go to the system log.
 */
#include "lib/librtsock/gencfg/gencfg.h"
#include "platform/rtsock/rtsock.h"

#include <string.h>

namespace {

constexpr uint16_t mask_majors[] = { 15, 73, 85 };
enum { MAJOR_MASK_BY_SYSCTL = 4 };

bool major_has_mask(uint16_t major)
{
    for (uint16_t known : mask_majors) {
        if (major == known)
            return true;
    }
    if (major != MAJOR_MASK_BY_SYSCTL)
        return false;
    int32_t value = 0;
    size_t length = sizeof value;
    // A kernel that does not know the name has no mask there.
    if (rtsock_sysctlbyname("kern.gencfg_cfg2_peermask", &value, &length, nullptr, 0) != 0)
        return false;
    return length == sizeof value && value == 1;
}

bool agrees_with_first(const gencfg_t *gencfg, uint32_t choice)
{
    if (gencfg->peer_count == 0)
        return true;
    uint32_t first = gencfg->peers[0].peer_choice;
    if (choice == first || (first == GENCFG_PEER_MASK && choice == GENCFG_PEER_UNDECIDED))
        return true;
    rtslib_err(nullptr, RTSLIB_ERROR, "%s: Peer Index choice mismatch, Existing: %d New: %d\n",
               "rtslib_gencfg_add_peerinfo", int(first), int(choice));
    return false;
}

void append(gencfg_t *gencfg, const gencfg_peerinfo_t *peer)
{
    gencfg_peerinfo_t *entry = &gencfg->peers[gencfg->peer_count++];
    *entry = {};
    entry->peer_type = peer->peer_type;
    entry->peer_choice = peer->peer_choice;
    entry->peer_index = peer->peer_index;
}

int join_mask(gencfg_t *gencfg, const gencfg_peerinfo_t *peer)
{
    uint8_t at = 0;
    while (at < gencfg->peer_count && gencfg->peers[at].peer_choice != GENCFG_PEER_MASK)
        at++;
    gencfg_peerinfo_t *entry = &gencfg->peers[at];
    if (at == gencfg->peer_count)
        *entry = {};
    // Kept on purpose: the mask has the type of the peer that came last, even of one that is then refused.
    entry->peer_type = peer->peer_type;
    if (!gencfg_mask_set(entry->peer_mask, peer->peer_type, peer->peer_index)) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Creation of gencfg peer mask failed \n");
        return -1;
    }
    entry->peer_choice = GENCFG_PEER_MASK;
    if (at == gencfg->peer_count)
        gencfg->peer_count++;
    return 0;
}

bool capacity_is_good(uint32_t capacity)
{
    if (capacity <= GENCFG_PEERS_MAX)
        return true;
    rtslib_err(nullptr, RTSLIB_ERROR, "Number of peers exceeds %d\n", GENCFG_PEERS_MAX);
    return false;
}

void set_storage(gencfg_t *gencfg, uint32_t capacity, void *storage)
{
    gencfg->peers = static_cast<gencfg_peerinfo_t *>(storage);
    gencfg->peer_count = 0;
    gencfg->peer_max = uint8_t(capacity);
}

bool entry_has(const gencfg_peerinfo_t *entry, uint8_t peer_class, uint16_t index)
{
    if (entry->peer_choice == GENCFG_PEER_MASK)
        return gencfg_mask_has(entry->peer_mask, peer_class, index);
    return entry->peer_index == index && (entry->peer_type & peer_class) == peer_class;
}

const gencfg_peerinfo_t *entry_of(const void *message, uint32_t number)
{
    const auto *gencfg = static_cast<const struct gencfg_msg *>(message);
    static_assert(sizeof(gencfg_peerinfo_t) == sizeof *gencfg->peers &&
                  alignof(gencfg_peerinfo_t) == alignof(struct gencfg_peerinfo));
    if (gencfg->peers == nullptr || number >= gencfg->peers_len)
        return nullptr;
    return reinterpret_cast<const gencfg_peerinfo_t *>(gencfg->peers) + number;
}

int32_t first_in_mask(const gencfg_peerinfo_t *entry)
{
    uint32_t slots = entry->peer_type == GENCFG_PEER_CLASS_GROUP ? 1 : GENCFG_MASK_SLOTS;
    for (uint32_t group = 0; group < GENCFG_MASK_GROUPS; group++) {
        for (uint32_t slot = 0; slot < slots; slot++) {
            int32_t index =
                rtslib_gencfg_get_peer_index_from_peer_mask(entry->peer_mask, entry->peer_type, group, slot);
            if (index >= 0)
                return index;
        }
    }
    return -1;
}

}   // namespace

int rtslib_gencfg_create_peerinfo(gencfg_t *gencfg, uint32_t capacity)
{
    if (!capacity_is_good(capacity))
        return -1;
    void *storage = rtslib_calloc(MEMID_RTSLIB_GENCFG_PEER, capacity, sizeof(gencfg_peerinfo_t));
    if (storage == nullptr) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Failed to allocate memory for gencfg_peerinfo_t\n");
        return -1;
    }
    set_storage(gencfg, capacity, storage);
    return 0;
}

int rtslib_gencfg_add_peerinfo_storage(gencfg_t *gencfg, uint32_t capacity, void *buffer, size_t size)
{
    if (!capacity_is_good(capacity))
        return -1;
    size_t octets = capacity * sizeof(gencfg_peerinfo_t);
    if (buffer == nullptr || size < octets) {
        rtslib_err(nullptr, RTSLIB_ERROR, "buffer space too small for number of peers %d\n", int(capacity));
        return -1;
    }
    set_storage(gencfg, capacity, memset(buffer, 0, octets));
    return 0;
}

int rtslib_gencfg_add_peerinfo(gencfg_t *gencfg, const gencfg_peerinfo_t *peer)
{
    // Kept on purpose: a full array refuses also the peer that would only be one more bit in its mask.
    if (gencfg->peer_count >= gencfg->peer_max) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Number of gencfg peers exceeds %d\n", gencfg->peer_max);
        return -1;
    }
    if (gencfg->peers == nullptr || !agrees_with_first(gencfg, peer->peer_choice))
        return -1;
    if (peer->peer_choice != GENCFG_PEER_UNDECIDED && peer->peer_choice != GENCFG_PEER_INDEX) {
        rtslib_err(nullptr, RTSLIB_ERROR, "OBJECT TYPE invalid\n");
        return -1;
    }
    if (peer->peer_choice == GENCFG_PEER_UNDECIDED && major_has_mask(gencfg->major))
        return join_mask(gencfg, peer);
    append(gencfg, peer);
    return 0;
}

void rtslib_gencfg_delete_peerinfo(gencfg_t *gencfg)
{
    if (gencfg->peers != nullptr)
        rtslib_free(MEMID_RTSLIB_GENCFG_PEER, gencfg->peers);
    gencfg->peer_count = 0;
    gencfg->peers = nullptr;
}

int rtslib_gencfg_is_peer_present_in_peerinfo(const gencfg_t *gencfg, uint8_t peer_class, uint16_t index)
{
    if (gencfg->peers == nullptr)
        return 0;
    for (uint8_t i = 0; i < gencfg->peer_count; i++) {
        if (entry_has(&gencfg->peers[i], peer_class, index))
            return 1;
    }
    return 0;
}

const uint32_t *rtslib_gencfg_get_peer_info(const void *message)
{
    const gencfg_peerinfo_t *entry;
    for (uint32_t i = 0; (entry = entry_of(message, i)) != nullptr; i++) {
        if (entry->peer_choice == GENCFG_PEER_MASK)
            return entry->peer_mask;
    }
    return nullptr;
}

int32_t rtslib_gencfg_get_peer_index(const void *message, uint32_t number)
{
    const gencfg_peerinfo_t *entry = entry_of(message, number);
    if (entry == nullptr)
        return -1;
    switch (entry->peer_choice) {
    case GENCFG_PEER_UNDECIDED:
    case GENCFG_PEER_INDEX:
        return entry->peer_index;
    case GENCFG_PEER_MASK:
        return first_in_mask(entry);
    default:
        return -1;
    }
}

int rtslib_gencfg_peer_info_compare(const gencfg_peerinfo_t *first, uint32_t first_count,
                                    const gencfg_peerinfo_t *second, uint32_t second_count)
{
    if (first_count != second_count)
        return 1;
    if (first_count == 0)
        return 0;
    // Kept on purpose: entries by index are never equal, not even to themselves.
    if (first == nullptr || second == nullptr || first[0].peer_choice != GENCFG_PEER_MASK ||
        second[0].peer_choice != GENCFG_PEER_MASK)
        return 1;
    for (uint32_t i = 0; i < first_count; i++) {
        if (memcmp(first[i].peer_mask, second[i].peer_mask, sizeof first[i].peer_mask) != 0)
            return 1;
    }
    return 0;
}
