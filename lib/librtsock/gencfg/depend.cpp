/*
 * Dependencies of a blob: the objects that must be there before it.
 *
 * Records and their data stand in one storage of fixed size. A record points into the same storage, which is why it
 * must not be moved; on the wire goes the data. Data is packed in whole words, counted from where it begins, two octets
 * past a word's boundary: it is octets to us, never read as anything else.
 */
#include "lib/librtsock/gencfg/gencfg.h"

#include <string.h>

namespace {

enum { DATA_UNIT = 4 };

void set_storage(gencfg_t *gencfg, void *storage)
{
    gencfg->dep = storage;
    gencfg->dep_count = 0;
    gencfg->flags |= GENCFG_FLAG_DEPEND;
}

}   // namespace

int rtslib_gencfg_create_depend(gencfg_t *gencfg)
{
    void *storage = rtslib_calloc(MEMID_RTSLIB_GENCFG_DEPEND, 1, sizeof(gencfg_depinfo_t));
    if (storage == nullptr) {
        rtslib_err(nullptr, RTSLIB_ERROR, "Failed to allocate memory for gencfg_depinfo_t\n");
        return -1;
    }
    set_storage(gencfg, storage);
    return 0;
}

int rtslib_gencfg_add_depend_storage(gencfg_t *gencfg, void *buffer, size_t size)
{
    if (buffer == nullptr || size < sizeof(gencfg_depinfo_t))
        return -1;
    set_storage(gencfg, memset(buffer, 0, sizeof(gencfg_depinfo_t)));
    return 0;
}

int rtslib_gencfg_add_depinfo(gencfg_t *gencfg, uint8_t type, uint16_t value1, uint16_t value2, uint32_t length,
                              const void *data, uint8_t flag)
{
    auto *storage = static_cast<gencfg_depinfo_t *>(gencfg->dep);
    if (length == 0 || length > GENCFG_DEPEND_DATA || data == nullptr || type > GENCFG_DEPEND_TYPE_MAX)
        return -1;
    if (storage == nullptr || gencfg->dep_count >= GENCFG_DEPEND_MAX)
        return -1;
    uint32_t room = (length + DATA_UNIT - 1) / DATA_UNIT * DATA_UNIT;
    if (storage->used + room > GENCFG_DEPEND_DATA)
        return -1;
    uint8_t *copy = storage->data + storage->used;
    memcpy(copy, data, length);
    storage->records[gencfg->dep_count++] = { flag, type, value1, value2, 0, copy, length };
    storage->used = uint16_t(storage->used + room);
    return 0;
}

void rtslib_gencfg_delete_depend(gencfg_t *gencfg)
{
    if (gencfg->dep != nullptr)
        rtslib_free(MEMID_RTSLIB_GENCFG_DEPEND, gencfg->dep);
    // Kept on purpose: the flag outlives the storage, so that the next request of this structure is refused until it
    // has dependencies again or the client takes the flag away.
    gencfg->dep_count = 0;
    gencfg->dep = nullptr;
}
