/*
 * Next hops: building requests, gets and walks.
 *
 * The kernel's get-next gives the next next hop of any kind. Whoever asks for one kind passes over the others: the
 * request is built again behind the index of each reply that is of another kind, until the kernel has no more.
 */
#include "lib/librtsock/nexthop_private.h"
#include "platform/target.h"

namespace {

constexpr struct rtslib_request_form rnh_form = { 10, 109, 732, sizeof(struct rnh_msg) };

enum { TRAILING_MORE = 1024 };   // of trailing_word: the kernel is asked for more than the next hop itself

bool is_unicast(const struct rnh_msg *reply)
{
    return reply->nh == RTSLIB_NH_UNICAST;
}

bool is_interface(const struct rnh_msg *reply)
{
    return reply->infotype == RTSLIB_NHINFO_IFL;
}

bool is_service(const struct rnh_msg *reply)
{
    return reply->nh == RTSLIB_NH_SERVICE;
}

struct rnh_msg *get_request(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind,
                            const struct rtslib_nh_query *get, uint8_t operation, uint32_t index)
{
    uint8_t *cursor;
    struct rnh_msg *request = rtslib_nh_request(cookie, kind, operation, index, get->family, &cursor);
    if (request == nullptr)
        return nullptr;
    request->aux_byte1 = get->aux_byte1;
    request->owner = get->owner;
    return request;
}

}   // namespace

const struct rtslib_nh_kind rtslib_nh_subunit = { RTSLIB_NH_UNICAST, 0, is_unicast, true };
const struct rtslib_nh_kind rtslib_nh_ifl = { RTSLIB_NH_UNICAST, RTSLIB_NHINFO_IFL, is_interface, false };
const struct rtslib_nh_kind rtslib_nh_service = { RTSLIB_NH_SERVICE, RTSLIB_NHINFO_SERVICE, is_service, true };

struct rnh_msg *rtslib_nh_request(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, uint8_t operation,
                                  uint32_t index, uint8_t family, uint8_t **cursor)
{
    auto *request = static_cast<struct rnh_msg *>(rtslib_request_new(cookie, &rnh_form, operation, cursor));
    if (request == nullptr)
        return nullptr;
    request->idx = index;
    request->af = family;
    request->nh = kind->nh;
    request->infotype = kind->infotype;
    return request;
}

int rtslib_nh_get(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, const struct rtslib_nh_query *get,
                  void **message, void **mask)
{
    int result = rtslib_request_check(cookie, get->operation, RTSLIB_ANSWERED, message);
    if (result != 0)
        return result;
    if (mask != nullptr)
        *mask = nullptr;
    struct rnh_msg *request = get_request(cookie, kind, get, get->operation, get->index);
    while (request != nullptr) {
        result = rtslib_request_run(cookie, request, RTSLIB_ANSWERED, rtslib_long_msg_read_idl, message, mask);
        if (result != 0 || get->operation != RTM_OP_GETNEXT || *message == nullptr)
            return result;
        if (!rtslib_reply_is(*message, RTSLIB_TYPE_NEXTHOP)) {
            rtslib_msg_idl_release(cookie, *message);
            *message = nullptr;
            if (mask != nullptr)
                *mask = nullptr;
            return TARGET_EIO;
        }
        const auto *reply = static_cast<const struct rnh_msg *>(*message);
        if (kind->matches(reply))
            return 0;
        request = get_request(cookie, kind, get, RTM_OP_GETNEXT, reply->idx);
        rtslib_msg_idl_release(cookie, *message);
        *message = nullptr;
        if (mask != nullptr)
            *mask = nullptr;
        if (!kind->walks) {
            // Kept on purpose: the request that would go on is freed before it is sent, and the walk ends here, where
            // one would expect it to pass over the reply as the other kinds do.
            rtslib_msg_free(cookie, request);
            return TARGET_EINVAL;
        }
    }
    return TARGET_ENOMEM;
}

int rtslib_nh_delete(struct rtslib_cookie *cookie, const struct rtslib_nh_kind *kind, uint32_t index, uint8_t family)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    struct rnh_msg *request = rtslib_nh_request(cookie, kind, RTM_OP_DELETE, index, family, &cursor);
    return request != nullptr ? rtslib_request_send(cookie, request) : int(TARGET_ENOMEM);
}

int rtslib_rnhm_get_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family, uint8_t operation,
                             void **message, void **mask)
{
    int result = rtslib_request_check(cookie, operation, RTSLIB_ANSWERED, message);
    if (result != 0)
        return result;
    // On the stack: this is asked often, once for each route of a walk.
    struct rnh_msg request = {};
    request.rts_hdr.rtsh_version = rnh_form.version;
    request.rts_hdr.rtsh_type = rnh_form.type;
    request.rts_hdr.rtsh_op = operation;
    request.rts_hdr.rtsh_seq = ++cookie->seq;
    request.rts_hdr.rtsh_hdrlen = rnh_form.hdrlen;
    request.idx = index;
    request.af = family;
    if (cookie->rnhm_get_flag != 0)
        request.trailing_word = TRAILING_MORE;
    result = rtslib_msg_write_idl(cookie, &request, nullptr);
    if (result == 0 && rtslib_request_is_answered(operation, RTSLIB_ANSWERED))
        result = rtslib_long_msg_read_idl(cookie, message, mask);
    if (result != 0 && message != nullptr)
        *message = nullptr;
    return result;
}

int rtslib_rnhm_subunit_nhadd(struct rtslib_cookie *cookie, const uint32_t *ifidx, uint8_t family, void **message,
                              void **mask)
{
    int result = rtslib_request_check(cookie, RTM_OP_ADD_GET, RTSLIB_ANSWERED, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    struct rnh_msg *request = rtslib_nh_request(cookie, &rtslib_nh_subunit, RTM_OP_ADD_GET, 0, family, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->ifidx = ifidx != nullptr ? *ifidx : 0;
    return rtslib_request_ask(cookie, request, rtslib_long_msg_read_idl, message, mask);
}

int rtslib_rnhm_subunit_nhdelete_by_index(struct rtslib_cookie *cookie, uint32_t index, uint8_t family)
{
    return rtslib_nh_delete(cookie, &rtslib_nh_subunit, index, family);
}
