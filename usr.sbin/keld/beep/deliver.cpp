/*
 * Delivery: takes frames off the channels' queues, joins them to messages and hands them on, one turn of the loop
 * after they were read.
 *
 * Channel 0 and profiles with pro_message get whole messages; profiles with pro_frame get frames as they come, but
 * the first of a message holds the whole MIME header. On a channel one MSG is served at a time: bc_pending names it
 * from the moment its first frame is looked at until its last reply is queued, and no other MSG passes meanwhile.
 *
 * A message that has not come whole is put back on its queue and counts against the window that the peer is offered.
 * A peer that keeps to the window can therefore not finish a message of more than 4096 octets, header included, on
 * channel 0 or for pro_message.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <errno.h>
#include <inttypes.h>
#include <limits.h>
#include <string.h>

extern "C" {

enum { AGGREGATE_MAX = 50 };   // frames joined in one pass
enum { LINE_INSIST_REASSEMBLED = 987, LINE_INSIST_NOT_ANS = 2727, LINE_INSIST_JOINED = 2779 };

/* --- joining frames --------------------------------------------------------------------------------------------- */

/* A frame with the octets of count frames in order. Frees these. more is the last one's; ansno as given. function,
 * line and expression are for the insist line when there is no memory. */
static struct beep_frame *join_frames(struct beep_frame *const *frames, int count, int32_t ansno, const char *function,
                                      int line, const char *expression)
{
    int64_t size = 0;
    for (int i = 0; i < count; i++) size += frames[i]->bf_size;

    const struct beep_frame *first = frames[0];
    struct beep_frame *out = nullptr;
    if (size <= INT32_MAX)   // a larger sum counts as memory that is not to be had
        out = frame_new(first->bf_type, first->bf_channel, first->bf_msgno, frames[count - 1]->bf_more,
                        static_cast<int32_t>(size), ansno, nullptr);
    if (!out) frame_missing(function, line, expression);

    char *to = out->bf_data;
    for (int i = 0; i < count; i++) {
        memcpy(to, frames[i]->bf_data, static_cast<size_t>(frames[i]->bf_size));
        to += frames[i]->bf_size;
        frame_free(frames[i]);
    }
    return out;
}

/* One pass: takes frames off queue, behind head if there is one, until held is full or the message or the queue ends.
 * The number held; 0 if there was nothing to take or it does not go with head, which is then freed. */
static int take_frames(struct bp_queue *queue, struct beep_frame *head, struct beep_frame **held)
{
    struct beep_frame *frame = frame_get(queue);
    if (!frame) {
        frame_free(head);   // Kept on purpose: a pass that filled up with the queue's last frame loses the message
        return 0;
    }
    if (frame->bf_type == BEEP_MSGTYPE_ANS)
        logging_insist(BEEP_SOURCE_UNIT, "beep_frame_aggregate_internal", LINE_INSIST_NOT_ANS,
                       "msg_type != BEEP_MSGTYPE_ANS");
    if (head && (head->bf_type != frame->bf_type || head->bf_msgno != frame->bf_msgno)) {
        beep_trace("frame_aggregate: head frame %" PRId32 " type '%c', first frame in queue %" PRId32 " type '%c'",
                   head->bf_msgno, head->bf_type, frame->bf_msgno, frame->bf_type);
        frame_free(head);   // Kept on purpose: both are lost
        frame_free(frame);
        return 0;
    }

    int count = 0;
    if (head) held[count++] = head;
    held[count++] = frame;
    while (held[count - 1]->bf_more == BEEP_MORE_TO_COME && count < AGGREGATE_MAX) {
        frame = frame_get(queue);
        if (!frame) break;
        held[count++] = frame;
    }
    return count;
}

static void put_frames_back(struct bp_queue *queue, struct beep_frame *const *held, int count)
{
    beep_trace("frame_aggregate: queue %d frames back into channel %hd", count,
               static_cast<int16_t>(held[0]->bf_channel));
    // Kept on purpose: they go to the tail, so a frame with a mark that is neither '.' nor '*' lands behind later ones.
    for (int i = 0; i < count; i++)
        (void)bp_queue_put(queue, reinterpret_cast<uintptr_t>(held[i]));   // the takes have left room
}

struct beep_frame *beep_frame_aggregate_internal(struct bp_queue *queue, struct beep_frame *head, int strict)
{
    for (;;) {
        struct beep_frame *held[AGGREGATE_MAX];
        int count = take_frames(queue, head, held);
        if (count == 0) return nullptr;

        if (strict && count < AGGREGATE_MAX && held[count - 1]->bf_more != BEEP_MORE_LAST) {
            put_frames_back(queue, held, count);
            return nullptr;
        }
        if (count == 1) return held[0];

        head = join_frames(held, count, -1, "beep_frame_aggregate_internal", LINE_INSIST_JOINED, "out");
        if (!strict || head->bf_more == BEEP_MORE_LAST) return head;
    }
}

struct beep_frame *frame_aggregate(struct bp_queue *queue, int strict)
{
    return beep_frame_aggregate_internal(queue, nullptr, strict);
}

/* True if the frame may be the start of a message whose MIME header is not all here. */
static bool lacks_mime_header_end(const struct beep_frame *frame)
{
    if (frame->bf_size < 1 || frame->bf_more == BEEP_MORE_LAST) return false;

    size_t size = static_cast<size_t>(frame->bf_size);
    size_t prefix = mime_header_prefix_len;
    if (memcmp(frame->bf_data, BEEP_MIME_HEADER, size < prefix ? size : prefix) != 0) return false;
    return size <= mime_header_prefix_len + mime_header_trailer_len ||
           !memmem(frame->bf_data, size, "\r\n\r\n", mime_header_trailer_len);
}

int beep_frame_reassemble(struct beep_channel *channel, struct beep_frame **frame)
{
    if (channel->bc_last_more != BEEP_MORE_LAST) return 1;   // it continues a message

    while (lacks_mime_header_end(*frame)) {
        struct beep_frame *next = frame_get(channel->bc_in);
        if (!next) {
            (void)bp_queue_put(channel->bc_in, reinterpret_cast<uintptr_t>(*frame));   // it has just come from there
            return 0;
        }
        if (next->bf_type == (*frame)->bf_type && next->bf_msgno == (*frame)->bf_msgno) {
            struct beep_frame *both[] = { *frame, next };
            *frame = join_frames(both, 2, (*frame)->bf_ansno, "beep_frame_reassemble", LINE_INSIST_REASSEMBLED, "new");
        } else {
            beep_trace("ERROR: reassembly failed for frame %" PRId32 ", type=%c", (*frame)->bf_msgno,
                       (*frame)->bf_type);
            frame_free(*frame);   // Kept on purpose: its octets are not given back to the window
            *frame = next;
        }
    }
    return 1;
}

/* --- profiles --------------------------------------------------------------------------------------------------- */

enum take_result { TAKE_NOTHING, TAKE_DROPPED, TAKE_READY };

/* Lets the channel's first frame through if it is its turn: one MSG at a time. */
static enum take_result admit_msg(struct beep_channel *channel, const struct beep_frame *first)
{
    if (first->bf_type != BEEP_MSGTYPE_MSG) return TAKE_READY;

    if (channel_answering(channel) && channel->bc_pending != pending_word(first->bf_msgno)) return TAKE_NOTHING;
    if (first->bf_msgno == channel->bc_answered_msgno) {
        // Kept on purpose: the octets of a dropped repeat are not given back to the window.
        beep_trace("handle_frame_non0: MSG frame %" PRId32 " discarded", first->bf_msgno);
        frame_free(frame_get(channel->bc_in));
        return TAKE_DROPPED;
    }
    channel->bc_pending = pending_word(first->bf_msgno);
    return TAKE_READY;
}

/* Takes the next thing to deliver off the channel, or null. */
static struct beep_frame *take_delivery(struct beep_channel *channel)
{
    if (!channel->bc_profile || !channel->bc_profile->pro_frame) return frame_aggregate(channel->bc_in, 1);

    struct beep_frame *frame = frame_get(channel->bc_in);
    return beep_frame_reassemble(channel, &frame) ? frame : nullptr;
}

/* True if the reply answers a MSG of ours, which is then done with if this is the reply's end. */
static bool settle_sent(struct beep_channel *channel, const struct beep_frame *frame)
{
    if (!bp_queue_find(channel->bc_sent_msgnos, pending_word(frame->bf_msgno))) {
        beep_trace("channel %hd: received reply to unsent or completely answered message %" PRId32 ", discarded",
                   static_cast<int16_t>(channel->bc_number), frame->bf_msgno);
        return false;
    }
    if (frame->bf_more == BEEP_MORE_LAST &&
        bp_queue_get_till(channel->bc_sent_msgnos, pending_word(frame->bf_msgno)) > 1)
        beep_trace("channel %d: more than 1 MSG removed", channel->bc_number);
    return true;
}

static void deliver(struct beep_session *session, struct beep_channel *channel, struct beep_frame *frame)
{
    const struct beep_profile *profile = channel->bc_profile;
    if (profile && profile->pro_frame)
        (void)profile->pro_frame(session, channel->bc_user_data, frame);
    else if (profile && profile->pro_message)
        (void)profile->pro_message(session, channel->bc_user_data, frame);
}

/* One delivery on the channel. True if something was taken off its queue for good. */
static bool serve_channel(struct beep_session *session, struct beep_channel *channel)
{
    const struct beep_frame *first = frame_peek(channel->bc_in);
    if (!first) return false;

    enum take_result admitted = admit_msg(channel, first);
    if (admitted != TAKE_READY) return admitted == TAKE_DROPPED;

    struct beep_frame *frame = take_delivery(channel);
    if (!frame) return false;

    channel->bc_last_more = frame->bf_more;
    channel->bc_rx_queued = static_cast<int32_t>(static_cast<uint32_t>(channel->bc_rx_queued) -
                                                 static_cast<uint32_t>(frame->bf_size));
    if (frame->bf_size > 0) channel_send_seq(session, channel);
    // A reply that nobody waits for is dropped, but it has made room for what stands behind it: the pass goes on.
    if (frame->bf_type == BEEP_MSGTYPE_MSG || settle_sent(channel, frame)) deliver(session, channel, frame);
    frame_free(frame);
    return true;
}

void handle_frame_non0(evContext ctx, void *uap, const void *)
{
    auto *session = static_cast<struct beep_session *>(uap);
    if (!session) {
        beep_trace("handle_frame_non0: NULL session");
        return;
    }
    session->bs_frame_wait = nullptr;
    if (evWaitFor(ctx, wait_tag(handle_frame_non0), handle_frame_non0, session, &session->bs_frame_wait) < 0)
        beep_trace("handle_frame_non0: evWaitFor: %s", strerror(errno));

    bool served = true;
    while (served) {
        served = false;
        for (uint32_t number = 1; number < session->bs_channel_count; number++) {
            struct beep_channel *channel = session->bs_channels[number];
            if (channel && serve_channel(session, channel)) served = true;
        }
    }
    if (session->bs_close_wait) (void)evDo(ctx, wait_tag(close_job));
}

/* --- channel 0 -------------------------------------------------------------------------------------------------- */

static void take_greeting(struct beep_session *session, struct chan0_msg *)
{
    struct beep_channel *channel0 = beep_find_channel(session, 0);

    // Kept on purpose: a greeting in any status but 'S' sets the session back to waiting, and the one after that
    // makes it ready again and calls the profiles again.
    if (channel0->bc_state != BEEP_STATE_START) {
        channel0->bc_state = BEEP_STATE_START;
        return;
    }
    channel0->bc_state = BEEP_STATE_READY;
    for (uint16_t row = 0; row < session->bs_profile_count; row++)
        if (session->bs_profiles[row].pro_greeting) session->bs_profiles[row].pro_greeting(session);
}

static void take_start(struct beep_session *session, struct chan0_msg *msg)
{
    if (!msg->profiles || msg->channel == 0)
        chan0_refuse(session, msg, 553, nullptr);
    else
        channel_start_indicate(session, msg);
}

static void take_start_reply(struct beep_session *session, struct chan0_msg *msg)
{
    if (msg->profiles && msg->channel != 0) channel_start_confirm(session, msg);
}

static void take_close_reply(struct beep_session *session, struct chan0_msg *msg)
{
    if (msg->channel != 0)
        channel_stop_confirm(session, msg);
    else
        session_closed(session);
}

enum : char { ANY_TYPE = '\0' };

static constexpr struct chan0_row {
    char cr_op, cr_type;
    void (*cr_take)(struct beep_session *session, struct chan0_msg *msg);
} chan0_rows[] = {
    { 'g', ANY_TYPE, take_greeting },
    { 's', BEEP_MSGTYPE_MSG, take_start },
    { 's', BEEP_MSGTYPE_RPY, take_start_reply },
    { 's', BEEP_MSGTYPE_ERR, handle_start_err },
    { 'c', BEEP_MSGTYPE_MSG, channel_stop_indicate },
    { 'c', BEEP_MSGTYPE_RPY, take_close_reply },
    { 'c', BEEP_MSGTYPE_ERR, handle_close_err },
};

static void dispatch_chan0(struct beep_session *session, struct chan0_msg *msg)
{
    for (const auto &row : chan0_rows) {
        if (row.cr_op != msg->op || (row.cr_type != ANY_TYPE && row.cr_type != msg->type)) continue;
        row.cr_take(session, msg);
        return;
    }
    if (msg->op == 's')
        beep_trace("ERROR: <start> in a '%c' frame", msg->type);
    else if (msg->op == 'c')
        beep_trace("ERROR: <close> in a '%c' frame", msg->type);
    else
        beep_trace("received chan0 msg with invalid op code '%c'", msg->op);
}

/* Takes the next message of channel 0, if it is its turn. Null if there is nothing to do now. */
static struct beep_frame *take_chan0_frame(struct beep_channel *channel0)
{
    const struct beep_frame *first = frame_peek(channel0->bc_in);
    if (!first) return nullptr;
    if (first->bf_type == BEEP_MSGTYPE_MSG && channel0_pending(channel0)) return nullptr;   // first the <close>

    struct beep_frame *frame = frame_aggregate(channel0->bc_in, 1);
    // Kept on purpose: no SEQ here, as against other channels.
    if (frame)
        channel0->bc_rx_queued = static_cast<int32_t>(static_cast<uint32_t>(channel0->bc_rx_queued) -
                                                      static_cast<uint32_t>(frame->bf_size));
    return frame;
}

void handle_frame_0(evContext ctx, void *uap, const void *)
{
    auto *session = static_cast<struct beep_session *>(uap);
    if (!session) {
        beep_trace("handle_frame_0: NULL session");
        return;
    }
    session->bs_frame0_wait = nullptr;
    struct beep_channel *channel0 = beep_find_channel(session, 0);
    if (!channel0) {
        beep_trace("handle_frame_0: channel 0 non-exist");
        return;
    }
    if (evWaitFor(ctx, wait_tag(handle_frame_0), handle_frame_0, session, &session->bs_frame0_wait) < 0)
        beep_trace("handle_frame_0: evWaitFor: %s", strerror(errno));

    // Kept on purpose: messages are served in any status, also before the peer's greeting.
    // A message may end the session and channel 0 with it, so each turn looks for the channel anew.
    for (; channel0; channel0 = beep_find_channel(session, 0)) {
        struct beep_frame *frame = take_chan0_frame(channel0);
        if (!frame) return;

        struct chan0_msg *msg = chan0_msg_parse(session, frame);
        frame_free(frame);
        if (!msg) {
            beep_trace("received unparsable frame on channel 0, discarded");
            continue;
        }
        dispatch_chan0(session, msg);
        chan0_msg_delete(msg);
    }
}

}   // extern "C"
