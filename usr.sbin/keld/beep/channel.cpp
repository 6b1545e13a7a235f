/*
 * Frames and channels as records: how they are made, and in what order a channel comes apart.
 *
 * A channel owns its queues and every frame in them. It does not know its session: whoever deletes a channel has
 * taken it out of the session's table first.
 */
#include "usr.sbin/keld/beep/beep_private.h"

#include <stdlib.h>
#include <string.h>

extern "C" {

/* Behind the payload: the trailer as it is read, and a zero, so that any payload can be read as text. */
enum { FRAME_SLACK = BEEP_TRAILER_LEN + 1 };

struct beep_frame *frame_new(char type, uint16_t channel, int32_t msgno, char more, int32_t size, int32_t ansno,
                             const void *data)
{
    size_t payload = static_cast<size_t>(size);
    auto *frame = static_cast<struct beep_frame *>(calloc(1, sizeof(struct beep_frame) + payload + FRAME_SLACK));
    if (!frame) return nullptr;

    frame->bf_type = type;
    frame->bf_channel = channel;
    frame->bf_msgno = msgno;
    frame->bf_more = more;
    frame->bf_size = size;
    frame->bf_ansno = ansno;
    frame->bf_data = frame->bf_payload;
    if (data) memcpy(frame->bf_data, data, payload);
    return frame;
}

void frame_free(struct beep_frame *frame)
{
    free(frame);
}

void frame_queue_free(struct bp_queue *queue)
{
    while (struct beep_frame *frame = frame_get(queue)) frame_free(frame);
    bp_queue_free(queue);
}

struct beep_channel *channel_new(uint16_t number, const struct beep_profile *profile, char role)
{
    auto *channel = static_cast<struct beep_channel *>(calloc(1, sizeof(struct beep_channel)));
    if (!channel) return nullptr;

    channel->bc_in = bp_queue_new(BEEP_QUEUE_SIZE);
    channel->bc_out = bp_queue_new(BEEP_QUEUE_SIZE);
    channel->bc_sent_msgnos = bp_queue_new(BEEP_QUEUE_SIZE);
    if (!channel->bc_in || !channel->bc_out || !channel->bc_sent_msgnos) {
        bp_queue_free(channel->bc_in);
        bp_queue_free(channel->bc_out);
        bp_queue_free(channel->bc_sent_msgnos);
        free(channel);
        return nullptr;
    }

    channel->bc_number = number;
    channel->bc_profile = profile;
    channel->bc_role = role;
    channel->bc_last_more = BEEP_MORE_LAST;
    channel->bc_next_msgno = number == 0 ? 1 : 0;   // the greeting is channel 0's message 0
    channel->bc_answered_msgno = -1;
    channel->bc_rx_window = BEEP_WINDOW;
    channel->bc_tx_limit = BEEP_WINDOW;
    channel->bc_pending = number == 0 ? 0 : BEEP_NOTHING_PENDING;
    beep_trace("channel %hd created", static_cast<int16_t>(number));
    return channel;
}

void channel_delete(struct beep_channel *channel)
{
    frame_queue_free(channel->bc_in);
    frame_queue_free(channel->bc_out);
    bp_queue_free(channel->bc_sent_msgnos);
    frame_free(channel->bc_seq_frame);
    frame_free(channel->bc_seq_spare);
    if (channel->bc_number == 0) chan0_msg_delete(channel0_pending(channel));
    if (channel->bc_profile && channel->bc_profile->pro_stop) channel->bc_profile->pro_stop(channel->bc_user_data);
    beep_trace("channel %hd deleted", static_cast<int16_t>(channel->bc_number));
    free(channel);
}

bool channel_idle(const struct beep_channel *channel)
{
    return !channel_answering(channel) && bp_queue_len(channel->bc_sent_msgnos) == 0 &&
           bp_queue_len(channel->bc_in) == 0 && bp_queue_len(channel->bc_out) == 0;
}

uint16_t beep_get_channel_number(const struct beep_channel *channel)
{
    return channel->bc_number;
}

void beep_set_channel_user_data(struct beep_channel *channel, void *data)
{
    channel->bc_user_data = data;
}

}   // extern "C"
