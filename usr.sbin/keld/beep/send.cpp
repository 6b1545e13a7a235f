/*
 * Sending: how a message gets onto its channel. Nothing is written here.
 *
 * Each send copies its payload into one frame at the end of bc_out and asks for write readiness; a failure leaves
 * nothing queued. Message numbers are the channel's: MSGs count up from bc_next_msgno, replies carry the number of
 * the MSG that the channel is answering (bc_pending), and the reply marked '.' ends it and lets the next MSG through.
 *
 * SEQ frames do not queue. A channel has at most one unsent, and a newer one overwrites its values. One that has left
 * is kept and used again, so that flow control allocates nothing.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <inttypes.h>
#include <limits.h>
#include <string.h>

extern "C" {

void beep_enable_write(struct beep_session *session)
{
    // A request made while the registration stands leaves it as it is, and one that fails is repeated by the next send.
    (void)evSelectFD(session->bs_ev_ctx, session->bs_fd, EV_WRITE, handle_write, session, &session->bs_write_id);
}

/* Takes frame, which may be null. msgno, or -1 with nothing queued; who is the function to name in the trace. */
static int32_t queue_frame(struct beep_session *session, struct beep_channel *channel, struct beep_frame *frame,
                           int32_t msgno, const char *who)
{
    if (!frame) {
        beep_trace("%s: no memory", who);
        return -1;
    }
    if (bp_queue_put_and_grow(channel->bc_out, reinterpret_cast<uintptr_t>(frame)) != 0) {
        beep_trace("%s: unable to queue the frame", who);
        frame_free(frame);
        return -1;
    }
    beep_enable_write(session);
    return msgno;
}

/* Takes the channel's next message number for a MSG without one. False if the number cannot be used. */
static bool settle_msgno(struct beep_channel *channel, char type, int32_t *msgno, const char *who)
{
    if (type == BEEP_MSGTYPE_MSG && *msgno == -1) {
        *msgno = channel->bc_next_msgno;
        channel->bc_next_msgno = static_cast<int32_t>(static_cast<uint32_t>(*msgno) + 1);
    } else if (type != BEEP_MSGTYPE_MSG && *msgno < 0) {
        beep_trace("%s: invalid msgno %" PRId32, who, *msgno);
        return false;
    }
    return true;
}

int32_t beep_send_iovec(struct beep_session *session, struct beep_channel *channel, char type, int32_t msgno, char more,
                        const struct iovec *iov, int iov_count)
{
    if (!settle_msgno(channel, type, &msgno, "beep_send_iovec")) return -1;

    size_t size = 0;
    for (int piece = 0; piece < iov_count; piece++) size += iov[piece].iov_len;

    struct beep_frame *frame = nullptr;
    if (size <= INT32_MAX)
        frame = frame_new(type, channel->bc_number, msgno, more, static_cast<int32_t>(size), -1, nullptr);
    if (frame) {
        char *to = frame->bf_data;
        for (int piece = 0; piece < iov_count; piece++) {
            if (iov[piece].iov_len == 0) continue;
            memcpy(to, iov[piece].iov_base, iov[piece].iov_len);
            to += iov[piece].iov_len;
        }
    }
    return queue_frame(session, channel, frame, msgno, "beep_send_iovec");
}

int32_t beep_send_raw(struct beep_session *session, uint16_t number, char type, int32_t msgno, char more, int32_t size,
                      int32_t ansno, const void *data)
{
    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace("beep_send_raw: channel %d is not available", number);
        return -1;
    }
    if (!settle_msgno(channel, type, &msgno, "beep_send_raw")) return -1;

    struct beep_frame *frame = frame_new(type, number, msgno, more, size, ansno, data);
    return queue_frame(session, channel, frame, msgno, "beep_send_raw");
}

int beep_send_msg(struct beep_session *session, uint16_t number, const struct iovec *iov, int iov_count)
{
    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace("beep_send_msg: channel %d is not available", number);
        return -1;
    }
    if (channel->bc_state != BEEP_STATE_READY) {
        beep_trace("beep_send_msg: channel %d is not ready", number);
        return -1;
    }

    // Kept on purpose: the number stays used if the rest fails, so numbers on the wire can have gaps.
    int32_t msgno = -1;
    (void)settle_msgno(channel, BEEP_MSGTYPE_MSG, &msgno, "beep_send_msg");   // never refuses a fresh number
    if (beep_send_iovec(session, channel, BEEP_MSGTYPE_MSG, msgno, BEEP_MORE_LAST, iov, iov_count) == -1) return -1;

    // Kept on purpose: the MSG is on its way; its reply will only be taken for one to an unsent message.
    if (bp_queue_put_and_grow(channel->bc_sent_msgnos, pending_word(msgno)) != 0)
        beep_trace("beep_send_msg: unable to remember %" PRId32 " as pending ack", msgno);
    return 0;
}

/* --- replies ---------------------------------------------------------------------------------------------------- */

static constexpr struct reply_kind {
    char rk_type;
    const char *rk_unavailable, *rk_no_msg, *rk_mismatch;
} rpy_kind = { BEEP_MSGTYPE_RPY, "beep_send_rpy: channel %d is not available",
               "beep_send_rpy: channel %d, no outstanding MSG",
               "beep_send_rpy: channel %d, RPY %" PRId32 " does not match outstanding MSG %" PRId32 },
  err_kind = { BEEP_MSGTYPE_ERR, "beep_send_err: channel %d is not available",
               "beep_send_err: channel %d, no outstanding MSG",
               "beep_send_err: channel %d, err %" PRId32 " does not match outstanding MSG %" PRId32 };

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"   // the texts stand in the two rows above

/* Finds which MSG a reply answers: *msgno, or the one in progress if that is -1. False if there is none or another. */
static bool settle_reply(const struct beep_channel *channel, const struct reply_kind *kind, int32_t *msgno)
{
    if (channel->bc_number == 0) {
        // Kept on purpose: a number given for channel 0 is used unchecked. Replies to <start> go this way.
        if (*msgno != -1) return true;
        if (const struct chan0_msg *close = channel0_pending(channel)) {
            *msgno = close->msgno;
            return true;
        }
        beep_trace(kind->rk_no_msg, 0);
        return false;
    }

    if (!channel_answering(channel)) {
        beep_trace(kind->rk_no_msg, channel->bc_number);
        return false;
    }
    int32_t pending = static_cast<int32_t>(channel->bc_pending);
    if (*msgno != -1 && *msgno != pending) {
        beep_trace(kind->rk_mismatch, channel->bc_number, *msgno, pending);
        return false;
    }
    *msgno = pending;
    return true;
}

/* The last reply is queued: the channel may take its next MSG. */
static void finish_msg(struct beep_session *session, struct beep_channel *channel)
{
    if (channel->bc_number != 0) {
        channel->bc_answered_msgno = static_cast<int32_t>(channel->bc_pending);
        (void)evDo(session->bs_ev_ctx, wait_tag(handle_frame_non0));
        channel->bc_pending = BEEP_NOTHING_PENDING;
        return;
    }
    if (struct chan0_msg *close = channel0_pending(channel)) {
        channel->bc_answered_msgno = close->msgno;
        chan0_msg_delete(close);
        (void)evDo(session->bs_ev_ctx, wait_tag(handle_frame_0));
        channel->bc_pending = 0;
    }
}

static int send_reply(struct beep_session *session, const struct reply_kind *kind, uint16_t number, int32_t msgno,
                      char more, const struct iovec *iov, int iov_count)
{
    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace(kind->rk_unavailable, number);
        return -1;
    }
    if (!settle_reply(channel, kind, &msgno)) return -1;
    if (beep_send_iovec(session, channel, kind->rk_type, msgno, more, iov, iov_count) == -1) return -1;
    if (more == BEEP_MORE_LAST) finish_msg(session, channel);
    return 0;
}

#pragma GCC diagnostic pop

int beep_send_rpy(struct beep_session *session, uint16_t number, int32_t msgno, char more, const struct iovec *iov,
                  int iov_count)
{
    return send_reply(session, &rpy_kind, number, msgno, more, iov, iov_count);
}

int beep_send_err(struct beep_session *session, uint16_t number, int32_t msgno,
                  const struct beep_diagnostic *diagnostic)
{
    char text[CHAN0_TEXT_MAX];
    struct iovec iov = { text, chan0_fmt_error(text, sizeof text, diagnostic->code, diagnostic->message) };
    return send_reply(session, &err_kind, number, msgno, BEEP_MORE_LAST, &iov, 1);
}

/* --- flow control ----------------------------------------------------------------------------------------------- */

int beep_send_seq(struct beep_session *session, uint16_t number, uint32_t ackno, int32_t window)
{
    struct beep_channel *channel = beep_find_channel(session, number);
    if (!channel) {
        beep_trace("beep_send_seq: channel %d is not available", number);
        return -1;
    }

    if (!channel->bc_seq_frame) {
        channel->bc_seq_frame = channel->bc_seq_spare;
        channel->bc_seq_spare = nullptr;
    }
    if (!channel->bc_seq_frame)
        channel->bc_seq_frame = frame_new(BEEP_MSGTYPE_SEQ, number, 0, BEEP_MORE_NONE, 0, 0, nullptr);
    if (!channel->bc_seq_frame) {
        beep_trace("beep_send_seq: no memory");
        return -1;
    }
    channel->bc_seq_frame->bf_msgno = static_cast<int32_t>(ackno);
    channel->bc_seq_frame->bf_ansno = window;
    beep_enable_write(session);
    return 0;
}

}   // extern "C"
