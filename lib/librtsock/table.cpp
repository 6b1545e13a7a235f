/*
 * Operations on routing tables. Each builds one rtb_msg; a get reads the reply that is there when the write returns.
 */
#include "lib/librtsock/rtslib_table.h"
#include "lib/librtsock/request.h"
#include "platform/target.h"

namespace {

constexpr struct rtslib_request_form rtb_form = { 1, 98, 200, sizeof(struct rtb_msg) };

enum {
    TID_BY_NAME = 65535,
    FLAG_NO_NAME = 8,        // of rtb_msg's flags
    PRFLAGS_DEFAULT = 1,
    MSGLEN_FIXED = 200,
    SVCS_CHAN_ITEM = 104,    // and what its octets begin with
    SVCS_CHAN_TAG = 2,
    SVCS_CHAN_LENGTH = 10,
};

struct rtb_msg *new_request(struct rtslib_cookie *cookie, uint8_t operation, uint8_t family, uint16_t index,
                            uint8_t **cursor)
{
    auto *message = static_cast<struct rtb_msg *>(rtslib_request_new(cookie, &rtb_form, operation, cursor));
    if (message == nullptr)
        return nullptr;
    message->tid = index;
    message->af = family;
    return message;
}

void put_name(struct rtb_msg *message, uint8_t **cursor, const char *name)
{
    if (name != nullptr)
        message->name = rtslib_request_name(message, cursor, name, &message->name_len);
}

struct rtb_msg *new_update(struct rtslib_cookie *cookie, uint16_t index, uint8_t family, uint32_t aux_word1,
                           const char *name, uint32_t aux_word2, uint16_t aux_half, uint8_t operation, uint8_t **cursor)
{
    struct rtb_msg *message = new_request(cookie, operation, family, index, cursor);
    if (message == nullptr)
        return nullptr;
    message->aux_word1 = aux_word1;
    message->aux_word2 = aux_word2;
    message->aux_half = aux_half;
    put_name(message, cursor, name);
    return message;
}

uint32_t word_rounded(uint32_t octets)
{
    return (octets + 3) & ~uint32_t(3);
}

/* The item of a services channel, behind the message's other parts. */
int add_svcs_chan(struct rtb_msg *message, uint8_t **cursor, uint16_t channel)
{
    auto *item = static_cast<struct rts_msg_info *>(rtslib_request_room(message, cursor, sizeof(struct rts_msg_info)));
    if (item == nullptr)
        return TARGET_ENOMEM;
    item->tag = SVCS_CHAN_ITEM;
    item->u.rtb_svcs_chan.own_tag = SVCS_CHAN_TAG;
    item->u.rtb_svcs_chan.own_length = SVCS_CHAN_LENGTH;
    item->u.rtb_svcs_chan.channel = channel;
    return rtsm_info_user_add(&message->rts_hdr, item, cursor);
}

}   // namespace

int rtslib_rtbm_get_by_name(struct rtslib_cookie *cookie, uint8_t family, const char *name, void **message,
                            void **mask)
{
    int result = rtslib_request_check(cookie, RTM_OP_GET, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    struct rtb_msg *request = new_request(cookie, RTM_OP_GET, family, TID_BY_NAME, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    put_name(request, &cursor, name);
    return rtslib_request_ask(cookie, request, rtslib_msg_read_idl, message, mask);
}

int rtslib_rtbm_get_by_index(struct rtslib_cookie *cookie, uint8_t family, uint16_t index, uint8_t operation,
                             void **message, void **mask)
{
    int result = rtslib_request_check(cookie, RTM_OP_GET, RTSLIB_ANSWERED_GETS, message);
    if (result != 0)
        return result;
    uint8_t *cursor;
    struct rtb_msg *request = new_request(cookie, operation, family, index, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    return rtslib_request_ask(cookie, request, rtslib_msg_read_idl, message, mask);
}

int rtslib_rtbm_add_lr(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family,
                       const char *lrname, uint8_t lrid, uint8_t flag, uint32_t prflags)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    struct rtb_msg *request = new_request(cookie, RTM_OP_ADD, family, index, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->rts_hdr.rtsh_flag = flag;
    request->rts_hdr.rtsh_msglen = MSGLEN_FIXED;
    request->prflags = prflags;
    request->lrid = lrid;
    if (name == nullptr)
        request->flags |= FLAG_NO_NAME;
    put_name(request, &cursor, name != nullptr ? name : "default");
    if (lrname != nullptr)
        request->lrname = rtslib_request_name(request, &cursor, lrname, &request->lrname_len);
    return rtslib_request_send(cookie, request);
}

int rtslib_rtbm_add_prflag(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family, uint8_t flag,
                           uint32_t prflags)
{
    return rtslib_rtbm_add_lr(cookie, name, index, family, "null", 0, flag, prflags);
}

int rtslib_rtbm_add(struct rtslib_cookie *cookie, const char *name, uint16_t index, uint8_t family, uint8_t flag)
{
    return rtslib_rtbm_add_lr(cookie, name, index, family, "null", 0, flag, PRFLAGS_DEFAULT);
}

int rtslib_rtbm_update(struct rtslib_cookie *cookie, uint16_t index, uint8_t family, uint32_t aux_word1,
                       const char *name, uint32_t aux_word2, uint16_t aux_half, uint8_t operation)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    struct rtb_msg *request =
        new_update(cookie, index, family, aux_word1, name, aux_word2, aux_half, operation, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->rts_hdr.rtsh_msglen = MSGLEN_FIXED;
    return rtslib_request_send(cookie, request);
}

int rtslib_rtbm_update_svcs_chan(struct rtslib_cookie *cookie, uint16_t index, uint8_t family, uint32_t aux_word1,
                                 const char *name, uint32_t aux_word2, uint16_t aux_half, uint16_t channel,
                                 uint32_t prflags)
{
    if (cookie == nullptr)
        return TARGET_EINVAL;
    uint8_t *cursor;
    // Kept on purpose: an update that is sent as an add.
    struct rtb_msg *request =
        new_update(cookie, index, family, aux_word1, name, aux_word2, aux_half, RTM_OP_ADD, &cursor);
    if (request == nullptr)
        return TARGET_ENOMEM;
    request->prflags = prflags;
    int result = add_svcs_chan(request, &cursor, channel);
    if (result != 0) {
        rtslib_msg_free(cookie, request);
        return result;
    }
    request->rts_hdr.rtsh_msglen =
        MSGLEN_FIXED + word_rounded(request->name_len) + word_rounded(sizeof(struct rtb_svcs_chan));
    return rtslib_request_send(cookie, request);
}
