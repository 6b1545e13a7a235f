/*
 * Next hops that are a logical interface.
 */
#include "lib/librtsock/nexthop_private.h"
#include "platform/target.h"

namespace {

enum {
    ENTRY_MAX = 4,   // the largest value of an entry, sent as 0
};

}   // namespace

int rtslib_rnhm_iflnh_add(struct rtslib_cookie *cookie, uint32_t ifidx, uint8_t family, uint16_t aux_half1,
                          uint32_t count, const uint8_t *entries, uint32_t *index, uint32_t aux_word)
{
    if (cookie == nullptr || index == nullptr)
        return TARGET_EINVAL;
    if (count != 1 || (entries != nullptr && entries[0] > ENTRY_MAX))
        return TARGET_EOPNOTSUPP;
    if (entries == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    struct rnh_msg *request = rtslib_nh_request(cookie, &rtslib_nh_ifl, RTM_OP_ADD_GET, 0, family, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->ifidx = ifidx;
    request->aux_half1 = aux_half1;
    request->aux_word = aux_word;
    // Kept on purpose: the largest value goes out as 0.
    const uint8_t sent[] = { 1, uint8_t(entries[0] % ENTRY_MAX) };
    request->entries = rtslib_request_octets(request, &cursor, sent, sizeof sent);
    request->entries_len = request->entries != nullptr ? sizeof sent : 0;
    void *reply = nullptr;
    int result = rtslib_request_ask(cookie, request, rtslib_long_msg_read_idl, &reply, nullptr);
    bool good = rtslib_reply_is(reply, RTSLIB_TYPE_NEXTHOP);
    if (result == 0 && good)
        *index = static_cast<const struct rnh_msg *>(reply)->idx;
    rtslib_msg_idl_release(cookie, reply);
    return result == 0 && !good ? int(TARGET_EIO) : result;
}

int rtslib_rnhm_iflnh_delete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family)
{
    return rtslib_nh_delete(cookie, &rtslib_nh_ifl, index, family);
}

int rtslib_rnhm_iflnh_get_by_index(struct rtslib_cookie *cookie, uint8_t operation, uint32_t index, uint8_t family,
                                   void **message, void **mask)
{
    const struct rtslib_nh_query get = { operation, index, family, 0, 0 };
    return rtslib_nh_get(cookie, &rtslib_nh_ifl, &get, message, mask);
}
