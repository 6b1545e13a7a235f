/*
 * The engine's inner seams: what its source files call of each other. Not for profiles.
 *
 * Who calls whom: frame_in puts frames on channels; deliver takes them off and calls chan0_parse, manage, close or a
 * profile; these send through send, which queues for write. session owns all of it.
 */
#pragma once

#include "usr.sbin/keld/beep/beep.h"

extern "C" {

#define BEEP_SOURCE_UNIT "usr.sbin/keld/beep"   // as insist lines name it

/* --- trace ----------------------------------------------------------------------------------------------------- */

/* One line of class DTF_BEEP. */
[[gnu::format(printf, 1, 2)]] void beep_trace(const char *format, ...);
/* Octets that passed the transport: label is "read" or "Wrote". */
void beep_trace_octets(const char *label, const void *data, size_t length);

/* --- session --------------------------------------------------------------------------------------------------- */

/* Ends a session: deletes all channels, then calls the close callback, or, without one, stops reading and writing. */
void session_closed(struct beep_session *session);
/* Clears the channel's slot and deletes it. A frame of it that is half written stays with the session until it is
 * out. */
void session_drop_channel(struct beep_session *session, struct beep_channel *channel);
/* beep_add_channel that says whether the channel, which it takes in any case, is in the table now. */
[[nodiscard]] bool session_add_channel(struct beep_session *session, struct beep_channel *channel);
/* The profile row whose URI equals uri, or null. */
const struct beep_profile *find_profile(const struct beep_session *session, const char *uri);

/* --- channel --------------------------------------------------------------------------------------------------- */

/* Nothing is being answered, awaited or queued on the channel, so that it may close. */
bool channel_idle(const struct beep_channel *channel);
/* Frees all frames of a queue, and the queue. */
void frame_queue_free(struct bp_queue *queue);

static inline bool channel_answering(const struct beep_channel *channel)
{
    return channel->bc_pending != BEEP_NOTHING_PENDING;
}

static inline struct beep_frame *frame_peek(const struct bp_queue *queue)
{
    return reinterpret_cast<struct beep_frame *>(bp_queue_peek(queue));
}

static inline struct beep_frame *frame_get(struct bp_queue *queue)
{
    return reinterpret_cast<struct beep_frame *>(bp_queue_get(queue));
}

/* A message number as a queue or bc_pending holds it. */
static inline uintptr_t pending_word(int32_t msgno)
{
    return static_cast<uintptr_t>(static_cast<intptr_t>(msgno));
}

/* The <close> that channel 0 is working on, or null. */
static inline struct chan0_msg *channel0_pending(const struct beep_channel *channel0)
{
    return reinterpret_cast<struct chan0_msg *>(channel0->bc_pending);
}

/* --- deferred jobs, each its own wait tag, and loop handlers ---------------------------------------------------- */

void handle_read_event(evContext ctx, void *session, int fd, int events);
void handle_write(evContext ctx, void *session, int fd, int events);
void handle_frame_0(evContext ctx, void *session, const void *tag);
void handle_frame_non0(evContext ctx, void *session, const void *tag);
void close_job(evContext ctx, void *job, const void *tag);

/* A handler as its wait tag. */
static inline const void *wait_tag(evWaitFunc handler)
{
    return reinterpret_cast<const void *>(handler);
}

/* --- input ------------------------------------------------------------------------------------------------------ */

/* Parses the line at the start of the header buffer. 0 if it was consumed, used or thrown away; 1 if it still stands.
 * */
int beep_parse_head_for_session(struct beep_session *session);
/* bs_rx_frame is whole: checks it and puts it on its channel, or frees it. */
void frame_complete(struct beep_session *session);
/* True if the frame fits what the channel last received; the channel then remembers it. */
bool frame_validate(const struct beep_frame *frame, struct beep_channel *channel);
/* Offers the peer what room the channel's queue leaves. */
void channel_send_seq(struct beep_session *session, struct beep_channel *channel);

/* Takes a whole message off queue as one frame, the caller's. Null if there is none: with strict the frames of one
 * that has not come whole are back on the queue, and those of one that cannot be joined are lost. */
struct beep_frame *frame_aggregate(struct bp_queue *queue, int strict);
/* The same with head, which it takes, as the message's first part, or null. */
struct beep_frame *beep_frame_aggregate_internal(struct bp_queue *queue, struct beep_frame *head, int strict);
/* Joins frames of bc_in to *frame until it holds the whole MIME header, if there is one. Non-zero if *frame is ready;
 * 0 if it went back to the queue. */
int beep_frame_reassemble(struct beep_channel *channel, struct beep_frame **frame);

/* No memory for a frame that cannot be done without: logs the insist line of the place and ends the process. */
[[noreturn]] void frame_missing(const char *function, int line, const char *expression);

/* --- channel management, called for channel 0 messages. msg stays the caller's ---------------------------------- */

void channel_start_indicate(struct beep_session *session, struct chan0_msg *msg);
void channel_start_confirm(struct beep_session *session, struct chan0_msg *msg);
void handle_start_err(struct beep_session *session, struct chan0_msg *msg);
void channel_stop_indicate(struct beep_session *session, struct chan0_msg *msg);
void channel_stop_confirm(struct beep_session *session, struct chan0_msg *msg);
void handle_close_err(struct beep_session *session, struct chan0_msg *msg);
/* One attempt to close all channels for a session <close>. Non-zero when done. */
int session_stop_indicate(struct beep_session *session, struct chan0_msg *msg);

/* Answers msg with an ERR of the given code; text may be null. */
void chan0_refuse(struct beep_session *session, const struct chan0_msg *msg, int32_t code, const char *text);

}   // extern "C"
