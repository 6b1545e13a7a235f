/*
 * Matches: which route a packet would take, and through which interface.
 */
#include "lib/librtsock/request.h"
#include "lib/librtsock/rtslib_nexthop.h"
#include "lib/librtsock/rtslib_route.h"
#include "platform/target.h"

namespace {

constexpr struct rtslib_request_form rtm_form = { 12, 99, 52, sizeof(struct rtm_msg) };

enum {
    NH_WITHOUT_INTERFACE = 1,       // of marker
    ITEM_INTERFACE = 0x2000018,     // names the interface of such a next hop
};

/* The interface of a next hop, 0 for none. */
uint32_t interface_of(const struct rnh_msg *nexthop)
{
    if (nexthop->ifidx != 0 || nexthop->marker != NH_WITHOUT_INTERFACE)
        return nexthop->ifidx;
    for (uint32_t i = 0; i < nexthop->rts_hdr.rtsh_info_len; i++) {
        const struct rts_msg_info *item = nexthop->rts_hdr.rtsh_info[i];
        if (item->tag == ITEM_INTERFACE)
            return item->u.rnhtlv_ifidx.ifidx;
    }
    return 0;
}

}   // namespace

int rtslib_rtmatch_by_prefix(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t aux_byte,
                             const void *prefix, uint16_t prefix_bits, void **message, void **mask)
{
    int result = rtslib_request_check(cookie, RTM_OP_GET, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    auto *match = static_cast<struct rtm_msg *>(rtslib_request_new(cookie, &rtm_form, RTM_OP_GET, &cursor));
    if (match == nullptr)
        return TARGET_ENOMEM;
    match->tid = tid;
    match->af = family;
    match->aux_byte = aux_byte;
    match->prefix_bits = prefix_bits;
    match->prefix = rtslib_request_prefix(match, &cursor, prefix, prefix_bits, &match->prefix_len);
    return rtslib_request_ask(cookie, match, rtslib_long_msg_read_idl, message, mask);
}

int rtslib_rtmatch_fwding_nh_ifindex(struct rtslib_cookie *cookie, uint16_t tid, uint8_t family, uint8_t aux_byte,
                                     const void *prefix, uint16_t prefix_bits, void **message, void **mask)
{
    int result = rtslib_rtmatch_by_prefix(cookie, tid, family, aux_byte, prefix, prefix_bits, message, mask);
    if (result != 0)
        return result;
    auto *match = static_cast<struct rtm_msg *>(*message);
    // Kept on purpose: -1, which is no error number, and the message stays the caller's, where other failures clear it.
    if (!rtslib_reply_is(match, RTSLIB_TYPE_MATCH) || match->nhidx == 0)
        return -1;
    void *nexthop = nullptr;
    int error = rtslib_rnhm_get_by_index(cookie, match->nhidx, family, RTM_OP_GET, &nexthop, nullptr);
    if (error != 0 || !rtslib_reply_is(nexthop, RTSLIB_TYPE_NEXTHOP)) {
        rtslib_msg_idl_release(cookie, nexthop);
        return -1;
    }
    match->ifidx = interface_of(static_cast<const struct rnh_msg *>(nexthop));
    rtslib_msg_idl_release(cookie, nexthop);
    return 0;
}
